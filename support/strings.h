// Bounded string copies, case-insensitive comparison, the version-text parser
// and the validating copy of short names into fixed fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cwchar>

#include "support/errors.h"

// Copies at most size - 1 characters of `src` and a terminator into `dst` and
// returns strlen(src): a result >= size means the copy was cut. With size 0
// nothing is written. A null `src` counts as the empty text; a null `dst`
// receives nothing (the length of `src` is still returned).
std::size_t zel_strlcpy(char* dst, const char* src, std::size_t size);
// Appends `src` to the text in `dst` (a buffer of `size` bytes). When `dst`
// holds no terminator within `size`, nothing is appended and `size` is
// returned; otherwise returns strlen(dst) + zel_strlcpy(dst + n, src, size - n).
std::size_t zel_strlcat(char* dst, const char* src, std::size_t size);
// The same two operations on wide-character strings; sizes count characters.
std::size_t zel_wcslcpy(wchar_t* dst, const wchar_t* src, std::size_t size);
std::size_t zel_wcslcat(wchar_t* dst, const wchar_t* src, std::size_t size);

// True for the same pointer (two nulls included), false when only one is
// null, otherwise equality without regard to (ASCII) case.
bool zel_strcaseeq(const char* a, const char* b);

// A version triple "major.minor.patch" of 8, 8 and 16 bits.
struct zel_version {
    std::uint8_t major;
    std::uint8_t minor;
    std::uint16_t patch;
};

// Reads "%u.%u.%u" from `text`. True and `out` filled when three numbers were
// read, the first two below 256 and the third below 65536. Otherwise false,
// `out` untouched, and one diagnostic line "<file>:<line> - ..." on standard
// output. Text after the third number is ignored. A number with a minus sign,
// or one too large for 32 bits, counts as too large. A null `out` is accepted
// for a pure validity test.
bool zel_version_parse(const char* text, zel_version* out);

// Flags of zel_copy_name.
enum : unsigned {
    ZEL_COPY_NAME_NO_CHECK = 1,          // do not check the characters
    ZEL_COPY_NAME_CLEAR_ON_FAILURE = 2,  // a failure leaves `dst` empty (else untouched)
    ZEL_COPY_NAME_CUT = 4,               // cut a name that is too long instead of failing
    ZEL_COPY_NAME_LONG = 8,              // 40-byte field, characters not checked
};
// Sizes of the two name fields, terminator included.
enum : std::size_t { ZEL_NAME_SIZE = 32, ZEL_LONG_NAME_SIZE = 40 };

// Copies a name into a field of ZEL_NAME_SIZE bytes (ZEL_LONG_NAME_SIZE with
// ZEL_COPY_NAME_LONG). Null `dst`: INVALIDPARAMETER. Null or empty `src`: `dst`
// becomes empty, SUCCESS. Unless NO_CHECK or LONG is set, '.', '=' or '@' in
// the name fails with INVALIDDATA. A name that does not fit fails with
// TRUNCATED; with CUT its first 31 (39) characters and a terminator are stored
// and the result is still TRUNCATED (CLEAR_ON_FAILURE does not erase that cut
// name: it was stored on purpose).
zel_error_t zel_copy_name(char* dst, const char* src, unsigned flags);
