// The TFTP client against the scriptable fake server on loopback.
#include "common/fake_tftp_server.h"
#include "tftp_client_fixture.h"

#include <cstring>
#include <map>
#include <thread>

namespace tftptest {
namespace {

using testutil::FakeTftpScript;
using testutil::FakeTftpServer;
using testutil::packet;
using testutil::realBlock;
using testutil::tftpData;
using testutil::tftpError;

constexpr uint32_t kConnecting = ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING;
constexpr uint32_t kRecving = ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING;
constexpr uint32_t kCompleted = ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED;
constexpr uint32_t kError = ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR;

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 512) % 26);
    return s;
}

FakeTftpScript serving(const std::string& content) {
    FakeTftpScript script;
    script.content = content;
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
    const std::string content = pattern(c.size);
    FakeTftpServer server(serving(content));
    ASSERT_EQ(start(server.port(), "dir/fw.bin"), ZEL_SUCCESS);
    EXPECT_EQ(zel_tftp_client_request__state(request_), kConnecting);
    ASSERT_TRUE(runUntilDone()) << dumpLog();

    EXPECT_EQ(zel_tftp_client_request__state(request_), kCompleted);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_SUCCESS);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.size);
    EXPECT_EQ(received(), content);
    EXPECT_EQ(writes_, static_cast<int>((c.size + 511) / 512)) << "empty blocks are not written";
    EXPECT_EQ(callbackStates_, c.callbacks);
    EXPECT_EQ(request_->socket, -1);
    EXPECT_EQ(request_->retry_timer, nullptr);
    EXPECT_EQ(request_->abort_timer, nullptr);

    ASSERT_TRUE(server.waitFinished());
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), 1u);
    EXPECT_EQ(rrqs[0].fileName, "dir/fw.bin");
    EXPECT_EQ(rrqs[0].mode, "octet");
    std::vector<uint16_t> expectedAcks;
    for (uint16_t b = 1; b <= c.size / 512 + 1; ++b) expectedAcks.push_back(b);
    EXPECT_EQ(server.ackBlocks(), expectedAcks);
    // The server answered from a new port; every ACK went there, from the
    // socket that sent the read request.
    ASSERT_NE(server.transferPort(), server.port());
    for (const testutil::TftpReceived& r : server.received()) {
        if (r.kind != testutil::TftpReceived::Ack) continue;
        EXPECT_EQ(r.localPort, server.transferPort());
        EXPECT_EQ(r.peerPort, rrqs[0].peerPort);
    }
}

INSTANTIATE_TEST_SUITE_P(Files, TftpDownloadSize,
                         testing::Values(SizeCase{"Empty", 0, {kCompleted}}, SizeCase{"OneBlock100", 100, {kCompleted}},
                                         SizeCase{"Exactly512", 512, {kRecving, kCompleted}},
                                         SizeCase{"Exactly1024", 1024, {kRecving, kRecving, kCompleted}}),
                         [](const testing::TestParamInfo<SizeCase>& info) { return std::string(info.param.name); });

// ---- Faults the client rides out ----

struct FaultCase {
    const char* name;
    std::string content;
    std::map<uint32_t, std::vector<testutil::TftpDatagram>> instead;
    std::string expected;  // what ends up in the file
    int writes;
    LogLine line;  // a line the fault must produce
};

void PrintTo(const FaultCase& c, std::ostream* os) { *os << c.name; }

class TftpSurvivedFault : public TftpClientTest, public testing::WithParamInterface<FaultCase> {};

TEST_P(TftpSurvivedFault, TransferStillCompletes) {
    const FaultCase& c = GetParam();
    FakeTftpScript script = serving(c.content);
    script.instead = c.instead;
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();

    EXPECT_EQ(zel_tftp_client_request__state(request_), kCompleted) << dumpLog();
    EXPECT_EQ(received(), c.expected);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), c.expected.size());
    EXPECT_EQ(writes_, c.writes);
    EXPECT_GE(logged(c.line.level, c.line.text), 1) << dumpLog();
}

