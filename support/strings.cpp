#include "support/strings.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

// One implementation for char and wchar_t; `length` is strlen or wcslen.
template <typename Char>
std::size_t text_length(const Char* s) {
    std::size_t n = 0;
    if (s != nullptr) {
        while (s[n] != 0) ++n;
    }
    return n;
}

template <typename Char>
std::size_t bounded_copy(Char* dst, const Char* src, std::size_t size) {
    const std::size_t len = text_length(src);
    if (dst != nullptr && size > 0) {
        const std::size_t n = len < size ? len : size - 1;
        if (n > 0) std::memcpy(dst, src, n * sizeof(Char));
        dst[n] = 0;
    }
    return len;
}

template <typename Char>
std::size_t bounded_append(Char* dst, const Char* src, std::size_t size) {
    if (dst == nullptr) return size;
    std::size_t n = 0;
    while (n < size && dst[n] != 0) ++n;
    if (n == size) return size;
    return n + bounded_copy(dst + n, src, size - n);
}

// Diagnostics name the source file, not the path the build happened to use.
const char* file_name(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// One "%u" conversion the way sscanf performs it: leading white space, an
// optional sign, then decimal digits. Values that %u would wrap (negative, or
// wider than 32 bits) are flagged instead of wrapped, so they can never slip
// through the range test as small numbers.
bool scan_unsigned(const char*& p, std::uint32_t* value, bool* too_large) {
    while (std::isspace(static_cast<unsigned char>(*p))) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    std::uint64_t v = 0;
    bool overflow = false;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        v = v * 10 + static_cast<std::uint64_t>(*p - '0');
        if (v > 0xFFFFFFFFu) {
            overflow = true;
            v = 0xFFFFFFFFu;
        }
    }
    *too_large = overflow || (negative && v != 0);
    *value = static_cast<std::uint32_t>(v);
    return true;
}

// Characters that carry meaning in the "name=value@host.domain" texts these
// names are later embedded in.
bool has_reserved_character(const char* s) { return std::strpbrk(s, ".=@") != nullptr; }

}  // namespace

std::size_t zel_strlcpy(char* dst, const char* src, std::size_t size) {
    return bounded_copy(dst, src, size);
}

std::size_t zel_strlcat(char* dst, const char* src, std::size_t size) {
    return bounded_append(dst, src, size);
}

std::size_t zel_wcslcpy(wchar_t* dst, const wchar_t* src, std::size_t size) {
    return bounded_copy(dst, src, size);
}

std::size_t zel_wcslcat(wchar_t* dst, const wchar_t* src, std::size_t size) {
    return bounded_append(dst, src, size);
}

bool zel_strcaseeq(const char* a, const char* b) {
    if (a == b) return true;
    if (a == nullptr || b == nullptr) return false;
    for (;; ++a, ++b) {
        const int ca = std::tolower(static_cast<unsigned char>(*a));
        const int cb = std::tolower(static_cast<unsigned char>(*b));
        if (ca != cb) return false;
        if (ca == 0) return true;
    }
}

bool zel_version_parse(const char* text, zel_version* out) {
    if (text == nullptr) {
        std::printf("%s:%i - No buffer.\n", file_name(__FILE__), __LINE__);
        return false;
    }
    std::uint32_t v[3] = {0, 0, 0};
    bool too_large[3] = {false, false, false};
    const char* p = text;
    int read = 0;
    while (read < 3) {
        if (read > 0) {
            if (*p != '.') break;
            ++p;
        }
        if (!scan_unsigned(p, &v[read], &too_large[read])) break;
        ++read;
    }
    if (read < 3) {
        std::printf("%s:%i - sscanf(%s) failed.\n", file_name(__FILE__), __LINE__, text);
        return false;
    }
    if (too_large[0] || too_large[1] || too_large[2] || v[0] > 255 || v[1] > 255 || v[2] > 65535) {
        std::printf("%s:%i - not 8-8-16 bits.\n", file_name(__FILE__), __LINE__);
        return false;
    }
    if (out != nullptr) {
        out->major = static_cast<std::uint8_t>(v[0]);
        out->minor = static_cast<std::uint8_t>(v[1]);
        out->patch = static_cast<std::uint16_t>(v[2]);
    }
    return true;
}

zel_error_t zel_copy_name(char* dst, const char* src, unsigned flags) {
    if (dst == nullptr) return ZEL_INVALIDPARAMETER;
    if (src == nullptr || src[0] == 0) {
        dst[0] = 0;
        return ZEL_SUCCESS;
    }
    const bool long_field = (flags & ZEL_COPY_NAME_LONG) != 0;
    const std::size_t field = long_field ? ZEL_LONG_NAME_SIZE : ZEL_NAME_SIZE;
    const bool check = (flags & (ZEL_COPY_NAME_NO_CHECK | ZEL_COPY_NAME_LONG)) == 0;

    zel_error_t result = ZEL_SUCCESS;
    if (check && has_reserved_character(src)) {
        result = ZEL_INVALIDDATA;
    } else if (std::strlen(src) >= field) {
        if ((flags & ZEL_COPY_NAME_CUT) != 0) {
            zel_strlcpy(dst, src, field);
            return ZEL_TRUNCATED;
        }
        result = ZEL_TRUNCATED;
    } else {
        zel_strlcpy(dst, src, field);
        return ZEL_SUCCESS;
    }
    if ((flags & ZEL_COPY_NAME_CLEAR_ON_FAILURE) != 0) dst[0] = 0;
    return result;
}
