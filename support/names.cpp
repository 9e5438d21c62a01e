#include "support/names.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "support/strings.h"

namespace {

// Linux host names are at most 64 characters; 256 leaves room for any system.
constexpr std::size_t kHostNameSize = 256;
constexpr std::size_t kMaxDeviceNameLength = 31;

bool is_alnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

}  // namespace

zel_error_t zel_hostname(char* name, std::size_t len) {
    if (name == nullptr || len == 0) return ZEL_INVALIDPARAMETER;
    if (gethostname(name, len) != 0) {
        const zel_error_t code = zel_error_from_errno(errno);
        // The system may deliver the first len bytes of a longer name.
        if (code == ZEL_DATATOOLONG && std::memchr(name, 0, len) == nullptr) {
            name[len - 1] = 0;
            return ZEL_TRUNCATED;
        }
        if (std::memchr(name, 0, len) == nullptr) name[len - 1] = 0;
        return code;
    }
    if (std::memchr(name, 0, len) == nullptr) {
        name[len - 1] = 0;
        return ZEL_TRUNCATED;
    }
    return ZEL_SUCCESS;
}

zel_error_t zel_hostname_query(char* buf, std::size_t* len) {
    if (len == nullptr) return ZEL_SUCCESS;
    char host[kHostNameSize] = {};
    if (gethostname(host, sizeof host) != 0) return zel_error_from_errno(errno);
    host[kHostNameSize - 1] = 0;
    if (buf != nullptr && *len != 0) zel_strlcpy(buf, host, *len);
    *len = std::strlen(host) + 1;
    return ZEL_SUCCESS;
}

zel_error_t zel_default_device_name(char* buf, std::size_t* len) {
    if (buf == nullptr || len == nullptr || *len == 0) return ZEL_INVALIDPARAMETER;
    const std::size_t full = zel_strlcpy(buf, ZEL_DEFAULT_DEVICE_NAME, *len);
    *len = (full < *len ? full : *len - 1) + 1;
    return ZEL_SUCCESS;
}

zel_error_t zel_device_name(char* buf, std::size_t* len) {
    if (buf == nullptr || len == nullptr || *len == 0) return ZEL_INVALIDPARAMETER;
    const std::size_t caller_size = *len;
    // The host name lands in the caller's buffer, cut to its size; *len then
    // tells the size the whole host name needs, so a caller can see the cut.
    if (zel_hostname_query(buf, len) == ZEL_SUCCESS) {
        zel_split_at_dot(buf, nullptr);
        if (zel_is_valid_device_name(buf)) return ZEL_SUCCESS;
    }
    *len = caller_size;
    return zel_default_device_name(buf, len);
}

bool zel_is_valid_device_name(const char* text) {
    if (text == nullptr) return false;
    const std::size_t n = std::strlen(text);
    if (n == 0 || n > kMaxDeviceNameLength) return false;
    for (std::size_t i = 0; i < n; ++i) {
        if (!is_alnum(text[i]) && text[i] != '-') return false;
    }
    return is_alnum(text[0]) && is_alnum(text[n - 1]);
}

char* zel_split_at_dot(char* text, char** rest) {
    if (rest != nullptr) *rest = nullptr;
    if (text == nullptr) return nullptr;
    for (char* p = text; *p != 0; ++p) {
        if (*p == '\\') {
            if (p[1] == 0) break;
            ++p;
        } else if (*p == '.') {
            *p = 0;
            if (rest != nullptr) *rest = p + 1;
            break;
        }
    }
    return text;
}
