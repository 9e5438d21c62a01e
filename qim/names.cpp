// Name tables of part kinds and device codes, and their lookups.
#include "qim/names.h"

#include <cstring>

// Part kind names; index 28 is the name of every unknown kind.
const char* const part_id_names[QIM_PART_ID_NAMES_SIZE + 1] = {
    "all",      "image", "fpga",     "cap",       "config",     "_temp",  "boot",     "fpga96",
    "_psk",     "cap1",  "env",      "user",      "fpgar3",     "safe",   "capu",     "flashlayout",
    "board",    "_reserved", "cap2_manf", "switchphy", "data",   "imxrt",  "vcodec",   "sii9777s",
    "cert",     "vconfig", "tps65987d", "fpgar4", "unknown", nullptr,
};
// Short names of the product kinds that device codes stand for.
const char* const devcode_names[QIM_DEVICE_CODE_COUNT + 1] = {
    "unknown", "alder", "birch", "cedar", "dunlin", "egret",
    "fir", "gannet", "heron", "ibis", "juniper", "kite",
    "larch", "merlin", "nuthatch", "osprey", "plover", "quail",
    "rowan", "sedge", "teal", "umber", "vireo", "willow",
    "wren", "yarrow", "zinnia", "agate", "basalt", "cobalt",
    "dolomite", "flint", "garnet", "jasper", "kyanite", "marble",
    "onyx", "pumice", "quartz", "slate", "tern", "topaz",
    "talc", "zircon", "amber", "beryl", "coral",
    nullptr,
};

// Display names; codes 12 and 13, and 30 and 31, are one product each.
const char* const k_device_friendly_names[QIM_DEVICE_CODE_COUNT + 1] = {
    "Unknown", "Alder 200", "Birch 300", "Cedar 400",
    "Dunlin 100", "Egret 200", "Fir 300", "Gannet 400",
    "Heron 100", "Ibis 200", "Juniper 300", "Kite 400",
    "Larch 100", "Larch 100", "Nuthatch 300", "Osprey 400",
    "Plover 100", "Quail 200", "Rowan 300", "Sedge 400",
    "Teal 100", "Umber 200", "Vireo 300", "Willow 400",
    "Wren 100", "Yarrow 200", "Zinnia 300", "Agate 400",
    "Basalt 100", "Cobalt 200", "Dolomite 300", "Dolomite 300",
    "Garnet 100", "Jasper 200", "Kyanite 300", "Marble 400",
    "Onyx 100", "Pumice 200", "Quartz 300", "Slate 400",
    "Tern 100", "Topaz 200", "Talc 300", "Zircon 400",
    "Amber 100", "Beryl 200", "Coral 300",
    nullptr,
};

// Model identifiers that stand for each device code: ASCII padded with zero
// bytes; a second identifier only where a product has two.
#define QIM_TEXT_ID(a, b, c, d, e, f, g, h) \
    { { a, b, c, d, e, f, g, h } }
const qim_id k_device_id_names[QIM_DEVICE_CODE_COUNT][2] = {
    {QIM_TEXT_ID('U', 'n', 'k', 'n', 'o', 'w', 'n', 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('A', 'L', 'D', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('B', 'I', 'R', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('C', 'E', 'D', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('D', 'U', 'N', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('E', 'G', 'R', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('F', 'I', 'R', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('G', 'A', 'N', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('H', 'E', 'R', '1', '0', '0', 0, 0), QIM_TEXT_ID('H', 'E', 'R', '1', '0', '1', 0, 0)},
    {QIM_TEXT_ID('I', 'B', 'I', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('J', 'U', 'N', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('K', 'I', 'T', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('L', 'A', 'R', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('M', 'E', 'R', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('N', 'U', 'T', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('O', 'S', 'P', '4', '0', '0', 0, 0), QIM_TEXT_ID('O', 'S', 'P', '4', '0', '1', 0, 0)},
    {QIM_TEXT_ID('P', 'L', 'O', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('Q', 'U', 'A', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('R', 'O', 'W', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('S', 'E', 'D', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('T', 'E', 'A', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('U', 'M', 'B', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('V', 'I', 'R', '3', '0', '0', 0, 0), QIM_TEXT_ID('V', 'I', 'R', '3', '0', '1', 0, 0)},
    {QIM_TEXT_ID('W', 'I', 'L', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('W', 'R', 'E', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('Y', 'A', 'R', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('Z', 'I', 'N', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('A', 'G', 'A', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('B', 'A', 'S', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('C', 'O', 'B', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('D', 'O', 'L', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('F', 'L', 'I', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('G', 'A', 'R', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('J', 'A', 'S', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('K', 'Y', 'A', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('M', 'A', 'R', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('O', 'N', 'Y', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('P', 'U', 'M', '2', '0', '0', 0, 0), QIM_TEXT_ID('P', 'U', 'M', '2', '0', '1', 0, 0)},
    {QIM_TEXT_ID('Q', 'U', 'A', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('S', 'L', 'A', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('T', 'E', 'R', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('T', 'O', 'P', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('T', 'A', 'L', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('Z', 'I', 'R', '4', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('A', 'M', 'B', '1', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('B', 'E', 'R', '2', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
    {QIM_TEXT_ID('C', 'O', 'R', '3', '0', '0', 0, 0), QIM_TEXT_ID(0, 0, 0, 0, 0, 0, 0, 0)},
};
#undef QIM_TEXT_ID

const char* qim_part_id_name(uint32_t part_id) {
    return part_id < QIM_PART_ID_UNKNOWN ? part_id_names[part_id] : part_id_names[QIM_PART_ID_UNKNOWN];
}

uint32_t qim_part_id_from_name(const char* name) {
    for (uint32_t i = 0; name != nullptr && i < QIM_PART_ID_UNKNOWN; ++i) {
        if (std::strcmp(part_id_names[i], name) == 0) return i;
    }
    return QIM_PART_ID_UNKNOWN;
}

const char* qim_device_code_name(uint32_t code) {
    return code < QIM_DEVICE_CODE_COUNT ? devcode_names[code] : devcode_names[0];
}

uint32_t qim_device_code_from_name(const char* name) {
    for (uint32_t i = 0; name != nullptr && i < QIM_DEVICE_CODE_COUNT; ++i) {
        if (std::strcmp(devcode_names[i], name) == 0) return i;
    }
    return 0;
}

const char* qim_device_friendly_name(uint32_t code) {
    return code < QIM_DEVICE_CODE_COUNT ? k_device_friendly_names[code] : k_device_friendly_names[0];
}

uint32_t qim_device_code_from_model_id(const qim_id* id) {
    for (uint32_t i = 0; id != nullptr && i < QIM_DEVICE_CODE_COUNT; ++i) {
        if (qim_id_equal(&k_device_id_names[i][0], id) || qim_id_equal(&k_device_id_names[i][1], id)) {
            return i;
        }
    }
    return 0;
}
