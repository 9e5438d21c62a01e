// The TFTP client against Debian's real server (in.tftpd), byte for byte.
#include "common/tempdir.h"
#include "common/tftpd.h"
#include "tftp_client_fixture.h"

namespace tftptest {
namespace {

struct RealCase {
    const char* name;
    long size;  // of the served file; -1: none
    zel_error_t error;
    uint32_t bytes;  // transferred
};
void PrintTo(const RealCase& c, std::ostream* os) { *os << c.name; }

class TftpAgainstTftpd : public TftpClientTest, public testing::WithParamInterface<RealCase> {};

TEST_P(TftpAgainstTftpd, FileArrivesByteForByte) {
    const RealCase& c = GetParam();
    testutil::Tftpd tftpd;
    const std::string content = c.size < 0 ? "" : testutil::randomBytes(static_cast<size_t>(c.size), 4);
    if (c.size >= 0) tftpd.addFile("image.bin", content);
    // Only Error lines are kept: a debug line per block is too much here.
    zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    ASSERT_EQ(start(tftpd.port(), "image.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(240)) << "watchdog";
    EXPECT_EQ(zel_tftp_client_request__error(request_), c.error) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.bytes);
    if (c.error == ZEL_SUCCESS) {
        EXPECT_EQ(zel_tftp_client_request__state(request_), ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED);
        EXPECT_TRUE(received() == content) << "the received file differs from the served one";
    }
    if (c.error == ZEL_TIMEDOUT) {  // the server rolls over to block 0, which the client never accepts
        EXPECT_GE(logged(ZEL_LOG_ERROR, "zel_tftp_client_request__handle_data_message: ignoring data packet with "
                                        "invalid block 0 (current=65535)\n"), 1) << dumpLog();
    }
}

// Block numbers do not roll over in the client: 65535 blocks are the most it
// accepts, so the largest file is 65534 full blocks and a short one.
INSTANTIATE_TEST_SUITE_P(Sizes, TftpAgainstTftpd,
                         testing::Values(RealCase{"Empty", 0, ZEL_SUCCESS, 0},
                                         RealCase{"Bytes100", 100, ZEL_SUCCESS, 100},
                                         RealCase{"Bytes512", 512, ZEL_SUCCESS, 512},
                                         RealCase{"Bytes1024", 1024, ZEL_SUCCESS, 1024},
                                         RealCase{"OneMillion", 1000000, ZEL_SUCCESS, 1000000},
                                         RealCase{"LargestThatFits", 65534L * 512 + 511, ZEL_SUCCESS,
                                                  65534u * 512 + 511},
                                         RealCase{"OneBlockTooMany", 65535L * 512, ZEL_TIMEDOUT, 65535u * 512},
                                         RealCase{"MissingFileIsNotFound", -1, ZEL_NOTFOUND, 0}),
                         [](const testing::TestParamInfo<RealCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tftptest
