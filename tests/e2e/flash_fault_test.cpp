// Flash that misbehaves, end to end: NAND bad blocks before, inside and at the
// end of an image's range (skipped, and the image read back skipping them),
// blocks that go bad during the write (marked and replayed), the same faults
// on NOR (failing as they always did), writes the chip drops (caught by the
// read-back), and a power cut at every flash operation of a package upgrade
// (the same command again puts everything right).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "package_fixture.h"

namespace {

using e2e::Board;
using e2e::dots;
using e2e::kEraseSize;

// The blocks `flashsim show` lists as bad in a partition.
std::vector<uint32_t> badBlocks(const Board& board, const std::string& partition) {
    std::istringstream show(board.flashsim("show", {partition}).out);
    std::string line;
    std::vector<uint32_t> bad;
    while (std::getline(show, line)) {
        if (line.compare(0, 6, "  bad ") == 0 && line != "  bad none") {
            std::istringstream numbers(line.substr(6));
            for (uint32_t block = 0; numbers >> block;) bad.push_back(block);
        }
    }
    return bad;
}

// A partition read as U-Boot and the kernel's bad-block-skipping readers
// read it: its good blocks in order.
std::string goodBlocks(const Board& board, const std::string& partition) {
    const std::string raw = board.partition(partition);
    const std::vector<uint32_t> bad = badBlocks(board, partition);
    std::string good;
    for (uint32_t block = 0; block * kEraseSize < raw.size(); ++block) {
        if (std::find(bad.begin(), bad.end(), block) == bad.end()) good += raw.substr(block * kEraseSize, kEraseSize);
    }
    return good;
}

// What a written image leaves in the good blocks it occupies.
std::string imageInBlocks(const std::string& image) {
    const std::size_t blocks = (image.size() + kEraseSize - 1) / kEraseSize;
    return image + std::string(blocks * kEraseSize - image.size(), '\xff');
}

// ---- A raw image into "config" (64 KiB blocks): 200000 bytes are three
// whole chunks and a tail, four blocks.

const uint32_t kImageSize = 200000;
const std::vector<std::string> kNand = {"--part", "config=512K:64K:2K", "--nand", "config"};
const std::vector<std::string> kNand4 = {"--part", "config=256K:64K:2K", "--nand", "config"};
const std::vector<std::string> kNor = {"--part", "config=512K:64K"};
const std::string kOut = e2e::partitionWriteOut("config", kImageSize) + "\nBrivlo done\n";
const std::string kFailed = "Error writing to flash\n";
std::string marked(uint32_t block) {
    return "writeImageToFlash: Block " + std::to_string(block) + " of flash partition 'config' failed, marked bad\n";
}

struct FaultCase {
    const char* name;
    std::vector<std::string> init;
    std::vector<std::string> extra;  // more init options: --bad, --fault
    bool written;                    // byte-exact in the good blocks, "Flash write complete."
    std::string err;
    std::size_t eraseCalls;  // "erase config " lines, failed ones included
    std::vector<uint32_t> badAfter;
};
void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

class FaultyFlash : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FaultyFlash, RawImageSkipsMarksAndReplaysOrFails) {
    const FaultCase& c = GetParam();
    std::vector<std::string> init = c.init;
    init.insert(init.end(), c.extra.begin(), c.extra.end());
    Board board(init);
    const std::string image = e2e::randomBytes(kImageSize, 7);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);

    const testutil::ProcessResult r = board.brivlo({"local", path, "config"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(board.logLines("erase config ").size(), c.eraseCalls);
    EXPECT_EQ(badBlocks(board, "config"), c.badAfter);
    if (c.written) {
        EXPECT_EQ(r.out, kOut);
        EXPECT_EQ(goodBlocks(board, "config").substr(0, 4 * kEraseSize), imageInBlocks(image));
    } else {
        EXPECT_EQ(r.out.find("Flash write complete."), std::string::npos);
    }
    // Neither a bad block nor the refusal of a NOR chip to mark one ever
    // reaches NOR.
    if (c.init == kNor) {
        EXPECT_TRUE(board.logLines("isbad ").empty());
        EXPECT_TRUE(board.logLines("eccstats ").empty());
    }
}

const FaultCase kFaultCases[] = {
    {"NandBadFirstBlock", kNand, {"--bad", "config:0"}, true, "", 4, {0}},
    {"NandBadInsideRange", kNand, {"--bad", "config:2"}, true, "", 4, {2}},
    {"NandBadLastBlockOfRange", kNand, {"--bad", "config:3"}, true, "", 4, {3}},
    {"NandTwoBadBlocks", kNand, {"--bad", "config:1", "--bad", "config:4"}, true, "", 4, {1, 4}},
    {"NandNoLongerFitsRefusedBeforeErasing", kNand4, {"--bad", "config:2"}, false,
     "writeImageToFlash: Error - image of size 200000 does not fit the good blocks of flash partition config "
     "(1 bad blocks)\n" + kFailed,
     0, {2}},
    {"NandWornEraseMarkedAndReplayed", kNand, {"--fault", "config:worn-erase:1"}, true, marked(1), 5, {1}},
    {"NandFailedWriteMarkedAndReplayed", kNand, {"--fault", "config:fail-write:2"}, true, marked(1), 5, {1}},
    {"NandFailedTailWriteMarkedAndReplayed", kNand, {"--fault", "config:fail-write:4"}, true, marked(3), 5, {3}},
    {"NandOutOfGoodBlocks", kNand4, {"--fault", "config:worn-erase:3"}, false,
     marked(3) + "writeImageToFlash: No good block left in flash partition 'config'\n" + kFailed, 4, {3}},
    {"NandDroppedWriteCaughtByReadBack", kNand, {"--fault", "config:drop-write:4"}, false,
     "writeImageToFlash: Error verifying flash partition 'config' at offset 196608\n" + kFailed, 4, {}},
    {"NorWornEraseFailsAsBefore", kNor, {"--fault", "config:worn-erase:1"}, false,
     "writeImageToFlash: Error erasing flash partition 'config'\n" + kFailed, 2, {}},
    {"NorFailedWriteFailsAsBefore", kNor, {"--fault", "config:fail-write:2"}, false,
     "writeToFlash: Error writing blocks to flash \n" + kFailed, 4, {}},
    {"NorDroppedWriteCaughtByReadBack", kNor, {"--fault", "config:drop-write:2"}, false,
     "writeImageToFlash: Error verifying flash partition 'config' at offset 65536\n" + kFailed, 4, {}},
};
INSTANTIATE_TEST_SUITE_P(Table, FaultyFlash, ::testing::ValuesIn(kFaultCases),
                         [](const ::testing::TestParamInfo<FaultCase>& i) { return std::string(i.param.name); });

// ---- The combined Linux image on NAND: kernelLength = 65536 + 0x700 +
// 200000 = 267328 (five blocks), rootfs 300000 bytes (five blocks).

struct SplitFaultCase {
    const char* name;
    std::vector<std::string> extra;
    std::vector<uint32_t> kernelBad;
    std::vector<uint32_t> rootfsBad;
};
void PrintTo(const SplitFaultCase& c, std::ostream* os) { *os << c.name; }

class FaultySplit : public ::testing::TestWithParam<SplitFaultCase> {};

TEST_P(FaultySplit, EachHalfSkipsItsBadBlocks) {
    const SplitFaultCase& c = GetParam();
    std::vector<std::string> init = {"--part", "image=3M:64K:2K", "--part", "kernel=1M:64K:2K", "--part",
                                     "rootfs=1M:64K:2K", "--nand", "kernel", "--nand", "rootfs"};
    init.insert(init.end(), c.extra.begin(), c.extra.end());
    Board board(init);
    const e2e::CombinedImage image = e2e::makeCombinedImage(board, 200000, 300000);
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, image.bytes);

    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Flash write complete."), std::string::npos) << r.err;
    EXPECT_EQ(badBlocks(board, "kernel"), c.kernelBad);
    EXPECT_EQ(badBlocks(board, "rootfs"), c.rootfsBad);
    EXPECT_EQ(goodBlocks(board, "kernel").substr(0, 5 * kEraseSize),
              imageInBlocks(image.bytes.substr(0, image.kernelLength)));
    EXPECT_EQ(goodBlocks(board, "rootfs").substr(0, 5 * kEraseSize),
              imageInBlocks(image.bytes.substr(image.kernelLength)));
}

