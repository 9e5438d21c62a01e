// Opening and reading capability records: the CRC test, the marker file, the
// record reader and the resolution of its section links.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/crc32.h"
#include "qim/package_internal.h"
#include "support/tmp_file.h"

using qim_internal::UniqueFile;

const char CAP_MAGIC[8] = {'K', 'o', 'r', 'v', 'a', 'l', 'e', 'n'};
const char CAP_CRC_OK_MARKER[] = "/tmp/crc_ok";

namespace {

constexpr std::size_t kCrcReadChunk = 1024;
constexpr int kNoHolder = -1;

// How each of the 28 references is reached: the reference that holds the
// link (kNoHolder: the record header), the link's offset inside it, and how
// many bytes of the target this code relies on (the links read inside it, or
// the whole section for app and manf; 1 for a section of unknown size).
struct SectionLink {
    int holder;
    uint16_t link_offset;
    uint16_t target_size;
};

const SectionLink kLinks[CAP_NUM_SECTIONS] = {
    /* RECORD     */ {kNoHolder, 0, 0},
    /* APP        */ {kNoHolder, CAP_OFF_APP_LINK, CAP_APP_SECTION_SIZE},
    /* APP_12     */ {CAP_REF_APP, 12, 24},
    /* APP_12_12  */ {CAP_REF_APP_12, 12, 1},
    /* APP_34     */ {CAP_REF_APP, 34, 1},
    /* APP_32     */ {CAP_REF_APP, 32, 1},
    /* APP_36     */ {CAP_REF_APP, 36, 1},
    /* HEADER_12  */ {kNoHolder, CAP_OFF_LINK, 1},
    /* APP_12_14  */ {CAP_REF_APP_12, 14, 1},
    /* APP_12_22  */ {CAP_REF_APP_12, 22, 1},
    /* APP_14     */ {CAP_REF_APP, 14, 1},
    /* APP_20     */ {CAP_REF_APP, 20, 1},
    /* APP_22     */ {CAP_REF_APP, 22, 1},
    /* APP_30     */ {CAP_REF_APP, 30, 1},
    /* APP_16     */ {CAP_REF_APP, 16, 1},
    /* APP_18     */ {CAP_REF_APP, 18, 1},
    /* APP_12_16  */ {CAP_REF_APP_12, 16, 1},
    /* MANF       */ {CAP_REF_APP, CAP_APP_OFF_MANF_LINK, CAP_MANF_SECTION_SIZE},
    /* APP_40     */ {CAP_REF_APP, 40, 1},
    /* APP_42     */ {CAP_REF_APP, 42, 1},
    /* APP_38     */ {CAP_REF_APP, 38, 12},
    /* APP_38_8   */ {CAP_REF_APP_38, 8, 1},
    /* APP_38_10  */ {CAP_REF_APP_38, 10, 1},
    /* APP_44     */ {CAP_REF_APP, 44, 8},
    /* APP_44_4   */ {CAP_REF_APP_44, 4, 1},
    /* APP_44_6   */ {CAP_REF_APP_44, 6, 1},
    /* APP_46     */ {CAP_REF_APP, 46, 4},
    /* APP_46_2   */ {CAP_REF_APP_46, 2, 1},
};

uint32_t record_length(const uint8_t* data) { return qim_get_be16(data + CAP_OFF_LENGTH); }

// Resolves every reference; a link whose target does not fit in the record
// leaves its reference null. Returns the first such link value, or 0.
uint32_t resolve_bounded(cap_record* rec) {
    const uint32_t length = record_length(rec->data);
    uint32_t first_outside = 0;
    rec->sections[CAP_REF_RECORD] = rec->data;
    for (int i = 1; i < static_cast<int>(CAP_NUM_SECTIONS); ++i) {
        const SectionLink& l = kLinks[i];
        rec->sections[i] = nullptr;
        const uint8_t* holder = l.holder == kNoHolder ? rec->data : rec->sections[l.holder];
        if (holder == nullptr) continue;
        const uint32_t link = qim_get_be16(holder + l.link_offset);
        if (link == 0) continue;
        if (link + l.target_size > length) {
            if (first_outside == 0) first_outside = link;
            continue;
        }
        rec->sections[i] = rec->data + link;
    }
    return first_outside;
}

}  // namespace

int cap_verify_crc(FILE* f) {
    if (f == nullptr || std::fseek(f, 0, SEEK_SET) != 0) return -1;
    uint8_t buf[kCrcReadChunk];
    std::size_t taken = std::fread(buf, 1, sizeof buf, f);
    if (taken < CAP_HEADER_SIZE) return -1;
    if (buf[CAP_OFF_VERSION] < CAP_CRC_VERSION) return 0;

    const uint32_t stored = qim_get_be32(buf + CAP_OFF_CRC);
    std::memset(buf + CAP_OFF_CRC, 0, 4);
    const uint32_t length = qim_get_be16(buf + CAP_OFF_LENGTH);
    uint32_t crc = crc32_update(CRC32_INIT, buf, taken);
    while (taken < length) {
        std::size_t want = length - taken < sizeof buf ? length - taken : sizeof buf;
        std::size_t got = std::fread(buf, 1, want, f);
        if (got == 0) return -1;
        crc = crc32_update(crc, buf, got);
        taken += got;
    }
    return taken == length && ~crc == stored ? 0 : -1;
}

