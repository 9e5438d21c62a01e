// The TFTP client against the scriptable fake server on loopback.
#include "common/fake_tftp_server.h"
#include "common/tempdir.h"
#include "tftp_client_fixture.h"

#include <cstring>
#include <map>

namespace tftptest {
namespace {

using testutil::FakeTftpScript;
using testutil::FakeTftpServer;
using testutil::packet;
using testutil::realBlock;
using testutil::tftpData;
using Script = std::map<uint32_t, std::vector<testutil::TftpDatagram>>;

constexpr uint32_t kRecving = ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING;
constexpr uint32_t kCompleted = ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED;
constexpr uint32_t kError = ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR;
const std::string kData = "zel_tftp_client_request__handle_data_message: ";

FakeTftpScript serving(const std::string& content, Script instead = {}, uint32_t silentFromBlock = 0) {
    FakeTftpScript script;
    script.content = content;
    script.instead = std::move(instead);
    script.silentFromBlock = silentFromBlock;
    return script;
}

// ---- Plain downloads of the interesting sizes ----

struct SizeCase {
    const char* name;
    size_t size;
    std::vector<uint32_t> callbacks;  // state at each client callback
};
void PrintTo(const SizeCase& c, std::ostream* os) { *os << c.name; }

class TftpDownloadSize : public TftpClientTest, public testing::WithParamInterface<SizeCase> {};

TEST_P(TftpDownloadSize, ArrivesWholeWithOneAckPerBlockToTheTransferPort) {
    const SizeCase& c = GetParam();
    const std::string content = testutil::randomBytes(c.size, 1);
    FakeTftpServer server(serving(content));
    ASSERT_EQ(start(server.port(), "dir/fw.bin"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_SUCCESS);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.size);
    EXPECT_EQ(received(), content);
    EXPECT_EQ(writes_, static_cast<int>((c.size + 511) / 512)) << "empty blocks are not written";
    EXPECT_EQ(callbackStates_, c.callbacks);
    EXPECT_TRUE(request_->socket == -1 && request_->retry_timer == nullptr && request_->abort_timer == nullptr);

    ASSERT_TRUE(server.waitFinished());
    const std::vector<testutil::TftpReceived> got = server.received();
    ASSERT_EQ(got.size(), c.size / 512 + 2);
    EXPECT_TRUE(got[0].kind == testutil::TftpReceived::Rrq && got[0].fileName == "dir/fw.bin" &&
                got[0].mode == "octet");
    // The server answered from a new port; every ACK went there, from the
    // socket that sent the read request.
    ASSERT_NE(server.transferPort(), server.port());
    for (size_t i = 1; i < got.size(); ++i) {
        EXPECT_TRUE(got[i].kind == testutil::TftpReceived::Ack && got[i].block == i) << i;
        EXPECT_TRUE(got[i].localPort == server.transferPort() && got[i].peerPort == got[0].peerPort) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Files, TftpDownloadSize,
                         testing::Values(SizeCase{"Empty", 0, {kCompleted}}, SizeCase{"OneBlock100", 100, {kCompleted}},
                                         SizeCase{"Exactly512", 512, {kRecving, kCompleted}},
                                         SizeCase{"Exactly1024", 1024, {kRecving, kRecving, kCompleted}}),
                         [](const testing::TestParamInfo<SizeCase>& info) { return std::string(info.param.name); });

// ---- Faults the client rides out, and failures ----

struct ScriptCase {
    const char* name;
    std::string content;  // served
    Script instead;
    unsigned before, after;  // simulated failure probability set before / after the start
    zel_error_t error;
    std::string expected;  // the file afterwards
    std::vector<uint16_t> acks;
    int rrqs;      // read requests the server got; -1: not checked (they are retried)
    LogLine line;  // logged at least once; "{port}" and "{other}" stand for the server's ports
};
void PrintTo(const ScriptCase& c, std::ostream* os) { *os << c.name; }

class TftpScripted : public TftpClientTest, public testing::WithParamInterface<ScriptCase> {};

TEST_P(TftpScripted, EndsAsExpected) {
    const ScriptCase& c = GetParam();
    FakeTftpServer server(serving(c.content, c.instead));
    zel_tftp_client__set_simulated_failure_probability(client_, c.before);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    zel_tftp_client__set_simulated_failure_probability(client_, c.after);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__error(request_), c.error) << dumpLog();
    const uint32_t state = c.error == ZEL_SUCCESS ? kCompleted : kError;
    EXPECT_EQ(callbackStates_.empty() ? 0u : callbackStates_.back(), state);  // the client is told
    EXPECT_EQ(received(), c.expected);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.expected.size());
    EXPECT_EQ(request_->socket, -1);
    EXPECT_TRUE(c.error != ZEL_SUCCESS || server.waitFinished());
    EXPECT_EQ(server.ackBlocks(), c.acks);
    EXPECT_TRUE(c.rrqs < 0 || server.readRequests().size() == static_cast<size_t>(c.rrqs));
    std::string line = c.line.text;
    for (const auto& [key, port] : {std::pair{"{port}", server.port()}, std::pair{"{other}", server.otherHostPort()}}) {
        const size_t at = line.find(key);
        if (at != std::string::npos) line.replace(at, std::strlen(key), std::to_string(port));
    }
    EXPECT_GE(logged(c.line.level, line), 1) << line << "\n" << dumpLog();
}

const std::string k600 = testutil::randomBytes(600, 2), k1100 = testutil::randomBytes(1100, 3);

INSTANTIATE_TEST_SUITE_P(
    Cases, TftpScripted,
    testing::Values(
        // A repeat is acknowledged again but not written again.
        ScriptCase{"RepeatedBlockIsNotRewritten", k600, {{1, {realBlock(), realBlock()}}}, 0, 0, ZEL_SUCCESS, k600,
                   {1, 1, 2}, 1, {ZEL_LOG_DEBUG, kData + "got a DATA packet, block_id=1 (curr=1) data_length=512\n"}},
        // Neither ACK 3 nor a repeated ACK 1 answers the early block.
        ScriptCase{"InvalidBlockIsNotAcknowledged", k1100, {{2, {packet(tftpData(3, "zzz")), realBlock()}}}, 0, 0,
                   ZEL_SUCCESS, k1100, {1, 2, 3}, 1,
                   {ZEL_LOG_ERROR, kData + "ignoring data packet with invalid block 3 (current=1)\n"}},
        // Block 2 lost: the retry timer repeats ACK 1 and the server sends it again.
        ScriptCase{"LostBlockIsFetchedByTheRetriedAck", k1100, {{2, {packet(tftpData(3, "zzz"))}}}, 0, 0, ZEL_SUCCESS,
                   k1100, {1, 1, 2, 3}, 1,
                   {ZEL_LOG_ERROR, kData + "ignoring data packet with invalid block 3 (current=1)\n"}},
        ScriptCase{"ThreeByteErrorIsIgnored", k600, {{1, {packet({0, 5, 0}), realBlock()}}}, 0, 0, ZEL_SUCCESS, k600,
                   {1, 2}, 1,
                   {ZEL_LOG_ERROR, "zel_tftp_client_request__handle_error_message: ignoring invalid error packet "
                                   "(only 3 bytes long)\n"}},
        // Neither DATA nor ERROR from another host touches the transfer.
        ScriptCase{"DatagramFromAnotherHostIsIgnored", "real",
                   {{1,
                     {testutil::fromOtherHost(tftpData(1, "evil")),
                      testutil::fromOtherHost(testutil::tftpError(2, "no")), realBlock()}}},
                   0, 0, ZEL_SUCCESS, "real", {1}, 1,
                   {ZEL_LOG_DEBUG, "zel_tftp_client_request__socket_cb: Ignoring message from unexpected source "
                                   "(expected '127.0.0.1:{port} (len=16)' but message source was '127.0.0.2:{other} "
                                   "(len=16)')"}},
        // Nothing is sent after a failure: no ACK, no second read request.
        ScriptCase{"ErrorCodeOneIsNotFound", k600, {{1, {packet(testutil::tftpError(1, "File not found"))}}}, 0, 0,
                   ZEL_NOTFOUND, "", {}, 1,
                   {ZEL_LOG_DEBUG, "zel_tftp_client_request__handle_error_message: got an ERROR packet, switching to "
                                   "ERROR state\n"}},
        // 150 is stored as 100: every send is dropped.
        ScriptCase{"Probability150DropsEverySend", k600, {}, 150, 150, ZEL_TIMEDOUT, "", {}, 0,
                   {ZEL_LOG_DEBUG, "zel_tftp_client__set_simulated_failure_probability: simulated failure "
                                   "probability is now 100\n"}},
        ScriptCase{"Probability100DropsEveryReceive", k600, {}, 0, 100, ZEL_TIMEDOUT, "", {}, -1,
                   {ZEL_LOG_DEBUG, "zel_tftp_client_request__recv_message: simulated recv failure\n"}}),
    [](const testing::TestParamInfo<ScriptCase>& info) { return std::string(info.param.name); });

TEST_F(TftpClientTest, SilentServerWithDefaultTimeouts) {
    // Read request at 0, 2 and 4 s, TIMEDOUT at 5 s. Lower bounds are exact
    // (timers never fire early); upper bounds leave room for a loaded machine.
    FakeTftpServer server(serving("", {}, 1));
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(start(server.port(), "fw.qim", nullptr, nullptr), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(15)) << dumpLog();
    const double end = secondsSince(t0);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_GE(end, 5.0);
    EXPECT_LT(end, 8.0);
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_GE(secondsSince(t0, rrqs[i].at), 2.0 * i) << i;
        EXPECT_LT(secondsSince(t0, rrqs[i].at), 2.0 * i + 1.5) << i;
        EXPECT_EQ(rrqs[i].peerPort, rrqs[0].peerPort) << "retries come from the same socket";
    }
}