const SplitFaultCase kSplitFaultCases[] = {
    {"KernelBadFirstBlock", {"--bad", "kernel:0"}, {0}, {}},
    {"KernelBadInside", {"--bad", "kernel:2"}, {2}, {}},
    {"KernelBadLastOfRange", {"--bad", "kernel:4"}, {4}, {}},
    {"RootfsBadFirstBlock", {"--bad", "rootfs:0"}, {}, {0}},
    {"RootfsBadInside", {"--bad", "rootfs:3"}, {}, {3}},
    {"RootfsBadLastOfRange", {"--bad", "rootfs:4"}, {}, {4}},
    {"KernelWornEraseRootfsFailedWrite", {"--fault", "kernel:worn-erase:1", "--fault", "rootfs:fail-write:3"}, {1}, {2}},
};
INSTANTIATE_TEST_SUITE_P(Table, FaultySplit, ::testing::ValuesIn(kSplitFaultCases),
                         [](const ::testing::TestParamInfo<SplitFaultCase>& i) { return std::string(i.param.name); });

TEST(FaultySplitRefusal, RootfsThatNoLongerFitsIsRefusedBeforeTheKernelIsErased) {
    Board board({"--part", "image=3M:64K:2K", "--part", "kernel=1M:64K:2K", "--part", "rootfs=320K:64K:2K", "--nand",
                 "rootfs", "--bad", "rootfs:2"});
    const e2e::CombinedImage image = e2e::makeCombinedImage(board, 200000, 300000);
    const std::string path = board.scratch("combined.bin");
    testutil::writeFile(path, image.bytes);

    const testutil::ProcessResult r = board.brivlo({"local", path, "image"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "eraseAndWriteKernelRootFs: Error - image of size 300000 does not fit the good blocks of flash "
                     "partition rootfs (1 bad blocks)\n" + kFailed);
    EXPECT_TRUE(board.logLines("erase kernel ").empty());
    EXPECT_TRUE(board.logLines("erase rootfs ").empty());
}

// ---- A package part whose write the chip drops: the read-back catches it
// and the package fails.

TEST(DroppedPartWrite, ReadBackFailsThePackage) {
    for (const bool nand : {false, true}) {
        SCOPED_TRACE(nand ? "NAND" : "NOR");
        std::vector<std::string> init = {"--part", "config=512K:64K:2K", "--fault", "config:drop-write:1"};
        if (nand) init.insert(init.end(), {"--nand", "config"});
        Board board(init);
        e2e::PackageSpec plan;
        plan.parts = {{"config", "1.0.0.0", e2e::randomBytes(1000, 8)}, {"boot", "1.0.0.0", e2e::randomBytes(900, 9)}};
        const std::string pkg = e2e::buildPackage(board, plan);

        const testutil::ProcessResult r = board.brivlo({"local", pkg, "qim"});
        EXPECT_EQ(r.status, 4);
        EXPECT_EQ(r.err, "writeImageToFlash: Error verifying flash partition 'config' at offset 0\n"
                         "writeQimToFlashFlash write failed\n" +
                             std::string(e2e::kFailed));
        EXPECT_TRUE(board.logLines("write boot ").empty()) << "the parts after a failed one are not written";
    }
}

// ---- Power cuts. The package: the combined Linux image (kernel: two
// blocks, a whole chunk and a tail; rootfs: one block), "config" (two blocks),
// and the protected "license" (one block). Each flash operation is one erase
// or one write.

struct CutCase {
    const char* partition;
    int operation;  // 1 = the partition's first erase or write of the run
};
std::string cutName(const CutCase& c) { return std::string(c.partition) + "Op" + std::to_string(c.operation); }
void PrintTo(const CutCase& c, std::ostream* os) { *os << cutName(c); }

// Every flash operation of the package, per partition (checked by the first
// test below, so a change in the writers cannot leave an operation out).
const std::pair<const char*, int> kOperations[] = {{"kernel", 4}, {"rootfs", 2}, {"config", 4}, {"license", 2}};

std::vector<CutCase> everyOperation() {
    std::vector<CutCase> cases;
    for (const auto& p : kOperations) {
        for (int k = 1; k <= p.second; ++k) cases.push_back({p.first, k});
    }
    return cases;
}

struct Upgrade {
    std::string package;
    e2e::CombinedImage image;
    std::string config;
    std::string license;
};

const std::vector<std::string> kCutBoard = {"--phy", "0x0770", "--cap-mfgc", "0011223344556677", "--part",
                                            "image=3M", "--part", "kernel=1M", "--part", "rootfs=1M"};

Upgrade makeUpgrade(const Board& board) {
    Upgrade u;
    // kernelLength = 65536 + 0x700 + 20000 = 87328.
    u.image = e2e::makeCombinedImage(board, 20000, 50000);
    u.config = e2e::randomBytes(100000, 10);
    u.license = e2e::randomBytes(30000, 11);
    e2e::PackageSpec plan;
    plan.mfgc = "0011223344556677";
    plan.parts = {{"image", "4.3.1.0", u.image.bytes}, {"config", "1.0.0.0", u.config}, {"3", "1.0.0.0", u.license}};
    u.package = e2e::buildPackage(board, plan);
    return u;
}

void expectUpgraded(const Board& board, const Upgrade& u) {
    EXPECT_EQ(board.partition("kernel").substr(0, u.image.kernelLength), u.image.bytes.substr(0, u.image.kernelLength));
    EXPECT_EQ(board.partition("rootfs").substr(0, 50000), u.image.bytes.substr(u.image.kernelLength));
    EXPECT_EQ(board.partition("config").substr(0, u.config.size()), u.config);
    EXPECT_EQ(board.partition("license").substr(0, u.license.size()), u.license);
    EXPECT_EQ(board.lockedState("license"), "yes");
}

TEST(PowerCut, TheTableCoversEveryOperation) {
    Board board(kCutBoard);
    const Upgrade u = makeUpgrade(board);
    const testutil::ProcessResult r = board.brivlo({"local", u.package, "qim"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const auto& p : kOperations) {
        const std::string name = std::string(p.first) + " ";
        EXPECT_EQ(board.logLines("erase " + name).size() + board.logLines("write " + name).size(),
                  static_cast<std::size_t>(p.second))
            << p.first;
    }
    expectUpgraded(board, u);
}

class PowerCut : public ::testing::TestWithParam<CutCase> {};

TEST_P(PowerCut, TheSameCommandAgainFinishesTheUpgrade) {
    const CutCase& c = GetParam();
    Board board(kCutBoard);
    const Upgrade u = makeUpgrade(board);
    ASSERT_EQ(board.flashsim("fault", {c.partition, "power-cut", std::to_string(c.operation)}).status, 0);

    const testutil::ProcessResult cut = board.brivlo({"local", u.package, "qim"});
    ASSERT_TRUE(cut.signaled && cut.status == 128 + SIGKILL) << "no power cut: " << cut.status << " " << cut.err;
    ASSERT_EQ(board.logLines(std::string("power-cut ") + c.partition + " ").size(), 1u);

    const testutil::ProcessResult again = board.brivlo({"local", u.package, "qim"});
    EXPECT_EQ(again.status, 0) << again.err;
    expectUpgraded(board, u);
    EXPECT_EQ(board.brivlo({"-S"}).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Table, PowerCut, ::testing::ValuesIn(everyOperation()),
                         [](const ::testing::TestParamInfo<CutCase>& i) { return cutName(i.param); });

}  // namespace

namespace {

// ---- -D: only the blocks that change. The flash holds the image (or a
// variant of it) beforehand.

enum class Before { Erased, Image, OneBlockChanged, OnlyPaddingChanged };

struct DeltaCase {
    const char* name;
    const char* partition;
    Before before;
    std::vector<std::string> args;      // "IMAGE" stands for the image's path
    std::vector<std::string> erases;    // "erase P " lines, start offsets
    std::size_t lockctlCalls;
    uint32_t skipped;
};
void PrintTo(const DeltaCase& c, std::ostream* os) { *os << c.name; }

class OnlyChangedBlocks : public ::testing::TestWithParam<DeltaCase> {};

TEST_P(OnlyChangedBlocks, EraseAndWriteWhatDiffers) {
    const DeltaCase& c = GetParam();
    Board board({"--part", "config=512K:64K", "--part", "license=256K:64K"});
    const std::string image = e2e::randomBytes(kImageSize, 12);
    const std::string path = board.scratch("image.bin");
    testutil::writeFile(path, image);
    std::string held = imageInBlocks(image);
    if (c.before == Before::OneBlockChanged) held[65536 + 17] ^= 0x01;
    if (c.before == Before::OnlyPaddingChanged) held[kImageSize + 100] = '\0';
    if (c.before != Before::Erased) {
        const std::string file = board.scratch("held.bin");
        testutil::writeFile(file, held);
        ASSERT_EQ(board.flashsim("load", {c.partition, file}).status, 0);
    }
    std::vector<std::string> args;
    for (const std::string& a : c.args) args.push_back(a == "IMAGE" ? path : a == "PART" ? c.partition : a);

    const testutil::ProcessResult r = board.brivlo(args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::size_t toErase = 4 - c.skipped;
    EXPECT_EQ(r.out, "Erasing Flash (wait " + std::to_string(toErase * 65536 / 220000) + "s)\n" + dots(5) +
                         "\nWriting file to flash partition '" + c.partition + "'\n" + dots(3) +
                         "\nUnchanged blocks skipped: " + std::to_string(c.skipped) +
                         "\n\nFlash write complete.\n\nBrivlo done\n");
    std::vector<std::string> erases;
    for (const std::string& line : board.logLines(std::string("erase ") + c.partition + " ")) {
        erases.push_back(line.substr(line.find("start=") + 6, line.find(' ', line.find("start=")) - line.find("start=") - 6));
    }
    EXPECT_EQ(erases, c.erases);
    EXPECT_EQ(board.logLines(std::string("write ") + c.partition + " ").size(), toErase);
    EXPECT_EQ(board.logLines(std::string("lockctl ") + c.partition + " ").size(), c.lockctlCalls);
    EXPECT_EQ(board.partition(c.partition).substr(0, 4 * kEraseSize), imageInBlocks(image));
}

const std::vector<std::string> kLast = {"local", "IMAGE", "PART", "-D"};
const DeltaCase kDeltaCases[] = {
    {"AlreadyThere", "config", Before::Image, kLast, {}, 0, 4},
    {"OneBlockChanged", "config", Before::OneBlockChanged, kLast, {"65536"}, 0, 3},
    {"LastBlockChangedOnlyInItsPadding", "config", Before::OnlyPaddingChanged, kLast, {"196608"}, 0, 3},
    {"ErasedFlash", "config", Before::Erased, kLast, {"0", "65536", "131072", "196608"}, 0, 0},
    {"ProtectedAlreadyThereNeverUnlocked", "license", Before::Image, kLast, {}, 0, 4},
    {"ProtectedOneBlockChanged", "license", Before::OneBlockChanged, kLast, {"65536"}, 2, 3},
};
INSTANTIATE_TEST_SUITE_P(Table, OnlyChangedBlocks, ::testing::ValuesIn(kDeltaCases),
                         [](const ::testing::TestParamInfo<DeltaCase>& i) { return std::string(i.param.name); });

}  // namespace
