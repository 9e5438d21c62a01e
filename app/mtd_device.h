// Thin layer over the MTD character devices under /dev/flash/: open, the
// requests the flash writers need, and one plain write. Every function only
// issues the call and returns a code; deciding what a failure means, printing
// and counting progress is left to FlashUpgrader.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include "support/errors.h"
#include "support/unique_handles.h"

using zel::UniqueFd;

// Lock control of the board's flash driver (not part of mainline MTD): locks
// or unlocks the byte range [start, start + length) of the partition.
// 12 bytes in the machine's byte order.
struct mtd_lock_ctl {
    uint8_t lock;  // 0 = unlock, 1 = lock
    uint8_t pad[3];
    uint32_t start;
    uint32_t length;
};

static_assert(sizeof(mtd_lock_ctl) == 12, "MEMLOCKCTL carries a 12-byte record");
static_assert(offsetof(mtd_lock_ctl, start) == 4 && offsetof(mtd_lock_ctl, length) == 8,
              "MEMLOCKCTL record layout");
static_assert(sizeof(mtd_info_user) == 32, "MEMGETINFO fills a 32-byte record");
static_assert(sizeof(erase_info_user) == 8, "MEMERASE takes start and length");

// Request numbers as the driver knows them; spelled out so that a header or
// ABI difference on the build machine cannot silently change them.
enum : unsigned long {
    BRIVLO_MEMGETINFO = 0x80204D01ul,
    BRIVLO_MEMERASE = 0x40084D02ul,
    BRIVLO_MEMLOCKCTL = 0xC00C4D41ul,
    BRIVLO_MEMLOCK = 0x40084D05ul,
    BRIVLO_MEMUNLOCK = 0x40084D06ul,
    BRIVLO_MEMGETBADBLOCK = 0x40084D0Bul,
    BRIVLO_MEMSETBADBLOCK = 0x40084D0Cul,
    BRIVLO_ECCGETSTATS = 0x80104D12ul,
};
static_assert(BRIVLO_MEMGETINFO == MEMGETINFO, "MEMGETINFO number");
static_assert(BRIVLO_MEMERASE == MEMERASE, "MEMERASE number");
static_assert(BRIVLO_MEMLOCKCTL == _IOWR('M', 0x41, mtd_lock_ctl), "MEMLOCKCTL number");
static_assert(BRIVLO_MEMLOCK == MEMLOCK && BRIVLO_MEMUNLOCK == MEMUNLOCK, "mainline lock numbers");
static_assert(BRIVLO_MEMGETBADBLOCK == MEMGETBADBLOCK && BRIVLO_MEMSETBADBLOCK == MEMSETBADBLOCK,
              "bad block request numbers");
static_assert(BRIVLO_ECCGETSTATS == ECCGETSTATS, "ECCGETSTATS number");

namespace mtd {

// Opens `path` for reading and writing; an invalid UniqueFd on failure (errno set).
UniqueFd openDevice(const std::string& path);

// MEMGETINFO into `info`; 0, or the errno code when the request returns a
// negative value (then `info` is untouched).
zel_error_t getInfo(int fd, mtd_info_user* info);

// MEMERASE of [start, start + length); 0, or the errno code when the request
// returns a negative value.
zel_error_t erase(int fd, uint32_t start, uint32_t length);

// How the kernel answered a lock or unlock request.
enum class LockAnswer {
    kDone,            // the request returned 0
    kUnknownRequest,  // ENOTTY: this kernel does not know the request
    kNoLocking,       // EOPNOTSUPP, or the kernel's internal ENOTSUPP (524) leaking
                      // out: the driver has no locking at all
    kFailed,          // any other answer (a positive result included)
};

// The board driver's MEMLOCKCTL over [0, length) of the partition.
LockAnswer lockControl(int fd, bool lock, uint32_t length);

// The mainline MEMLOCK (lock) or MEMUNLOCK over [0, length).
LockAnswer lockRange(int fd, bool lock, uint32_t length);

// One write() call at the descriptor's current position; its raw result.
long write(int fd, const uint8_t* data, uint32_t count);

// The calls below answer 0 or the errno value of the failed call (never 0
// for a failure), so the writers can tell a block that went bad (EIO) from
// any other refusal.

// MEMERASE of [start, start + length).
int eraseErrno(int fd, uint32_t start, uint32_t length);

// One write() of exactly `count` bytes at the current position; a short
// write answers -1 (no errno of its own).
int writeErrno(int fd, const uint8_t* data, uint32_t count);

// Moves the descriptor to `offset` for the next write().
int seek(int fd, uint64_t offset);

// Reads exactly `count` bytes at `offset` (pread, position untouched);
// EIO also for a short read.
int readAt(int fd, uint64_t offset, uint8_t* data, uint32_t count);

// MEMGETBADBLOCK: `*bad` 1 when the block at `offset` is marked bad.
int isBadBlock(int fd, uint64_t offset, int* bad);

// MEMSETBADBLOCK on the block at `offset`.
int markBadBlock(int fd, uint64_t offset);

// ECCGETSTATS.
int eccStats(int fd, mtd_ecc_stats* stats);

// Whether MEMGETINFO describes NAND flash, the kind with bad blocks and ECC.
inline bool isNand(const mtd_info_user& info) {
    return info.type == MTD_NANDFLASH || info.type == MTD_MLCNANDFLASH;
}

}  // namespace mtd
