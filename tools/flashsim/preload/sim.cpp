#include "tools/flashsim/preload/sim.h"

#include "tools/flashsim/preload/real.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace flashsim {

int g_trackedCount = 0;

namespace {

constexpr size_t kMaxTracked = 64;

Sim g_sim;
bool g_active = false;
pthread_once_t g_once = PTHREAD_ONCE_INIT;
TrackedFd g_fds[kMaxTracked];

constexpr char kTmp[] = "/tmp";
constexpr char kFlashPrefix[] = "/dev/flash/";

// Paths mapped as they stand to a file or folder of the board.
struct FixedPath {
    const char* path;
    const char* board;
};
const FixedPath kFixedPaths[] = {
    {"/dev/flash", kFlashDir},
    {"/run", kRunDir},
    {"/run/brivlo.lock", kLockFile},
};

bool startsWith(const char* s, const char* prefix, size_t prefixLength) {
    return std::strncmp(s, prefix, prefixLength) == 0;
}

// Appends `s` to out[pos...]; false when it does not fit in PATH_MAX.
bool append(char* out, size_t& pos, const char* s) {
    const size_t n = std::strlen(s);
    if (pos + n >= PATH_MAX) return false;
    std::memcpy(out + pos, s, n + 1);
    pos += n;
    return true;
}

bool joinBoardPath(char* out, const char* folder, const char* name) {
    size_t pos = 0;
    out[0] = '\0';
    return append(out, pos, g_sim.dir) && append(out, pos, "/") && append(out, pos, folder) &&
           append(out, pos, "/") && append(out, pos, name);
}

// True when `text` (of `length` bytes) is /tmp or lies under it.
bool underTmp(const char* text, size_t length) {
    const size_t n = sizeof kTmp - 1;
    return length >= n && std::memcmp(text, kTmp, n) == 0 && (length == n || text[n] == '/');
}

// True when every component of the absolute `text` (`length` bytes) is a
// name: none empty, "." or "..", so the text is as resolveTmpPath keeps it.
bool plainPath(const char* text, size_t length) {
    for (size_t i = 0; i < length;) {
        size_t end = i + 1;
        while (end < length && text[end] != '/') ++end;
        const size_t n = end - i - 1;
        if (n == 0 || (n == 1 && text[i + 1] == '.') || (n == 2 && text[i + 1] == '.' && text[i + 2] == '.')) {
            return false;
        }
        i = end;
    }
    return true;
}

// Absolute `path` reaching /tmp: out is the board's path for it (Mapped) or
// Refused; true. Any other path: false, out untouched.
//
// The path is read component by component: `kept` drops empty and "."
// components (so "//tmp/./x" is "/tmp/x") and keeps ".."; `lexical` also
// takes ".." back a component, to catch a path like "/var/../tmp/x".
bool resolveTmpPath(const char* path, ResolvedPath& out) {
    const size_t length = std::strlen(path);
    if (length >= PATH_MAX) return false;  // the kernel refuses it (ENAMETOOLONG)
    char kept[PATH_MAX];
    char lexical[PATH_MAX];
    size_t keptLength = 0;
    size_t lexicalLength = 0;
    bool dotDot = false;
    for (const char* p = path; *p != '\0';) {
        while (*p == '/') ++p;
        const char* end = p;
        while (*end != '\0' && *end != '/') ++end;
        const size_t n = static_cast<size_t>(end - p);
        if (n == 0 || (n == 1 && p[0] == '.')) {
            p = end;
            continue;
        }
        const bool up = n == 2 && p[0] == '.' && p[1] == '.';
        dotDot = dotDot || up;
        kept[keptLength++] = '/';
        std::memcpy(kept + keptLength, p, n);
        keptLength += n;
        if (up) {
            while (lexicalLength > 0 && lexical[--lexicalLength] != '/') {
            }
        } else {
            lexical[lexicalLength++] = '/';
            std::memcpy(lexical + lexicalLength, p, n);
            lexicalLength += n;
        }
        p = end;
    }
    const size_t host = g_sim.hostDirLength;
    if (host > 0 && !dotDot && keptLength > host && std::memcmp(kept, g_sim.hostDir, host) == 0 &&
        kept[host] == '/') {
        return false;
    }
    if (underTmp(kept, keptLength)) {
        if (dotDot) {
            out.kind = PathKind::Refused;
            return true;
        }
        // DIR/tmp + the rest, keeping a final slash (it asks for a directory).
        const bool slash = path[length - 1] == '/';
        const size_t rest = keptLength - (sizeof kTmp - 1);
        if (g_sim.dirLength + 1 + std::strlen(kTmpDir) + rest + (slash ? 1 : 0) >= PATH_MAX) {
            out.kind = PathKind::Refused;
            return true;
        }
        size_t pos = 0;
        out.path[0] = '\0';
        append(out.path, pos, g_sim.dir);
        append(out.path, pos, "/");
        append(out.path, pos, kTmpDir);
        std::memcpy(out.path + pos, kept + sizeof kTmp - 1, rest);
        pos += rest;
        if (slash) out.path[pos++] = '/';
        out.path[pos] = '\0';
        out.kind = PathKind::Mapped;
        return true;
    }
    if (dotDot && underTmp(lexical, lexicalLength)) {
        out.kind = PathKind::Refused;
        return true;
    }
    return false;
}

[[noreturn]] void refuse(const char* dir, const char* why) {
    const char* parts[] = {"flashsim: ", kBoardEnv, "=", dir, ": ", why, "\n"};
    for (const char* p : parts) {
        if (real().write) real().write(2, p, std::strlen(p));
    }
    _exit(125);
}

void initialise() {
    const char* dir = std::getenv(kBoardEnv);
    if (dir == nullptr) return;
    if (dir[0] != '/') refuse(dir, "not an absolute path to a board directory");
    size_t length = std::strlen(dir);
    while (length > 1 && dir[length - 1] == '/') --length;
    if (length + 64 >= PATH_MAX) refuse(dir, "path too long");
    std::memcpy(g_sim.dir, dir, length);
    g_sim.dir[length] = '\0';
    g_sim.dirLength = length;
    size_t parent = length;
    while (parent > 0 && dir[parent - 1] != '/') --parent;
    while (parent > 1 && dir[parent - 1] == '/') --parent;
    if (parent > sizeof kTmp && underTmp(dir, parent) && plainPath(dir, parent)) {
        std::memcpy(g_sim.hostDir, dir, parent);
        g_sim.hostDir[parent] = '\0';
        g_sim.hostDirLength = parent;
    }

    char path[PATH_MAX];
    size_t pos = 0;
    append(path, pos, g_sim.dir);
    append(path, pos, "/");
    append(path, pos, kBoardFile);
    if (real().openat == nullptr) refuse(dir, "cannot find the C library's openat");
    const int fd = real().openat(AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    if (fd < 0) refuse(dir, "no board file (make one with flashsim init)");
    struct stat st;
    if (fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) != sizeof(BoardRecord)) {
        real().close(fd);
        refuse(dir, "board file has the wrong size");
    }
    void* map = mmap(nullptr, sizeof(BoardRecord), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    real().close(fd);
    if (map == MAP_FAILED) refuse(dir, "cannot map the board file");
    if (const char* problem = boardRecordProblem(map, sizeof(BoardRecord))) refuse(dir, problem);
    g_sim.board = static_cast<BoardRecord*>(map);
    g_active = true;
}

// Runs before main() so that a bad board stops the program before it does
// anything; the replacements initialise on their own if called earlier.
__attribute__((constructor)) void initialiseEarly() {
    ErrnoKeeper keep;
    sim();
}

}  // namespace

Sim* sim() {
    real();
    pthread_once(&g_once, initialise);
    return g_active ? &g_sim : nullptr;
}

void resolvePath(const char* path, ResolvedPath& out) {
    out.kind = PathKind::Other;
    out.part = -1;
    out.path[0] = '\0';
    if (path == nullptr || path[0] != '/' || sim() == nullptr) return;

    if (resolveTmpPath(path, out)) return;
    // The device folder itself, and the folder of the upgrade lock with its
    // file, so a program can take a lock on the board instead of the host.
    for (const FixedPath& fixed : kFixedPaths) {
        if (std::strcmp(path, fixed.path) != 0) continue;
        size_t pos = 0;
        out.path[0] = '\0';
        const bool fits = append(out.path, pos, g_sim.dir) && append(out.path, pos, "/") &&
                          append(out.path, pos, fixed.board);
        out.kind = fits ? PathKind::Mapped : PathKind::MissingPartition;
        return;
    }
    if (startsWith(path, kFlashPrefix, sizeof kFlashPrefix - 1)) {
        const char* name = path + sizeof kFlashPrefix - 1;
        const int part = findPart(*g_sim.board, name, std::strlen(name));
        if (part < 0) {
            out.kind = PathKind::MissingPartition;
            return;
        }
        out.kind = PathKind::Partition;
        out.part = part;
        backingPath(part, out.path);
    }
}

void backingPath(int part, char* out) {
    // Names are shorter than kNameSize and the directory was checked to leave
    // room, so this always fits.
    joinBoardPath(out, kFlashDir, g_sim.board->parts[part].name);
}

bool trackFd(int fd, int part, int accessMode) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    untrackFd(fd);
    if (static_cast<size_t>(g_trackedCount) == kMaxTracked) return false;
    g_fds[g_trackedCount++] = TrackedFd{fd, part, accessMode, st.st_dev, st.st_ino};
    return true;
}

TrackedFd* findFd(int fd) {
    for (int i = 0; i < g_trackedCount; ++i) {
        if (g_fds[i].fd != fd) continue;
        ErrnoKeeper keep;
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_dev == g_fds[i].dev && st.st_ino == g_fds[i].ino) return &g_fds[i];
        untrackFd(fd);
        return nullptr;
    }
    return nullptr;
}

void untrackFd(int fd) {
    for (int i = 0; i < g_trackedCount; ++i) {
        if (g_fds[i].fd == fd) {
            g_fds[i] = g_fds[--g_trackedCount];
            return;
        }
    }
}

ErrnoKeeper::ErrnoKeeper() : saved_(errno) {}
ErrnoKeeper::~ErrnoKeeper() { errno = saved_; }

}  // namespace flashsim
