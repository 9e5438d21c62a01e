#include "net/time.h"

#include <cerrno>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

const zel_utime ZEL_UTIME_ZERO = {0, 0};

namespace {

constexpr std::int32_t kUsecPerSec = 1000000;

// Seconds are a counter that wraps; unsigned arithmetic gives the wrap without
// signed overflow.
std::int32_t wrap_add(std::int32_t a, std::int64_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

}  // namespace

zel_error_t zel_utime_normalise(zel_utime* t) {
    if (t == nullptr) return ZEL_INVALIDPARAMETER;
    if (t->usec > kUsecPerSec - 1) {
        t->sec = wrap_add(t->sec, t->usec / kUsecPerSec);
        t->usec %= kUsecPerSec;
    }
    return ZEL_SUCCESS;
}

zel_error_t zel_utime_add(zel_utime* t, const zel_utime* d) {
    if (t == nullptr || d == nullptr) return ZEL_INVALIDPARAMETER;
    // Both microsecond fields may be up to 2^31 - 1 in a value that was never
    // normalised; their sum is formed in 64 bits and carried before it narrows.
    std::int64_t usec = static_cast<std::int64_t>(t->usec) + d->usec;
    std::int32_t sec = wrap_add(t->sec, d->sec);
    if (usec > kUsecPerSec - 1) {
        sec = wrap_add(sec, usec / kUsecPerSec);
        usec %= kUsecPerSec;
    }
    t->sec = sec;
    t->usec = static_cast<std::int32_t>(usec);
    return ZEL_SUCCESS;
}

zel_error_t zel_utime_sub(zel_utime* t, const zel_utime* d) {
    if (t == nullptr || d == nullptr) return ZEL_INVALIDPARAMETER;
    std::int64_t usec = t->usec;
    std::int32_t sec = t->sec;
    if (usec < d->usec) {
        const std::int64_t borrow = (d->usec - usec + kUsecPerSec - 1) / kUsecPerSec;
        usec += borrow * kUsecPerSec;
        sec = wrap_add(sec, -borrow);
    }
    t->sec = wrap_add(sec, -static_cast<std::int64_t>(d->sec));
    t->usec = static_cast<std::int32_t>(usec - d->usec);
    return ZEL_SUCCESS;
}

bool zel_utime_before(const zel_utime* a, const zel_utime* b) {
    if (a == nullptr || b == nullptr) return false;
    if (a->sec != b->sec) return wrap_add(a->sec, -static_cast<std::int64_t>(b->sec)) < 0;
    return static_cast<std::int64_t>(a->usec) - b->usec < 0;
}

zel_error_t zel_utime_now(zel_utime* out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    struct timespec ts;
    if (clock_gettime(CLOCK_MONOTONIC, &ts) != 0) return zel_error_from_errno(errno);
    out->sec = static_cast<std::int32_t>(static_cast<std::uint32_t>(ts.tv_sec));
    out->usec = static_cast<std::int32_t>(ts.tv_nsec / 1000);
    return ZEL_SUCCESS;
}

zel_error_t zel_utime_wallclock(zel_utime* out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) return zel_error_from_errno(errno);
    out->sec = static_cast<std::int32_t>(static_cast<std::uint32_t>(tv.tv_sec));
    out->usec = static_cast<std::int32_t>(tv.tv_usec);
    return ZEL_SUCCESS;
}

zel_error_t zel_utime_sleep(const zel_utime* t) {
    if (t == nullptr || t->sec < 0 || t->usec < 0) return ZEL_INVALIDPARAMETER;
    if (t->sec > 0 && sleep(static_cast<unsigned>(t->sec)) != 0) return ZEL_INTERRUPTED;
    if (t->usec >= 1 && usleep(static_cast<useconds_t>(t->usec)) != 0) return zel_error_from_errno(errno);
    return ZEL_SUCCESS;
}

char* zel_utime_ctime(const zel_utime* t, char* buf) {
    if (buf == nullptr) return nullptr;
    time_t seconds = 0;
    if (t != nullptr) {
        seconds = static_cast<time_t>(t->sec);
    } else {
        struct timeval tv;
        if (gettimeofday(&tv, nullptr) == 0) seconds = tv.tv_sec;
    }
    return ctime_r(&seconds, buf);
}