const std::string k600 = pattern(600);
const std::string k1100 = pattern(1100);
const std::string k1024 = pattern(1024);

INSTANTIATE_TEST_SUITE_P(
    Faults, TftpSurvivedFault,
    testing::Values(
        FaultCase{"RepeatedBlockIsNotRewritten", k600, {{1, {realBlock(), realBlock()}}}, k600, 2,
                  {ZEL_LOG_DEBUG, "zel_tftp_client_request__handle_data_message: got a DATA packet, block_id=1 "
                                  "(curr=1) data_length=512\n"}},
        FaultCase{"FloodOfDuplicates", k600, {{1, std::vector<testutil::TftpDatagram>(40, realBlock())}}, k600, 2,
                  {ZEL_LOG_DEBUG, "zel_tftp_client_request__handle_data_message: got a DATA packet, block_id=1 "
                                  "(curr=1) data_length=512\n"}},
        FaultCase{"BlockOutOfOrder", k1100, {{2, {packet(tftpData(3, "zzz")), realBlock()}}}, k1100, 3,
                  {ZEL_LOG_ERROR, "zel_tftp_client_request__handle_data_message: ignoring data packet with invalid "
                                  "block 3 (current=1)\n"}},
        FaultCase{"ThreeByteErrorIsIgnored", k600, {{1, {packet({0, 5, 0}), realBlock()}}}, k600, 2,
                  {ZEL_LOG_ERROR, "zel_tftp_client_request__handle_error_message: ignoring invalid error packet "
                                  "(only 3 bytes long)\n"}},
        FaultCase{"ThreeByteDataIsIgnored", k600, {{1, {packet({0, 3, 0}), realBlock()}}}, k600, 2,
                  {ZEL_LOG_ERROR, "zel_tftp_client_request__handle_data_message: ignoring invalid data packet "
                                  "(only 3 bytes long)\n"}},
        FaultCase{"RuntDatagram", k600, {{1, {packet({7}), realBlock()}}}, k600, 2,
                  {ZEL_LOG_DEBUG, "zel_tftp_client_request__socket_cb: Ignoring invalid message (length 1 < 2)"}},
        FaultCase{"AckFromServer", k600, {{1, {packet({0, 4, 0, 1}), realBlock()}}}, k600, 2,
                  {ZEL_LOG_ERROR, "zel_tftp_client_request__socket_cb: ignoring message with opcode 4\n"}},
        // 1600 data bytes arrive cut to the 1472-byte buffer: 1468 are written
        // and the block counts as a full one.
        FaultCase{"OversizedDatagram", k1024, {{1, {packet(tftpData(1, std::string(1600, 'o')))}}},
                  std::string(1468, 'o') + k1024.substr(512), 2,
                  {ZEL_LOG_DEBUG, "zel_tftp_client_request__handle_data_message: got a DATA packet, block_id=1 "
                                  "(curr=0) data_length=1468\n"}}),
    [](const testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

TEST_F(TftpClientTest, DatagramFromAnotherHostIsIgnored) {
    FakeTftpScript script = serving("real");
    script.instead[1] = {testutil::fromOtherHost(tftpData(1, "evil")), realBlock()};
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), kCompleted);
    EXPECT_EQ(received(), "real");
    const std::string line = "zel_tftp_client_request__socket_cb: Ignoring message from unexpected source (expected "
                             "'127.0.0.1:" + std::to_string(server.port()) + " (len=16)' but message source was "
                             "'127.0.0.2:" + std::to_string(server.otherHostPort()) + " (len=16)')";
    EXPECT_EQ(logged(ZEL_LOG_DEBUG, line), 1) << dumpLog();
}