zel_error_t cap_open_with_marker(FILE** out, uint8_t header[CAP_HEADER_SIZE], const char* path,
                                 const char* marker_path) {
    if (out == nullptr || header == nullptr || path == nullptr) return ZEL_INVALIDPARAMETER;
    UniqueFile f(std::fopen(path, "r"));
    if (!f) {
        zel_error_t rc = zel_error_from_errno(errno);
        return rc != ZEL_SUCCESS ? rc : ZEL_SYSTEM;
    }
    if (cap_verify_crc(f.get()) != 0) return ZEL_INVALIDDATA;

    if (marker_path != nullptr) {
        // An empty file whose existence says that the record passed the CRC
        // test; failing to create it changes nothing for the caller. The
        // marker lives in the world-writable /tmp: a marker of our own is
        // left as it is, anything else at the name (a link, a FIFO, another
        // user's file) is removed and a new marker created in its place, so
        // nothing is created through a link and no open waits on a FIFO.
        int fd = -1;
        if (zel_tmp_file_open_trusted(marker_path, &fd) == ZEL_SUCCESS ||
            zel_tmp_file_create(marker_path, 0644, &fd) == ZEL_SUCCESS) {
            ::close(fd);
        }
    }

    uint8_t head[CAP_HEADER_SIZE];
    if (std::fseek(f.get(), 0, SEEK_SET) != 0 || std::fread(head, 1, sizeof head, f.get()) != sizeof head) {
        return ZEL_INVALIDDATA;
    }
    if (std::memcmp(head, CAP_MAGIC, sizeof CAP_MAGIC) != 0) return ZEL_INVALIDDATA;
    std::memcpy(header, head, sizeof head);
    *out = f.release();
    return ZEL_SUCCESS;
}

zel_error_t cap_open(FILE** out, uint8_t header[CAP_HEADER_SIZE], const char* path) {
    return cap_open_with_marker(out, header, path, CAP_CRC_OK_MARKER);
}

zel_error_t cap_read_record(cap_record* rec, FILE* f) {
    if (rec == nullptr || f == nullptr) return ZEL_INVALIDPARAMETER;
    const std::size_t head = 12;
    std::size_t got = std::fread(rec->data, 1, head, f);
    if (got < head) {
        std::fprintf(stderr, "Error reading header: only read %ld of %ld bytes\n",
                     static_cast<long>(got), static_cast<long>(head));
        return ZEL_INVALIDDATA;
    }
    if (rec->data[CAP_OFF_VERSION] < CAP_MIN_VERSION) {
        std::fprintf(stderr, "Error: header version %d < minimum supported version (2)\n",
                     static_cast<int>(rec->data[CAP_OFF_VERSION]));
        return ZEL_INVALIDDATA;
    }
    const uint32_t length = record_length(rec->data);
    if (length < CAP_HEADER_SIZE) {
        // The header's own links and CRC would lie outside such a record.
        std::fprintf(stderr, "Error: record length %ld < header length (%ld)\n",
                     static_cast<long>(length), static_cast<long>(CAP_HEADER_SIZE));
        return ZEL_INVALIDDATA;
    }
    const std::size_t want = length - head;
    got = std::fread(rec->data + head, 1, want, f);
    if (got < want) {
        std::fprintf(stderr, "Error: only read %ld of %ld bytes\n", static_cast<long>(got),
                     static_cast<long>(want));
        return ZEL_INVALIDDATA;
    }
    uint32_t outside = resolve_bounded(rec);
    if (outside != 0) {
        std::fprintf(stderr, "Error: section at %ld lies outside the record (%ld bytes)\n",
                     static_cast<long>(outside), static_cast<long>(length));
        return ZEL_INVALIDDATA;
    }
    return ZEL_SUCCESS;
}

void cap_resolve_sections(cap_record* rec) {
    if (rec != nullptr) resolve_bounded(rec);
}

uint8_t* cap_get_app_section(uint8_t* record) {
    if (record == nullptr) return nullptr;
    const uint32_t link = qim_get_be16(record + CAP_OFF_APP_LINK);
    if (link == 0 || link + CAP_APP_SECTION_SIZE > record_length(record)) return nullptr;
    return record + link;
}

int cap_read_length(const char* path, uint32_t* length) {
    if (path == nullptr || length == nullptr) return ZEL_INVALIDPARAMETER;
    UniqueFile f(std::fopen(path, "r"));
    if (!f) {
        zel_error_t rc = zel_error_from_errno(errno);
        return static_cast<int>(rc != ZEL_SUCCESS ? rc : ZEL_SYSTEM);
    }
    uint8_t buf[kCrcReadChunk];
    std::size_t n = std::fread(buf, 1, sizeof buf, f.get());
    if (n < CAP_HEADER_SIZE) return -1;
    if (buf[CAP_OFF_VERSION] < CAP_CRC_VERSION) {
        *length = 0;
        return 0;
    }
    const uint32_t len = qim_get_be16(buf + CAP_OFF_LENGTH);
    if (len == 0) return ZEL_INVALIDDATA;
    *length = len;
    return 0;
}
