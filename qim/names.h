// Names of part kinds and device codes, as the package report prints them.
#pragma once

#include <cstdint>

#include "qim/qim_id.h"

enum : uint32_t {
    QIM_PART_ID_NAMES_SIZE = 29,  // kinds 0..27 and "unknown"
    QIM_PART_ID_UNKNOWN = 28,     // the kind every value of 28 or more prints as
    QIM_DEVICE_CODE_COUNT = 47,   // device codes 0..46; 0 is "unknown"
};

// Null-terminated tables.
extern const char* const part_id_names[QIM_PART_ID_NAMES_SIZE + 1];
extern const char* const devcode_names[QIM_DEVICE_CODE_COUNT + 1];
extern const char* const k_device_friendly_names[QIM_DEVICE_CODE_COUNT + 1];
// Per device code one or two model identifiers (the second all zero when a
// code has only one); row 0 holds "Unknown".
extern const qim_id k_device_id_names[QIM_DEVICE_CODE_COUNT][2];

// part_id_names[kind] below 28, "unknown" otherwise.
const char* qim_part_id_name(uint32_t part_id);
// The first kind whose name equals `name` exactly, or 28 (null included).
uint32_t qim_part_id_from_name(const char* name);
// devcode_names[code] below 47, "unknown" otherwise.
const char* qim_device_code_name(uint32_t code);
// The first code whose short name equals `name` exactly, or 0.
uint32_t qim_device_code_from_name(const char* name);
// k_device_friendly_names[code] below 47, "Unknown" otherwise.
const char* qim_device_friendly_name(uint32_t code);
// The first code whose row holds `id` as either identifier, or 0 (null too).
uint32_t qim_device_code_from_model_id(const qim_id* id);
