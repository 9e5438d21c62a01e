// Writing packages: the current version 3.1 with its two CRCs, version 2 with
// its folded byte sum, and the legacy version 1.
//
// Header and tables are assembled in memory and the checksums are computed
// while the part data streams through, so every byte is read from its source
// once and the output is only revisited to store the finished header.
#include <cerrno>
#include <cstring>
#include <vector>

#include "qim/byte_order.h"
#include "qim/byte_sum.h"
#include "qim/crc32.h"
#include "qim/package_builder.h"
#include "qim/package_format.h"
#include "qim/package_internal.h"

namespace fmt = qimfmt;

namespace {

struct Counts {
    uint32_t parts = 0;
    uint32_t models = 0;
};

Counts count(const qim_package* pkg) {
    Counts c;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) ++c.parts;
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next) ++c.models;
    return c;
}

zel_error_t seek_start(FILE* out) {
    if (std::fseek(out, 0, SEEK_SET) != 0) {
        std::fprintf(stderr, "error: cannot seek in package: %s\n", std::strerror(errno));
        return ZEL_SYSTEM;
    }
    return ZEL_SUCCESS;
}

zel_error_t data_too_large() {
    std::fprintf(stderr, "error: part data passes 4 GiB, beyond 32-bit part offsets\n");
    return ZEL_RANGE;
}

zel_error_t write_bytes(FILE* out, const uint8_t* data, std::size_t len) {
    if (std::fwrite(data, 1, len, out) != len) {
        std::fprintf(stderr, "error: cannot write package: %s\n", std::strerror(errno));
        return ZEL_SYSTEM;
    }
    return ZEL_SUCCESS;
}

// Rewrites the first `len` bytes of the output and flushes it.
zel_error_t rewrite_start(FILE* out, const uint8_t* data, std::size_t len) {
    zel_error_t rc = seek_start(out);
    if (rc == ZEL_SUCCESS) rc = write_bytes(out, data, len);
    if (rc != ZEL_SUCCESS) return rc;
    if (std::fflush(out) != 0) {
        std::fprintf(stderr, "error: cannot write package: %s\n", std::strerror(errno));
        return ZEL_SYSTEM;
    }
    return ZEL_SUCCESS;
}

// The data of every part in table order, packed.
zel_error_t copy_all_parts(const qim_package* pkg, FILE* out, uint32_t* crc, uint32_t* sum) {
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        zel_error_t rc = qim_internal::copy_part_data(p, out, crc, sum);
        if (rc != ZEL_SUCCESS) return rc;
    }
    return ZEL_SUCCESS;
}

// Appends 12-byte entries (kind, running offset, size) as versions 1 and 2
// have them. False when the packed data would pass 4 GiB.
bool put_short_entries(const qim_package* pkg, uint8_t* at) {
    uint64_t offset = 0;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        if (offset > UINT32_MAX) return false;
        qim_put_be32(at + fmt::kShortPartOffId, p->part_id);
        qim_put_be32(at + fmt::kShortPartOffOffset, static_cast<uint32_t>(offset));
        qim_put_be32(at + fmt::kShortPartOffSize, p->size);
        offset += p->size;
        at += fmt::v1::kPartEntrySize;
    }
    return true;
}

}  // namespace

zel_error_t qim_package_write(qim_package* pkg, FILE* out) {
    if (pkg == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    if (pkg->header == nullptr) return ZEL_INVALIDSTATE;
    const Counts c = count(pkg);
    const uint64_t header_length = 16ull * (c.parts + c.models + 4);
    if (header_length > fmt::kReadLimit) {
        std::fprintf(stderr,
                     "error: %u parts and %u models need %llu header bytes; readers take %u\n",
                     c.parts, c.models, static_cast<unsigned long long>(header_length),
                     static_cast<unsigned>(fmt::kReadLimit));
        return ZEL_INVALIDDATA;
    }
    std::vector<uint8_t> head(static_cast<std::size_t>(header_length), 0);
    uint8_t* h = head.data();
    const uint32_t part_table = fmt::v3::kHeaderSize;
    const uint32_t model_table = part_table + fmt::v3::kPartEntrySize * c.parts;
    std::memcpy(h, fmt::kMagic, sizeof fmt::kMagic);
    qim_put_be32(h + fmt::kOffHeaderLength, static_cast<uint32_t>(header_length));
    qim_put_be32(h + fmt::kOffVersionMajor, 3);
    qim_put_be32(h + fmt::v3::kOffVersionMinor, fmt::v3::kVersionMinorWritten);
    qim_put_be32(h + fmt::v3::kOffDeviceCode, pkg->header->device_code);
    qim_put_be32(h + fmt::v3::kOffProductVersion, pkg->header->product_version);
    std::memcpy(h + fmt::v3::kOffMfgcId, pkg->header->mfgc_id.bytes, 8);
    qim_put_be32(h + fmt::v3::kOffPartTableOffset, part_table);
    qim_put_be32(h + fmt::v3::kOffNumParts, c.parts);
    qim_put_be32(h + fmt::v3::kOffPartEntrySize, fmt::v3::kPartEntrySize);
    qim_put_be32(h + fmt::v3::kOffModelTableOffset, model_table);
    qim_put_be32(h + fmt::v3::kOffNumModels, c.models);
    qim_put_be32(h + fmt::v3::kOffModelEntrySize, fmt::v3::kModelEntrySize);

    uint64_t offset = 0;
    uint8_t* e = h + part_table;
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next, e += fmt::v3::kPartEntrySize) {
        if (offset > UINT32_MAX) return data_too_large();
        qim_put_be32(e + fmt::v3::kPartOffId, p->part_id);
        qim_put_be32(e + fmt::v3::kPartOffRelease, p->release_version);
        qim_put_be32(e + fmt::v3::kPartOffOffset, static_cast<uint32_t>(offset));
        qim_put_be32(e + fmt::v3::kPartOffSize, p->size);
        offset += p->size;
    }
    e = h + model_table;
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next, e += fmt::v3::kModelEntrySize) {
        std::memcpy(e + fmt::v3::kModelOffId, m->model_id.bytes, 8);
        qim_put_be32(e + fmt::v3::kModelOffMask, m->part_mask);
    }

    // Header CRC first (both checksum fields still zero), then the file CRC
    // over everything with the header CRC in place.
    const uint32_t header_checksum = crc32_compute(h, head.size());
    qim_put_be32(h + fmt::v3::kOffHeaderChecksum, header_checksum);
    uint32_t crc = crc32_update(CRC32_INIT, h, head.size());

    zel_error_t rc = seek_start(out);
    if (rc == ZEL_SUCCESS) rc = write_bytes(out, h, head.size());
    if (rc == ZEL_SUCCESS) rc = copy_all_parts(pkg, out, &crc, nullptr);
    if (rc != ZEL_SUCCESS) return rc;
    const uint32_t checksum = ~crc;
    qim_put_be32(h + fmt::v3::kOffChecksum, checksum);
    rc = rewrite_start(out, h, fmt::v3::kHeaderSize);
    if (rc != ZEL_SUCCESS) return rc;
    pkg->header->header_checksum = header_checksum;
    pkg->header->checksum = checksum;
    return ZEL_SUCCESS;
}

