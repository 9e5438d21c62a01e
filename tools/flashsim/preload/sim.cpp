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

constexpr char kTmpPrefix[] = "/tmp/";
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

    if (startsWith(path, kTmpPrefix, sizeof kTmpPrefix - 1)) {
        const char* name = path + sizeof kTmpPrefix - 1;
        for (const char* fixed : kTmpFiles) {
            // The fixed name, or a name beside it that a squatter is moved
            // aside to ("flashit.Xy12ab").
            const size_t n = std::strlen(fixed);
            if (std::strncmp(name, fixed, n) == 0 &&
                (name[n] == '\0' || (name[n] == '.' && std::strchr(name + n, '/') == nullptr))) {
                out.kind = joinBoardPath(out.path, kTmpDir, name) ? PathKind::Mapped : PathKind::MissingPartition;
                return;
            }
        }
        return;
    }
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
