// The capability readers over any bytes: the CRC test, the record reader with
// its section links, the opener (without the marker file), the length reader,
// and the second layout that "capu" package parts carry.
// Input: one flag byte, then the record file. Flag bit 0 sets the record's
// length to the file size and its CRC; bit 1 does the same for a
// second-layout record behind the 324 skipped bytes; so mutated records get
// past the CRC tests to the links behind them.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_util.h"
#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/crc32.h"
#include "support/unique_handles.h"

namespace {

using fuzzutil::require;

void fixRecord(std::vector<uint8_t>& f) {
    if (f.size() < CAP_HEADER_SIZE || f.size() > 0xFFFF) return;
    qim_put_be16(f.data() + CAP_OFF_LENGTH, static_cast<uint16_t>(f.size()));
    qim_put_be32(f.data() + CAP_OFF_CRC, 0);
    qim_put_be32(f.data() + CAP_OFF_CRC, crc32_compute(f.data(), f.size()));
}

void fixCapu(std::vector<uint8_t>& f) {
    if (f.size() < CAPU_SKIP + 18) return;
    uint8_t* rec = f.data() + CAPU_SKIP;
    std::size_t length = f.size() - CAPU_SKIP;
    if (length > CAPU_MAX_LENGTH) length = CAPU_MAX_LENGTH;
    qim_put_be16(rec + 10, static_cast<uint16_t>(length));
    qim_put_be32(rec + CAPU_OFF_CRC, 0);
    qim_put_be32(rec + CAPU_OFF_CRC, crc32_compute(rec, length));
}

using zel::UniqueFile;

// A section reference must point into the record's length.
void checkSections(const cap_record* rec) {
    const uint32_t length = qim_get_be16(rec->data + CAP_OFF_LENGTH);
    for (const uint8_t* s : rec->sections) {
        if (s == nullptr) continue;
        require(s >= rec->data && s < rec->data + length);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const uint8_t flags = data[0];
    std::vector<uint8_t> file(data + 1, data + size);
    if (flags & 1u) fixRecord(file);
    if (flags & 2u) fixCapu(file);

    fuzzutil::QuietStderr quiet;
    static cap_record* rec = new cap_record;  // 64 KiB: once per process

    // The in-memory stream behaves as a file for every reader here.
    UniqueFile f(fmemopen(file.data(), file.size(), "r"));
    if (!f) return 0;
    const int crc = cap_verify_crc(f.get());
    require(crc == 0 || crc == -1);

    require(std::fseek(f.get(), 0, SEEK_SET) == 0);
    std::memset(rec->sections, 0xEE, sizeof rec->sections);
    if (cap_read_record(rec, f.get()) == ZEL_SUCCESS) {
        checkSections(rec);
        uint8_t* app = cap_get_app_section(rec->data);
        require(app == rec->sections[CAP_REF_APP]);
        cap_update_crc(rec);
        cap_resolve_sections(rec);
        checkSections(rec);
    }

    require(std::fseek(f.get(), 0, SEEK_SET) == 0);
    capu_identity id;
    if (capu_read_identity(f.get(), file.size(), &id) == ZEL_SUCCESS) {
        require(id.mfgc_name[CAP_NAME_SIZE - 1] == '\0' && id.model_name[CAP_NAME_SIZE - 1] == '\0');
    }

    // The readers that take a file name.
    const std::string path = fuzzutil::Scratch::instance().file("input.bin");
    fuzzutil::writeWhole(path, file.data(), file.size());
    FILE* opened = nullptr;
    uint8_t header[CAP_HEADER_SIZE];
    const zel_error_t rc = cap_open_with_marker(&opened, header, path.c_str(), nullptr);
    if (rc == ZEL_SUCCESS) {
        require(std::memcmp(header, CAP_MAGIC, sizeof CAP_MAGIC) == 0);
        require(crc == 0);  // the opener tests the same CRC first
        std::fclose(opened);
    } else {
        require(rc == ZEL_INVALIDDATA);
    }
    uint32_t length = 0;
    const int lrc = cap_read_length(path.c_str(), &length);
    require(lrc == 0 || lrc == -1 || lrc == ZEL_INVALIDDATA);
    return 0;
}
