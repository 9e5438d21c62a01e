// What every package fuzz target does with a package after a load attempt:
// walk every accessor the upgrade flow and the host tools use, print the
// report, run the compatibility query, and check the invariants the
// accessors promise. A broken invariant aborts, which libFuzzer reports.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "fuzz_util.h"
#include "qim/compat_query.h"
#include "qim/package.h"
#include "qim/report.h"

namespace fuzzutil {

// `loaded`: the load returned 0, so the package is whole (not merely freeable).
inline void exercisePackage(const qim_package* pkg, bool loaded) {
    const int parts = qim_package_get_num_parts(pkg);
    const int models = qim_package_get_num_models(pkg);
    if (!loaded) return;  // a failed load leaves a package that can only be freed

    uint64_t total = 0;
    for (int seq = 0; seq < parts; ++seq) {
        uint32_t id = 0, size = 0, release = 0;
        const char* path = nullptr;
        uint64_t position = 0;
        require(qim_package_get_part_info(pkg, seq, &id, &path, &position, &size, &release) == ZEL_SUCCESS);
        total += size;
    }
    require(qim_package_get_total_size(pkg) == total);
    // One past the last part: refused, outputs untouched.
    uint32_t untouched = 0xA5A5A5A5u;
    require(qim_package_get_part_info(pkg, parts, &untouched, nullptr, nullptr, nullptr, nullptr) ==
            ZEL_INVALIDPARAMETER);
    require(untouched == 0xA5A5A5A5u);

    int counted = 0;
    uint32_t anyMask = 0;  // parts that some entry selects
    for (const qim_model* m = qim_package_get_model(pkg, 0); m != nullptr; m = qim_model_get_next(m)) {
        ++counted;
        anyMask |= m->part_mask;
    }
    require(counted == models);

    for (int seq = 0; seq < parts && seq < 40; ++seq) {
        // With the "any" device model a part is selected exactly when some
        // entry's mask selects it.
        const bool expected = seq < 32 && ((anyMask >> seq) & 1u) != 0;
        require(qim_package_part_matches_model(pkg, &QIM_MODEL_ID_ANY, seq) == expected);
        const qim_model* first = qim_package_get_model(pkg, 0);
        if (first != nullptr) {
            qim_id found = QIM_MODEL_ID_ANY;
            const bool matched = qim_package_find_model_for_part(pkg, qim_model_get_id(first), seq, &found);
            require(matched == qim_package_part_matches_model(pkg, qim_model_get_id(first), seq));
        }
    }

    qim_package_fprint(pkg, sink());

    qim_device_info device{};
    device.flags = QIM_CHECK_DEVICE_CODE | QIM_CHECK_MFGC_ID | QIM_CHECK_MODEL_ID;
    device.device_code = qim_package_get_device_code(pkg);
    device.mfgc_id = *qim_package_get_mfgc_id(pkg);
    const qim_model* first = qim_package_get_model(pkg, 0);
    if (first != nullptr) device.model_id = *qim_model_get_id(first);
    for (const qim_device_info* asked : {static_cast<const qim_device_info*>(nullptr),
                                         static_cast<const qim_device_info*>(&device)}) {
        qim_compat_info info{};
        const zel_error_t rc = qim_package_check_device(pkg, asked, &info);
        require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA || rc == ZEL_NOMEMORY);
        for (const qim_compat_model* m = info.models; m != nullptr; m = m->next) {
            require(m->model_name[sizeof m->model_name - 1] == '\0');
        }
        require(info.mfgc_name[sizeof info.mfgc_name - 1] == '\0');
        qim_compat_info_free_models(&info);
    }
}

}  // namespace fuzzutil
