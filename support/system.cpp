#include "support/system.h"

#include <cerrno>
#include <limits>
#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "support/strings.h"
#include "support/system_internal.h"

zel_read_system zel_read_system_calls = {pread};

namespace {

zel_error_t put_text(char* buf, std::size_t size, const char* text) {
    if (buf == nullptr) return ZEL_INVALIDPARAMETER;
    return zel_strlcpy(buf, text, size) < size ? ZEL_SUCCESS : ZEL_INVALIDPARAMETER;
}

template <typename Field>
zel_error_t put_uname_field(char* buf, std::size_t size, Field field) {
    if (buf == nullptr) return ZEL_INVALIDPARAMETER;
    struct utsname names;
    if (uname(&names) != 0) return ZEL_FAULT;
    return put_text(buf, size, field(names));
}

}  // namespace

zel_error_t zel_yield() { return sched_yield() == 0 ? ZEL_SUCCESS : ZEL_SYSTEM; }

zel_error_t zel_sleep_ms(unsigned ms) {
    while (ms > 0) {
        const unsigned step = ms < 1000 ? ms : 1000;
        usleep(static_cast<useconds_t>(step) * 1000u);
        ms -= step;
    }
    return ZEL_SUCCESS;
}

zel_error_t zel_os_name(char* buf, std::size_t size) { return put_text(buf, size, "Linux"); }

zel_error_t zel_os_sysname(char* buf, std::size_t size) {
    return put_uname_field(buf, size, [](const utsname& u) { return u.sysname; });
}

zel_error_t zel_os_release(char* buf, std::size_t size) {
    return put_uname_field(buf, size, [](const utsname& u) { return u.release; });
}

zel_error_t zel_read_at(int fd, std::uint64_t position, void* data, std::size_t length, std::size_t* done) {
    constexpr std::size_t kMaxRequest = std::size_t{1} << 30;
    constexpr std::uint64_t kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
    if (done == nullptr || (data == nullptr && length != 0)) return ZEL_INVALIDPARAMETER;
    if (position > kMaxOffset || length > kMaxOffset - position) return ZEL_INVALIDPARAMETER;
    auto* bytes = static_cast<unsigned char*>(data);
    std::size_t count = 0;
    while (count < length) {
        const std::size_t want = length - count < kMaxRequest ? length - count : kMaxRequest;
        const ssize_t got =
            zel_read_system_calls.pread(fd, bytes + count, want, static_cast<off_t>(position + count));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ZEL_SYSTEM;
        if (got == 0) break;
        count += static_cast<std::size_t>(got);
    }
    *done = count;
    return ZEL_SUCCESS;
}
