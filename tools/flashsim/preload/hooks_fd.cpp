// Replacements of the functions that act on descriptors: write, pwrite,
// writev, lseek, close, fclose and ioctl. Descriptors of simulated partitions
// go to the flash model, the PHY request to the Ethernet model; everything
// else reaches the C library unchanged.
#include "tools/flashsim/mtd_requests.h"
#include "tools/flashsim/preload/flash_ops.h"
#include "tools/flashsim/preload/phy.h"
#include "tools/flashsim/preload/hooks.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/tmp_ops.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

using namespace flashsim;

namespace {

// The partition behind fd, or null (fast when no partition is open).
const TrackedFd* partitionFd(int fd) { return g_trackedCount == 0 ? nullptr : findFd(fd); }

bool isSocket(int fd) {
    ErrnoKeeper keep;
    struct stat st;
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

ssize_t writeAt(const TrackedFd& t, const void* data, size_t length, int64_t offset) {
    if (offset < 0) {
        errno = EINVAL;
        return -1;
    }
    return writePartition(t, data, length, &offset);
}

// A write to a file in the board's /tmp stores only what fits under its size
// limit; with no room at all it fails with ENOSPC, as on a full tmpfs.
template <typename Call>
ssize_t limitedWrite(int fd, size_t length, long long position, Call call) {
    const size_t room = tmpRoom(fd, length, position);
    if (room == 0 && length != 0) {
        errno = ENOSPC;
        return -1;
    }
    return call(room);
}

}  // namespace

FLASHSIM_EXPORT size_t fwrite(const void* data, size_t size, size_t count, FILE* stream) {
    if (size == 0 || count == 0 || opaque(stream) == nullptr || sim() == nullptr || sim()->board->tmpSize == 0) {
        return real().fwrite(data, size, count, stream);
    }
    // The stream's position counts the bytes still in its buffer.
    const int fd = fileno(stream);
    const long long at = fd >= 0 ? static_cast<long long>(ftello(stream)) : -1;
    const size_t wanted = size * count;
    const size_t room = fd >= 0 && at >= 0 ? tmpRoom(fd, wanted, at) : wanted;
    if (room >= wanted) return real().fwrite(data, size, count, stream);
    const size_t stored = room > 0 ? real().fwrite(data, 1, room, stream) : 0;
    errno = ENOSPC;
    return stored / size;
}

FLASHSIM_EXPORT ssize_t write(int fd, const void* data, size_t length) {
    if (const TrackedFd* t = partitionFd(fd)) return writePartition(*t, data, length, nullptr);
    return limitedWrite(fd, length, -1, [&](size_t n) { return real().write(fd, data, n); });
}

FLASHSIM_EXPORT ssize_t pwrite(int fd, const void* data, size_t length, off_t offset) {
    if (const TrackedFd* t = partitionFd(fd)) return writeAt(*t, data, length, offset);
    return limitedWrite(fd, length, offset, [&](size_t n) { return real().pwrite(fd, data, n, offset); });
}

FLASHSIM_EXPORT ssize_t pwrite64(int fd, const void* data, size_t length, off64_t offset) {
    if (const TrackedFd* t = partitionFd(fd)) return writeAt(*t, data, length, offset);
    return limitedWrite(fd, length, offset, [&](size_t n) { return real().pwrite64(fd, data, n, offset); });
}

// C++ file streams write through writev; each non-empty piece is one write to
// the flash (the streams pass an empty piece for an empty buffer).
FLASHSIM_EXPORT ssize_t writev(int fd, const struct iovec* pieces, int count) {
    const TrackedFd* t = partitionFd(fd);
    if (t == nullptr) return real().writev(fd, pieces, count);
    if (count < 0 || pieces == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ssize_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (pieces[i].iov_len == 0) continue;
        const ssize_t n = writePartition(*t, pieces[i].iov_base, pieces[i].iov_len, nullptr);
        if (n < 0) return total > 0 ? total : -1;
        total += n;
        if (static_cast<size_t>(n) < pieces[i].iov_len) break;
    }
    return total;
}

FLASHSIM_EXPORT off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (const TrackedFd* t = partitionFd(fd)) return static_cast<off_t>(seekPartition(*t, offset, whence));
    return real().lseek(fd, offset, whence);
}

FLASHSIM_EXPORT off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
    if (const TrackedFd* t = partitionFd(fd)) return seekPartition(*t, offset, whence);
    return real().lseek64(fd, offset, whence);
}

FLASHSIM_EXPORT int close(int fd) {
    const TrackedFd* t = partitionFd(fd);
    if (t == nullptr) return real().close(fd);
    const int part = t->part;
    untrackFd(fd);
    const int result = real().close(fd);
    const int error = errno;
    logClose(part, fd, result, error);
    errno = error;
    return result;
}

FLASHSIM_EXPORT int fclose(FILE* stream) {
    const int fd = g_trackedCount != 0 && opaque(stream) != nullptr ? fileno(stream) : -1;
    const TrackedFd* t = fd >= 0 ? partitionFd(fd) : nullptr;
    if (t == nullptr) return real().fclose(stream);
    const int part = t->part;
    untrackFd(fd);
    const int result = real().fclose(stream);
    const int error = errno;
    logClose(part, fd, result, error);
    errno = error;
    return result;
}

namespace {

int simulatedIoctl(int fd, unsigned long request, void* arg, int (*realIoctl)(int, unsigned long, ...)) {
    if (sim() != nullptr) {
        // The kernel looks at the low 32 bits of the request number only.
        const uint32_t number = static_cast<uint32_t>(request);
        if (number == kPhyRequest && isSocket(fd)) return answerPhy(arg);
        if (const TrackedFd* t = partitionFd(fd)) return ioctlPartition(*t, number, arg);
    }
    if (realIoctl == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return realIoctl(fd, request, arg);
}

}  // namespace

FLASHSIM_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return simulatedIoctl(fd, request, arg, real().ioctl);
}

// What a 32-bit program built with _TIME_BITS=64 calls for ioctl.
FLASHSIM_EXPORT int __ioctl_time64(int fd, unsigned long request, ...) noexcept {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    return simulatedIoctl(fd, request, arg, real().ioctl_time64);
}
