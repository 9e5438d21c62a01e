// Unlocking a protected partition before it is erased and locking it again
// after the write, on whichever kernel the board runs.
//
// The board's own kernel has the platform driver's MEMLOCKCTL. A mainline
// kernel does not know that request (ENOTTY) and has MEMUNLOCK/MEMLOCK on the
// same range instead; a driver without any locking answers those with
// EOPNOTSUPP (or the kernel's internal 524), and then there is nothing to
// unlock and nothing to lock again. The partition is locked again with the
// requests that unlocked it.
#pragma once

#include <cstdint>

namespace partition_lock {

enum class Requests {
    kBoard,     // MEMLOCKCTL
    kMainline,  // MEMUNLOCK / MEMLOCK
    kNone,      // the driver has no locking: nothing to lock again
};

// Unlocks [0, size) of the partition open on `fd`. True when it is writable
// now, with `*used` saying how; false when the unlock failed (`*used`
// untouched).
bool unlock(int fd, uint32_t size, Requests* used);

// Locks [0, size) again with the requests that unlocked it; true also for
// kNone, where nothing is sent.
bool relock(int fd, uint32_t size, Requests used);

}  // namespace partition_lock