TEST_F(TftpClientTest, SkippedBlockIsNotAcknowledgedAndTheRetryRepeatsTheLastAck) {
    FakeTftpScript script = serving(k1100);
    script.instead[2] = {packet(tftpData(3, "zzz"))};  // block 2 "lost", block 3 early
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(received(), k1100);
    ASSERT_TRUE(server.waitFinished());
    // No ACK 3 for the early block: ACK 1 again from the retry timer, then the
    // resent block 2 and block 3 are acknowledged.
    EXPECT_EQ(server.ackBlocks(), (std::vector<uint16_t>{1, 1, 2, 3}));
    std::vector<testutil::TftpClock::time_point> ackOne;
    for (const testutil::TftpReceived& r : server.received())
        if (r.kind == testutil::TftpReceived::Ack && r.block == 1) ackOne.push_back(r.at);
    ASSERT_EQ(ackOne.size(), 2u);
    EXPECT_GE(secondsSince(ackOne[0], ackOne[1]), 0.19);
}

TEST_F(TftpClientTest, TimersRestartWithEachNewBlock) {
    // Every first transmission is lost, so each block arrives only after the
    // client's retry (0.2 s). Eight blocks take longer than the abort timeout
    // (1 s), which the transfer survives only because each block restarts it.
    const std::string content = pattern(7 * 512 + 10);
    FakeTftpScript script = serving(content);
    for (uint32_t b = 1; b <= 8; ++b) script.instead[b] = {};
    FakeTftpServer server(script);
    const zel_utime abort = {1, 0};
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(start(server.port(), "f", &kRetry, &abort), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone(20)) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), kCompleted) << dumpLog();
    EXPECT_EQ(received(), content);
    EXPECT_GT(secondsSince(t0, std::chrono::steady_clock::now()), 1.0);
}

// ---- Failures ----

TEST_F(TftpClientTest, ErrorPacketEndsTheRequestWithTheMappedCode) {
    FakeTftpScript script = serving("");
    script.instead[1] = {packet(tftpError(1, "File not found"))};
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), kError);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_NOTFOUND);
    EXPECT_EQ(callbackStates_, std::vector<uint32_t>{kError});
    EXPECT_EQ(request_->socket, -1);
    EXPECT_EQ(logged(ZEL_LOG_DEBUG,
                     "zel_tftp_client_request__handle_error_message: got an ERROR packet, switching to ERROR state\n"),
              1);
    EXPECT_EQ(server.received().size(), 1u) << "nothing is sent after a failure";
}

TEST_F(TftpClientTest, ProgressThatStopsEndsInTimeoutAfterTheLastBlock) {
    FakeTftpScript script = serving(k1100);
    script.silentFromBlock = 2;
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), kError);
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), 512u);
    EXPECT_EQ(callbackStates_, (std::vector<uint32_t>{kRecving, kError}));
    const std::vector<uint16_t> acks = server.ackBlocks();
    ASSERT_GE(acks.size(), 2u) << "the retry timer repeats the last ACK";
    for (uint16_t a : acks) EXPECT_EQ(a, 1);
    EXPECT_EQ(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__abort_timer_cb: switching to ERROR state\n"), 1);
    EXPECT_GE(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__retry_timer_cb: starting\n"), 1);
}

TEST_F(TftpClientTest, SilentServerWithDefaultTimeouts) {
    // Read request at 0, 2 and 4 s, TIMEDOUT at 5 s. Lower bounds are exact
    // (timers never fire early); upper bounds leave room for a loaded machine.
    FakeTftpScript script;
    script.silentFromBlock = 1;
    FakeTftpServer server(script);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(start(server.port(), "fw.qim", nullptr, nullptr), ZEL_SUCCESS);
    EXPECT_EQ(request_->retry_timeout.sec, 2);
    EXPECT_EQ(request_->abort_timeout.sec, 5);
    ASSERT_TRUE(runUntilDone(15)) << dumpLog();
    const double end = secondsSince(t0, std::chrono::steady_clock::now());
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_GE(end, 5.0);
    EXPECT_LT(end, 8.0);
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), 3u);
    const double expected[3] = {0.0, 2.0, 4.0};
    for (int i = 0; i < 3; ++i) {
        const double at = secondsSince(t0, rrqs[i].at);
        EXPECT_GE(at, expected[i]) << i;
        EXPECT_LT(at, expected[i] + 1.5) << i;
        EXPECT_EQ(rrqs[i].peerPort, rrqs[0].peerPort) << "retries come from the same socket";
    }
}

