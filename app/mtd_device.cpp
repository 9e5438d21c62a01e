#include "app/mtd_device.h"

#include "support/system.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace mtd {

namespace {
// The kernel's internal "operation not supported" (ENOTSUPP), which some MTD
// drivers return unconverted; it has no name in user space.
constexpr int kErrnoEnotsupp = 524;

// The code for a failed request; never 0, even if the driver left errno clear.
zel_error_t failureCode() {
    zel_error_t code = zel_error_from_errno(errno);
    return code == ZEL_SUCCESS ? ZEL_SYSTEM : code;
}
}  // namespace

UniqueFd openDevice(const std::string& path) {
    return UniqueFd(::open(path.c_str(), O_RDWR));
}

zel_error_t getInfo(int fd, mtd_info_user* info) {
    mtd_info_user filled{};
    if (::ioctl(fd, BRIVLO_MEMGETINFO, &filled) < 0) {
        return failureCode();
    }
    *info = filled;
    return ZEL_SUCCESS;
}

zel_error_t erase(int fd, uint32_t start, uint32_t length) {
    erase_info_user request{};
    request.start = start;
    request.length = length;
    if (::ioctl(fd, BRIVLO_MEMERASE, &request) < 0) {
        return failureCode();
    }
    return ZEL_SUCCESS;
}

LockAnswer lockAnswer(int rc) {
    if (rc == 0) {
        return LockAnswer::kDone;
    }
    // A positive answer is a refusal too, with no errno to explain it.
    if (rc > 0) {
        return LockAnswer::kFailed;
    }
    switch (errno) {
    case ENOTTY:
        return LockAnswer::kUnknownRequest;
    case EOPNOTSUPP:
    case kErrnoEnotsupp:
        return LockAnswer::kNoLocking;
    default:
        return LockAnswer::kFailed;
    }
}

LockAnswer lockControl(int fd, bool lock, uint32_t length) {
    mtd_lock_ctl request{};
    request.lock = lock ? 1 : 0;
    request.start = 0;
    request.length = length;
    return lockAnswer(::ioctl(fd, BRIVLO_MEMLOCKCTL, &request));
}

LockAnswer lockRange(int fd, bool lock, uint32_t length) {
    erase_info_user request{};
    request.start = 0;
    request.length = length;
    return lockAnswer(::ioctl(fd, lock ? BRIVLO_MEMLOCK : BRIVLO_MEMUNLOCK, &request));
}

long write(int fd, const uint8_t* data, uint32_t count) {
    return static_cast<long>(::write(fd, data, count));
}

namespace {
int failureErrno() { return errno != 0 ? errno : EIO; }
}  // namespace

int eraseErrno(int fd, uint32_t start, uint32_t length) {
    erase_info_user request{};
    request.start = start;
    request.length = length;
    return ::ioctl(fd, BRIVLO_MEMERASE, &request) < 0 ? failureErrno() : 0;
}

int writeErrno(int fd, const uint8_t* data, uint32_t count) {
    errno = 0;
    const ssize_t written = ::write(fd, data, count);
    if (written < 0) {
        return failureErrno();
    }
    return written == static_cast<ssize_t>(count) ? 0 : -1;
}

int seek(int fd, uint64_t offset) {
    return ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0 ? failureErrno() : 0;
}

int readAt(int fd, uint64_t offset, uint8_t* data, uint32_t count) {
    std::size_t done = 0;
    if (zel_read_at(fd, offset, data, count, &done) != ZEL_SUCCESS) {
        return failureErrno();
    }
    return done == count ? 0 : EIO;
}

int isBadBlock(int fd, uint64_t offset, int* bad) {
    int64_t at = static_cast<int64_t>(offset);  // the kernel's 64-bit loff_t
    const int rc = ::ioctl(fd, BRIVLO_MEMGETBADBLOCK, &at);
    if (rc < 0) {
        return failureErrno();
    }
    *bad = rc > 0 ? 1 : 0;
    return 0;
}

int markBadBlock(int fd, uint64_t offset) {
    int64_t at = static_cast<int64_t>(offset);  // the kernel's 64-bit loff_t
    return ::ioctl(fd, BRIVLO_MEMSETBADBLOCK, &at) < 0 ? failureErrno() : 0;
}

int eccStats(int fd, mtd_ecc_stats* stats) {
    mtd_ecc_stats filled{};
    if (::ioctl(fd, BRIVLO_ECCGETSTATS, &filled) < 0) {
        return failureErrno();
    }
    *stats = filled;
    return 0;
}

}  // namespace mtd
