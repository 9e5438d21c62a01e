#include "support/system.h"

#include <sched.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "support/strings.h"

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