// ---- Starting a request ----

TEST_F(TftpClientTest, RejectedArgumentsAndPortZero) {
    const zel_sockaddr good = address("127.0.0.1", 6969), any = address("0.0.0.0", 6969), none{};
    const zel_utime zero = {0, 0};  // a retry timeout that is not positive makes no periodic timer
    const std::string long_names[] = {std::string(3000, 'n'), std::string(1463, 'n')};
    auto recv = [&](zel_tftp_client* client, const zel_sockaddr* server, const char* name, zel_tftp_write_fn write,
                    const zel_utime* retry) {
        const zel_error_t rc =
            zel_tftp_client__recv_file(client, server, name, file_, write, retry, nullptr, &request_);
        EXPECT_TRUE(request_ == nullptr && client_->request.state == ZEL_TFTP_CLIENT_REQUEST_STATE_NONE &&
                    client_->request.socket == -1 && client_->request.retry_timer == nullptr);
        return rc;
    };
    EXPECT_EQ(recv(client_, &good, nullptr, std::fwrite, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(recv(client_, &good, "f", std::fwrite, &zero), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(recv(client_, &good, "", std::fwrite, nullptr), ZEL_INVALIDDATA);
    EXPECT_EQ(recv(client_, &any, "f", std::fwrite, nullptr), ZEL_INVALIDDATA);
    EXPECT_EQ(recv(client_, &none, "f", std::fwrite, nullptr), ZEL_INVALIDDATA);
    // A longer name is cut to 1463 bytes, and those are one too many for a read request.
    for (const std::string& name : long_names) {
        EXPECT_EQ(recv(client_, &good, name.c_str(), std::fwrite, nullptr), ZEL_INVALIDDATA);
    }
    EXPECT_EQ(logged(ZEL_LOG_ERROR, "zel_tftp_client__recv_file: error initialising read request message: invalid "
                                    "data: (0x0004=INVALIDDATA)\n"),
              2);
    ASSERT_EQ(start(0), ZEL_SUCCESS);
    EXPECT_EQ(zel_sockaddr__port(&request_->server), 69);
    EXPECT_EQ(zel_sockaddr__port(&request_->outgoing.address), 69);
}

TEST_F(TftpClientTest, OneRequestAtATimeAndResetAllowsTheNext) {
    FakeTftpServer server(serving("first"));
    ASSERT_EQ(start(server.port(), std::string(1462, 'n')), ZEL_SUCCESS);  // the longest name
    zel_tftp_client_request* const first = request_;
    EXPECT_EQ(start(server.port()), ZEL_INVALIDSTATE);
    EXPECT_EQ(zel_tftp_client_request__state(first), ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(start(server.port()), ZEL_INVALIDSTATE) << "COMPLETED too, until reset";
    zel_tftp_client_request__reset(first);
    EXPECT_TRUE(first->state == ZEL_TFTP_CLIENT_REQUEST_STATE_NONE && first->socket == -1 && first->block == 0 &&
                first->abort_timer == nullptr && first->bytes_transferred == 0);
    std::rewind(file_);
    ASSERT_EQ(start(server.port(), "again"), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(first), 5u);
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), 2u);
    EXPECT_EQ(rrqs[0].bytes.size(), 1471u);
    EXPECT_EQ(rrqs[1].fileName, "again");
}

}  // namespace
}  // namespace tftptest
