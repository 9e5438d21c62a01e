// qimtool end to end: the real binary, run as a user would.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/process.h"
#include "common/tempdir.h"
#include "qim/capability.h"
#include "qim/names.h"

namespace {

using testutil::ProcessResult;

ProcessResult qimtool(std::vector<std::string> args) {
    args.insert(args.begin(), QIMTOOL_BIN);
    return testutil::runProcess(args);
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The big-endian 32-bit field at `offset` of a file, in hexadecimal as the
// report prints it.
std::string hexField(const std::string& path, std::size_t offset) {
    const std::vector<uint8_t> bytes = testutil::readBytes(path);
    uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | bytes.at(offset + i);
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

class Qimtool : public testing::Test {
protected:
    void SetUp() override {
        testutil::writeBytes(dir.file("image.bin"), testutil::randomByteVector(3000, 1));
        testutil::writeBytes(dir.file("fpga.bin"), testutil::randomByteVector(77, 2));
        ProcessResult cap = qimtool({"capability", "-o", dir.file("cap.bin"), "--mfgc", "41434d4500000000", "--model",
                                     "4d31000000000000", "--manufacturer-name", "Acme Devices", "--model-name",
                                     "Board One"});
        ASSERT_EQ(cap.status, 0) << cap.err;
        ProcessResult c = create("a.qim", {"--mfgc", "41434d4500000000",
                                           "--part", "image:4.2.6.0:" + dir.file("image.bin"),
                                           "--part", "9:0.0.0.0:" + dir.file("cap.bin"),
                                           "--part", "fpga:1.0.0.0:" + dir.file("fpga.bin"),
                                           "--model", "4d31000000000000:0,1", "--model", "4d32000000000000:2"});
        ASSERT_EQ(c.status, 0) << c.err;
        ASSERT_EQ(create("v2.qim", {"--part", "image:0.0.0.0:" + dir.file("image.bin"), "--v2"}).status, 0);
    }

    ProcessResult create(const std::string& out, std::vector<std::string> extra) {
        std::vector<std::string> args = {"create", "-o", dir.file(out), "--device-code", "40", "--product-version",
                                         "0x00010203"};
        args.insert(args.end(), extra.begin(), extra.end());
        return qimtool(args);
    }

    testutil::TempDir dir;
};

TEST_F(Qimtool, VerifyInfoJsonExtract) {
    ProcessResult v = qimtool({"verify", dir.file("a.qim")});
    EXPECT_EQ(v.status, 0) << v.err;
    EXPECT_EQ(std::count(v.out.begin(), v.out.end(), '\n'), 1);
    EXPECT_TRUE(has(v.out, "ok"));

    // The report written out by hand from the package built in SetUp; only
    // the two checksums are taken from the file (v3 header offsets 24, 60).
    const std::string a = dir.file("a.qim");
    const std::string report =
        "num parts 3\nnum models 2\ndevice_code: " + std::string(qim_device_code_name(40)) + " (0x28)\n"
        "product_version: 0x00010203\nmfgc_id: 41434d4500000000 ('ACME....')\n\nqim file version: 3.1\n"
        "checksum: " + hexField(a, 24) + "\nheader_checksum: " + hexField(a, 60) + "\n\n"
        "part_id: image (0x1)\nrelease_version: 4.2.6.0\npart_seq_num: 0\noffset: 0\nsize: 3000\n\n"
        "part_id: cap1 (0x9)\nrelease_version: 0.0.0.0\npart_seq_num: 1\noffset: 3000\nsize: 1024\n\n"
        "part_id: fpga (0x2)\nrelease_version: 1.0.0.0\npart_seq_num: 2\noffset: 4024\nsize: 77\n\n"
        "model_id: 4d31000000000000 ('M1......')\npart_mask: 0x3 (0/image, 1/cap1)\n\n"
        "model_id: 4d32000000000000 ('M2......')\npart_mask: 0x4 (2/fpga)\n\n";
    ProcessResult info = qimtool({"info", a});
    EXPECT_EQ(info.status, 0);
    // The report, then whether a detached signature lies beside the file.
    EXPECT_EQ(info.out, report + "Signature: none (no " + a + ".minisig)\n");
    // Version 2: no manufacturer, no header checksum, one model for any.
    const std::string v2 = qimtool({"info", dir.file("v2.qim")}).out;
    EXPECT_NE(v2.find("mfgc_id: 0000000000000000 ('........')\n\nqim file version: 2.0\n"), std::string::npos) << v2;
    EXPECT_NE(v2.find("header_checksum: 0x0\n\n"), std::string::npos) << v2;

    ProcessResult j = qimtool({"info", dir.file("a.qim"), "--json"});
    ASSERT_EQ(j.status, 0) << j.err;
    for (const char* fact :
         {"\"version_major\":3", "\"device_code\":40", "\"mfgc_id\":\"41434d4500000000\"",
          "\"product_version\":\"0x00010203\"",
          "{\"seq\":0,\"part_id\":1,\"kind\":\"image\",\"partition\":\"image\",\"release_version\":"
          "\"4.2.6.0\",\"offset\":0,\"position\":144,\"size\":3000}",
          "\"partition\":\"capability\"",
          "\"model_id\":\"4d32000000000000\",\"part_mask\":\"0x00000004\",\"parts\":[2]"}) {
        EXPECT_TRUE(has(j.out, fact)) << fact << "\n" << j.out;
    }
    EXPECT_TRUE(has(j.out, "\"signature\":null}")) << j.out;
    EXPECT_EQ(j.out.back(), '\n');

    ProcessResult x = qimtool({"extract", dir.file("a.qim"), "2", "-o", dir.file("out.bin")});
    ASSERT_EQ(x.status, 0) << x.err;
    EXPECT_EQ(testutil::readBytes(dir.file("out.bin")), testutil::randomByteVector(77, 2));
    EXPECT_EQ(qimtool({"extract", dir.file("a.qim"), "3", "-o", dir.file("none.bin")}).status, 1);
    EXPECT_FALSE(testutil::fileExists(dir.file("none.bin")));
}

TEST_F(Qimtool, RefusedFilesAndLayouts) {
    auto bytes = testutil::readBytes(dir.file("a.qim"));
    bytes.back() ^= 0xff;
    testutil::writeBytes(dir.file("a.qim"), bytes);
    ProcessResult v = qimtool({"verify", dir.file("a.qim")});
    EXPECT_EQ(v.status, 1);
    EXPECT_EQ(v.err.rfind("error: bad checksum: calculated ", 0), 0u) << v.err;
    // Facts older layouts cannot hold are refused, not dropped.
    EXPECT_EQ(create("bad.qim", {"--part", "image:1.0.0.0:" + dir.file("image.bin"), "--v2"}).status, 2);
}

TEST_F(Qimtool, CheckReportsMatchesAndNames) {
    const struct { const char* file; std::vector<std::string> facts; int status; std::vector<const char*> lines; }
        cases[] = {{"a.qim", {"--device-code", "40", "--mfgc", "41434d4500000000", "--model", "4d31000000000000"}, 0,
                    {"result: fits\n", "model: matched\n", "manufacturer name: Acme Devices\n",
                     "model 4d31000000000000: Board One\n"}},
                   {"a.qim", {"--device-code", "39"}, 1, {"reason: device code differs\n"}},
                   {"v2.qim", {"--mfgc", "41434d4500000000"}, 1, {"manufacturer: mismatched (not in the package)\n"}}};
    for (const auto& c : cases) {
        std::vector<std::string> args = {"check", dir.file(c.file)};
        args.insert(args.end(), c.facts.begin(), c.facts.end());
        ProcessResult r = qimtool(args);
        EXPECT_EQ(r.status, c.status) << r.err;
        for (const char* line : c.lines) EXPECT_TRUE(has(r.out, line)) << line << r.out;
    }
}

TEST_F(Qimtool, CapabilityRecordsOpenAndHoldTheIds) {
    for (const char* version : {"11", "17"}) {
        const std::string out = dir.file(std::string("cap") + version);
        ProcessResult r = qimtool({"capability", "-o", out, "--mfgc", "0011223344556677", "--model",
                                   "8899aabbccddeeff", "--version", version});
        ASSERT_EQ(r.status, 0) << r.err;
        FILE* f = nullptr;
        uint8_t header[CAP_HEADER_SIZE];
        ASSERT_EQ(cap_open_with_marker(&f, header, out.c_str(), nullptr), 0u) << version;
        std::fclose(f);
        // Where the board's identity reading looks: app link at 14, manf link
        // at app + 28, the IDs at manf + 4 and manf + 12.
        const auto b = testutil::readBytes(out);
        const int app = b[14] << 8 | b[15], manf = b[app + 28] << 8 | b[app + 29];
        EXPECT_EQ(b[8], std::atoi(version));
        EXPECT_EQ(std::string(b.begin() + manf + 4, b.begin() + manf + 20),
                  std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16));
    }
}

TEST(QimtoolUsage, HelpAndErrors) {
    ProcessResult help = qimtool({"create", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: qimtool create", 0), 0u) << help.out;

    const struct { const char* name; std::vector<std::string> args; int status; } errors[] = {
        {"NoSubcommand", {}, 2},
        {"UnknownSubcommand", {"frobnicate"}, 2},
        {"InfoNoFile", {"info"}, 2},
        {"MissingFile", {"verify", "/nonexistent/x.qim"}, 1},
        {"CreateNoParts", {"create", "-o", "x", "--device-code", "40", "--product-version", "1"}, 2},
        {"CreateBadRelease",
         {"create", "-o", "x", "--device-code", "40", "--product-version", "1", "--part", "image:1.2.3:f"}, 2},
        {"CapabilityShortId", {"capability", "-o", "x", "--mfgc", "0011", "--model", "0011223344556677"}, 2},
        {"ExtractBadSeq", {"extract", "f", "x1", "-o", "y"}, 2}};
    for (const auto& e : errors) {  // a message on stderr, nothing on stdout
        ProcessResult r = qimtool(e.args);
        EXPECT_EQ(r.status, e.status) << e.name << ": " << r.err;
        EXPECT_FALSE(r.err.empty()) << e.name;
        EXPECT_EQ(r.out, "") << e.name;
    }
}

}  // namespace
