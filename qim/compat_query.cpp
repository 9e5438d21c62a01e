#include "qim/compat_query.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <memory>
#include <new>

#include "qim/byte_order.h"
#include "qim/package_internal.h"

using qim_internal::UniqueFile;

namespace {

constexpr uint32_t kPartCap1 = 9;
constexpr uint32_t kPartCapu = 14;

bool either_any_or_equal(const qim_id* a, const qim_id* b) {
    return qim_id_is_any(a) || qim_id_is_any(b) || qim_id_equal(a, b);
}

void copy_name(char (&dst)[CAP_NAME_SIZE], const char* src) {
    std::size_t n = strnlen(src, CAP_NAME_SIZE - 1);
    std::memcpy(dst, src, n);
    std::memset(dst + n, 0, CAP_NAME_SIZE - n);
}

qim_compat_model* append_model(qim_compat_info* r, const qim_id* id, const char* name) {
    qim_compat_model* m = new (std::nothrow) qim_compat_model{};
    if (m == nullptr) return nullptr;
    m->model_id = *id;
    copy_name(m->model_name, name);
    qim_compat_model** link = &r->models;
    while (*link != nullptr) link = &(*link)->next;
    *link = m;
    return m;
}

void name_first_model(qim_compat_info* r, const qim_id* id, const char* name) {
    for (qim_compat_model* m = r->models; m != nullptr; m = m->next) {
        if (qim_id_equal(&m->model_id, id)) {
            copy_name(m->model_name, name);
            return;
        }
    }
}

// Opens a part's file at the start of its data. A loaded package is read
// through the descriptor it was validated through (a duplicate, so the
// package's own descriptor stays open), never by its name again.
UniqueFile open_part(const qim_package* pkg, const qim_part* p) {
    UniqueFile f;
    if (pkg->fd >= 0) {
        const int fd = ::fcntl(pkg->fd, F_DUPFD_CLOEXEC, 0);
        if (fd < 0) return UniqueFile();
        f.reset(::fdopen(fd, "rb"));
        if (!f) ::close(fd);
    } else if (p->path != nullptr) {
        f.reset(std::fopen(p->path, "rb"));
    }
    if (f && !qim_internal::seek_to(f.get(), static_cast<uint64_t>(p->data_start) + p->offset)) {
        f.reset();
    }
    return f;
}

// Reads the capability record that a "cap1" part holds. The record must lie
// within the part: its length may not pass the part's size.
bool read_cap1(const qim_package* pkg, const qim_part* p, cap_record* rec) {
    UniqueFile f = open_part(pkg, p);
    if (!f || cap_read_record(rec, f.get()) != ZEL_SUCCESS) return false;
    return qim_get_be16(rec->data + CAP_OFF_LENGTH) <= p->size;
}

bool read_capu(const qim_package* pkg, const qim_part* p, capu_identity* id) {
    UniqueFile f = open_part(pkg, p);
    return f && capu_read_identity(f.get(), p->size, id) == ZEL_SUCCESS;
}

struct ManfFacts {
    qim_id mfgc_id;
    qim_id model_id;
    char mfgc_name[CAP_NAME_SIZE];
    char model_name[CAP_NAME_SIZE];
};

void manf_facts(const uint8_t* manf, ManfFacts* out) {
    std::memcpy(out->mfgc_id.bytes, manf + CAP_MANF_OFF_MFGC_ID, 8);
    std::memcpy(out->model_id.bytes, manf + CAP_MANF_OFF_MODEL_ID, 8);
    std::memcpy(out->mfgc_name, manf + CAP_MANF_OFF_MFGC_NAME, CAP_NAME_SIZE);
    std::memcpy(out->model_name, manf + CAP_MANF_OFF_MODEL_NAME, CAP_NAME_SIZE);
    out->mfgc_name[CAP_NAME_SIZE - 1] = '\0';
    out->model_name[CAP_NAME_SIZE - 1] = '\0';
}

zel_error_t gather_version3(const qim_package* pkg, const qim_id* wanted_model,
                            qim_compat_info* r, cap_record* rec, zel_error_t* status) {
    r->mfgc_id = pkg->header->mfgc_id;
    r->known |= QIM_CHECK_MFGC_ID;
    *status = ZEL_INVALIDDATA;
    const bool single_entry = pkg->models != nullptr && pkg->models->next == nullptr;
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next) {
        if (qim_id_equal(&m->model_id, wanted_model) || qim_id_is_any(wanted_model) ||
            (qim_id_is_any(&m->model_id) && single_entry)) {
            if (append_model(r, &m->model_id, "") == nullptr) return ZEL_NOMEMORY;
            r->known |= QIM_CHECK_MODEL_ID;
            *status = ZEL_SUCCESS;
        }
    }
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        if (p->part_id == kPartCap1) {
            if (read_cap1(pkg, p, rec) && rec->sections[CAP_REF_MANF] != nullptr) {
                ManfFacts f;
                manf_facts(rec->sections[CAP_REF_MANF], &f);
                copy_name(r->mfgc_name, f.mfgc_name);
                name_first_model(r, &f.model_id, f.model_name);
            }
        } else if (p->part_id == kPartCapu) {
            capu_identity id;
            if (read_capu(pkg, p, &id)) {
                copy_name(r->mfgc_name, id.mfgc_name);
                name_first_model(r, &id.model_id, id.model_name);
            }
        }
    }
    return ZEL_SUCCESS;
}

