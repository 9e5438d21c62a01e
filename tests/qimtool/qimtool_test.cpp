// qimtool end to end: the real binary, run as a user would.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/process.h"
#include "common/tempdir.h"
#include "qim/capability.h"
#include "qim/package.h"
#include "qim/report.h"

namespace {

using testutil::ProcessResult;

ProcessResult qimtool(std::vector<std::string> args) {
    args.insert(args.begin(), QIMTOOL_BIN);
    return testutil::runProcess(args);
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// What the library's report prints for a package file.
std::string library_report(const std::string& path) {
    qim_package* pkg = nullptr;
    EXPECT_EQ(qim_package_create(&pkg), 0u);
    EXPECT_EQ(qim_package_load(pkg, path.c_str()), 0u);
    testing::internal::CaptureStdout();
    qim_package_print(pkg);
    qim_package_free(pkg);
    return testing::internal::GetCapturedStdout();
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

    const std::string report = library_report(dir.file("a.qim"));
    ProcessResult info = qimtool({"info", dir.file("a.qim")});
    EXPECT_EQ(info.status, 0);
    // The report, then whether a detached signature lies beside the file.
    EXPECT_EQ(info.out, report + "Signature: none (no " + dir.file("a.qim") + ".minisig)\n");
    EXPECT_TRUE(has(report, "part_mask: 0x3 (0/image, 1/cap1)"));
    EXPECT_EQ(qimtool({"info", dir.file("v2.qim")}).out,
              library_report(dir.file("v2.qim")) + "Signature: none (no " + dir.file("v2.qim") + ".minisig)\n");

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
