// Loading a package file: header and tables from the first 512 bytes, then
// the checksums, each refusal with its fixed code and message.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

#include "qim/byte_order.h"
#include "qim/byte_sum.h"
#include "qim/crc32.h"
#include "qim/package_format.h"
#include "qim/package_internal.h"
#include "support/system.h"

namespace fmt = qimfmt;

namespace {

void print_bad_checksum(uint32_t computed, uint32_t expected) {
    std::fprintf(stderr, "error: bad checksum: calculated %x, expected %x\n", computed, expected);
}

// Reads up to `length` bytes from `position` on; the count read (fewer only
// at the end of the file), or -1 when reading fails.
long long read_at(int fd, uint64_t position, uint8_t* data, std::size_t length) {
    std::size_t done = 0;
    if (zel_read_at(fd, position, data, length, &done) != ZEL_SUCCESS) return -1;
    return static_cast<long long>(done);
}

// The folded byte sum of the whole file less the stored checksum field, or
// the "unreadable" value when there is no file to read. The file is the one
// open on `fd` when there is one (a load), else the one named `path`.
uint32_t version2_file_sum(int fd, const char* path, const uint8_t* header) {
    int opened = -1;
    if (fd < 0) {
        if (path == nullptr) return fmt::v2::kUnreadableSum;
        opened = ::open(path, O_RDONLY | O_CLOEXEC);
        if (opened < 0) return fmt::v2::kUnreadableSum;
        fd = opened;
    }
    uint8_t chunk[fmt::kChunk];
    uint32_t sum = 0;
    uint64_t position = 0;
    long long got;
    while ((got = read_at(fd, position, chunk, sizeof chunk)) > 0) {
        sum = qim_byte_sum_update(sum, chunk, static_cast<std::size_t>(got));
        position += static_cast<uint64_t>(got);
    }
    if (opened >= 0) ::close(opened);
    if (got < 0) return fmt::v2::kUnreadableSum;
    sum -= qim_byte_sum_update(0, header + fmt::v2::kOffChecksum, 4);
    return qim_byte_sum_fold(sum);
}

// A table must lie within the bytes read: the reader never looks further.
// A table of entries without bytes cannot lie anywhere, so it is refused too
// (it would otherwise let a count of four billion through).
bool table_fits(uint32_t offset, uint32_t count, uint32_t entry_size, std::size_t length) {
    if (count == 0) return true;
    if (entry_size == 0) return false;
    return static_cast<uint64_t>(offset) + static_cast<uint64_t>(count) * entry_size <= length;
}

// Reads entry `index` of a table into a zeroed 16-byte entry: missing
// trailing bytes read as zero, bytes beyond 16 are ignored.
void read_entry(const uint8_t* buf, uint32_t table, uint32_t entry_size, uint32_t index,
                uint8_t (&entry)[16]) {
    std::memset(entry, 0, sizeof entry);
    std::size_t take = entry_size < sizeof entry ? entry_size : sizeof entry;
    std::memcpy(entry, buf + table + static_cast<std::size_t>(index) * entry_size, take);
}

uint32_t low_bits_mask(uint32_t count) {
    return count >= 32 ? 0xffffffffu : (1u << count) - 1u;
}

zel_error_t parse_version2(qim_package* pkg, const uint8_t* buf, std::size_t length,
                           const char* path, int fd) {
    qim_header* h = pkg->header;
    h->device_code = qim_get_be32(buf + fmt::v2::kOffDeviceCode);
    h->product_version = qim_get_be32(buf + fmt::v2::kOffProductVersion);
    h->checksum = qim_get_be32(buf + fmt::v2::kOffChecksum);
    h->mfgc_id = QIM_MFGC_ID_ANY;
    h->header_checksum = 0;

    uint32_t computed = version2_file_sum(fd, path, buf);
    if (computed != h->checksum) {
        print_bad_checksum(computed, h->checksum);
        return ZEL_INVALIDDATA;
    }

    const uint32_t num_parts = qim_get_be32(buf + fmt::v2::kOffNumParts);
    if (!table_fits(fmt::v2::kHeaderSize, num_parts, fmt::v2::kPartEntrySize, length)) {
        return ZEL_INVALIDDATA;
    }
    const uint32_t header_length = qim_get_be32(buf + fmt::kOffHeaderLength);
    for (uint32_t i = 0; i < num_parts; ++i) {
        const uint8_t* e = buf + fmt::v2::kHeaderSize + i * fmt::v2::kPartEntrySize;
        qim_part* part = qim_internal::new_part(
            qim_get_be32(e + fmt::kShortPartOffId), 0, path,
            qim_get_be32(e + fmt::kShortPartOffOffset), header_length,
            qim_get_be32(e + fmt::kShortPartOffSize));
        if (part == nullptr) return ZEL_NOMEMORY;
        qim_internal::append_part(pkg, part);
    }
    // Version 2 has no model table: one entry for any model selects every
    // part that a mask can reach.
    qim_model* model = qim_internal::new_model(&QIM_MODEL_ID_ANY, low_bits_mask(num_parts));
    if (model == nullptr) return ZEL_NOMEMORY;
    qim_internal::append_model(pkg, model);
    return ZEL_SUCCESS;
}

zel_error_t parse_version3(qim_package* pkg, const uint8_t* buf, std::size_t length,
                           const char* path) {
    const uint32_t header_length = qim_get_be32(buf + fmt::kOffHeaderLength);
    if (length < header_length) {
        return ZEL_INVALIDDATA;
    }
    qim_header* h = pkg->header;
    h->device_code = qim_get_be32(buf + fmt::v3::kOffDeviceCode);
    h->product_version = qim_get_be32(buf + fmt::v3::kOffProductVersion);
    h->checksum = qim_get_be32(buf + fmt::v3::kOffChecksum);
    std::memcpy(h->mfgc_id.bytes, buf + fmt::v3::kOffMfgcId, sizeof h->mfgc_id.bytes);
    h->version_minor = qim_get_be32(buf + fmt::v3::kOffVersionMinor);

    if (h->version_minor == 0) {
        h->header_checksum = 0;  // minor 0 packages carry no header checksum
    } else {
        // The header CRC covers header_length bytes and at least the 64-byte
        // header; a shorter header_length gives it no defined range.
        if (header_length < fmt::v3::kHeaderSize) {
            return ZEL_INVALIDDATA;
        }
        h->header_checksum = qim_get_be32(buf + fmt::v3::kOffHeaderChecksum);
        uint8_t head[fmt::v3::kHeaderSize];
        std::memcpy(head, buf, sizeof head);
        std::memset(head + fmt::v3::kOffChecksum, 0, 4);
        std::memset(head + fmt::v3::kOffHeaderChecksum, 0, 4);
        uint32_t crc = crc32_update(CRC32_INIT, head, sizeof head);
        crc = ~crc32_update(crc, buf + sizeof head, header_length - sizeof head);
        if (crc != h->header_checksum) {
            return ZEL_INVALIDDATA;
        }
    }

    const uint32_t part_table = qim_get_be32(buf + fmt::v3::kOffPartTableOffset);
    const uint32_t num_parts = qim_get_be32(buf + fmt::v3::kOffNumParts);
    const uint32_t part_entry_size = qim_get_be32(buf + fmt::v3::kOffPartEntrySize);
    const uint32_t model_table = qim_get_be32(buf + fmt::v3::kOffModelTableOffset);
    const uint32_t num_models = qim_get_be32(buf + fmt::v3::kOffNumModels);
    const uint32_t model_entry_size = qim_get_be32(buf + fmt::v3::kOffModelEntrySize);
    if (!table_fits(part_table, num_parts, part_entry_size, length) ||
        !table_fits(model_table, num_models, model_entry_size, length)) {
        return ZEL_INVALIDDATA;
    }

    uint8_t e[16];
    for (uint32_t i = 0; i < num_parts; ++i) {
        read_entry(buf, part_table, part_entry_size, i, e);
        qim_part* part = qim_internal::new_part(
            qim_get_be32(e + fmt::v3::kPartOffId), qim_get_be32(e + fmt::v3::kPartOffRelease),
            path, qim_get_be32(e + fmt::v3::kPartOffOffset), header_length,
            qim_get_be32(e + fmt::v3::kPartOffSize));
        if (part == nullptr) return ZEL_NOMEMORY;
        qim_internal::append_part(pkg, part);
    }
    for (uint32_t i = 0; i < num_models; ++i) {
        read_entry(buf, model_table, model_entry_size, i, e);
        qim_id id;
        std::memcpy(id.bytes, e + fmt::v3::kModelOffId, sizeof id.bytes);
        qim_model* model = qim_internal::new_model(&id, qim_get_be32(e + fmt::v3::kModelOffMask));
        if (model == nullptr) return ZEL_NOMEMORY;
        qim_internal::append_model(pkg, model);
    }
    return ZEL_SUCCESS;
}

}  // namespace

