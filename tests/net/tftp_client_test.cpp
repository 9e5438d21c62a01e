// The TFTP client against the scriptable fake server on loopback.
#include "common/fake_tftp_server.h"
#include "common/tempdir.h"
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

// ---- Options (blksize, windowsize, tsize, rollover) against the scripted server ----

using Pairs = std::vector<std::pair<std::string, std::string>>;
const Pairs kAsked = {{"blksize", "1468"}, {"windowsize", "8"}, {"tsize", "0"}};

// A server that answers options with an OACK of `oack` and then serves in
// blocks of `blockSize`, `windowSize` at a time.
FakeTftpScript offering(Pairs oack, uint32_t blockSize, uint32_t windowSize, Script instead = {},
                        uint32_t silentFromBlock = 0) {
    FakeTftpScript script = serving("", std::move(instead), silentFromBlock);
    script.sendOack = true;
    script.oack = std::move(oack);
    script.blockSize = blockSize;
    script.windowSize = windowSize;
    return script;
}

struct OptionCase {
    const char* name;
    size_t size;  // of the served file
    FakeTftpScript script;
    uint64_t maxSize;  // the room the client has (0: no limit)
    zel_error_t error;
    std::vector<uint16_t> acks;  // every ACK the server got, in order; with `ackCount`, only the last
    size_t ackCount;             // 0: `acks` is the whole list
    std::vector<bool> rrqOptions;  // per read request: it carried the options
    std::vector<uint16_t> errorsSent;
    LogLine line;  // logged at least once; empty text: not checked
    std::string fileName = "fw.bin";
    bool defaultTimers = false;
};
void PrintTo(const OptionCase& c, std::ostream* os) { *os << c.name; }

class TftpOptions : public TftpClientTest, public testing::WithParamInterface<OptionCase> {};

