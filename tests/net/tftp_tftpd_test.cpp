// The TFTP client against Debian's real server (in.tftpd), byte for byte.
#include "common/tftpd.h"
#include "tftp_client_fixture.h"

namespace tftptest {
namespace {

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + i / 512) & 0xFF);
    return s;
}

struct RealCase {
    const char* name;
    size_t size;
};

void PrintTo(const RealCase& c, std::ostream* os) { *os << c.name; }

class TftpAgainstTftpd : public TftpClientTest, public testing::WithParamInterface<RealCase> {};

TEST_P(TftpAgainstTftpd, FileArrivesByteForByte) {
    testutil::Tftpd tftpd;
    const std::string content = pattern(GetParam().size);
    tftpd.addFile("image.bin", content);
    ASSERT_EQ(start(tftpd.port(), "image.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(60)) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), content.size());
    EXPECT_TRUE(received() == content) << "the received file differs from the served one";
}

INSTANTIATE_TEST_SUITE_P(Sizes, TftpAgainstTftpd,
                         testing::Values(RealCase{"Empty", 0}, RealCase{"Bytes100", 100}, RealCase{"Bytes512", 512},
                                         RealCase{"Bytes1024", 1024}, RealCase{"OneMillion", 1000000}),
                         [](const testing::TestParamInfo<RealCase>& info) { return std::string(info.param.name); });

class TftpdTransfer : public TftpClientTest {};

TEST_F(TftpdTransfer, MissingFileIsNotFound) {
    testutil::Tftpd tftpd;
    ASSERT_EQ(start(tftpd.port(), "absent.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_NOTFOUND);
}

// Block numbers do not roll over in the client: 65535 blocks are the most it
// accepts, so the largest file is 65534 full blocks and a short one.
TEST_F(TftpdTransfer, LargestFileThatFitsCompletes) {
    testutil::Tftpd tftpd;
    const std::string content = pattern(65534u * 512u + 511u);
    tftpd.addFile("largest.bin", content);
    zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    ASSERT_EQ(start(tftpd.port(), "largest.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(240)) << "watchdog";
    EXPECT_EQ(zel_tftp_client_request__state(request_), ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), 33553919u);
    EXPECT_TRUE(received() == content);
}

TEST_F(TftpdTransfer, OneBlockTooManyTimesOut) {
    testutil::Tftpd tftpd;
    tftpd.addFile("too-large.bin", pattern(65535u * 512u));
    // Only Error lines are kept: a debug line per block is too much here.
    zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    ASSERT_EQ(start(tftpd.port(), "too-large.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(240)) << "watchdog";
    EXPECT_EQ(zel_tftp_client_request__state(request_), ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_EQ(request_->block, 65535);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), 65535u * 512u);
    // The server rolls over to block 0, which the client never accepts.
    EXPECT_GE(logged(ZEL_LOG_ERROR, "zel_tftp_client_request__handle_data_message: ignoring data packet with invalid "
                                    "block 0 (current=65535)\n"),
              1)
        << dumpLog();
}

}  // namespace
}  // namespace tftptest
