#include "tools/flashsim/preload/tmp_ops.h"

#include "tools/flashsim/preload/oplog.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/sim.h"

#include <cerrno>
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

size_t tmpRoom(int fd, size_t length, long long position) {
    Sim* s = sim();
    if (s == nullptr || s->board->tmpSize == 0 || length == 0) return length;
    ErrnoKeeper keep;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return length;
    // The board's /tmp holds only the fixed files: what they hold together,
    // less this one, is what the write competes with.
    uint64_t others = 0;
    bool inTmp = false;
    for (const char* name : kTmpFiles) {
        char path[PATH_MAX];
        struct stat t;
        if (!boardTmpPath(*s, name, path) || real().stat(path, &t) != 0 || !S_ISREG(t.st_mode)) continue;
        if (t.st_dev == st.st_dev && t.st_ino == st.st_ino) {
            inTmp = true;
        } else {
            others += static_cast<uint64_t>(t.st_size);
        }
    }
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
    if (path == nullptr || std::strncmp(path, kTmpPrefix, sizeof kTmpPrefix - 1) != 0) return nullptr;
    ResolvedPath resolved;
    resolvePath(path, resolved);
    return resolved.kind == PathKind::Mapped ? path + sizeof kTmpPrefix - 1 : nullptr;
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
