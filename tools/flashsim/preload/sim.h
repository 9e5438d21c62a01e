// Process-wide state of the preload library: which board the process runs on
// (from the FLASHSIM_BOARD environment variable), how the board's fixed paths
// map into the board directory, and which descriptors are open simulated
// partitions. Nothing here allocates after initialisation.
#pragma once

#include "tools/flashsim/board_layout.h"

#include <climits>
#include <cstddef>
#include <sys/types.h>

namespace flashsim {

// The fixed files of the product that live in /tmp on the board.
constexpr const char* kTmpFiles[] = {"brivlo_status", "temp_brivlo_status", "flashit", "crc_ok"};

struct Sim {
    BoardRecord* board;   // the shared board record (mmap of DIR/board)
    char dir[PATH_MAX];   // absolute board directory
    size_t dirLength;
    // The folder that holds the board when it lies below /tmp (not /tmp
    // itself), else empty: the host's side of a test, its images beside its
    // board, left alone by the /tmp mapping.
    char hostDir[PATH_MAX];
    size_t hostDirLength;
};

// The board of this process, or null when FLASHSIM_BOARD is unset (then every
// replacement simply calls the C library). Initialises on first use; a set but
// unusable FLASHSIM_BOARD prints one line on standard error and ends the
// process with status 125, because carrying on would touch the real /tmp.
Sim* sim();

enum class PathKind {
    Other,             // not a board path: use as given
    Partition,         // /dev/flash/<name> of a partition on the board
    MissingPartition,  // /dev/flash/<name> of a partition the board does not have
    Mapped,            // /tmp, anything under it, or /dev/flash itself, mapped into the board
    Refused,           // reaches /tmp but cannot be mapped safely (a ".." component, too long)
};

struct ResolvedPath {
    PathKind kind;
    int part;              // Partition: index in the board record
    char path[PATH_MAX];   // Partition and Mapped: the file in the board directory
};

// Classifies `path` (null and relative paths are Other). Every absolute path
// that names /tmp or something under it (repeated slashes and "." components
// do not hide it) is the board's: DIR/tmp plus the rest. One with a ".."
// component that starts at /tmp or ends up there is Refused, because only the
// kernel knows where it leads; so is one whose board path would not fit in
// PATH_MAX. Paths in the folder that holds the board (Sim::hostDir) are
// Other.
void resolvePath(const char* path, ResolvedPath& out);

// Writes the backing file path of partition `part` into out (PATH_MAX bytes).
void backingPath(int part, char* out);

// Open descriptors of simulated partitions.
struct TrackedFd {
    int fd;
    int part;
    int accessMode;  // O_RDONLY, O_WRONLY or O_RDWR as the program asked
    dev_t dev;       // identity of the backing file, so a descriptor number
    ino_t ino;       // reused behind our back (fclose, dup2) is not mistaken
};

// Number of tracked descriptors; 0 lets the descriptor replacements skip all
// lookups.
extern int g_trackedCount;

// Registers fd; false when the table is full.
bool trackFd(int fd, int part, int accessMode);
// The entry for fd, or null. Checks the descriptor still refers to the
// backing file and forgets it otherwise.
TrackedFd* findFd(int fd);
void untrackFd(int fd);

// Keeps errno across bookkeeping that makes system calls of its own.
class ErrnoKeeper {
public:
    ErrnoKeeper();
    ~ErrnoKeeper();
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int saved_;
};

}  // namespace flashsim
