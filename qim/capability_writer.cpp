// Building and writing capability records (host tools and tests make the
// records that boards and simulated boards carry).
#include <cerrno>
#include <cstring>

#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/crc32.h"

namespace {

// The layout cap_build_record writes: header, app section, manf section.
constexpr std::size_t kAppAt = CAP_HEADER_SIZE;
constexpr std::size_t kManfAt = kAppAt + CAP_APP_SECTION_SIZE;
constexpr std::size_t kBuiltLength = kManfAt + CAP_MANF_SECTION_SIZE;
// Records checked by CRC are made at least this long, so that the CRC test's
// first 1024-byte read never takes more than the record even when the record
// sits at the start of a larger flash partition.
constexpr std::size_t kCrcRecordMinLength = 1024;

void put_name(uint8_t* field, const char* name) {
    if (name == nullptr) return;
    std::size_t n = std::strlen(name);
    if (n > CAP_NAME_SIZE - 1) n = CAP_NAME_SIZE - 1;
    std::memcpy(field, name, n);
}

}  // namespace

void cap_update_crc(cap_record* rec) {
    if (rec == nullptr) return;
    std::memset(rec->data + CAP_OFF_CRC, 0, 4);
    const uint32_t length = qim_get_be16(rec->data + CAP_OFF_LENGTH);
    qim_put_be32(rec->data + CAP_OFF_CRC, crc32_compute(rec->data, length));
}

zel_error_t cap_write_record(const cap_record* rec, FILE* f) {
    if (rec == nullptr || f == nullptr) return ZEL_INVALIDPARAMETER;
    const std::size_t length = qim_get_be16(rec->data + CAP_OFF_LENGTH);
    errno = 0;
    if (std::fwrite(rec->data, 1, length, f) != length) {
        zel_error_t rc = zel_error_from_errno(errno);
        return rc != ZEL_SUCCESS ? rc : ZEL_SYSTEM;
    }
    return ZEL_SUCCESS;
}

zel_error_t cap_build_record(cap_record* rec, const cap_identity* identity) {
    if (rec == nullptr || identity == nullptr) return ZEL_INVALIDPARAMETER;
    std::memset(rec->data, 0, sizeof rec->data);
    uint8_t* d = rec->data;
    std::memcpy(d, CAP_MAGIC, sizeof CAP_MAGIC);
    d[CAP_OFF_VERSION] = identity->version;
    std::size_t length = kBuiltLength;
    if (identity->version >= CAP_CRC_VERSION && length < kCrcRecordMinLength) {
        length = kCrcRecordMinLength;
    }
    qim_put_be16(d + CAP_OFF_LENGTH, static_cast<uint16_t>(length));
    qim_put_be16(d + CAP_OFF_APP_LINK, kAppAt);
    qim_put_be16(d + kAppAt + CAP_APP_OFF_MANF_LINK, kManfAt);
    uint8_t* manf = d + kManfAt;
    std::memcpy(manf + CAP_MANF_OFF_MFGC_ID, identity->mfgc_id.bytes, 8);
    std::memcpy(manf + CAP_MANF_OFF_MODEL_ID, identity->model_id.bytes, 8);
    put_name(manf + CAP_MANF_OFF_MFGC_NAME, identity->mfgc_name);
    put_name(manf + CAP_MANF_OFF_MODEL_NAME, identity->model_name);
    if (identity->version >= CAP_CRC_VERSION) cap_update_crc(rec);
    cap_resolve_sections(rec);
    return ZEL_SUCCESS;
}
