#include "app/command_line.h"

#include <gtest/gtest.h>

#include <string>

#include "app/progress_count.h"

namespace {

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
