// The simulated board's persistent record: the file DIR/board, shared (mmap)
// by the flashsim command and by every process that runs with the preload
// library on that board. It holds the geometry, the lock state, the injected
// faults and the operation counters of each partition, so that all of them
// survive from one process to the next. Plain fixed-size data only: the
// preload library maps it and updates it without allocating.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace flashsim {

constexpr char kBoardMagic[8] = {'F', 'S', 'I', 'M', 'B', 'R', 'D', '1'};
constexpr uint32_t kBoardVersion = 3;
constexpr size_t kMaxBadBlocks = 32;  // bad blocks a partition can remember
constexpr size_t kMaxParts = 48;
constexpr size_t kNameSize = 32;  // partition name, NUL included

// The environment variable that names the board directory. Read only by the
// preload library; set by `flashsim run`.
constexpr const char* kBoardEnv = "FLASHSIM_BOARD";

// Files and folders inside a board directory.
constexpr const char* kBoardFile = "board";  // this record
constexpr const char* kLogFile = "log";      // operation log, one line per operation
constexpr const char* kFlashDir = "flash";   // flash/<name>: partition contents
constexpr const char* kTmpDir = "tmp";       // tmp/<file>: the board's fixed /tmp files
constexpr const char* kRunDir = "run";       // the board's /run (mode 0755)
constexpr const char* kLockFile = "run/brivlo.lock";  // the board's /run/brivlo.lock

// Persistent faults (bits of PartRecord::faults).
enum FaultBits : uint32_t {
    kFaultOpen = 1u << 0,     // open of the device fails with EIO
    kFaultGetinfo = 1u << 1,  // MEMGETINFO fails with EIO
    kFaultUnlock = 1u << 2,   // MEMLOCKCTL lock=0 fails with EIO
    kFaultLock = 1u << 3,     // MEMLOCKCTL lock=1 fails with EIO
};
constexpr uint32_t kNoBlock = 0xFFFFFFFFu;

// The kind of chip a partition sits on (PartRecord::type): MEMGETINFO's
// type, and whether the partition knows bad blocks.
enum ChipType : uint32_t {
    kChipNor = 0,
    kChipNand = 1,
};

// Which lock requests the board's kernel and flash driver answer
// (BoardRecord::lockRequests).
enum LockRequests : uint32_t {
    kLockBoard = 0,             // the platform driver's MEMLOCKCTL; MEMLOCK/MEMUNLOCK unknown (ENOTTY)
    kLockMainline = 1,          // MEMLOCKCTL unknown (ENOTTY); MEMLOCK/MEMUNLOCK honoured
    kLockMainlineNone = 2,      // MEMLOCKCTL unknown; the driver has no locking (EOPNOTSUPP)
    kLockMainlineNone524 = 3,   // likewise, with the kernel's internal ENOTSUPP (524) leaking out
};
constexpr int kErrnoEnotsupp = 524;

// Every counter counts calls made, successful or not (the log says which
// failed), except bytes/erased/corrupt which count bytes actually affected.
struct Counters {
    uint64_t opens;
    uint64_t closes;
    uint64_t getinfo;
    uint64_t erases;   // MEMERASE calls
    uint64_t erased;   // bytes set to 0xFF by erases
    uint64_t writes;   // write calls (write, pwrite, each writev segment)
    uint64_t bytes;    // bytes stored by writes
    uint64_t corrupt;  // bytes whose stored value differs from the value written
    uint64_t locks;    // MEMLOCKCTL lock=1 calls
    uint64_t unlocks;  // MEMLOCKCTL lock=0 calls
    uint64_t errors;   // calls of any kind that failed
};

struct PartRecord {
    char name[kNameSize];
    uint32_t size;       // bytes
    uint32_t erasesize;  // bytes in one erase block; 0 is allowed
    uint32_t locked;     // 1 = erase and write refused with EPERM
    uint32_t faults;     // FaultBits
    uint32_t eraseFailBlock;  // an erase covering this block fails with EIO (kNoBlock: none)
    uint32_t eraseDelayMs;    // every erased block takes this long (0: at once)
    uint32_t writesize;       // MEMGETINFO's write unit; above 1, writes must be whole units (0 refuses all)
    uint32_t type;            // ChipType
    uint64_t shortWriteAt;  // the write whose number (Counters::writes after it) is this is short; 0: none
    uint64_t failWriteAt;   // likewise, but fails with EIO
    uint64_t dropWriteAt;   // likewise, but answers success and stores nothing
    // The flash operation (erase or write; Counters::erases + writes after it)
    // whose number is this is done half way, then the program is killed: a
    // power cut. 0: none.
    uint64_t powerCutAt;
    uint32_t wornEraseBlock;  // the next erase of this block fails with EIO (kNoBlock: none)
    uint32_t badCount;        // entries used in badBlocks (NAND only)
    uint32_t badBlocks[kMaxBadBlocks];  // blocks marked bad, in the order they were marked
    uint32_t eccCorrected;    // ECCGETSTATS counters
    uint32_t eccFailed;
    Counters count;
};

struct BoardRecord {
    char magic[8];
    uint32_t version;
    uint32_t partCount;
    uint32_t phyAnswers;  // 0: the PHY request fails (EOPNOTSUPP) and leaves the data untouched
    uint32_t phyId;       // answered identity (16 bits used)
    uint64_t phyRequests;
    uint32_t lockRequests;  // LockRequests
    uint32_t reserved[7];
    PartRecord parts[kMaxParts];
    // Bytes the files in DIR/tmp may hold together, like the size of a
    // tmpfs: a write that would pass it stores what fits and then fails with
    // ENOSPC. 0: no limit.
    uint64_t tmpSize;
};

inline bool isBadBlock(const PartRecord& p, uint64_t block) {
    for (uint32_t i = 0; i < p.badCount && i < kMaxBadBlocks; ++i) {
        if (p.badBlocks[i] == block) return true;
    }
    return false;
}

// Returns null when `data` (of `length` bytes) is a usable board record,
// otherwise the reason it is not.
inline const char* boardRecordProblem(const void* data, size_t length) {
    if (length != sizeof(BoardRecord)) return "board file has the wrong size";
    const BoardRecord* b = static_cast<const BoardRecord*>(data);
    if (std::memcmp(b->magic, kBoardMagic, sizeof kBoardMagic) != 0) return "board file has no board magic";
    if (b->version != kBoardVersion) return "board file has an unsupported version";
    if (b->partCount > kMaxParts) return "board file has too many partitions";
    for (uint32_t i = 0; i < b->partCount; ++i) {
        const PartRecord& p = b->parts[i];
        if (std::memchr(p.name, '\0', kNameSize) == nullptr || p.name[0] == '\0') return "board file has a bad name";
    }
    return nullptr;
}

// Index of the partition called `name` (of `length` bytes), or -1.
inline int findPart(const BoardRecord& b, const char* name, size_t length) {
    if (length == 0 || length >= kNameSize) return -1;
    for (uint32_t i = 0; i < b.partCount; ++i) {
        if (std::strncmp(b.parts[i].name, name, length) == 0 && b.parts[i].name[length] == '\0') {
            return static_cast<int>(i);
        }
    }
    return -1;
}

}  // namespace flashsim