zel_error_t qim_package_write_v2(qim_package* pkg, FILE* out) {
    if (pkg == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    if (pkg->header == nullptr) return ZEL_INVALIDSTATE;
    const Counts c = count(pkg);
    const uint64_t header_length = fmt::v2::kHeaderSize + uint64_t{fmt::v2::kPartEntrySize} * c.parts;
    if (header_length > fmt::kReadLimit) {
        std::fprintf(stderr, "error: %u parts do not fit a version-2 part table (at most 40)\n",
                     c.parts);
        return ZEL_INVALIDDATA;
    }
    std::vector<uint8_t> head(static_cast<std::size_t>(header_length), 0);
    uint8_t* h = head.data();
    std::memcpy(h, fmt::kMagic, sizeof fmt::kMagic);
    qim_put_be32(h + fmt::kOffHeaderLength, static_cast<uint32_t>(header_length));
    qim_put_be32(h + fmt::kOffVersionMajor, 2);
    qim_put_be32(h + fmt::v2::kOffDeviceCode, pkg->header->device_code);
    qim_put_be32(h + fmt::v2::kOffProductVersion, pkg->header->product_version);
    qim_put_be32(h + fmt::v2::kOffNumParts, c.parts);
    if (!put_short_entries(pkg, h + fmt::v2::kHeaderSize)) return data_too_large();

    // The checksum field is still zero, so summing the header as it stands
    // leaves it out.
    uint32_t sum = qim_byte_sum_update(0, h, head.size());
    zel_error_t rc = seek_start(out);
    if (rc == ZEL_SUCCESS) rc = write_bytes(out, h, head.size());
    if (rc == ZEL_SUCCESS) rc = copy_all_parts(pkg, out, nullptr, &sum);
    if (rc != ZEL_SUCCESS) return rc;
    const uint32_t checksum = qim_byte_sum_fold(sum);
    qim_put_be32(h + fmt::v2::kOffChecksum, checksum);
    rc = rewrite_start(out, h, fmt::v2::kHeaderSize);
    if (rc != ZEL_SUCCESS) return rc;
    pkg->header->checksum = checksum;
    return ZEL_SUCCESS;
}

zel_error_t qim_package_write_v1(const qim_package* pkg, FILE* out) {
    if (pkg == nullptr || out == nullptr) return ZEL_INVALIDPARAMETER;
    if (pkg->header == nullptr) return ZEL_INVALIDSTATE;
    const Counts c = count(pkg);
    std::vector<uint8_t> head(fmt::v1::kHeaderSize + std::size_t{fmt::v1::kPartEntrySize} * c.parts, 0);
    uint8_t* h = head.data();
    std::memcpy(h, fmt::kMagic, sizeof fmt::kMagic);
    qim_put_be32(h + fmt::kOffHeaderLength, static_cast<uint32_t>(head.size()));
    qim_put_be32(h + fmt::kOffVersionMajor, 1);
    qim_put_be32(h + fmt::v1::kOffDeviceCode, pkg->header->device_code);
    qim_put_be32(h + fmt::v1::kOffProductVersion, pkg->header->product_version);
    qim_put_be32(h + fmt::v1::kOffNumParts, c.parts);
    if (!put_short_entries(pkg, h + fmt::v1::kHeaderSize)) return data_too_large();
    zel_error_t rc = write_bytes(out, h, head.size());
    if (rc == ZEL_SUCCESS) rc = copy_all_parts(pkg, out, nullptr, nullptr);
    if (rc == ZEL_SUCCESS && std::fflush(out) != 0) rc = ZEL_SYSTEM;
    return rc;
}
