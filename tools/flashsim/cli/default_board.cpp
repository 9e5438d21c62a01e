#include "tools/flashsim/cli/default_board.h"

namespace flashsim {
namespace {

constexpr uint32_t KiB = 1024;
constexpr uint32_t MiB = 1024 * KiB;

}  // namespace

// Partitions are independent files: "image", "flashall" and "safeall" do not
// alias the partitions they cover on a real chip, but "image" is as large as
// "kernel" and "rootfs" together so that a combined image fits it.
const DefaultPartition kDefaultPartitions[] = {
    {"boot", 512 * KiB, false},      {"bootenv", 128 * KiB, false},   {"brdinfo", 64 * KiB, true},
    {"capability", 64 * KiB, false}, {"config", 512 * KiB, false},    {"flashall", 32 * MiB, true},
    {"fpga", 4 * MiB, false},        {"fsbl", 256 * KiB, true},       {"image", 20 * MiB, false},
    {"kernel", 4 * MiB, false},      {"license", 64 * KiB, true},     {"rootfs", 16 * MiB, false},
    {"safeboot", 512 * KiB, true},   {"safebootenv", 128 * KiB, true}, {"safefpga", 4 * MiB, true},
    {"skd", 64 * KiB, true},         {"safelicense", 64 * KiB, true}, {"userarea", 2 * MiB, false},
    {"imxrt", 1 * MiB, false},       {"vcodec", 1 * MiB, false},      {"sii9777s", 512 * KiB, false},
    {"vconfig", 64 * KiB, false},    {"safeall", 32 * MiB, true},
};

const size_t kDefaultPartitionCount = sizeof kDefaultPartitions / sizeof kDefaultPartitions[0];

}  // namespace flashsim
