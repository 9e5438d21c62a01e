// Host and device names.
#pragma once

#include <cstddef>

#include "support/errors.h"

// Name used when the host name does not make a valid device name.
#define ZEL_DEFAULT_DEVICE_NAME "TorviDevice"

// The system host name into `name` (`len` bytes), always terminated. SUCCESS
// when it fits; TRUNCATED when it filled the buffer without a terminator, or
// when the system reported a name too long but delivered part of it; otherwise
// the code of the system error. INVALIDPARAMETER for a null `name` or `len` 0.
zel_error_t zel_hostname(char* name, std::size_t len);

// Reads the host name (at most 255 characters). If `buf` is given and `*len`
// is not 0, copies it there with zel_strlcpy (cut to fit). Sets `*len` to the
// host name's length + 1, the size needed. A null `len` just returns SUCCESS.
// A failing system call gives its code and leaves `buf` and `*len` untouched.
zel_error_t zel_hostname_query(char* buf, std::size_t* len);

// INVALIDPARAMETER when `buf` or `len` is null or `*len` is 0; otherwise writes
// "TorviDevice" cut to *len - 1 characters and sets `*len` to the length
// written + 1.
zel_error_t zel_default_device_name(char* buf, std::size_t* len);

// Reads the host name into `buf`, cut to the caller's `*len` bytes, and cuts
// it at its first unescaped dot. When what remains is a valid device name:
// SUCCESS with that short name in `buf` and `*len` = the whole host name's
// length + 1 (so `*len` above the caller's size tells of a cut). Otherwise the
// result of zel_default_device_name with the caller's size. INVALIDPARAMETER
// when `buf` or `len` is null or `*len` is 0.
zel_error_t zel_device_name(char* buf, std::size_t* len);

// Non-null, 1 to 31 characters of letters, digits and '-', the first and the
// last a letter or digit.
bool zel_is_valid_device_name(const char* text);

// Finds the first '.' not escaped by a backslash (a backslash escapes the one
// character after it; a backslash at the very end escapes nothing). If there
// is one, it becomes a terminator and `*rest` points after it; otherwise
// `*rest` is null. `rest` may be null. Returns `text` (null for a null text,
// with `*rest` null).
char* zel_split_at_dot(char* text, char** rest);
