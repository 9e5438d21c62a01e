// The flash partitions the tool knows: the one table that FlashUpgrader's
// four partition lookups (partitions.cpp) and the usage's list of partition
// names read.
#pragma once

#include <cstddef>
#include <string>

namespace partitions {

struct Partition {
    const char* name;  // the device /dev/flash/<name>
    // The package part kind the partition holds, by its name in
    // part_id_names; "unknown" when no package part is written to it.
    const char* kind;
    bool isProtected;    // stays write-locked by the flash driver
    bool onCommandLine;  // may be named as the partition argument
};

// In the order the usage lists them.
extern const Partition kTable[];
extern const std::size_t kCount;

// The table row of `name` (compared exactly), or null.
const Partition* find(const std::string& name);

// "qim" and every partition that may be named on the command line, in table
// order, separated by ", ": the usage's list.
std::string commandLineList();

}  // namespace partitions
