// Reading a loaded package: header facts, parts, models, which parts a device
// model receives, and copying one part's data out.
#include "qim/package.h"
#include "qim/package_internal.h"

namespace {

const qim_part* find_part(const qim_package* pkg, int seq) {
    if (pkg == nullptr) return nullptr;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        if (p->part_seq_num == seq) return p;
    }
    return nullptr;
}

bool ids_match(const qim_id* entry, const qim_id* wanted) {
    return qim_id_is_any(entry) || qim_id_is_any(wanted) || qim_id_equal(entry, wanted);
}

}  // namespace

uint32_t qim_package_get_device_code(const qim_package* pkg) {
    return pkg != nullptr && pkg->header != nullptr ? pkg->header->device_code : 0;
}

uint32_t qim_package_get_version(const qim_package* pkg) {
    return pkg != nullptr && pkg->header != nullptr ? pkg->header->version_major : 0;
}

uint32_t qim_package_get_product_version(const qim_package* pkg) {
    return pkg != nullptr && pkg->header != nullptr ? pkg->header->product_version : 0;
}

const qim_id* qim_package_get_mfgc_id(const qim_package* pkg) {
    return pkg != nullptr && pkg->header != nullptr ? &pkg->header->mfgc_id : &QIM_MFGC_ID_ANY;
}

int qim_package_get_num_parts(const qim_package* pkg) {
    int n = 0;
    for (const qim_part* p = pkg != nullptr ? pkg->parts : nullptr; p != nullptr; p = p->next) ++n;
    return n;
}

int qim_package_get_num_models(const qim_package* pkg) {
    int n = 0;
    for (const qim_model* m = pkg != nullptr ? pkg->models : nullptr; m != nullptr; m = m->next) ++n;
    return n;
}

uint64_t qim_package_get_total_size(const qim_package* pkg) {
    if (pkg == nullptr || pkg->header == nullptr) return 0;
    uint64_t total = 0;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) total += p->size;
    return total;
}

zel_error_t qim_package_get_part_info(const qim_package* pkg, int seq, uint32_t* part_id,
                                      const char** path, uint64_t* position, uint32_t* size,
                                      uint32_t* release_version) {
    const qim_part* p = find_part(pkg, seq);
    if (p == nullptr) return ZEL_INVALIDPARAMETER;
    if (part_id != nullptr) *part_id = p->part_id;
    if (path != nullptr) *path = p->path;
    if (position != nullptr) *position = static_cast<uint64_t>(p->data_start) + p->offset;
    if (size != nullptr) *size = p->size;
    if (release_version != nullptr) *release_version = p->release_version;
    return ZEL_SUCCESS;
}

bool qim_package_find_model_for_part(const qim_package* pkg, const qim_id* model, int seq,
                                     qim_id* found_model) {
    if (pkg == nullptr || seq < 0 || seq >= 32) return false;  // a mask has 32 bits
    bool found = false;
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next) {
        if ((m->part_mask >> seq & 1u) != 0 && ids_match(&m->model_id, model)) {
            // A later entry overrides an earlier one.
            if (found_model != nullptr) *found_model = m->model_id;
            found = true;
        }
    }
    return found;
}

bool qim_package_part_matches_model(const qim_package* pkg, const qim_id* model, int seq) {
    return qim_package_find_model_for_part(pkg, model, seq, nullptr);
}

const qim_model* qim_package_get_model(const qim_package* pkg, int index) {
    if (pkg == nullptr || index < 0) return nullptr;
    const qim_model* m = pkg->models;
    for (int i = 0; m != nullptr && i < index; ++i) m = m->next;
    return m;
}

const qim_model* qim_model_get_next(const qim_model* model) {
    return model != nullptr ? model->next : nullptr;
}

const qim_id* qim_model_get_id(const qim_model* model) {
    return model != nullptr ? &model->model_id : nullptr;
}

zel_error_t qim_package_extract_part(const qim_package* pkg, int seq, FILE* out) {
    if (pkg == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    const qim_part* p = find_part(pkg, seq);
    if (p == nullptr) return ZEL_SUCCESS;
    return qim_internal::copy_part_data(p, out, nullptr, nullptr);
}