TEST_F(TftpClientTest, FailureProbabilityDropsEverything) {
    FakeTftpServer server(serving("data"));
    zel_tftp_client__set_simulated_failure_probability(client_, 150);
    EXPECT_EQ(client_->failure_probability, 100u);
    EXPECT_EQ(logged(ZEL_LOG_DEBUG,
                     "zel_tftp_client__set_simulated_failure_probability: simulated failure probability is now 100\n"),
              1);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_GE(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__send_message: simulated send failure\n"), 2);
    EXPECT_TRUE(server.received().empty());
}

TEST_F(TftpClientTest, FailureProbabilityDropsReceivedDatagrams) {
    FakeTftpServer server(serving("data"));
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);  // the read request goes out
    zel_tftp_client__set_simulated_failure_probability(client_, 100);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_EQ(received(), "");
    EXPECT_GE(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__recv_message: simulated recv failure\n"), 1);
    EXPECT_GE(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__socket_cb: Ignoring invalid message (length 0 < 2)"), 1);
}

TEST_F(TftpClientTest, SendFailuresAreLeftToTheRetryTimer) {
    // Broadcast without SO_BROADCAST: every send fails with EACCES.
    const zel_sockaddr broadcast = address("255.255.255.255", 6969);
    ASSERT_EQ(zel_tftp_client__recv_file(client_, &broadcast, "f", file_, std::fwrite, &kRetry, &kAbort, &request_),
              ZEL_SUCCESS);
    EXPECT_EQ(zel_tftp_client_request__state(request_), kConnecting);
    const std::string why = "access: (0x0012=ACCES)";
    EXPECT_EQ(logged(ZEL_LOG_ERROR, "zel_tftp_client_request__send_message: error sending request message: " + why + "\n"),
              1);
    EXPECT_EQ(logged(ZEL_LOG_ERROR, "zel_tftp_client__recv_file: warning 1st send_message failed! " + why + "\n"), 1);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__error(request_), ZEL_TIMEDOUT);
    EXPECT_GE(logged(ZEL_LOG_WARNING, "zel_tftp_client_request__retry_timer_cb: error re-sending message, will wait "
                                      "for retry (error=" + why + ")\n"),
              1)
        << dumpLog();
}

TEST_F(TftpClientTest, CallbacksIgnoreWhatTheyDoNotExpect) {
    FakeTftpScript script;
    script.silentFromBlock = 1;
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    const int fd = request_->socket;
    zel_tftp_client_request__socket_cb(1, fd, ZEL_EVENT_SOCKET_READ, request_);
    zel_tftp_client_request__socket_cb(ZEL_EVENT_CAUSE_FIRED, fd, ZEL_EVENT_SOCKET_WRITE, request_);
    zel_tftp_client_request__retry_timer_cb(1, request_->retry_timer);
    zel_tftp_client_request__abort_timer_cb(1, request_->abort_timer);
    request_->state = kCompleted;  // as if the timer outlived its request
    zel_tftp_client_request__retry_timer_cb(ZEL_EVENT_CAUSE_FIRED, request_->retry_timer);
    request_->state = kConnecting;

    EXPECT_EQ(logged(ZEL_LOG_NOTICE, "zel_tftp_client_request__socket_cb: ignoring non-FIRED event cause"), 1);
    EXPECT_EQ(logged(ZEL_LOG_NOTICE, "zel_tftp_client_request__socket_cb: ignoring non-READ event type"), 1);
    EXPECT_EQ(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__retry_timer_cb: ignoring non-FIRED event\n"), 1);
    EXPECT_EQ(logged(ZEL_LOG_DEBUG, "zel_tftp_client_request__abort_timer_cb: ignoring non-FIRED event\n"), 1);
    EXPECT_EQ(logged(ZEL_LOG_ERROR,
                     "zel_tftp_client_request__retry_timer_cb: weird... retry timer fired while in state COMPLETED\n"),
              1);
    EXPECT_EQ(zel_tftp_client_request__state(request_), kConnecting);
    EXPECT_NE(request_->abort_timer, nullptr);
    EXPECT_TRUE(callbackStates_.empty());
    // Only the first read request: the ignored timer calls sent nothing (the
    // loop is never turned here, so no real retry can come either).
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(server.readRequests().size(), 1u);
}

// ---- Starting a request ----

TEST_F(TftpClientTest, FileNameLimit) {
    FakeTftpServer server(serving("x"));
    EXPECT_EQ(start(server.port(), std::string(3000, 'n')), ZEL_INVALIDDATA) << "cut to 1463, then refused";
    EXPECT_EQ(start(server.port(), std::string(1463, 'n')), ZEL_INVALIDDATA);
    EXPECT_EQ(request_, nullptr) << "out is untouched on failure";
    EXPECT_EQ(client_->request.state, ZEL_TFTP_CLIENT_REQUEST_STATE_NONE);
    EXPECT_EQ(client_->request.socket, -1);
    EXPECT_EQ(client_->request.retry_timer, nullptr);
    EXPECT_EQ(logged(ZEL_LOG_ERROR, "zel_tftp_client__recv_file: error initialising read request message: invalid "
                                    "data: (0x0004=INVALIDDATA)\n"),
              2);

    ASSERT_EQ(start(server.port(), std::string(1462, 'n')), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(request_), kCompleted);
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), 1u);
    EXPECT_EQ(rrqs[0].bytes.size(), 1471u);
}

