#include "app/release_signature.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include "app/flash_upgrader.h"
#include "qim/signature_verify.h"

namespace release_signature {

namespace {

// Why a key or signature file could not be used, from its loader's code;
// errno is read at once, before anything can change it.
std::string loadFailure(zel_error_t rc) {
    switch (rc) {
    case ZEL_NOTFOUND:
        return "file not found";
    case ZEL_DATATOOLONG:
        return "file too large (more than " + std::to_string(QIM_SIGNATURE_TEXT_MAX) + " bytes)";
    case ZEL_INVALIDDATA:
        return "malformed";
    default:
        return std::string("cannot be read: ") + std::strerror(errno);
    }
}

}  // namespace

void printRefusal(const std::string& fileName, const std::string& reason) {
    std::cerr << "Signature check failed for " << fileName << ": " << reason << std::endl;
}

int loadKey(const std::string& keyPath, qim_signature_key* key) {
    const zel_error_t rc = qim_signature_key_load(keyPath.c_str(), key);
    if (rc != ZEL_SUCCESS) {
        std::cerr << "Release key " << keyPath << " cannot be used: " << loadFailure(rc) << std::endl;
        return ::exit_status::kSignatureRefused;
    }
    return 0;
}

int loadLocalSignature(const std::string& fileName, qim_signature* signature) {
    const std::string path = fileName + kSignatureExtension;
    const zel_error_t rc = qim_signature_load(path.c_str(), signature);
    if (rc != ZEL_SUCCESS) {
        printRefusal(fileName, "signature " + path + " " + loadFailure(rc));
        return ::exit_status::kSignatureRefused;
    }
    return 0;
}

int parseFetchedSignature(const std::string& remoteName, const std::string& text,
                          qim_signature* signature) {
    if (qim_signature_parse(text.data(), text.size(), signature) != ZEL_SUCCESS) {
        printRefusal(remoteName, "signature " + remoteName + kSignatureExtension + " malformed");
        return ::exit_status::kSignatureRefused;
    }
    return 0;
}

}  // namespace release_signature

namespace {

// The refusal for a verdict of the check; the key numbers tell an operator
// which key the file was signed with.
int refuse(const release_signature::Release& release, zel_error_t rc, qim_signature_verdict verdict) {
    std::string reason;
    if (rc != ZEL_POLICY) {
        reason = "cannot check the signature: " + std::string(zel_error_message(rc));
    } else if (verdict == QIM_SIGNATURE_OTHER_KEY) {
        char signer[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
        char trusted[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
        reason = std::string(qim_signature_verdict_text(verdict)) + " (key number " +
                 qim_signature_key_id_to_hex(release.signature.key_id, signer) + ", release key " +
                 qim_signature_key_id_to_hex(release.key.key_id, trusted) + ")";
    } else if (verdict == QIM_SIGNATURE_UNREADABLE) {
        reason = std::string(qim_signature_verdict_text(verdict)) + ": " + std::strerror(errno);
    } else {
        reason = qim_signature_verdict_text(verdict);
    }
    release_signature::printRefusal(release.fileName, reason);
    return ::exit_status::kSignatureRefused;
}

}  // namespace

void FlashUpgrader::setRelease(const release_signature::Release* release) {
    releaseSignature = release;
}

int FlashUpgrader::verifyRelease(const uint8_t* data, std::size_t size) {
    if (releaseSignature == nullptr) return ZEL_SUCCESS;
    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    const zel_error_t rc = qim_signature_verify_buffer(&releaseSignature->key, &releaseSignature->signature,
                                                       data, size, &verdict);
    return rc == ZEL_SUCCESS ? 0 : refuse(*releaseSignature, rc, verdict);
}

int FlashUpgrader::verifyRelease(int fd) {
    if (releaseSignature == nullptr) return ZEL_SUCCESS;
    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    const zel_error_t rc = qim_signature_verify_fd(&releaseSignature->key, &releaseSignature->signature,
                                                   fd, &verdict);
    return rc == ZEL_SUCCESS ? 0 : refuse(*releaseSignature, rc, verdict);
}
