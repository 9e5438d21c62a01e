// Whether a package fits a described device, with the manufacturer and model
// names that the package's embedded capability records hold.
#pragma once

#include <cstdint>

#include "qim/capability.h"
#include "qim/package.h"

enum : uint32_t {
    QIM_CHECK_DEVICE_CODE = 1,
    QIM_CHECK_MFGC_ID = 2,
    QIM_CHECK_MODEL_ID = 4,
};

// The device asked about; `flags` says which fields are given.
struct qim_device_info {
    uint32_t flags;
    uint32_t device_code;
    qim_id mfgc_id;
    qim_id model_id;
};

struct qim_compat_model {
    qim_id model_id;
    char model_name[CAP_NAME_SIZE];  // always terminated; empty when unknown
    qim_compat_model* next;
};

// The answer. `known` says which facts the package revealed, `matched` and
// `mismatched` how the given fields compare with them (QIM_CHECK_* bits).
struct qim_compat_info {
    uint32_t mismatched;
    uint32_t matched;
    uint32_t known;
    uint32_t device_code;
    qim_id mfgc_id;
    char mfgc_name[CAP_NAME_SIZE];  // always terminated
    qim_compat_model* models;       // owned by the caller: qim_compat_info_free_models
};

// Clears `result` (any models it held are the caller's to free first), then
// answers for `device` (null: nothing given). 0; 4 when the package is not
// for that device code or manufacturer, or no model entry (no part, for
// version 2) is for the model; 3 for null arguments or a package without a
// header; 6 when memory is short. On 4 from the device-code or manufacturer
// test the result stays cleared; otherwise it keeps what was gathered.
// Capability records in parts of kind "cap1" are read with cap_read_record,
// whose messages appear on stderr when one cannot be read.
zel_error_t qim_package_check_device(const qim_package* pkg, const qim_device_info* device,
                                     qim_compat_info* result);

// Frees result->models and sets it to null.
void qim_compat_info_free_models(qim_compat_info* result);
