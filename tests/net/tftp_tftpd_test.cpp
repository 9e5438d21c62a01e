// The TFTP client against Debian's real servers (in.tftpd, atftpd, dnsmasq),
// byte for byte.
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

// ---- With options: blksize 1468, windowsize 8, tsize, rollover ----

using testutil::TftpdKind;

struct ServerCase {
    const char* name;
    TftpdKind kind;
    bool serverOptions;  // false: the server is told to ignore every option
    size_t size;
};
void PrintTo(const ServerCase& c, std::ostream* os) { *os << c.name; }

class TftpOptionsAgainstServers : public TftpClientTest, public testing::WithParamInterface<ServerCase> {};

TEST_P(TftpOptionsAgainstServers, FileArrivesByteForByte) {
    const ServerCase& c = GetParam();
    testutil::Tftpd server(c.kind, c.serverOptions);
    const std::string content = testutil::randomBytes(c.size, 5);
    server.addFile("image.bin", content);
    zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    const zel_tftp_options options = {1468, 8, true, true, 0};
    ASSERT_EQ(zel_tftp_client__set_options(client_, &options), ZEL_SUCCESS);
    host_ = server.host();
    ASSERT_EQ(start(server.port(), "image.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(240)) << "watchdog";
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_SUCCESS) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.size);
    EXPECT_TRUE(received() == content) << "the received file differs from the served one";
    // What the server agreed to: 1468 bytes unless told to ignore options;
    // only atftpd sends windows.
    EXPECT_EQ(client_->request.block_size, c.serverOptions ? 1468 : 512);
    EXPECT_EQ(client_->request.window_size, c.serverOptions && c.kind == TftpdKind::Atftpd ? 8 : 1);
}

constexpr size_t kWindow = 8 * 1468;
constexpr size_t kRollover1468 = 65535u * 1468u + 1;  // block 65536 (0 on the wire) carries the last byte
constexpr size_t kRollover512 = 65536u * 512u + 1;

#define BRIVLO_SERVER_ROWS(Server, kind)                                                              \
    ServerCase{#Server "Empty", kind, true, 0}, ServerCase{#Server "Bytes1467", kind, true, 1467},      \
        ServerCase{#Server "Bytes1468", kind, true, 1468}, ServerCase{#Server "Bytes1469", kind, true, 1469}, \
        ServerCase{#Server "OneWindow", kind, true, kWindow},                                         \
        ServerCase{#Server "Rollover1468", kind, true, kRollover1468},                                \
        ServerCase{#Server "Rollover512WithoutServerOptions", kind, false, kRollover512}

INSTANTIATE_TEST_SUITE_P(Servers, TftpOptionsAgainstServers,
                         testing::Values(BRIVLO_SERVER_ROWS(InTftpd, TftpdKind::InTftpd),
                                         BRIVLO_SERVER_ROWS(Atftpd, TftpdKind::Atftpd),
                                         BRIVLO_SERVER_ROWS(Dnsmasq, TftpdKind::Dnsmasq)),
                         [](const testing::TestParamInfo<ServerCase>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tftptest
