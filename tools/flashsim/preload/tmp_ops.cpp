#include "tools/flashsim/preload/tmp_ops.h"

#include "tools/flashsim/preload/oplog.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/sim.h"

#include <cerrno>
#include <cstdint>
#include <dirent.h>
#include <sys/syscall.h>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace flashsim {

namespace {

constexpr char kTmpPrefix[] = "/tmp/";

// DIR/tmp/<name> into out (PATH_MAX bytes); false when it does not fit.
bool boardTmpPath(const Sim& s, const char* name, char* out) {
    const size_t n = std::strlen(name);
    const size_t folder = std::strlen(kTmpDir);
    if (s.dirLength + folder + n + 3 > PATH_MAX) return false;
    char* p = out;
    std::memcpy(p, s.dir, s.dirLength);
    p += s.dirLength;
    *p++ = '/';
    std::memcpy(p, kTmpDir, folder);
    p += folder;
    *p++ = '/';
    std::memcpy(p, name, n + 1);
    return true;
}

}  // namespace

namespace {

// Bytes held by the regular files in DIR/tmp other than the one `self`
// names (device and inode); `inTmp` tells whether `self` is one of them or
// an unnamed file made there (O_TMPFILE, which /proc shows as "DIR/tmp/#N").
// Read with getdents64 into a buffer on the stack: nothing is allocated.
uint64_t othersInTmp(const Sim& s, int fd, const struct stat& self, bool& inTmp) {
    char folder[PATH_MAX];
    inTmp = false;
    if (!boardTmpPath(s, "", folder)) return 0;
    char link[PATH_MAX];
    char proc[32] = "/proc/self/fd/";
    char digits[16];
    size_t n = 0;
    for (unsigned v = static_cast<unsigned>(fd); n == 0 || v != 0; v /= 10) digits[n++] = static_cast<char>('0' + v % 10);
    size_t at = std::strlen(proc);
    while (n > 0) proc[at++] = digits[--n];
    proc[at] = '\0';
    const ssize_t linked = readlink(proc, link, sizeof link - 1);
    const size_t folderLength = std::strlen(folder);
    if (linked > 0 && static_cast<size_t>(linked) > folderLength &&
        std::memcmp(link, folder, folderLength) == 0 && link[folderLength] == '#') {
        inTmp = true;
    }
    const int dir = real().openat(AT_FDCWD, folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return 0;
    uint64_t others = 0;
    alignas(8) char entries[4096];
    long got;
    while ((got = syscall(SYS_getdents64, dir, entries, sizeof entries)) > 0) {
        for (long pos = 0; pos < got;) {
            const auto* entry = reinterpret_cast<const struct dirent64*>(entries + pos);
            pos += entry->d_reclen;
            struct stat t;
            if (real().fstatat(dir, entry->d_name, &t, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(t.st_mode)) continue;
            if (t.st_dev == self.st_dev && t.st_ino == self.st_ino) {
                inTmp = true;
            } else {
                others += static_cast<uint64_t>(t.st_size);
            }
        }
    }
    real().close(dir);
    return others;
}

}  // namespace

size_t tmpRoom(int fd, size_t length, long long position) {
    Sim* s = sim();
    if (s == nullptr || s->board->tmpSize == 0 || length == 0) return length;
    ErrnoKeeper keep;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return length;
    // What the other files in the board's /tmp hold is what the write
    // competes with.
    bool inTmp = false;
    const uint64_t others = othersInTmp(*s, fd, st, inTmp);
    if (!inTmp) return length;
    uint64_t at = static_cast<uint64_t>(st.st_size);
    if (position >= 0) {
        at = static_cast<uint64_t>(position);
    } else if ((fcntl(fd, F_GETFL) & O_APPEND) == 0) {
        const off_t offset = real().lseek(fd, 0, SEEK_CUR);
        if (offset >= 0) at = static_cast<uint64_t>(offset);
    }
    // The file may end at the larger of its present size and what the other
    // files leave: rewriting bytes it already has never needs room.
    const uint64_t limit = s->board->tmpSize;
    uint64_t end = limit > others ? limit - others : 0;
    if (end < static_cast<uint64_t>(st.st_size)) end = static_cast<uint64_t>(st.st_size);
    if (at >= end) return 0;
    return end - at < length ? static_cast<size_t>(end - at) : length;
}

const char* tmpName(const char* path) {
    if (path == nullptr || sim() == nullptr || std::strncmp(path, kTmpPrefix, sizeof kTmpPrefix - 1) != 0) {
        return nullptr;
    }
    const char* name = path + sizeof kTmpPrefix - 1;
    for (const char* fixed : kTmpFiles) {
        if (std::strcmp(name, fixed) == 0) return name;
    }
    return nullptr;
}

void refuseTmpPath(const char* path) {
    LogLine("refuse", "tmp").escaped("path", path, std::strlen(path)).result(-1, EPERM).emit();
    errno = EPERM;
}

void readTmpContent(const char* mappedPath, TmpContent& out) {
    ErrnoKeeper keep;
    out.length = 0;
    out.known = false;
    // Never blocks: whatever is at the name may be a FIFO.
    const int fd = real().openat(AT_FDCWD, mappedPath, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        out.known = true;
        ssize_t got;
        while (out.length < sizeof out.text &&
               (got = read(fd, out.text + out.length, sizeof out.text - out.length)) > 0) {
            out.length += static_cast<size_t>(got);
        }
    }
    real().close(fd);
}

void logTmpRename(const char* name, const char* from, int result, int error, const TmpContent& content) {
    LogLine line("rename", name);
    line.text("from", from != nullptr ? from : "?").result(result, error);
    if (result == 0 && content.known) line.escaped("content", content.text, content.length);
    line.emit();
}

void logTmpRemove(const char* name, int result, int error) {
    LogLine("remove", name).result(result, error).emit();
}

}  // namespace flashsim
