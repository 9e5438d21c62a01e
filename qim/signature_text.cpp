#include "qim/signature_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/unique_handles.h"

zel_error_t qim_signature_split_lines(const char* text, std::size_t length, qim_signature_lines* out) {
    if (text == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    if (std::memchr(text, '\0', length) != nullptr) return ZEL_INVALIDDATA;
    qim_signature_lines lines{};
    std::size_t start = 0;
    while (start < length) {
        const void* newline = std::memchr(text + start, '\n', length - start);
        const std::size_t end =
            newline != nullptr ? static_cast<std::size_t>(static_cast<const char*>(newline) - text) : length;
        std::size_t lineLength = end - start;
        if (lineLength > 0 && text[start + lineLength - 1] == '\r') --lineLength;
        if (lineLength == 0 || lines.count == 4) return ZEL_INVALIDDATA;
        lines.line[lines.count] = text + start;
        lines.length[lines.count] = lineLength;
        ++lines.count;
        start = end + 1;
    }
    *out = lines;
    return ZEL_SUCCESS;
}

bool qim_signature_line_has_prefix(const char* line, std::size_t length, const char* prefix) {
    const std::size_t prefixLength = std::strlen(prefix);
    return line != nullptr && length >= prefixLength && std::memcmp(line, prefix, prefixLength) == 0;
}

zel_error_t qim_signature_decode_base64(const char* line, std::size_t length, uint8_t* out,
                                        std::size_t size) {
    if (line == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    // The encoded length is fixed by the decoded size: rejecting any other
    // length first keeps the decoder from reading past what we expect.
    if (length != (size + 2) / 3 * 4) return ZEL_INVALIDDATA;
    std::size_t decoded = 0;
    const char* end = nullptr;
    if (sodium_base642bin(out, size, line, length, nullptr, &decoded, &end,
                          sodium_base64_VARIANT_ORIGINAL) != 0 ||
        end != line + length || decoded != size) {
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}

zel_error_t qim_signature_read_small_file(const char* path, char* buf, std::size_t size,
                                          std::size_t* length) {
    if (path == nullptr || buf == nullptr || length == nullptr) return ZEL_INVALIDPARAMETER;
    const zel::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.get() < 0) return errno == ENOENT ? ZEL_NOTFOUND : ZEL_SYSTEM;
    return qim_signature_read_small_fd(file.get(), buf, size, length);
}

zel_error_t qim_signature_read_small_fd(int fd, char* buf, std::size_t size, std::size_t* length) {
    if (buf == nullptr || length == nullptr) return ZEL_INVALIDPARAMETER;
    struct stat st;
    if (fstat(fd, &st) != 0) return ZEL_SYSTEM;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return ZEL_SYSTEM;
    }
    std::size_t done = 0;
    for (;;) {
        char extra = 0;
        // One byte past `size` tells a file that fits from one that does not.
        char* into = done < size ? buf + done : &extra;
        const std::size_t want = done < size ? size - done : 1;
        const ssize_t got = ::read(fd, into, want);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ZEL_SYSTEM;
        if (got == 0) break;
        if (done == size) return ZEL_DATATOOLONG;
        done += static_cast<std::size_t>(got);
    }
    *length = done;
    return ZEL_SUCCESS;
}

char* qim_signature_load_failure_text(zel_error_t rc, int error, char out[QIM_SIGNATURE_REASON_SIZE]) {
    switch (rc) {
    case ZEL_NOTFOUND:
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "file not found");
        break;
    case ZEL_DATATOOLONG:
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "file too large (more than %zu bytes)",
                      static_cast<std::size_t>(QIM_SIGNATURE_TEXT_MAX));
        break;
    case ZEL_INVALIDDATA:
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "malformed");
        break;
    default:
        std::snprintf(out, QIM_SIGNATURE_REASON_SIZE, "cannot be read: %s", std::strerror(error));
        break;
    }
    return out;
}
