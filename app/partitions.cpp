// Which package part kind each partition holds, which stay write-locked by
// the flash driver, and which may be named on the command line.
#include "app/partitions.h"

#include <iostream>

#include "app/flash_upgrader.h"
#include "qim/names.h"
#include "qim/partition_map.h"

namespace partitions {

const Partition kTable[] = {
    {"boot", "boot", false, true},
    {"bootenv", "env", false, true},
    {"brdinfo", "board", true, true},
    {"capability", "cap1", false, true},
    {"config", "config", false, true},
    {"flashall", "all", true, true},
    {"fpga", "fpga", false, true},
    {"fsbl", "unknown", true, true},
    {"image", "image", false, true},
    {"kernel", "unknown", false, true},
    {"license", "cap", true, true},
    {"rootfs", "unknown", false, true},
    {"safeboot", "unknown", true, true},
    {"safebootenv", "unknown", true, true},
    {"safefpga", "safe", true, true},
    {"safelicense", "unknown", true, true},
    {"userarea", "user", false, true},
    {"skd", "unknown", true, true},
    // Written by the package flasher only; not accepted on the command line.
    {"imxrt", "imxrt", false, false},
    {"vcodec", "vcodec", false, false},
    {"sii9777s", "sii9777s", false, false},
    {"vconfig", "vconfig", false, false},
    {"safeall", "unknown", true, true},
};

const std::size_t kCount = sizeof kTable / sizeof kTable[0];

const Partition* find(const std::string& name) {
    for (const Partition& partition : kTable) {
        if (name == partition.name) {
            return &partition;
        }
    }
    return nullptr;
}

std::string commandLineList() {
    // "qim" is no partition: it selects the package path.
    std::string list = "qim";
    for (const Partition& partition : kTable) {
        if (partition.onCommandLine) {
            list += std::string(", ") + partition.name;
        }
    }
    return list;
}

}  // namespace partitions

namespace {

void reportUnknown(const char* function, const std::string& name) {
    std::cerr << function << ": Error - unknown flash partition " << name
              << ". Assuming to be protected." << std::endl;
}

}  // namespace

bool FlashUpgrader::isValidPartitionName(std::string name) {
    if (name == "qim") {
        return true;
    }
    const partitions::Partition* partition = partitions::find(name);
    return partition != nullptr && partition->onCommandLine;
}

int FlashUpgrader::flashPartNameToPartId(std::string name) {
    const partitions::Partition* partition = partitions::find(name);
    if (partition == nullptr) {
        reportUnknown("flashPartNameToPartId", name);
        return QIM_PART_ID_UNKNOWN;
    }
    return static_cast<int>(qim_part_id_from_name(partition->kind));
}

int FlashUpgrader::isPartitionProtected(std::string name) {
    const partitions::Partition* partition = partitions::find(name);
    if (partition == nullptr) {
        reportUnknown("isPartitionProtected", name);
        return 1;
    }
    return partition->isProtected ? 1 : 0;
}

// The package library holds the table of part kinds and partitions (three
// FPGA kinds share "fpga").
std::string FlashUpgrader::partIdToPartitionName(uint32_t partId) { return qim_part_partition_name(partId); }
