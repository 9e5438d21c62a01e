#include "app/partition_lock.h"

#include "app/mtd_device.h"

namespace partition_lock {

bool unlock(int fd, uint32_t size, Requests* used) {
    const mtd::LockAnswer board = mtd::lockControl(fd, false, size);
    if (board == mtd::LockAnswer::kDone) {
        *used = Requests::kBoard;
        return true;
    }
    // Only a kernel that does not know the board's request gets the mainline
    // ones; any other refusal of MEMLOCKCTL is an unlock failure.
    if (board != mtd::LockAnswer::kUnknownRequest) {
        return false;
    }
    switch (mtd::lockRange(fd, false, size)) {
    case mtd::LockAnswer::kDone:
        *used = Requests::kMainline;
        return true;
    case mtd::LockAnswer::kNoLocking:
        *used = Requests::kNone;
        return true;
    default:
        return false;
    }
}

bool relock(int fd, uint32_t size, Requests used) {
    switch (used) {
    case Requests::kBoard:
        return mtd::lockControl(fd, true, size) == mtd::LockAnswer::kDone;
    case Requests::kMainline:
        return mtd::lockRange(fd, true, size) == mtd::LockAnswer::kDone;
    case Requests::kNone:
        break;
    }
    return true;
}

}  // namespace partition_lock
