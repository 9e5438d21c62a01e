// Packages refused before anything is written: a foreign device code, a
// damaged file, another manufacturer. Every refusal leaves the flash as it
// was, with not a single erase in the log, and the status file as specified
// at the moment main removes it.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "package_fixture.h"
#include "qim/byte_order.h"
#include "qim/crc32.h"

namespace {

using e2e::Board;
using e2e::PackageSpec;
using e2e::kFailed;

struct RefusalCase {
    std::string name;
    std::vector<std::string> board;
    PackageSpec spec;
    std::function<void(std::string&)> damage;  // null: the package as built; empty result: no file
    int status;
    bool report;           // the package report is printed
    std::string err;       // "CHECKSUM" stands for the reader's checksum line for the damaged file
    std::string removed;   // the status file when main removes it
};

void PrintTo(const RefusalCase& c, std::ostream* os) {
    *os << c.name;
}

// The reader's line for a file whose stored checksum does not match.
std::string checksumLine(const std::string& bytes) {
    std::string copy = bytes;
    uint8_t* p = reinterpret_cast<uint8_t*>(&copy[0]);
    uint32_t calculated = 0;
    uint32_t expected = 0;
    if (qim_get_be32(p + 8) == 3) {
        expected = qim_get_be32(p + 24);
        qim_put_be32(p + 24, 0);
        calculated = crc32_compute(p, copy.size());
    } else {
        expected = qim_get_be32(p + 20);
        uint32_t sum = 0;
        for (std::size_t i = 0; i < copy.size(); ++i) {
            if (i < 20 || i > 23) sum += p[i];
        }
        calculated = (sum >> 16) + (sum & 0xFFFF);
    }
    char line[96];
    std::snprintf(line, sizeof line, "error: bad checksum: calculated %x, expected %x\n", calculated, expected);
    return line;
}

class PackageRefusal : public testing::TestWithParam<RefusalCase> {};

TEST_P(PackageRefusal, NothingIsWritten) {
    const RefusalCase& c = GetParam();
    Board board(c.board);
    PackageSpec spec = c.spec;
    if (spec.parts.empty()) {
        spec.parts = {{"config", "0.0.0.0", e2e::randomBytes(1000, 41)}, {"boot", "0.0.0.0", "boot"}};
    }
    const std::string pkg = e2e::buildPackage(board, spec);
    const std::string report = e2e::report(pkg);
    std::string bytes = testutil::readFile(pkg);
    if (c.damage) {
        c.damage(bytes);
        if (bytes.empty()) {
            std::remove(pkg.c_str());
        } else {
            testutil::writeFile(pkg, bytes);
        }
    }
    const auto before = e2e::flashFiles(board);

    const e2e::TracedRun run = e2e::runTraced(board, {"local", pkg, "qim"});
    EXPECT_EQ(run.result.status, c.status);
    EXPECT_EQ(run.result.out, c.report ? report : "");
    EXPECT_EQ(run.result.err, (c.err == "CHECKSUM" ? checksumLine(bytes) : c.err) + kFailed);

    EXPECT_TRUE(e2e::flashFiles(board) == before);
    EXPECT_TRUE(board.logLines("erase ").empty());
    EXPECT_TRUE(board.logLines("write ").empty());
    EXPECT_TRUE(board.logLines("phy ").empty()) << "no Linux image, or refused before the check";
    ASSERT_EQ(run.snapshots.size(), 1u) << "no progress update, one removal";
    EXPECT_TRUE(run.snapshots[0].removal);
    EXPECT_EQ(run.snapshots[0].content, c.removed);
    EXPECT_FALSE(board.statusExists());
}

std::function<void(std::string&)> setWord(std::size_t offset, uint32_t value) {
    return [offset, value](std::string& b) { qim_put_be32(reinterpret_cast<uint8_t*>(&b[offset]), value); };
}

std::function<void(std::string&)> flipByte(std::size_t offsetFromEnd) {
    return [offsetFromEnd](std::string& b) { b[b.size() - offsetFromEnd] ^= 0x40; };
}

PackageSpec withCode(const std::string& code) {
    PackageSpec spec;
    spec.deviceCode = code;
    return spec;
}

PackageSpec withMfgc(const std::string& mfgc) {
    PackageSpec spec;
    spec.mfgc = mfgc;
    return spec;
}

PackageSpec version2() {
    PackageSpec spec;
    spec.v2 = true;
    return spec;
}

const std::string kAbsent = "<absent>";

INSTANTIATE_TEST_SUITE_P(
    E2e, PackageRefusal,
    testing::Values(
        // Refused before the compatibility check and the report.
        RefusalCase{"DeviceCode39", {"--phy", "0x0770"}, withCode("39"), {}, 8, false, "device type mismatch\n",
                    kAbsent},
        // The phase-2 record is started before the manufacturer test, so it
        // is what main removes: total 2 x (1000 + 4), no progress.
        RefusalCase{"ManufacturerMismatch", {"--cap-mfgc", "0011223344556677"}, withMfgc("8899aabbccddeeff"), {},
                    15, true,
                    "writeQimToFlash: Device manufacturer ID 0011223344556677 does not match QIM manufacturer ID "
                    "8899aabbccddeeff.\n",
                    "status=2\ntotal=2008\ncurrent=0"},
        RefusalCase{"MissingFile", {}, {}, [](std::string& b) { b.clear(); }, 6, false, "", kAbsent},
        RefusalCase{"ShorterThan64Bytes", {}, {}, [](std::string& b) { b.resize(63); }, 4, false, "", kAbsent},
        RefusalCase{"WrongMagic", {}, {}, [](std::string& b) { b[0] = 'X'; }, 3, false,
                    "error: qim header doesn't have correct magic number\n", kAbsent},
        RefusalCase{"Version1", {}, {}, setWord(8, 1), 15, false, "unsupported qim version number: 1/0x1\n", kAbsent},
        RefusalCase{"Version259", {}, {}, setWord(8, 0x103), 15, false,
                    "unsupported qim version number: 259/0x103\n", kAbsent},
        // The header CRC covers the product version; its failure is silent.
        RefusalCase{"HeaderCrc", {}, {}, setWord(20, 0x01020305), 4, false, "", kAbsent},
        RefusalCase{"PartDataDamaged", {}, {}, flipByte(1), 4, false, "CHECKSUM", kAbsent},
        RefusalCase{"Version2DataDamaged", {}, version2(), flipByte(1), 4, false, "CHECKSUM", kAbsent}),
    [](const testing::TestParamInfo<RefusalCase>& info) { return info.param.name; });

}  // namespace