TEST_F(TftpClientTest, PortZeroMeansSixtyNine) {
    const zel_sockaddr server = address("127.0.0.1", 0);
    ASSERT_EQ(zel_tftp_client__recv_file(client_, &server, "f", file_, std::fwrite, &kRetry, &kAbort, &request_),
              ZEL_SUCCESS);
    EXPECT_EQ(zel_sockaddr__port(&request_->server), 69);
    EXPECT_EQ(zel_sockaddr__port(&request_->outgoing.address), 69);
    zel_tftp_client_request__reset(request_);
    EXPECT_EQ(request_->state, ZEL_TFTP_CLIENT_REQUEST_STATE_NONE);
    EXPECT_EQ(request_->socket, -1);
    EXPECT_EQ(request_->retry_timer, nullptr);
    EXPECT_EQ(request_->abort_timer, nullptr);
    EXPECT_EQ(zel_sockaddr__family(&request_->server), 0);
}

TEST_F(TftpClientTest, RejectedArguments) {
    const zel_sockaddr good = address("127.0.0.1", 6969);
    const zel_sockaddr any = address("0.0.0.0", 6969);
    zel_sockaddr none;
    std::memset(&none, 0, sizeof none);
    struct Case {
        zel_tftp_client* client;
        const zel_sockaddr* server;
        const char* name;
        zel_tftp_write_fn write;
        zel_error_t expected;
    } cases[] = {
        {nullptr, &good, "f", std::fwrite, ZEL_INVALIDPARAMETER}, {client_, nullptr, "f", std::fwrite, ZEL_INVALIDPARAMETER},
        {client_, &good, nullptr, std::fwrite, ZEL_INVALIDPARAMETER}, {client_, &good, "f", nullptr, ZEL_INVALIDPARAMETER},
        {client_, &good, "", std::fwrite, ZEL_INVALIDDATA},         {client_, &any, "f", std::fwrite, ZEL_INVALIDDATA},
        {client_, &none, "f", std::fwrite, ZEL_INVALIDDATA},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(zel_tftp_client__recv_file(c.client, c.server, c.name, file_, c.write, nullptr, nullptr, &request_),
                  c.expected);
        EXPECT_EQ(request_, nullptr);
        EXPECT_EQ(client_->request.socket, -1);
    }
    EXPECT_EQ(zel_tftp_client__recv_file(client_, &good, "f", file_, std::fwrite, nullptr, nullptr, nullptr),
              ZEL_INVALIDPARAMETER);
    // A retry timeout that is not positive cannot make a periodic timer.
    const zel_utime zero = {0, 0};
    EXPECT_EQ(zel_tftp_client__recv_file(client_, &good, "f", file_, std::fwrite, &zero, nullptr, &request_),
              ZEL_INVALIDPARAMETER);
    EXPECT_EQ(client_->request.state, ZEL_TFTP_CLIENT_REQUEST_STATE_NONE);
    EXPECT_EQ(client_->request.socket, -1);
    EXPECT_EQ(zel_tftp_client__create(nullptr), nullptr);
}

