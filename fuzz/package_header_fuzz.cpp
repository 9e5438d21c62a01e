// qim_package_parse_header over any bytes, as the reader would see them in
// its first read of a file, with no file name (so no part has a file).
// Input: one flag byte, then the buffer. Flag bit 0 sets the header CRC of a
// version-3.x header and the "no file" byte sum of a version-2 header, so
// that most inputs reach the tables behind those tests.
#include <cstdint>
#include <vector>

#include "fuzz_util.h"
#include "package_checks.h"
#include "qim/package.h"
#include "qim/package_format.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const uint8_t flags = data[0];
    std::vector<uint8_t> buf(data + 1, data + size);
    if ((flags & 1u) != 0 && buf.size() >= 28) {
        fuzzutil::fixPackageHeaderCrc(buf.data(), buf.size());
        if (qim_get_be32(buf.data() + 8) == 2) qim_put_be32(buf.data() + 20, qimfmt::v2::kUnreadableSum);
    }

    fuzzutil::QuietStderr quiet;
    qim_package* pkg = nullptr;
    if (qim_package_create(&pkg) != ZEL_SUCCESS) return 0;
    const zel_error_t rc = qim_package_parse_header(pkg, buf.data(), buf.size(), nullptr);
    fuzzutil::require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA || rc == ZEL_INVALIDPARAMETER ||
                      rc == ZEL_VERSION || rc == ZEL_NOMEMORY);
    fuzzutil::exercisePackage(pkg, rc == ZEL_SUCCESS);
    if (pkg->header != nullptr) {
        // A package takes one header: a second parse of the same bytes is
        // refused (or fails earlier, on the length or the magic).
        const zel_error_t again = qim_package_parse_header(pkg, buf.data(), buf.size(), nullptr);
        fuzzutil::require(again == ZEL_NOMEMORY);
    }
    qim_package_free(pkg);
    return 0;
}
