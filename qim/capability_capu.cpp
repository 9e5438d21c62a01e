// The second capability layout, carried in package parts of kind "capu".
#include <cstring>
#include <utility>

#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/crc32.h"

const char CAPU_MAGIC[8] = {'V', 'e', 'l', 'm', 'a', 'r', 'M', 'C'};

namespace {

constexpr std::size_t kHead = 12;
constexpr std::size_t kOffVersion = 8;
constexpr std::size_t kOffLength = 10;
// The smallest record whose link to X can be read.
constexpr std::size_t kMinLength = CAPU_OFF_X_LINK + 2;
constexpr std::size_t kXSize = CAPU_X_OFF_Y_LINK + 2;
constexpr std::size_t kBuiltX = kMinLength;
constexpr std::size_t kBuiltY = kBuiltX + kXSize;

void copy_name(char (&dst)[CAP_NAME_SIZE], const uint8_t* field) {
    std::memcpy(dst, field, CAP_NAME_SIZE);
    dst[CAP_NAME_SIZE - 1] = '\0';
}

}  // namespace

zel_error_t capu_read_identity(FILE* f, uint64_t avail, capu_identity* out) {
    if (f == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    if (avail < CAPU_SKIP + kHead || std::fseek(f, CAPU_SKIP, SEEK_CUR) != 0) return ZEL_INVALIDDATA;
    uint8_t rec[CAPU_MAX_LENGTH];
    if (std::fread(rec, 1, kHead, f) != kHead) return ZEL_INVALIDDATA;
    if (rec[kOffVersion] < CAP_MIN_VERSION) return ZEL_INVALIDDATA;
    const std::size_t length = qim_get_be16(rec + kOffLength);
    if (length > CAPU_MAX_LENGTH) return ZEL_INVALIDDATA;
    // Beyond the checks every reader makes: the record must hold its own
    // link and lie within the part.
    if (length < kMinLength || CAPU_SKIP + length > avail) return ZEL_INVALIDDATA;
    if (std::fread(rec + kHead, 1, length - kHead, f) != length - kHead) return ZEL_INVALIDDATA;
    if (std::memcmp(rec, CAPU_MAGIC, sizeof CAPU_MAGIC) != 0) return ZEL_INVALIDDATA;
    if (rec[kOffVersion] >= CAP_CRC_VERSION) {
        const uint32_t stored = qim_get_be32(rec + CAPU_OFF_CRC);
        std::memset(rec + CAPU_OFF_CRC, 0, 4);
        if (crc32_compute(rec, length) != stored) return ZEL_INVALIDDATA;
    }
    const std::size_t x = qim_get_be16(rec + CAPU_OFF_X_LINK);
    if (x == 0 || x + kXSize > length) return ZEL_INVALIDDATA;
    const std::size_t y = qim_get_be16(rec + x + CAPU_X_OFF_Y_LINK);
    if (y == 0 || y + CAPU_Y_SIZE > length) return ZEL_INVALIDDATA;
    std::memcpy(out->model_id.bytes, rec + y + CAPU_Y_OFF_MODEL_ID, 8);
    copy_name(out->mfgc_name, rec + y + CAPU_Y_OFF_MFGC_NAME);
    copy_name(out->model_name, rec + y + CAPU_Y_OFF_MODEL_NAME);
    return ZEL_SUCCESS;
}

std::size_t capu_build(uint8_t* buf, std::size_t size, uint8_t version, const qim_id* model_id,
                       const char* mfgc_name, const char* model_name) {
    const std::size_t length = kBuiltY + CAPU_Y_SIZE;
    if (buf == nullptr || model_id == nullptr || size < CAPU_SKIP + length) return 0;
    std::memset(buf, 0, CAPU_SKIP + length);
    uint8_t* rec = buf + CAPU_SKIP;
    std::memcpy(rec, CAPU_MAGIC, sizeof CAPU_MAGIC);
    rec[kOffVersion] = version;
    qim_put_be16(rec + kOffLength, static_cast<uint16_t>(length));
    qim_put_be16(rec + CAPU_OFF_X_LINK, kBuiltX);
    qim_put_be16(rec + kBuiltX + CAPU_X_OFF_Y_LINK, kBuiltY);
    uint8_t* y = rec + kBuiltY;
    std::memcpy(y + CAPU_Y_OFF_MODEL_ID, model_id->bytes, 8);
    for (auto [field, name] : {std::pair<std::size_t, const char*>{CAPU_Y_OFF_MFGC_NAME, mfgc_name},
                               {CAPU_Y_OFF_MODEL_NAME, model_name}}) {
        if (name == nullptr) continue;
        std::size_t n = std::strlen(name);
        std::memcpy(y + field, name, n < CAP_NAME_SIZE - 1 ? n : CAP_NAME_SIZE - 1);
    }
    if (version >= CAP_CRC_VERSION) {
        qim_put_be32(rec + CAPU_OFF_CRC, crc32_compute(rec, length));
    }
    return CAPU_SKIP + length;
}