namespace qim_internal {

zel_error_t check_version3_file_crc(const qim_package* pkg, uint8_t* buf, int fd, const char* path) {
    std::memset(buf + fmt::v3::kOffChecksum, 0, 4);
    uint32_t crc = crc32_update(CRC32_INIT, buf, fmt::v3::kHeaderSize);
    uint8_t chunk[fmt::kChunk];
    uint64_t position = fmt::v3::kHeaderSize;
    long long got;
    while ((got = read_at(fd, position, chunk, sizeof chunk)) > 0) {
        crc = crc32_update(crc, chunk, static_cast<std::size_t>(got));
        position += static_cast<uint64_t>(got);
    }
    if (got < 0) {
        std::fprintf(stderr, "error: cannot read %s: %s\n", path != nullptr ? path : "package",
                     std::strerror(errno));
        return ZEL_NOMEMORY;
    }
    crc = ~crc;
    if (crc != pkg->header->checksum) {
        print_bad_checksum(crc, pkg->header->checksum);
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}

}  // namespace qim_internal

uint32_t qim_local_device_code(void) { return QIM_LOCAL_DEVICE_CODE; }

zel_error_t qim_package_create(qim_package** out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    qim_package* pkg = new (std::nothrow) qim_package{};
    if (pkg == nullptr) return ZEL_NOMEMORY;
    *out = pkg;
    return ZEL_SUCCESS;
}

void qim_package_free(qim_package* pkg) {
    if (pkg == nullptr) return;
    for (qim_part* p = pkg->parts; p != nullptr;) {
        qim_part* next = p->next;
        qim_internal::free_part(p);
        p = next;
    }
    for (qim_model* m = pkg->models; m != nullptr;) {
        qim_model* next = m->next;
        delete m;
        m = next;
    }
    if (pkg->fd >= 0) ::close(pkg->fd);
    delete pkg->header;
    delete pkg;
}

zel_error_t qim_internal::parse_header(qim_package* pkg, const uint8_t* buf, std::size_t length,
                                       const char* path, int fd) {
    if (pkg == nullptr || buf == nullptr) return ZEL_INVALIDPARAMETER;
    if (length < fmt::kMinFileSize) {
        return ZEL_INVALIDDATA;
    }
    if (std::memcmp(buf + fmt::kOffMagic, fmt::kMagic, sizeof fmt::kMagic) != 0) {
        std::fprintf(stderr, "error: qim header doesn't have correct magic number\n");
        return ZEL_INVALIDPARAMETER;
    }
    if (pkg->header != nullptr) {
        std::fprintf(stderr, "error: loading qim into qim that already has a header\n");
        return ZEL_NOMEMORY;
    }
    // The header stays attached whatever follows: a failed load leaves a
    // package that can only be freed.
    pkg->header = new (std::nothrow) qim_header{};
    if (pkg->header == nullptr) return ZEL_NOMEMORY;
    pkg->header->version_major = qim_get_be32(buf + fmt::kOffVersionMajor);
    pkg->header->version_minor = 0;

    switch (pkg->header->version_major) {
        case 2:
            return parse_version2(pkg, buf, length, path, fd);
        case 3:
            return parse_version3(pkg, buf, length, path);
        default:
            std::fprintf(stderr, "unsupported qim version number: %d/0x%x\n",
                         static_cast<int>(pkg->header->version_major),
                         pkg->header->version_major);
            return ZEL_VERSION;
    }
}

zel_error_t qim_package_parse_header(qim_package* pkg, const uint8_t* buf, std::size_t length,
                                     const char* path) {
    return qim_internal::parse_header(pkg, buf, length, path, -1);
}

zel_error_t qim_package_load(qim_package* pkg, const char* path) {
    if (pkg == nullptr || path == nullptr) return ZEL_INVALIDPARAMETER;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return ZEL_NOMEMORY;
    return qim_package_load_fd(pkg, fd, path);
}

zel_error_t qim_package_load_fd(qim_package* pkg, int fd, const char* path) {
    // The package owns the descriptor from here on: it keeps it only when
    // everything read through it was valid.
    zel::UniqueFd owned(fd);
    if (pkg == nullptr || path == nullptr || fd < 0) return ZEL_INVALIDPARAMETER;
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[fmt::kReadLimit]);
    if (!buf) return ZEL_NOMEMORY;

    // Header, tables and checksums all come through this one descriptor,
    // never by opening the name again: whatever is put at the name meanwhile,
    // the bytes validated are the bytes of this file.
    const long long length = read_at(fd, 0, buf.get(), fmt::kReadLimit);
    if (length < 0) return ZEL_NOMEMORY;
    zel_error_t rc = qim_internal::parse_header(pkg, buf.get(), static_cast<std::size_t>(length), path, fd);
    if (rc == ZEL_SUCCESS && pkg->header->version_major == 3) {
        rc = qim_internal::check_version3_file_crc(pkg, buf.get(), fd, path);
    }
    if (rc == ZEL_SUCCESS) {
        pkg->fd = owned.release();
    }
    return rc;
}

int qim_package_get_fd(const qim_package* pkg) {
    return pkg != nullptr ? pkg->fd : -1;
}
