// The flash partitions the tool knows, which package part kind each holds,
// which stay write-locked by the flash driver, and which may be named on the
// command line.
#include "app/flash_upgrader.h"

#include <iostream>

#include "qim/partition_map.h"

namespace {

// Part kind 28 ("unknown"): no package part is written to the partition.
constexpr int kPartUnknown = 28;

struct Partition {
    const char* name;
    int kind;
    bool isProtected;
    bool onCommandLine;
};

constexpr Partition kPartitions[] = {
    {"boot", 6, false, true},
    {"bootenv", 10, false, true},
    {"brdinfo", 16, true, true},
    {"capability", 9, false, true},
    {"config", 4, false, true},
    {"flashall", 0, true, true},
    {"fpga", 2, false, true},
    {"fsbl", kPartUnknown, true, true},
    {"image", 1, false, true},
    {"kernel", kPartUnknown, false, true},
    {"license", 3, true, true},
    {"rootfs", kPartUnknown, false, true},
    {"safeboot", kPartUnknown, true, true},
    {"safebootenv", kPartUnknown, true, true},
    {"safefpga", 13, true, true},
    {"skd", kPartUnknown, true, true},
    {"safelicense", kPartUnknown, true, true},
    {"userarea", 11, false, true},
    // Written by the package flasher only; not accepted on the command line.
    {"imxrt", 21, false, false},
    {"vcodec", 22, false, false},
    {"sii9777s", 23, false, false},
    {"vconfig", 25, false, false},
    {"safeall", kPartUnknown, true, true},
};

const Partition* findPartition(const std::string& name) {
    for (const Partition& partition : kPartitions) {
        if (name == partition.name) {
            return &partition;
        }
    }
    return nullptr;
}

void reportUnknown(const char* function, const std::string& name) {
    std::cerr << function << ": Error - unknown flash partition " << name
              << ". Assuming to be protected." << std::endl;
}

}  // namespace

bool FlashUpgrader::isValidPartitionName(std::string name) {
    // "qim" is no partition: it selects the package path.
    if (name == "qim") {
        return true;
    }
    const Partition* partition = findPartition(name);
    return partition != nullptr && partition->onCommandLine;
}

int FlashUpgrader::flashPartNameToPartId(std::string name) {
    const Partition* partition = findPartition(name);
    if (partition == nullptr) {
        reportUnknown("flashPartNameToPartId", name);
        return kPartUnknown;
    }
    return partition->kind;
}

int FlashUpgrader::isPartitionProtected(std::string name) {
    const Partition* partition = findPartition(name);
    if (partition == nullptr) {
        reportUnknown("isPartitionProtected", name);
        return 1;
    }
    return partition->isProtected ? 1 : 0;
}

// The package library holds the one table of part kinds and partitions.
std::string FlashUpgrader::partIdToPartitionName(uint32_t partId) { return qim_part_partition_name(partId); }
