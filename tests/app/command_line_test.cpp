#include "app/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/progress_count.h"

namespace {

using command_line::Action;
using Kind = command_line::Target::Kind;

// ---- The usage text, as the command's documentation gives it line by line.

TEST(Usage, PrintsTheBannerAndTheDocumentedLines) {
    const std::string p = "/usr/bin/brivlo";
    const std::string expected =
        "Usage: \n"
        "1. " + p + " <download protocol>://<IP address>:[<port>] <filename> <partition name> [OPTIONS]\n"
        "\texample: " + p + " tftp://192.168.10.100:9000 example.qim qim\n"
        "2. " + p + " local <absolute file path> <partition name> [OPTIONS]\n"
        "\texample: " + p + " local /tmp/example.bin image\n"
        "3. " + p + " [OPTIONS]\n"
        "Options:\n"
        "  -? | --help: print this message and exit\n"
        "  -S: get current upgrade status\n"
        "  -O: override model ID matching for QIM file upgrades\n"
        "  -A: override manufacturer ID matching for QIM file upgrades\n"
        "Partition Names:\n"
        "qim, boot, bootenv, brdinfo, capability, config, flashall, fpga, fsbl, image, kernel, license, rootfs, "
        "safeboot, safebootenv, safefpga, safelicense, userarea, skd, safeall\n";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    command_line::printUsage(p);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Brivlo \n");
    EXPECT_EQ(err, expected);
}

// ---- The grammar: what parse makes of the words, as one line of text.

std::string hex(const qim_id& id) {
    char text[QIM_ID_HEX_SIZE];
    return qim_id_to_hex(&id, text);
}

std::string describe(const command_line::Override& o, const char* key) {
    return o.given ? std::string(" ") + key + "=" + hex(o.id) : "";
}

// The invocation's fields that differ from a default one.
std::string describe(const command_line::Invocation& run) {
    std::string text = run.source.download ? "download " : "";
    if (!run.source.host.empty()) text += "host=" + run.source.host + " ";
    if (!run.source.port.empty()) text += "port=" + run.source.port + " ";
    text += "file=" + run.fileName + " part=" + run.partitionName;
    if (run.hasPositionalMfgc) text += " mfgc=" + run.positionalMfgc;
    text += describe(run.model, "O") + describe(run.mfgc, "A");
    if (run.keyGiven) text += " K=" + run.keyPath;
    if (run.onlyChangedBlocks) text += " D";
    if (run.tftpOptions) text += " F";
    return text;
}

struct ParseCase {
    const char* name;
    std::vector<std::string> args;  // after the program name
    Action action;
    std::vector<std::string> messages;
    const char* invocation;  // describe() of it, for kUpgrade
};
void PrintTo(const ParseCase& c, std::ostream* os) { *os << c.name; }

class Parse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(Parse, DecidesWhatToDo) {
    const ParseCase& c = GetParam();
    std::vector<std::string> args = {"brivlo"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const command_line::Command command = command_line::parse(args);
    EXPECT_EQ(static_cast<int>(command.action), static_cast<int>(c.action));
    EXPECT_EQ(command.messages, c.messages);
    if (c.action == Action::kUpgrade) {
        EXPECT_EQ(describe(command.invocation), c.invocation);
    }
}

const char* const kValidModel = "main: Model ID override valid";
const char* const kValidMfgc = "main: Manf ID override valid";

const ParseCase kParseCases[] = {
    {"HelpAlone", {"-?"}, Action::kUsage, {}, ""},
    {"LongHelpAfterPositionals", {"x", "y", "z", "--help"}, Action::kUsage, {}, ""},
    {"HelpAfterValidOverride", {"-O", "0011223344556677", "-?"}, Action::kUsage, {kValidModel}, ""},
    {"NoArguments", {}, Action::kTooFewArguments, {}, ""},
    {"TwoPositionals", {"a", "b"}, Action::kTooFewArguments, {}, ""},
    {"TwoPositionalsAndAnOption", {"a", "b", "-D"}, Action::kUpgrade, {}, "file=b part=-D D"},

    {"InvalidModelOverride", {"local", "f", "fpga", "-O", "zz"}, Action::kRefused, {"main: Invalid Model ID"}, ""},
    {"ShortMfgcOverride", {"local", "f", "fpga", "-A", "0011"}, Action::kRefused, {"main: Invalid Manf ID"}, ""},
    {"InvalidOverrideStopsBeforeStatusQuery", {"-O", "zz", "-S"}, Action::kRefused, {"main: Invalid Model ID"}, ""},
    // Only -A, -O and -S after an override mean that no identifier was given.
    {"OverrideFollowedByOtherOption", {"local", "f", "fpga", "-O", "-D"}, Action::kRefused,
     {"main: Invalid Model ID"}, ""},
    {"KeyWithoutFile", {"local", "f", "fpga", "-K"}, Action::kRefused, {"main: -K needs a public key file"}, ""},

    {"BothOverridesValid", {"local", "f", "fpga", "-O", "0x0011223344556677", "-A", "8899aabbccddeeff"},
     Action::kUpgrade, {kValidModel, kValidMfgc},
     "file=f part=fpga mfgc=-O O=0011223344556677 A=8899aabbccddeeff"},
    {"ModelOverrideLast", {"local", "f", "fpga", "-O"}, Action::kUpgrade, {},
     "file=f part=fpga mfgc=-O O=0000000000000000"},
    {"MfgcOverrideLast", {"local", "f", "fpga", "-A"}, Action::kUpgrade, {},
     "file=f part=fpga mfgc=-A A=0000000000000000"},
    {"ModelOverrideFollowedByMfgcOverride", {"local", "f", "fpga", "-O", "-A", "0011223344556677"},
     Action::kUpgrade, {kValidMfgc}, "file=f part=fpga mfgc=-O O=0000000000000000 A=0011223344556677"},
    {"MfgcOverrideFollowedByModelOverride", {"local", "f", "fpga", "-A", "-O"}, Action::kUpgrade, {},
     "file=f part=fpga mfgc=-A O=0000000000000000 A=0000000000000000"},
    {"LaterOverrideWins", {"local", "f", "fpga", "-O", "0011223344556677", "-O"}, Action::kUpgrade,
     {kValidModel}, "file=f part=fpga mfgc=-O O=0000000000000000"},

    {"StatusQueryAlone", {"-S"}, Action::kStatusQuery, {}, ""},
    {"StatusQueryAfterOverrideWithoutId", {"local", "f", "fpga", "-O", "-S"}, Action::kStatusQuery, {}, ""},
    {"StatusQueryAfterMfgcOverride", {"-A", "-S"}, Action::kStatusQuery, {}, ""},
    {"StatusQueryAfterValidOverride", {"-O", "0011223344556677", "-S"}, Action::kStatusQuery, {kValidModel}, ""},
    {"StatusQueryEndsTheScan", {"-S", "-O", "zz", "-?"}, Action::kStatusQuery, {}, ""},
    // The word after -K is its file, yet it is looked at next as well.
    {"KeyFileNamedLikeAnOption", {"-K", "-S"}, Action::kStatusQuery, {}, ""},

    {"TftpSource", {"tftp://10.1.2.3:69", "fw.qim", "qim"}, Action::kUpgrade, {},
     "download host=10.1.2.3 port=69 file=fw.qim part=qim"},
    {"LocalWordAnywhereMeansNoDownload", {"tftp://127.0.0.1:1", "img", "fpga", "local"}, Action::kUpgrade, {},
     "file=img part=fpga mfgc=local"},
    {"PackageWithIdentifiers", {"local", "/tmp/fw.qim", "0011223344556677", "ffffffffffffffff"}, Action::kUpgrade,
     {}, "file=/tmp/fw.qim part=0011223344556677 mfgc=ffffffffffffffff"},
    {"KeyAndNewOptionsAnywhere", {"local", "f", "fpga", "-F", "-K", "k.pub", "-D"}, Action::kUpgrade, {},
     "file=f part=fpga mfgc=-F K=k.pub D F"},
};

INSTANTIATE_TEST_SUITE_P(Table, Parse, ::testing::ValuesIn(kParseCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Raw image or package, and the identities a package is matched against.

struct TargetCase {
    const char* name;
    std::vector<std::string> args;  // from position 1
    Kind kind;
    const char* identities;  // " O=..." and " A=..." to set, in that order
};
void PrintTo(const TargetCase& c, std::ostream* os) { *os << c.name; }

class ChooseTarget : public ::testing::TestWithParam<TargetCase> {};

TEST_P(ChooseTarget, DecidesFromTheInvocationAlone) {
    const TargetCase& c = GetParam();
    std::vector<std::string> args = {"brivlo"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const command_line::Command command = command_line::parse(args);
    ASSERT_EQ(static_cast<int>(command.action), static_cast<int>(Action::kUpgrade));
    const command_line::Target target = command_line::chooseTarget(command.invocation);
    EXPECT_EQ(static_cast<int>(target.kind), static_cast<int>(c.kind));
    if (c.kind == Kind::kPackage) {
        EXPECT_EQ(describe(target.model, "O") + describe(target.mfgc, "A"), c.identities);
    }
}

const TargetCase kTargetCases[] = {
    {"RawPartition", {"local", "x.bin", "fpga"}, Kind::kRaw, ""},
    {"OverridesLeaveRawAlone", {"local", "x.bin", "fpga", "-O", "0011223344556677"}, Kind::kRaw, ""},
    {"EmptyPartitionIsRaw", {"local", "x.qim", ""}, Kind::kRaw, ""},
    {"QimWithPackageFile", {"local", "fw.qim", "qim"}, Kind::kPackage, ""},
    {"FileNamedJustQim", {"local", "qim", "qim"}, Kind::kPackage, ""},
    {"QimWithOtherFile", {"local", "fw.bin", "qim"}, Kind::kNotPartitionOrPackage, ""},
    {"ExtensionIsCaseSensitive", {"local", "fw.QIM", "qim"}, Kind::kNotPartitionOrPackage, ""},
    {"UnknownPartition", {"local", "x.bin", "nosuchpart"}, Kind::kNotPartitionOrPackage, ""},
    {"PartitionNamesAreCaseSensitive", {"local", "x.bin", "Image"}, Kind::kNotPartitionOrPackage, ""},
    {"PackageOnlyPartitionNotOnCommandLine", {"local", "x.bin", "imxrt"}, Kind::kNotPartitionOrPackage, ""},
    {"ModelArgumentNotHex", {"local", "fw.qim", "nothex"}, Kind::kBadModelArgument, ""},
    {"ModelArgument", {"local", "fw.qim", "0011223344556677"}, Kind::kPackage, " O=0011223344556677"},
    {"ModelAndMfgcArguments", {"local", "fw.qim", "0011223344556677", "ffffffffffffffff"}, Kind::kPackage,
     " O=0011223344556677 A=ffffffffffffffff"},
    {"MfgcArgumentNotHexIsTheWildcard", {"local", "fw.qim", "0011223344556677", "zz"}, Kind::kPackage,
     " O=0011223344556677 A=0000000000000000"},
    {"OverridesWinOverArguments",
     {"local", "fw.qim", "0011223344556677", "ffffffffffffffff", "-O", "-A", "1111111111111111"}, Kind::kPackage,
     " O=0000000000000000 A=1111111111111111"},
    {"OverridesOnPackagePath", {"local", "fw.qim", "qim", "-A", "2222222222222222"}, Kind::kPackage,
     " A=2222222222222222"},
};

INSTANTIATE_TEST_SUITE_P(Table, ChooseTarget, ::testing::ValuesIn(kTargetCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- The source URL in the first argument.

struct SourceCase {
    const char* name;
    const char* url;
    bool download;
    const char* host;
    const char* port;
};
void PrintTo(const SourceCase& c, std::ostream* os) { *os << c.name; }

class ParseSource : public ::testing::TestWithParam<SourceCase> {};

TEST_P(ParseSource, SplitsProtocolHostAndPort) {
    const SourceCase& c = GetParam();
    const command_line::Source source = command_line::parseSource(c.url);
    EXPECT_EQ(source.download, c.download);
    EXPECT_EQ(source.host, c.host);
    EXPECT_EQ(source.port, c.port);
}

const SourceCase kSourceCases[] = {
    {"TftpWithPort", "tftp://192.168.10.100:9000", true, "192.168.10.100", "9000"},
    {"TftpWithoutPort", "tftp://10.1.2.3", true, "10.1.2.3", ""},
    // Any other protocol is parsed but read locally.
    {"OtherProtocol", "ftp://10.1.2.3:69", false, "10.1.2.3", "69"},
    {"LocalWord", "local", false, "", ""},
    // Without a '/', the host starts at position 1 (unsigned wrap of npos + 2).
    {"NoSlash", "tftp:10.0.0.1:69", true, "ftp", "10.0.0.1:69"},
    {"NoSlashNoColon", "abc", false, "bc", ""},
    {"HostStartsAfterFirstSlashPair", "tftp:x/yz:5", true, "z", "5"},
};

INSTANTIATE_TEST_SUITE_P(Table, ParseSource, ::testing::ValuesIn(kSourceCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ProgressArithmetic, BlocksEstimateAndWrappingCount) {
    EXPECT_EQ(progress::blocksFor(0, 4096), 0u);
    EXPECT_EQ(progress::blocksFor(1, 4096), 1u);
    EXPECT_EQ(progress::blocksFor(4096, 4096), 1u);
    EXPECT_EQ(progress::blocksFor(0xFFFFFFFFu, 65536), 65536u) << "no overflow near 4 GiB";
    EXPECT_EQ(progress::eraseEstimateSeconds(65536, 40), 11u);
    EXPECT_EQ(progress::eraseEstimateSeconds(65536, 47), 14u);
    EXPECT_EQ(progress::eraseEstimateSeconds(65536, 306), 91u);
    // The product is taken in 32 bits: 65536 * 65536 wraps to 0.
    EXPECT_EQ(progress::eraseEstimateSeconds(65536, 65536), 0u);
    int count = INT32_MAX;
    progress::advance(&count, 1);
    EXPECT_EQ(count, INT32_MIN);
}

}  // namespace
