#include "tools/qimtool/signature_check.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "qim/signature_key.h"
#include "qim/signature_verify.h"
#include "tools/qimtool/qimtool.h"

namespace qimtool {

namespace {

constexpr const char* kExtension = QIM_SIGNATURE_EXTENSION;

// Why a key or signature file cannot be used, in brivlo's words; errno read
// at once.
std::string load_failure(zel_error_t rc) {
    char text[QIM_SIGNATURE_REASON_SIZE];
    return qim_signature_load_failure_text(rc, errno, text);
}

std::string key_number(const uint8_t id[QIM_SIGNATURE_KEY_ID_SIZE]) {
    char hex[QIM_SIGNATURE_KEY_ID_HEX_SIZE];
    return qim_signature_key_id_to_hex(id, hex);
}

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

std::string signature_summary(const std::string& file) {
    const std::string path = file + kExtension;
    qim_signature sig;
    const zel_error_t rc = qim_signature_load(path.c_str(), &sig);
    if (rc == ZEL_NOTFOUND) return "Signature: none (no " + path + ")";
    if (rc != ZEL_SUCCESS) return "Signature: " + path + " unusable: " + load_failure(rc);
    return "Signature: " + path + ", " + qim_signature_kind_name(sig.kind) + ", key number " +
           key_number(sig.key_id);
}

void signature_json(const std::string& file, JsonWriter* j) {
    const std::string path = file + kExtension;
    qim_signature sig;
    const zel_error_t rc = qim_signature_load(path.c_str(), &sig);
    if (rc == ZEL_NOTFOUND) {
        j->null();
        return;
    }
    j->begin_object();
    j->key("file").string(path);
    if (rc == ZEL_SUCCESS) {
        j->key("kind").string(qim_signature_kind_name(sig.kind));
        j->key("key_number").string(key_number(sig.key_id));
    } else {
        j->key("error").string(load_failure(rc));
    }
    j->end_object();
}

bool verify_signature(const std::string& file, const std::string& key_path) {
    qim_signature_key key;
    zel_error_t rc = qim_signature_key_load(key_path.c_str(), &key);
    if (rc != ZEL_SUCCESS) {
        failure("verify", "key " + key_path + " " + load_failure(rc));
        return false;
    }
    const std::string path = file + kExtension;
    qim_signature sig;
    rc = qim_signature_load(path.c_str(), &sig);
    if (rc != ZEL_SUCCESS) {
        failure("verify", file + ": signature " + path + " " + load_failure(rc));
        return false;
    }
    Fd in{::open(file.c_str(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) {
        failure("verify", file + ": " + std::strerror(errno));
        return false;
    }
    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    rc = qim_signature_verify_fd(&key, &sig, in.fd, &verdict);
    if (rc != ZEL_SUCCESS) {
        char reason[QIM_SIGNATURE_REASON_SIZE];
        failure("verify", file + ": " + qim_signature_refusal_text(rc, verdict, &key, &sig, errno, reason));
        return false;
    }
    std::printf("%s: signature ok: %s, key number %s\n", file.c_str(), qim_signature_kind_name(sig.kind),
                key_number(sig.key_id).c_str());
    return true;
}

}  // namespace qimtool