TEST_F(TftpClientTest, OneRequestAtATimeAndResetAllowsTheNext) {
    FakeTftpServer server(serving("first"));
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    zel_tftp_client_request* second = nullptr;
    EXPECT_EQ(start(server.port()), ZEL_INVALIDSTATE);
    EXPECT_EQ(zel_tftp_client_request__state(request_), kConnecting);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(start(server.port()), ZEL_INVALIDSTATE) << "COMPLETED too, until reset";

    zel_tftp_client_request__reset(request_);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), 0u);
    EXPECT_EQ(request_->block, 0);
    std::rewind(file_);
    const zel_sockaddr address = TftpClientTest::address("127.0.0.1", server.port());
    ASSERT_EQ(zel_tftp_client__recv_file(client_, &address, "again", file_, std::fwrite, &kRetry, &kAbort, &second),
              ZEL_SUCCESS);
    EXPECT_EQ(second, request_);
    ASSERT_TRUE(runUntilDone()) << dumpLog();
    EXPECT_EQ(zel_tftp_client_request__state(second), kCompleted);
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(second), 5u);
}

TEST_F(TftpClientTest, LogLinesOfAOneBlockTransfer) {
    FakeTftpServer server(serving(std::string(100, 'x')));
    ASSERT_EQ(start(server.port(), "one"), ZEL_SUCCESS);
    const int fd = request_->socket;
    zel_sockaddr local;
    ASSERT_EQ(zel_socket__local_address(fd, &local), ZEL_SUCCESS);
    ASSERT_TRUE(runUntilDone()) << dumpLog();

    char fp[32], req[32];
    std::snprintf(fp, sizeof fp, "%p", static_cast<void*>(file_));
    std::snprintf(req, sizeof req, "%p", static_cast<void*>(request_));
    const std::vector<LogLine> expected = {
        {ZEL_LOG_DEBUG, "zel_tftp_client__recv_file: creating request, server=127.0.0.1:" +
                            std::to_string(server.port()) + " (len=16) filename=one fp=" + fp +
                            " retry_timeout=0.200000 abort_timeout=0.500000\n"},
        {ZEL_LOG_DEBUG, "zel_tftp_client__recv_file: request " + std::string(req) + " has socket " +
                            std::to_string(fd) + " with address " + addressText(local) + "\n"},
        {ZEL_LOG_DEBUG, "zel_tftp_client_request__socket_cb: starting\n"},
        {ZEL_LOG_DEBUG,
         "zel_tftp_client_request__handle_data_message: got a DATA packet, block_id=1 (curr=0) data_length=100\n"},
    };
    ASSERT_EQ(log_.size(), expected.size()) << dumpLog();
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(log_[i].level, expected[i].level) << i;
        EXPECT_EQ(log_[i].text, expected[i].text) << i;
    }
    EXPECT_EQ(addressText(local), "0.0.0.0:" + std::to_string(server.readRequests().at(0).peerPort) + " (len=16)");
}

TEST_F(TftpClientTest, ReleaseDuringATransferClosesEverything) {
    FakeTftpScript script;
    script.silentFromBlock = 1;
    FakeTftpServer server(script);
    ASSERT_EQ(start(server.port()), ZEL_SUCCESS);
    const zel_utime turn = {0, 10000};
    ASSERT_EQ(zel_event_loop__run_once(env_->loop, &turn), ZEL_SUCCESS);
    zel_tftp_client__release(client_);
    client_ = nullptr;
    // The loop no longer knows the request: turning it past both timeouts is quiet.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(700);
    while (std::chrono::steady_clock::now() < end) ASSERT_EQ(zel_event_loop__run_once(env_->loop, &turn), ZEL_SUCCESS);
    EXPECT_TRUE(callbackStates_.empty());
}

}  // namespace
}  // namespace tftptest
