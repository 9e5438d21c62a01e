// Time values: whole seconds and microseconds, their arithmetic and ordering,
// the monotonic clock (timers, timeouts) and the wall clock (log stamps).
#pragma once

#include <cstdint>

#include "support/errors.h"

struct zel_utime {
    std::int32_t sec;
    std::int32_t usec;  // 0 to 999999 in a normalised value
};

// {0, 0}: no period for a timer, no waiting for a timeout.
extern const zel_utime ZEL_UTIME_ZERO;

// Size of the buffer zel_utime_ctime writes (line end and terminator included).
enum : unsigned { ZEL_UTIME_CTIME_SIZE = 26 };

// Carries whole seconds out of `usec` until it is at most 999999. Negative
// microseconds are left as they are. Seconds wrap around like the counter they
// model. INVALIDPARAMETER for null, else SUCCESS.
zel_error_t zel_utime_normalise(zel_utime* t);
// *t += *d field by field, then normalised. INVALIDPARAMETER for a null
// pointer, else SUCCESS.
zel_error_t zel_utime_add(zel_utime* t, const zel_utime* d);
// *t -= *d with a borrow from the seconds while t.usec < d.usec. Meant for a
// `t` that is not before `d`. INVALIDPARAMETER for a null pointer, else SUCCESS.
zel_error_t zel_utime_sub(zel_utime* t, const zel_utime* d);
// True when `a` is before `b`: the seconds are compared through their signed
// 32-bit difference (so the order survives a wrap of the counter), the
// microseconds only when the seconds are equal. False when either is null.
bool zel_utime_before(const zel_utime* a, const zel_utime* b);

// CLOCK_MONOTONIC (microseconds truncated). On failure the code of errno, and
// `out` untouched. INVALIDPARAMETER for null.
zel_error_t zel_utime_now(zel_utime* out);
// gettimeofday. Failure as above.
zel_error_t zel_utime_wallclock(zel_utime* out);
// INVALIDPARAMETER for null or a negative field. Sleeps `sec` seconds, then
// `usec` microseconds; INTERRUPTED when a signal cuts the seconds short (the
// microseconds are then skipped), the code of errno when usleep fails.
zel_error_t zel_utime_sleep(const zel_utime* t);
// The ctime_r text of t->sec into `buf` (ZEL_UTIME_CTIME_SIZE bytes), e.g.
// "Thu Jan  1 00:00:00 1970\n". With `t` null, of the current wall-clock
// second (read at full width, so past 2038 too), or of second 0 when the
// clock cannot be read. Returns what ctime_r returns (null on failure, or for
// a null `buf`).
char* zel_utime_ctime(const zel_utime* t, char* buf);
