// Assembling a package in memory: header, parts from files, model entries.
#include <cerrno>
#include <memory>
#include <new>

#include "qim/package_builder.h"
#include "qim/package_format.h"
#include "qim/package_internal.h"

using qim_internal::UniqueFile;

namespace {

qim_model* find_model(qim_package* pkg, const qim_id* id) {
    for (qim_model* m = pkg->models; m != nullptr; m = m->next) {
        if (qim_id_equal(&m->model_id, id)) return m;
    }
    return nullptr;
}

}  // namespace

zel_error_t qim_package_init_header(qim_package* pkg, uint32_t device_code, uint32_t product_version,
                                    const qim_id* mfgc_id) {
    if (pkg == nullptr || mfgc_id == nullptr) return ZEL_INVALIDPARAMETER;
    if (pkg->header != nullptr) return ZEL_INVALIDSTATE;
    qim_header* h = new (std::nothrow) qim_header{};
    if (h == nullptr) return ZEL_NOMEMORY;
    h->device_code = device_code;
    h->product_version = product_version;
    h->mfgc_id = *mfgc_id;
    h->version_major = 3;
    h->version_minor = qimfmt::v3::kVersionMinorWritten;
    pkg->header = h;
    return ZEL_SUCCESS;
}

void qim_package_set_mfgc_id(qim_package* pkg, const qim_id* mfgc_id) {
    if (pkg != nullptr && pkg->header != nullptr && mfgc_id != nullptr) {
        pkg->header->mfgc_id = *mfgc_id;
    }
}

zel_error_t qim_package_set_product_version(qim_package* pkg, uint32_t product_version) {
    if (pkg == nullptr || pkg->header == nullptr) return ZEL_INVALIDSTATE;
    pkg->header->product_version = product_version;
    return ZEL_SUCCESS;
}

zel_error_t qim_package_add_part_file(qim_package* pkg, uint32_t part_id, uint32_t release_version,
                                      const char* path, int* seq_out) {
    if (pkg == nullptr || path == nullptr) return ZEL_INVALIDPARAMETER;
    std::unique_ptr<qim_part, void (*)(qim_part*)> part(
        qim_internal::new_part(part_id, release_version, path, 0, 0, 0), qim_internal::free_part);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[qimfmt::kChunk]);
    if (!part || !buf) return ZEL_NOMEMORY;

    UniqueFile f(std::fopen(path, "rb"));
    if (!f) return ZEL_INVALIDPARAMETER;
    uint64_t size = 0;
    std::size_t got;
    while ((got = std::fread(buf.get(), 1, qimfmt::kChunk, f.get())) > 0) {
        size += got;
    }
    if (std::ferror(f.get())) return ZEL_INVALIDPARAMETER;
    if (size > UINT32_MAX) return ZEL_RANGE;  // a part's size field has 32 bits
    part->size = static_cast<uint32_t>(size);

    qim_part* added = part.release();
    qim_internal::append_part(pkg, added);
    if (seq_out != nullptr) *seq_out = added->part_seq_num;
    return ZEL_SUCCESS;
}

zel_error_t qim_package_add_model(qim_package* pkg, const qim_id* model_id) {
    if (pkg == nullptr || model_id == nullptr) return ZEL_INVALIDPARAMETER;
    if (find_model(pkg, model_id) != nullptr) return ZEL_INVALIDDATA;
    qim_model* m = qim_internal::new_model(model_id, 0);
    if (m == nullptr) return ZEL_NOMEMORY;
    qim_internal::append_model(pkg, m);
    return ZEL_SUCCESS;
}

zel_error_t qim_package_set_model_part(qim_package* pkg, const qim_id* model_id, int seq) {
    if (pkg == nullptr || model_id == nullptr) return ZEL_INVALIDPARAMETER;
    qim_model* m = find_model(pkg, model_id);
    if (m == nullptr) return ZEL_INVALIDPARAMETER;
    if (seq >= 0 && seq < 32) m->part_mask |= 1u << seq;
    return ZEL_SUCCESS;
}

zel_error_t qim_package_remove_model(qim_package* pkg, const qim_id* model_id) {
    if (pkg == nullptr || model_id == nullptr) return ZEL_INVALIDPARAMETER;
    for (qim_model** link = &pkg->models; *link != nullptr; link = &(*link)->next) {
        if (qim_id_equal(&(*link)->model_id, model_id)) {
            qim_model* gone = *link;
            *link = gone->next;
            delete gone;
            return ZEL_SUCCESS;
        }
    }
    return ZEL_INVALIDPARAMETER;
}

zel_error_t qim_package_set_model_id(qim_package* pkg, const qim_id* model_id) {
    if (pkg == nullptr || model_id == nullptr) return ZEL_INVALIDPARAMETER;
    qim_model* only = pkg->models;
    if (only == nullptr || only->next != nullptr || !qim_id_is_any(&only->model_id)) {
        return ZEL_INVALIDDATA;
    }
    only->model_id = *model_id;
    return ZEL_SUCCESS;
}