zel_error_t gather_version2(const qim_package* pkg, const qim_id* wanted_model,
                            qim_compat_info* r, cap_record* rec, zel_error_t* status) {
    *status = ZEL_INVALIDDATA;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        if (!qim_package_part_matches_model(pkg, wanted_model, p->part_seq_num)) continue;
        *status = ZEL_SUCCESS;
        if (p->part_id != kPartCap1 || !read_cap1(pkg, p, rec)) continue;
        const uint8_t* manf = rec->sections[CAP_REF_MANF];
        if (manf == nullptr) {
            if (append_model(r, &QIM_MODEL_ID_ANY, "") == nullptr) return ZEL_NOMEMORY;
            continue;
        }
        ManfFacts f;
        manf_facts(manf, &f);
        r->mfgc_id = f.mfgc_id;
        copy_name(r->mfgc_name, f.mfgc_name);
        r->known |= QIM_CHECK_MFGC_ID | QIM_CHECK_MODEL_ID;
        if (append_model(r, &f.model_id, f.model_name) == nullptr) return ZEL_NOMEMORY;
    }
    return ZEL_SUCCESS;
}

}  // namespace

zel_error_t qim_package_check_device(const qim_package* pkg, const qim_device_info* device,
                                     qim_compat_info* result) {
    if (pkg == nullptr || result == nullptr || pkg->header == nullptr) return ZEL_INVALIDPARAMETER;
    std::memset(result, 0, sizeof *result);
    const qim_device_info none{};
    if (device == nullptr) device = &none;
    const qim_header* h = pkg->header;

    if ((device->flags & QIM_CHECK_DEVICE_CODE) && device->device_code != h->device_code) {
        return ZEL_INVALIDDATA;
    }
    if ((device->flags & QIM_CHECK_MFGC_ID) && !either_any_or_equal(&device->mfgc_id, &h->mfgc_id)) {
        return ZEL_INVALIDDATA;
    }
    result->device_code = h->device_code;
    result->known = QIM_CHECK_DEVICE_CODE;
    const qim_id* wanted_model =
        (device->flags & QIM_CHECK_MODEL_ID) ? &device->model_id : &QIM_MODEL_ID_ANY;
    const qim_id* wanted_mfgc =
        (device->flags & QIM_CHECK_MFGC_ID) ? &device->mfgc_id : &QIM_MFGC_ID_ANY;

    std::unique_ptr<cap_record> rec(new (std::nothrow) cap_record);
    if (!rec) return ZEL_NOMEMORY;
    zel_error_t status = ZEL_INVALIDDATA;
    zel_error_t rc = h->version_major >= 3
                         ? gather_version3(pkg, wanted_model, result, rec.get(), &status)
                         : gather_version2(pkg, wanted_model, result, rec.get(), &status);
    if (rc != ZEL_SUCCESS) return rc;
    if (status != ZEL_SUCCESS) return status;

    if (device->flags & QIM_CHECK_DEVICE_CODE) {
        const bool ok = (result->known & QIM_CHECK_DEVICE_CODE) && device->device_code == result->device_code;
        (ok ? result->matched : result->mismatched) |= QIM_CHECK_DEVICE_CODE;
    }
    if (device->flags & QIM_CHECK_MFGC_ID) {
        const bool ok = (result->known & QIM_CHECK_MFGC_ID) &&
                        either_any_or_equal(&result->mfgc_id, wanted_mfgc);
        (ok ? result->matched : result->mismatched) |= QIM_CHECK_MFGC_ID;
    }
    if (device->flags & QIM_CHECK_MODEL_ID) {
        for (const qim_compat_model* m = result->models; m != nullptr; m = m->next) {
            const bool ok = (result->known & QIM_CHECK_MODEL_ID) &&
                            either_any_or_equal(&m->model_id, wanted_model);
            (ok ? result->matched : result->mismatched) |= QIM_CHECK_MODEL_ID;
        }
    }
    return ZEL_SUCCESS;
}

void qim_compat_info_free_models(qim_compat_info* result) {
    if (result == nullptr) return;
    for (qim_compat_model* m = result->models; m != nullptr;) {
        qim_compat_model* next = m->next;
        delete m;
        m = next;
    }
    result->models = nullptr;
}
