// Which flash partition a package part of a given kind is written to: the one
// table for the upgrade driver and the host tools that describe packages.
#pragma once

#include <cstdint>

// The partition name, or "" for a kind that is not written anywhere.
const char* qim_part_partition_name(uint32_t part_id);
