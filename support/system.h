// Thin wrappers over a few system calls.
#pragma once

#include <cstddef>
#include <cstdint>

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

// Reads `length` bytes at `position` of `fd` into `data`, however the kernel
// splits them: a read a signal interrupts is repeated, and no request asks for
// more than 1 GiB, so the count a 32-bit process gets back always fits its
// ssize_t. SUCCESS with `*done` the count read, below `length` only when the
// file ends first (whether that is an error is the caller's to decide);
// SYSTEM when a read fails (cause in errno); INVALIDPARAMETER for a null
// `done`, a null `data` with a non-zero `length`, or a range beyond the
// largest file offset. `*done` is set only on SUCCESS.
zel_error_t zel_read_at(int fd, std::uint64_t position, void* data, std::size_t length, std::size_t* done);
