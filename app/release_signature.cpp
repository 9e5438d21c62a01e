#include "app/release_signature.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include <fcntl.h>

#include "app/flash_upgrader.h"
#include "qim/signature_verify.h"
#include "support/tmp_file.h"
#include "support/unique_handles.h"

namespace release_signature {

namespace {

// Why a key or signature file could not be used, from its loader's code;
// errno is read at once, before anything can change it.
std::string loadFailure(zel_error_t rc) {
    char text[QIM_SIGNATURE_REASON_SIZE];
    return qim_signature_load_failure_text(rc, errno, text);
}

// Reads the key file through one descriptor that was found to be a file
// nobody else can write. 0, or the refusal's text in *why.
zel_error_t readGuardedKey(const std::string& keyPath, qim_signature_key* key, std::string* why) {
    const zel::UniqueFd file(::open(keyPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        *why = loadFailure(errno == ENOENT ? ZEL_NOTFOUND : ZEL_SYSTEM);
        return ZEL_SYSTEM;
    }
    char guard[ZEL_FILE_GUARD_TEXT_SIZE];
    zel_error_t rc = zel_file_check_guarded(file.get(), guard);
    if (rc == ZEL_POLICY) {
        *why = std::string(guard) + ": only a key file nobody else can write is trusted";
        return rc;
    }
    char text[QIM_SIGNATURE_TEXT_MAX];
    std::size_t length = 0;
    if (rc == ZEL_SUCCESS) rc = qim_signature_read_small_fd(file.get(), text, sizeof text, &length);
    if (rc == ZEL_SUCCESS) rc = qim_signature_key_parse(text, length, key);
    if (rc != ZEL_SUCCESS) *why = loadFailure(rc);
    return rc;
}

}  // namespace

void printRefusal(const std::string& fileName, const std::string& reason) {
    std::cerr << "Signature check failed for " << fileName << ": " << reason << std::endl;
}

int loadKey(const std::string& keyPath, qim_signature_key* key) {
    std::string why;
    if (readGuardedKey(keyPath, key, &why) != ZEL_SUCCESS) {
        std::cerr << "Release key " << keyPath << " cannot be used: " << why << std::endl;
        return ::result_code::kSignatureRefused;
    }
    return 0;
}

int loadLocalSignature(const std::string& fileName, qim_signature* signature) {
    const std::string path = fileName + kSignatureExtension;
    const zel_error_t rc = qim_signature_load(path.c_str(), signature);
    if (rc != ZEL_SUCCESS) {
        printRefusal(fileName, "signature " + path + " " + loadFailure(rc));
        return ::result_code::kSignatureRefused;
    }
    return 0;
}

int parseFetchedSignature(const std::string& remoteName, const std::string& text,
                          qim_signature* signature) {
    if (qim_signature_parse(text.data(), text.size(), signature) != ZEL_SUCCESS) {
        printRefusal(remoteName, "signature " + remoteName + kSignatureExtension + " malformed");
        return ::result_code::kSignatureRefused;
    }
    return 0;
}

}  // namespace release_signature

namespace {

// The refusal for a verdict of the check; the key numbers tell an operator
// which key the file was signed with.
int refuse(const release_signature::Release& release, zel_error_t rc, qim_signature_verdict verdict) {
    char reason[QIM_SIGNATURE_REASON_SIZE];
    release_signature::printRefusal(release.fileName, qim_signature_refusal_text(rc, verdict, &release.key,
                                                                                 &release.signature, errno, reason));
    return ::result_code::kSignatureRefused;
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
