#include "qim/partition_map.h"

namespace {

struct KindPartition {
    uint32_t part_id;
    const char* partition;
};

// Three FPGA image kinds share the one "fpga" partition.
const KindPartition kMap[] = {
    {0, "flashall"}, {1, "image"},   {2, "fpga"},    {3, "license"},   {4, "config"},
    {6, "boot"},     {9, "capability"}, {10, "bootenv"}, {11, "userarea"}, {12, "fpga"},
    {13, "safefpga"}, {16, "brdinfo"}, {21, "imxrt"},  {22, "vcodec"},   {23, "sii9777s"},
    {25, "vconfig"}, {27, "fpga"},
};

}  // namespace

const char* qim_part_partition_name(uint32_t part_id) {
    for (const KindPartition& row : kMap) {
        if (row.part_id == part_id) return row.partition;
    }
    return "";
}
