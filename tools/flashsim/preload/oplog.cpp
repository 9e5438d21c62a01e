#include "tools/flashsim/preload/oplog.h"

#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/sim.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace flashsim {
namespace {

struct ErrnoName {
    int value;
    const char* name;
};

constexpr ErrnoName kErrnoNames[] = {
    {EPERM, "EPERM"},   {ENOENT, "ENOENT"}, {EIO, "EIO"},       {EBADF, "EBADF"},
    {EACCES, "EACCES"}, {EFAULT, "EFAULT"}, {EEXIST, "EEXIST"}, {ENODEV, "ENODEV"},
    {ENOTDIR, "ENOTDIR"}, {EISDIR, "EISDIR"}, {EINVAL, "EINVAL"}, {EMFILE, "EMFILE"},
    {ENOSPC, "ENOSPC"}, {ENOTTY, "ENOTTY"}, {EROFS, "EROFS"},   {ENOSYS, "ENOSYS"},
    {EOPNOTSUPP, "EOPNOTSUPP"}, {ENAMETOOLONG, "ENAMETOOLONG"}, {ENXIO, "ENXIO"},
    {EAGAIN, "EAGAIN"}, {EINTR, "EINTR"}, {ENOMEM, "ENOMEM"},
    {kErrnoEnotsupp, "ENOTSUPP"},  // the kernel's internal code, seen when a driver leaks it
};

// Formats v in decimal into the end of buf (at least 21 bytes); returns the start.
char* decimal(uint64_t v, char* end) {
    *--end = '\0';
    do {
        *--end = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    return end;
}

}  // namespace

const char* errnoName(int error) {
    for (const ErrnoName& e : kErrnoNames) {
        if (e.value == error) return e.name;
    }
    static char other[24];
    char digits[24];
    const char* d = decimal(static_cast<uint64_t>(error < 0 ? -error : error), digits + sizeof digits);
    other[0] = 'E';
    std::strncpy(other + 1, d, sizeof other - 2);
    other[sizeof other - 1] = '\0';
    return other;
}

LogLine::LogLine(const char* op, const char* target) {
    put(op);
    putChar(' ');
    put(target);
}

void LogLine::putChar(char c) {
    // Leaves room for the line end.
    if (length_ + 1 < sizeof buffer_) buffer_[length_++] = c;
}

void LogLine::put(const char* s) {
    for (; *s != '\0'; ++s) {
        const unsigned char c = static_cast<unsigned char>(*s);
        // A target name comes from the program (an interface name): keep the
        // line one line of printable tokens.
        putChar(c > 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
    }
}

LogLine& LogLine::text(const char* key, const char* value) {
    putChar(' ');
    put(key);
    putChar('=');
    put(value);
    return *this;
}

LogLine& LogLine::number(const char* key, uint64_t value) {
    char digits[24];
    return text(key, decimal(value, digits + sizeof digits));
}

LogLine& LogLine::escaped(const char* key, const char* data, size_t length) {
    putChar(' ');
    put(key);
    putChar('=');
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\n' || c == '\\') {
            putChar('\\');
            putChar(c == '\n' ? 'n' : '\\');
        } else {
            putChar(c > 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
        }
    }
    return *this;
}

LogLine& LogLine::hex(const char* key, uint32_t value, int digits) {
    char out[16] = {'0', 'x'};
    for (int i = 0; i < digits && i < 8; ++i) {
        const unsigned nibble = (value >> (4 * (digits - 1 - i))) & 0xFu;
        out[2 + i] = "0123456789abcdef"[nibble];
    }
    out[2 + (digits < 8 ? digits : 8)] = '\0';
    return text(key, out);
}

LogLine& LogLine::result(long long r, int error) {
    if (r < 0) {
        text("result", "-1");
        return text("errno", errnoName(error));
    }
    return number("result", static_cast<uint64_t>(r));
}

void LogLine::emit() {
    Sim* s = sim();
    if (s == nullptr) return;
    ErrnoKeeper keep;
    buffer_[length_++] = '\n';
    char path[PATH_MAX];
    std::memcpy(path, s->dir, s->dirLength);
    path[s->dirLength] = '/';
    std::strcpy(path + s->dirLength + 1, kLogFile);
    const int fd = real().openat(AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    real().write(fd, buffer_, length_);
    real().close(fd);
}

}  // namespace flashsim
