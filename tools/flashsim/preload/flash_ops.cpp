#include "tools/flashsim/preload/flash_ops.h"

#include "tools/flashsim/mtd_requests.h"
#include "tools/flashsim/preload/oplog.h"
#include "tools/flashsim/preload/real.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <csignal>
#include <ctime>
#include <unistd.h>

namespace flashsim {
namespace {

constexpr size_t kChunk = 4096;  // bytes handled per step of a write (stack buffer)

PartRecord& record(int part) { return sim()->board->parts[part]; }

void bump(uint64_t& counter, uint64_t by = 1) { __atomic_add_fetch(&counter, by, __ATOMIC_RELAXED); }

const char* modeName(int accessMode) {
    switch (accessMode) {
        case O_RDONLY: return "rdonly";
        case O_WRONLY: return "wronly";
        default: return "rdwr";
    }
}

const unsigned char* erasedBytes() {
    static unsigned char ff[65536];
    static bool filled = false;
    if (!filled) {
        std::memset(ff, 0xFF, sizeof ff);
        filled = true;
    }
    return ff;
}

// Writes 0xFF over [offset, offset + length) of the backing file.
bool fillErased(int fd, uint64_t offset, uint64_t length) {
    const unsigned char* ff = erasedBytes();
    while (length > 0) {
        const size_t n = length < 65536 ? static_cast<size_t>(length) : 65536;
        if (real().pwrite64(fd, ff, n, static_cast<off64_t>(offset)) != static_cast<ssize_t>(n)) return false;
        offset += n;
        length -= n;
    }
    return true;
}

// A partition's backing file appears on first use, filled with 0xFF (erased
// flash), so that making a board costs almost nothing. It is built under a
// private name and linked into place, so a racing process sees it whole.
bool ensureBacking(int part, const char* path) {
    if (real().access(path, F_OK) == 0) return true;
    char temp[PATH_MAX];
    const size_t length = std::strlen(path);
    if (length + 24 >= PATH_MAX) return false;
    std::memcpy(temp, path, length);
    char* p = temp + length;
    std::memcpy(p, ".new.", 5);
    p += 5;
    // Decimal process id, so two processes never build in the same file.
    char digits[16];
    char* d = digits + sizeof digits;
    *--d = '\0';
    unsigned v = static_cast<unsigned>(getpid());
    do {
        *--d = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    std::strcpy(p, d);

    const int fd = real().openat(AT_FDCWD, temp, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const uint32_t size = record(part).size;
    const bool ok = ftruncate64(fd, size) == 0 && fillErased(fd, 0, size);
    real().close(fd);
    const bool linked = ok && (link(temp, path) == 0 || errno == EEXIST);
    real().unlinkat(AT_FDCWD, temp, 0);
    return linked;
}

// A private read-write descriptor on the backing file for one operation.
class PrivateFd {
public:
    explicit PrivateFd(int part) {
        char path[PATH_MAX];
        backingPath(part, path);
        fd_ = real().openat(AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    }
    ~PrivateFd() {
        if (fd_ >= 0) real().close(fd_);
    }
    PrivateFd(const PrivateFd&) = delete;
    PrivateFd& operator=(const PrivateFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// NOR programming: a bit can only go from 1 to 0, so the cell keeps
// old AND new. Counts the bytes that did not end up as written.
bool program(int fd, uint64_t offset, const unsigned char* data, size_t length, uint64_t& corrupt) {
    unsigned char cells[kChunk];
    while (length > 0) {
        const size_t n = length < kChunk ? length : kChunk;
        if (pread64(fd, cells, n, static_cast<off64_t>(offset)) != static_cast<ssize_t>(n)) return false;
        for (size_t i = 0; i < n; ++i) {
            const unsigned char stored = static_cast<unsigned char>(cells[i] & data[i]);
            if (stored != data[i]) ++corrupt;
            cells[i] = stored;
        }
        if (real().pwrite64(fd, cells, n, static_cast<off64_t>(offset)) != static_cast<ssize_t>(n)) return false;
        offset += n;
        data += n;
        length -= n;
    }
    return true;
}

// A slow chip: `ms` milliseconds per erased block. A signal to the program
// does not cut the erase short, as a real erase runs to its end.
void eraseDelay(uint64_t blocks, uint32_t ms) {
    if (ms == 0 || blocks == 0) return;
    const uint64_t total = blocks * ms;
    timespec left{static_cast<time_t>(total / 1000), static_cast<long>(total % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// Whether the board's flash driver has no locking at all (and so nothing is
// ever locked).
bool noLocking() {
    const uint32_t mode = sim()->board->lockRequests;
    return mode == kLockMainlineNone || mode == kLockMainlineNone524;
}

bool isLocked(const PartRecord& p) { return p.locked != 0 && !noLocking(); }

int fail(PartRecord& p, LogLine& line, int error) {
    bump(p.count.errors);
    line.result(-1, error).emit();
    errno = error;
    return -1;
}

// Whether the flash operation just counted (an erase or a write) is the one
// a power cut stops.
bool cutNow(const PartRecord& p) {
    return p.powerCutAt != 0 && p.count.erases + p.count.writes == p.powerCutAt;
}

// The power goes: the operation has done `done` of its `length` bytes and
// the program dies where it stands.
[[noreturn]] void powerCut(PartRecord& p, const char* op, uint64_t offset, uint64_t length, uint64_t done) {
    LogLine line("power-cut", p.name);
    line.text("op", op).number("offset", offset).number("length", length).number("done", done).emit();
    for (;;) {
        ::kill(::getpid(), SIGKILL);
    }
}

// The first block of [first, end) whose erase fails: an injected erase
// fault, a worn block, or (NAND) a block marked bad. kNoBlock: none.
uint64_t failingEraseBlock(const PartRecord& p, uint64_t first, uint64_t end) {
    for (uint64_t block = first; block < end; ++block) {
        if (block == p.eraseFailBlock || block == p.wornEraseBlock || isBadBlock(p, block)) return block;
    }
    return kNoBlock;
}

int getInfo(PartRecord& p, void* arg) {
    bump(p.count.getinfo);
    LogLine line("getinfo", p.name);
    if (p.faults & kFaultGetinfo) return fail(p, line, EIO);
    if (arg == nullptr) return fail(p, line, EFAULT);
    mtd_info_user info;
    std::memset(&info, 0, sizeof info);
    const bool nand = p.type == kChipNand;
    info.type = nand ? kMtdTypeNand : kMtdType;
    info.flags = nand ? kMtdFlagsNand : kMtdFlags;
    info.size = p.size;
    info.erasesize = p.erasesize;
    info.writesize = p.writesize;
    // A NAND page carries 1/32 of its size as spare area.
    info.oobsize = nand ? p.writesize / 32 : 0;
    std::memcpy(arg, &info, sizeof info);
    line.result(0, 0).number("size", p.size).number("erasesize", p.erasesize).emit();
    return 0;
}

int erase(const TrackedFd& t, PartRecord& p, const void* arg) {
    bump(p.count.erases);
    if (arg == nullptr) {
        LogLine line("erase", p.name);
        return fail(p, line, EFAULT);
    }
    erase_info_user request;
    std::memcpy(&request, arg, sizeof request);
    LogLine line("erase", p.name);
    line.number("start", request.start).number("length", request.length);
    const uint64_t es = p.erasesize;
    const uint64_t end = uint64_t{request.start} + request.length;
    if (es == 0 || request.length == 0 || request.start % es != 0 || request.length % es != 0 || end > p.size) {
        return fail(p, line, EINVAL);
    }
    if (t.accessMode == O_RDONLY || isLocked(p)) return fail(p, line, EPERM);
    // Blocks are erased in order; a failing block stops the erase there.
    uint64_t stop = end;
    const uint64_t failing = failingEraseBlock(p, request.start / es, end / es);
    const bool injected = failing != kNoBlock;
    if (injected) stop = failing * es;
    // A worn block fails once; what becomes of it is the program's business.
    if (injected && failing == p.wornEraseBlock) p.wornEraseBlock = kNoBlock;
    eraseDelay((stop - request.start) / es, p.eraseDelayMs);
    PrivateFd fd(t.part);
    if (cutNow(p)) {
        const uint64_t half = (stop - request.start) / 2;
        if (fd.get() >= 0) fillErased(fd.get(), request.start, half);
        powerCut(p, "erase", request.start, request.length, half);
    }
    if (fd.get() < 0 || !fillErased(fd.get(), request.start, stop - request.start)) return fail(p, line, EIO);
    bump(p.count.erased, stop - request.start);
    if (injected) return fail(p, line, EIO);
    line.result(0, 0).emit();
    return 0;
}

int lockControl(const TrackedFd& t, PartRecord& p, void* arg) {
    if (arg == nullptr) {
        bump(p.count.locks);
        LogLine line("lockctl", p.name);
        return fail(p, line, EFAULT);
    }
    MtdLockCtl request;
    std::memcpy(&request, arg, sizeof request);
    bump(request.lock == 0 ? p.count.unlocks : p.count.locks);
    LogLine line("lockctl", p.name);
    line.number("lock", request.lock).number("start", request.start).number("length", request.length);
    if (request.lock > 1 || uint64_t{request.start} + request.length > p.size) return fail(p, line, EINVAL);
    if (t.accessMode == O_RDONLY) return fail(p, line, EPERM);
    if (p.faults & (request.lock == 0 ? kFaultUnlock : kFaultLock)) return fail(p, line, EIO);
    // The lock state is the partition's as a whole, whatever range is named.
    __atomic_store_n(&p.locked, uint32_t{request.lock}, __ATOMIC_RELAXED);
    line.result(0, 0).emit();
    return 0;
}

// The mainline requests MEMLOCK and MEMUNLOCK: an erase_info_user range,
// checked as the kernel checks it; without locking in the driver the answer
// is EOPNOTSUPP (or the kernel's internal 524).
int mainlineLock(const TrackedFd& t, PartRecord& p, bool lock, const void* arg) {
    bump(lock ? p.count.locks : p.count.unlocks);
    LogLine line(lock ? "lock" : "unlock", p.name);
    if (arg == nullptr) return fail(p, line, EFAULT);
    erase_info_user request;
    std::memcpy(&request, arg, sizeof request);
    line.number("start", request.start).number("length", request.length);
    if (t.accessMode == O_RDONLY) return fail(p, line, EPERM);
    const uint32_t mode = sim()->board->lockRequests;
    if (mode == kLockMainlineNone) return fail(p, line, EOPNOTSUPP);
    if (mode == kLockMainlineNone524) return fail(p, line, kErrnoEnotsupp);
    if (request.start >= p.size || request.length > p.size - request.start) return fail(p, line, EINVAL);
    if (p.faults & (lock ? kFaultLock : kFaultUnlock)) return fail(p, line, EIO);
    __atomic_store_n(&p.locked, lock ? 1u : 0u, __ATOMIC_RELAXED);
    line.result(0, 0).emit();
    return 0;
}

// MEMGETBADBLOCK and MEMSETBADBLOCK take the offset of a block. A NOR chip
// has no bad blocks: the kernel answers "good" and refuses to mark one.
int badBlock(const TrackedFd& t, PartRecord& p, bool mark, const void* arg) {
    LogLine line(mark ? "markbad" : "isbad", p.name);
    if (arg == nullptr) return fail(p, line, EFAULT);
    int64_t offset = 0;
    std::memcpy(&offset, arg, sizeof offset);
    line.number("offset", static_cast<uint64_t>(offset < 0 ? 0 : offset));
    if (mark && t.accessMode == O_RDONLY) return fail(p, line, EPERM);
    if (offset < 0 || static_cast<uint64_t>(offset) >= p.size || p.erasesize == 0) return fail(p, line, EINVAL);
    const uint32_t block = static_cast<uint32_t>(static_cast<uint64_t>(offset) / p.erasesize);
    if (p.type != kChipNand) {
        if (mark) return fail(p, line, EOPNOTSUPP);
        line.result(0, 0).emit();
        return 0;
    }
    if (!mark) {
        const int bad = isBadBlock(p, block) ? 1 : 0;
        line.result(bad, 0).emit();
        return bad;
    }
    if (!isBadBlock(p, block)) {
        if (p.badCount >= kMaxBadBlocks) return fail(p, line, EIO);
        p.badBlocks[p.badCount] = block;
        __atomic_add_fetch(&p.badCount, 1, __ATOMIC_RELAXED);
    }
    line.result(0, 0).emit();
    return 0;
}

int eccStats(PartRecord& p, void* arg) {
    LogLine line("eccstats", p.name);
    if (arg == nullptr) return fail(p, line, EFAULT);
    mtd_ecc_stats stats;
    std::memset(&stats, 0, sizeof stats);
    stats.corrected = p.eccCorrected;
    stats.failed = p.eccFailed;
    stats.badblocks = p.badCount;
    std::memcpy(arg, &stats, sizeof stats);
    line.result(0, 0).number("corrected", stats.corrected).number("failed", stats.failed).emit();
    return 0;
}

}  // namespace

static int openPartitionImpl(int part, int flags) {
    PartRecord& p = record(part);
    bump(p.count.opens);
    const int accessMode = flags & O_ACCMODE;
    LogLine line("open", p.name);
    line.text("mode", modeName(accessMode));
    if ((flags & O_CREAT) && (flags & O_EXCL)) return fail(p, line, EEXIST);
    if (p.faults & kFaultOpen) return fail(p, line, EIO);
    char path[PATH_MAX];
    backingPath(part, path);
    if (!ensureBacking(part, path)) return fail(p, line, EIO);
    const int fd = real().openat(AT_FDCWD, path, O_RDONLY | (flags & O_CLOEXEC));
    if (fd < 0) return fail(p, line, errno);
    if (!trackFd(fd, part, accessMode)) {
        real().close(fd);
        return fail(p, line, EMFILE);
    }
    line.result(fd, 0).emit();
    return fd;
}

static bool beginPartitionStreamImpl(int part, const char* mode, int* accessMode) {
    const bool plus = std::strchr(mode, '+') != nullptr;
    *accessMode = plus ? O_RDWR : (mode[0] == 'r' ? O_RDONLY : O_WRONLY);
    PartRecord& p = record(part);
    bump(p.count.opens);
    LogLine line("open", p.name);
    line.text("mode", modeName(*accessMode));
    if (p.faults & kFaultOpen) {
        fail(p, line, EIO);
        return false;
    }
    if (!ensurePartitionBacking(part)) {
        fail(p, line, EIO);
        return false;
    }
    return true;
}

void endPartitionStream(int part, int fd, int accessMode, int error) {
    PartRecord& p = record(part);
    LogLine line("open", p.name);
    line.text("mode", modeName(accessMode));
    if (fd < 0) {
        fail(p, line, error);
        return;
    }
    if (accessMode != O_RDONLY) {
        // The stream has checked the access mode; from now on the descriptor
        // is read-only underneath like every partition descriptor.
        char path[PATH_MAX];
        backingPath(part, path);
        const int ro = real().openat(AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
        if (ro >= 0) {
            const off64_t position = real().lseek64(fd, 0, SEEK_CUR);
            const int keepFlags = fcntl(fd, F_GETFD);
            dup2(ro, fd);
            if (keepFlags >= 0) fcntl(fd, F_SETFD, keepFlags);
            if (position > 0) real().lseek64(fd, position, SEEK_SET);
            real().close(ro);
        }
    }
    trackFd(fd, part, accessMode);
    line.result(fd, 0).emit();
}

bool ensurePartitionBacking(int part) {
    char path[PATH_MAX];
    backingPath(part, path);
    const int saved = errno;
    const bool ok = ensureBacking(part, path);
    if (ok) errno = saved;
    return ok;
}

static ssize_t writePartitionImpl(const TrackedFd& t, const void* data, size_t length, const int64_t* at) {
    PartRecord& p = record(t.part);
    const uint64_t number = __atomic_add_fetch(&p.count.writes, 1, __ATOMIC_RELAXED);
    const int64_t offset = at != nullptr ? *at : static_cast<int64_t>(real().lseek64(t.fd, 0, SEEK_CUR));
    LogLine line("write", p.name);
    line.number("offset", static_cast<uint64_t>(offset < 0 ? 0 : offset)).number("length", length);
    if (offset < 0) return fail(p, line, at != nullptr ? EINVAL : errno);
    if (t.accessMode == O_RDONLY) return fail(p, line, EBADF);
    if (isLocked(p)) return fail(p, line, EPERM);
    // A NAND driver takes whole write units only.
    if (length > 0 && p.writesize != 1 &&
        (p.writesize == 0 || static_cast<uint64_t>(offset) % p.writesize != 0 || length % p.writesize != 0)) {
        return fail(p, line, EINVAL);
    }
    if (p.failWriteAt == number) return fail(p, line, EIO);
    size_t n = 0;
    uint64_t corrupt = 0;
    bool dropped = false;
    if (length > 0) {
        // As the MTD character device: no room at all is an error, a write
        // that runs past the end is shortened.
        if (static_cast<uint64_t>(offset) >= p.size) return fail(p, line, ENOSPC);
        const uint64_t room = p.size - static_cast<uint64_t>(offset);
        n = length < room ? length : static_cast<size_t>(room);
        if (p.erasesize != 0) {
            for (uint64_t b = static_cast<uint64_t>(offset) / p.erasesize; b <= (static_cast<uint64_t>(offset) + n - 1) / p.erasesize; ++b) {
                if (isBadBlock(p, b)) return fail(p, line, EIO);
            }
        }
        if (p.shortWriteAt == number) n /= 2;
        PrivateFd fd(t.part);
        if (cutNow(p)) {
            if (fd.get() >= 0) {
                program(fd.get(), static_cast<uint64_t>(offset), static_cast<const unsigned char*>(data), n / 2, corrupt);
            }
            powerCut(p, "write", static_cast<uint64_t>(offset), length, n / 2);
        }
        // A dropped write answers as if it had stored everything.
        dropped = p.dropWriteAt == number;
        if (!dropped && (fd.get() < 0 || !program(fd.get(), static_cast<uint64_t>(offset),
                                                  static_cast<const unsigned char*>(data), n, corrupt))) {
            return fail(p, line, EIO);
        }
    }
    if (at == nullptr) real().lseek64(t.fd, offset + static_cast<int64_t>(n), SEEK_SET);
    if (!dropped) bump(p.count.bytes, n);
    bump(p.count.corrupt, corrupt);
    line.result(static_cast<long long>(n), 0).number("corrupt", corrupt);
    if (dropped) line.text("dropped", "yes");
    line.emit();
    return static_cast<ssize_t>(n);
}

static int64_t seekPartitionImpl(const TrackedFd& t, int64_t offset, int whence) {
    const PartRecord& p = record(t.part);
    int64_t base = 0;
    switch (whence) {
        case SEEK_SET: break;
        case SEEK_CUR: base = real().lseek64(t.fd, 0, SEEK_CUR); break;
        case SEEK_END: base = p.size; break;
        default: errno = EINVAL; return -1;
    }
    if (base < 0) return -1;
    const int64_t target = base + offset;
    if (target < 0 || target > static_cast<int64_t>(p.size)) {
        errno = EINVAL;
        return -1;
    }
    return real().lseek64(t.fd, target, SEEK_SET);
}

static int ioctlPartitionImpl(const TrackedFd& t, uint32_t request, void* arg) {
    PartRecord& p = record(t.part);
    const bool mainline = sim()->board->lockRequests != kLockBoard;
    switch (request) {
        case kMemGetInfo: return getInfo(p, arg);
        case kMemErase: return erase(t, p, arg);
        case kMemLockCtl:
            if (!mainline) return lockControl(t, p, arg);
            break;
        case kMemLock:
        case kMemUnlock:
            if (mainline) return mainlineLock(t, p, request == kMemLock, arg);
            break;
        case kMemGetBadBlock:
        case kMemSetBadBlock: return badBlock(t, p, request == kMemSetBadBlock, arg);
        case kEccGetStats: return eccStats(p, arg);
        default: break;
    }
    // A request this kernel and driver do not know.
    LogLine line("ioctl", p.name);
    line.hex("request", request, 8);
    return fail(p, line, ENOTTY);
}

void logClose(int part, int fd, int result, int error) {
    PartRecord& p = record(part);
    bump(p.count.closes);
    LogLine line("close", p.name);
    line.number("fd", static_cast<uint64_t>(fd)).result(result, error).emit();
}

// The entry points: a call that succeeds leaves errno as the program had it,
// whatever the bookkeeping behind it did.
template <typename R, typename F>
R keepErrnoOnSuccess(F&& f) {
    const int saved = errno;
    const R result = f();
    if (result >= 0) errno = saved;
    return result;
}

int openPartition(int part, int flags) {
    return keepErrnoOnSuccess<int>([&] { return openPartitionImpl(part, flags); });
}

bool beginPartitionStream(int part, const char* mode, int* accessMode) {
    return keepErrnoOnSuccess<int>([&] { return beginPartitionStreamImpl(part, mode, accessMode) ? 0 : -1; }) == 0;
}

ssize_t writePartition(const TrackedFd& t, const void* data, size_t length, const int64_t* at) {
    return keepErrnoOnSuccess<ssize_t>([&] { return writePartitionImpl(t, data, length, at); });
}

int64_t seekPartition(const TrackedFd& t, int64_t offset, int whence) {
    return keepErrnoOnSuccess<int64_t>([&] { return seekPartitionImpl(t, offset, whence); });
}

int ioctlPartition(const TrackedFd& t, uint32_t request, void* arg) {
    return keepErrnoOnSuccess<int>([&] { return ioctlPartitionImpl(t, request, arg); });
}

}  // namespace flashsim
