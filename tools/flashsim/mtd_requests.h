// The requests the board's flash driver and Ethernet driver answer, with the
// exact numbers and argument layouts of the target. flashsim answers exactly
// these, so a program that issues anything else shows up in the log as an
// unknown request instead of silently working.
#pragma once

#include <cstdint>
#include <mtd/mtd-abi.h>
#include <sys/ioctl.h>

namespace flashsim {

constexpr uint32_t kMemGetInfo = 0x80204D01u;  // MEMGETINFO, struct mtd_info_user (out)
constexpr uint32_t kMemErase = 0x40084D02u;    // MEMERASE, struct erase_info_user (in)
constexpr uint32_t kMemLockCtl = 0xC00C4D41u;  // platform driver: struct MtdLockCtl (in/out)
constexpr uint32_t kMemLock = 0x40084D05u;    // mainline MEMLOCK, struct erase_info_user (in)
constexpr uint32_t kMemUnlock = 0x40084D06u;  // mainline MEMUNLOCK, struct erase_info_user (in)
constexpr uint32_t kMemGetBadBlock = 0x40084D0Bu;  // MEMGETBADBLOCK, loff_t offset (in): 1 bad, 0 good
constexpr uint32_t kMemSetBadBlock = 0x40084D0Cu;  // MEMSETBADBLOCK, loff_t offset (in)
constexpr uint32_t kEccGetStats = 0x80104D12u;     // ECCGETSTATS, struct mtd_ecc_stats (out)
constexpr uint32_t kPhyRequest = 0x89F5u;      // SIOCDEVPRIVATE + 5 on "eth0": uint16 at ifr_data

// The platform flash driver's lock-control argument: 12 bytes in the
// machine's byte order.
struct MtdLockCtl {
    uint8_t lock;  // 0 = unlock, 1 = lock
    uint8_t pad[3];
    uint32_t start;
    uint32_t length;
};

static_assert(sizeof(mtd_info_user) == 32, "mtd_info_user is 32 bytes");
static_assert(sizeof(erase_info_user) == 8, "erase_info_user is two 32-bit fields");
static_assert(sizeof(MtdLockCtl) == 12, "the lock-control record is 12 bytes");
static_assert(MEMGETINFO == kMemGetInfo, "MEMGETINFO number");
static_assert(MEMERASE == kMemErase, "MEMERASE number");
static_assert(_IOWR('M', 0x41, MtdLockCtl) == kMemLockCtl, "MEMLOCKCTL number");
static_assert(MEMLOCK == kMemLock && MEMUNLOCK == kMemUnlock, "mainline lock request numbers");
static_assert(MEMGETBADBLOCK == kMemGetBadBlock && MEMSETBADBLOCK == kMemSetBadBlock, "bad block request numbers");
static_assert(ECCGETSTATS == kEccGetStats && sizeof(mtd_ecc_stats) == 16, "ECCGETSTATS number");
static_assert(SIOCDEVPRIVATE + 5 == kPhyRequest, "PHY request number");

// What MEMGETINFO reports for a simulated partition: NOR flash unless init
// made it NAND (the write size is the partition's own, 1 unless init gave
// another).
constexpr uint8_t kMtdType = MTD_NORFLASH;
constexpr uint32_t kMtdFlags = MTD_CAP_NORFLASH;
constexpr uint8_t kMtdTypeNand = MTD_NANDFLASH;
constexpr uint32_t kMtdFlagsNand = MTD_CAP_NANDFLASH;

}  // namespace flashsim
