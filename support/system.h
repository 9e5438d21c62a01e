// Thin wrappers over a few system calls.
#pragma once

#include <cstddef>

#include "support/errors.h"

// sched_yield: SUCCESS, or SYSTEM when it fails.
zel_error_t zel_yield();
// Sleeps `ms` milliseconds (usleep, in steps of at most one second so that the
// microsecond count never overflows); always SUCCESS.
zel_error_t zel_sleep_ms(unsigned ms);

// The three text getters write into `buf` (`size` bytes). INVALIDPARAMETER when
// `buf` is null or the text and its terminator do not fit; the text is then
// cut to size - 1 characters (nothing is written for size 0).
// The text "Linux".
zel_error_t zel_os_name(char* buf, std::size_t size);
// The system name from uname; FAULT when uname fails (`buf` untouched).
zel_error_t zel_os_sysname(char* buf, std::size_t size);
// The release text from uname; FAULT when uname fails (`buf` untouched).
zel_error_t zel_os_release(char* buf, std::size_t size);