TEST_P(TftpOptions, NegotiateAndWindow) {
    const OptionCase& c = GetParam();
    FakeTftpScript script = c.script;
    script.content = testutil::randomBytes(c.size, 9);
    FakeTftpServer server(script);
    const zel_tftp_options options = {1468, 8, true, true, c.maxSize};
    ASSERT_EQ(zel_tftp_client__set_options(client_, &options), ZEL_SUCCESS);
    const auto t0 = std::chrono::steady_clock::now();
    if (c.defaultTimers) {
        ASSERT_EQ(start(server.port(), c.fileName, nullptr, nullptr), ZEL_SUCCESS);
    } else {
        ASSERT_EQ(start(server.port(), c.fileName), ZEL_SUCCESS);
    }
    zel_log_set_level(env_->log, ZEL_LOG_DEST_CALLBACK, c.size > 100000 ? ZEL_LOG_ERROR : ZEL_LOG_DEBUG);
    ASSERT_TRUE(runUntilDone(60)) << dumpLog();
    const double elapsed = secondsSince(t0);
    EXPECT_EQ(zel_tftp_client_request__error(request_), c.error) << dumpLog();
    EXPECT_EQ(callbackStates_.empty() ? 0u : callbackStates_.back(), c.error == ZEL_SUCCESS ? kCompleted : kError);
    const std::string expected = c.error == ZEL_SUCCESS ? script.content : "";
    EXPECT_TRUE(received() == expected) << "received " << received().size() << " bytes";
    EXPECT_EQ(zel_tftp_client_request__bytes_transferred(request_), expected.size());
    EXPECT_TRUE(c.error != ZEL_SUCCESS || server.waitFinished());
    if (c.defaultTimers) {  // the abort timer counts 5 s from the OACK, the last progress
        EXPECT_GE(elapsed, 5.0);
        EXPECT_LT(elapsed, 8.0);
    }

    const std::vector<uint16_t> acks = server.ackBlocks();
    if (c.ackCount == 0) {
        EXPECT_EQ(acks, c.acks);
    } else {
        EXPECT_EQ(acks.size(), c.ackCount);
        EXPECT_EQ(acks.empty() ? -1 : acks.back(), c.acks.back());
    }
    const std::vector<testutil::TftpReceived> rrqs = server.readRequests();
    ASSERT_EQ(rrqs.size(), c.rrqOptions.size());
    for (size_t i = 0; i < rrqs.size(); ++i) {
        EXPECT_EQ(rrqs[i].options, c.rrqOptions[i] ? kAsked : Pairs{}) << i;
        EXPECT_EQ(rrqs[i].bytes.size(), c.fileName.size() + 9 + (c.rrqOptions[i] ? 34 : 0)) << i;
    }
    // The refusal may still be on its way to the server thread.
    std::vector<uint16_t> errors;
    for (int wait = 0; wait < 100 && errors.size() < c.errorsSent.size(); ++wait) {
        if (wait > 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        errors.clear();
        for (const testutil::TftpReceived& r : server.received()) {
            if (r.kind != testutil::TftpReceived::Error) continue;
            errors.push_back(r.block);
            EXPECT_EQ(r.localPort, server.transferPort()) << "refusals go to the transfer port";
        }
    }
    EXPECT_EQ(errors, c.errorsSent);
    EXPECT_TRUE(c.line.text.empty() || logged(c.line.level, c.line.text) >= 1) << c.line.text << "\n" << dumpLog();
}

const std::string kOack = "zel_tftp_client_request__handle_oack_message: ";
constexpr size_t kBig = 1468 * 20 + 100;  // 21 blocks of 1468

INSTANTIATE_TEST_SUITE_P(
    Cases, TftpOptions,
    testing::Values(
        // A smaller block and the whole window: ACK 0, then one ACK for the 5 blocks.
        OptionCase{"SmallerBlksize", 5000, offering({{"blksize", "1024"}, {"windowsize", "8"}, {"tsize", "5000"}}, 1024, 8),
                   5000, ZEL_SUCCESS, {0, 5}, 0, {true}, {},
                   {ZEL_LOG_DEBUG, kOack + "options accepted, blksize=1024 windowsize=8\n"}},
        // No windowsize in the OACK: a window of 1, lock step.
        OptionCase{"NoWindowsizeIsLockStep", 3000, offering({{"BLKSIZE", "1468"}}, 1468, 1), 0, ZEL_SUCCESS,
                   {0, 1, 2, 3}, 0, {true}, {}, {ZEL_LOG_DEBUG, kOack + "options accepted, blksize=1468 windowsize=1\n"}},
        OptionCase{"BlksizeAboveRequestIsRefused", 3000, offering({{"blksize", "1469"}}, 1469, 1), 0, ZEL_INVALIDDATA,
                   {}, 0, {true}, {ZEL_TFTP_ERROR_OPTION_REFUSED},
                   {ZEL_LOG_ERROR, kOack + "refusing the server's options: blksize out of range\n"}},
        OptionCase{"WindowsizeAboveRequestIsRefused", 3000, offering({{"windowsize", "9"}}, 512, 9), 0,
                   ZEL_INVALIDDATA, {}, 0, {true}, {ZEL_TFTP_ERROR_OPTION_REFUSED},
                   {ZEL_LOG_ERROR, kOack + "refusing the server's options: windowsize out of range\n"}},
        OptionCase{"UnaskedOptionIsRefused", 3000, offering({{"timeout", "3"}}, 512, 1), 0, ZEL_INVALIDDATA, {}, 0,
                   {true}, {ZEL_TFTP_ERROR_OPTION_REFUSED},
                   {ZEL_LOG_ERROR, kOack + "refusing the server's options: an option that was not asked for\n"}},
        // DATA 1 instead of an OACK: 512 bytes in lock step, as without options.
        OptionCase{"DataInsteadOfOackFallsBack", 1100, serving(""), 0, ZEL_SUCCESS, {1, 2, 3}, 0, {true}, {}, {}},
        // ERROR 8: asked again once, without options, served in lock step.
        OptionCase{"ErrorEightRetriesWithoutOptions", 600,
                   offering(kAsked, 1468, 8, {{0, {packet(testutil::tftpError(8, "no options"))}}}), 0, ZEL_SUCCESS,
                   {1, 2}, 0, {true, false}, {}, {}},
        // Block 3 lost: block 4 reports the gap once (ACK 2), the rest of the
        // broken window is dropped, the server restarts at 3.
        OptionCase{"LostBlockInWindowIsReacknowledged", kBig,
                   offering({{"blksize", "1468"}, {"windowsize", "8"}}, 1468, 8, {{3, {}}}), 0, ZEL_SUCCESS,
                   {0, 2, 10, 18, 21}, 0, {true}, {},
                   {ZEL_LOG_DEBUG, kData + "block 3 is missing, acknowledging 2\n"}},
        // An old block and one far ahead: neither stored, neither acknowledged.
        OptionCase{"DuplicateAndOutOfWindowAreIgnored", 1468 * 6 + 10,
                   offering({{"blksize", "1468"}, {"windowsize", "4"}}, 1468, 4,
                            {{2, {realBlock(), packet(tftpData(1, "dup")), packet(tftpData(30, "far"))}}}),
                   0, ZEL_SUCCESS, {0, 4, 7}, 0, {true}, {},
                   {ZEL_LOG_ERROR, kData + "ignoring data packet with invalid block 30 (current=2)\n"}},
        // Silent after the OACK: ACK 0 at 0, 2 and 4 s, TIMEDOUT at 5 s.
        OptionCase{"SilentAfterOackAbortsAfterFiveSeconds", 3000, offering(kAsked, 1468, 8, {}, 1), 0, ZEL_TIMEDOUT,
                   {0, 0, 0}, 0, {true}, {}, {}, "fw.bin", true},
        OptionCase{"TsizeAboveTheRoomIsRefused", 3000, offering({{"tsize", "3000"}}, 512, 1), 2999, ZEL_DATATOOLONG,
                   {}, 0, {true}, {ZEL_TFTP_ERROR_DISK_FULL},
                   {ZEL_LOG_ERROR, kOack + "the file of 3000 bytes does not fit into 2999 bytes\n"}},
        // 65537 blocks of 8 bytes: block 0 follows 65535, and the file completes.
        OptionCase{"BlockNumbersRollOver", 65536 * 8 + 3, offering({{"blksize", "8"}, {"windowsize", "8"}}, 8, 8), 0,
                   ZEL_SUCCESS, {1}, 8194, {true}, {}, {}},
        // 470 bytes of name and 43 of request and options exceed 512: no options.
        OptionCase{"LongNameIsAskedWithoutOptions", 600, offering(kAsked, 1468, 8), 0, ZEL_SUCCESS, {1, 2}, 0,
                   {false}, {}, {}, std::string(470, 'n')},
        OptionCase{"LongestNameWithOptions", 600, offering({{"blksize", "1468"}}, 1468, 1), 0, ZEL_SUCCESS, {0, 1},
                   0, {true}, {}, {}, std::string(469, 'n')}),
    [](const testing::TestParamInfo<OptionCase>& info) { return std::string(info.param.name); });

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
