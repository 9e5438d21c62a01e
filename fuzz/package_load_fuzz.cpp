// qim_package_load of a file holding the input, then everything the upgrade
// flow and the host tools do with a loaded package: accessors, report,
// compatibility query (which reads "cap1" and "capu" parts from the file) and
// extraction of every part.
// Input: one flag byte, then the file. Flag bit 0 sets the checksums the
// reader tests (version-3 header CRC and file CRC, version-2 byte sum), so that
// mutated files get past them.
#include <cstdint>
#include <vector>

#include "fuzz_util.h"
#include "package_checks.h"
#include "qim/package.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const uint8_t flags = data[0];
    std::vector<uint8_t> file(data + 1, data + size);
    if ((flags & 1u) != 0) {
        fuzzutil::fixPackageHeaderCrc(file.data(), file.size());
        fuzzutil::fixPackageFileCrc(file.data(), file.size());
        fuzzutil::fixPackageByteSum(file.data(), file.size());
    }
    const std::string path = fuzzutil::Scratch::instance().file("input.bin");
    fuzzutil::writeWhole(path, file.data(), file.size());

    fuzzutil::QuietStderr quiet;
    qim_package* pkg = nullptr;
    if (qim_package_create(&pkg) != ZEL_SUCCESS) return 0;
    const zel_error_t rc = qim_package_load(pkg, path.c_str());
    fuzzutil::require(rc == ZEL_SUCCESS || rc == ZEL_INVALIDDATA || rc == ZEL_INVALIDPARAMETER ||
                      rc == ZEL_VERSION || rc == ZEL_NOMEMORY);
    fuzzutil::exercisePackage(pkg, rc == ZEL_SUCCESS);
    if (rc == ZEL_SUCCESS) {
        const int parts = qim_package_get_num_parts(pkg);
        for (int seq = 0; seq < parts && seq < 40; ++seq) {
            // Tables may point anywhere: the copy must stop at the end of the
            // file with a code, never read or write outside its buffers.
            const zel_error_t x = qim_package_extract_part(pkg, seq, fuzzutil::sink());
            fuzzutil::require(x == ZEL_SUCCESS || x == ZEL_TRUNCATED || x == ZEL_INVALIDPARAMETER ||
                              x == ZEL_SYSTEM);
        }
        // Loading again into the same package is refused.
        fuzzutil::require(qim_package_load(pkg, path.c_str()) == ZEL_NOMEMORY);
    }
    qim_package_free(pkg);
    return 0;
}
