#include "net/log.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

struct LogFree {
    void operator()(zel_log* log) const { zel_log_release(log); }
};
using LogPtr = std::unique_ptr<zel_log, LogFree>;

// What the callback destination received.
struct Received {
    std::vector<std::string> texts;
    std::vector<unsigned> levels;
    std::vector<bool> prefixed;
};

int capture(zel_log* log, const char* prefix, unsigned level, const char* text, unsigned length) {
    auto* r = static_cast<Received*>(zel_log_callback_context(log));
    r->texts.emplace_back(text, length);
    r->levels.push_back(level);
    r->prefixed.push_back(prefix != nullptr);
    return 0;
}

// "Mmm dd hh:mm:ss" followed by a blank.
const char kStamp[] = "[A-Z][a-z][a-z] [ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9] ";

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

class LogTest : public ::testing::Test {
protected:
    LogPtr log{zel_log_create()};
    Received received;

    void SetUp() override {
        ASSERT_NE(log, nullptr);
        zel_log_set_callback(log.get(), capture);
        zel_log_set_callback_context(log.get(), &received);
    }
};

TEST_F(LogTest, CreatedSilentWithStreamPrefixes) {
    EXPECT_EQ(log->maxLevel, 0u);
    for (unsigned d = 0; d < ZEL_LOG_DEST_COUNT; ++d) EXPECT_EQ(zel_log_level(log.get(), d), 0u);
    EXPECT_EQ(log->prefixFlags, 14u);
    EXPECT_EQ(log->network[0].socket, -1);
    EXPECT_EQ(log->network[1].socket, -1);
    EXPECT_EQ(log->buffer, nullptr);
    zel_log_printf(log.get(), ZEL_LOG_CRITICAL, "dropped");
    EXPECT_TRUE(received.texts.empty());
    EXPECT_EQ(log->buffer, nullptr);  // nothing was formatted
}

TEST_F(LogTest, StderrAtNoticeStampsErrorsAndDropsDebug) {
    zel_log_set_level(log.get(), ZEL_LOG_DEST_STDERR, ZEL_LOG_NOTICE);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    zel_log_printf(log.get(), ZEL_LOG_DEBUG, "quiet %d", 1);
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "loud %d", 2);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "");
    EXPECT_TRUE(matches(err, std::string(kStamp) + "Error loud 2\n")) << err;
}

TEST_F(LogTest, FanOutPrefixesAndLineFeedRule) {
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    zel_log_set_all_levels(log.get(), ZEL_LOG_VERBOSE);
    zel_log_set_file(log.get(), file);
    EXPECT_EQ(zel_log_file(log.get()), file);
    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_STDOUT, false);
    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_CALLBACK, true);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    zel_log_printf(log.get(), ZEL_LOG_WARNING, "ends with a line feed\n");
    zel_log_write(log.get(), ZEL_LOG_VERBOSE, "plain text");
    zel_log_write(log.get(), ZEL_LOG_INFO, "");  // writes nothing
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "Warning ends with a line feed\nVerbose plain text\n");
    EXPECT_TRUE(matches(err, std::string(kStamp) + "Warning ends with a line feed\n" + kStamp + "Verbose plain text\n"))
        << err;
    std::rewind(file);
    char buf[256] = {};
    const size_t n = std::fread(buf, 1, sizeof buf - 1, file);
    EXPECT_EQ(std::string(buf, n), err);
    std::fclose(file);
    EXPECT_EQ(received.texts, (std::vector<std::string>{"ends with a line feed\n", "plain text"}));
    EXPECT_EQ(received.levels, (std::vector<unsigned>{3, 7}));
    EXPECT_EQ(received.prefixed, (std::vector<bool>{true, true}));
}

TEST_F(LogTest, EachDestinationHasItsOwnLevel) {
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_WARNING);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_RESERVED, ZEL_LOG_VERBOSE);  // raises the maximum only
    EXPECT_EQ(log->maxLevel, 7u);
    for (unsigned level = 0; level <= 8; ++level) zel_log_printf(log.get(), level, "L%u", level);
    EXPECT_EQ(received.texts, (std::vector<std::string>{"L1", "L2", "L3"}));  // level 0 is never written
    EXPECT_EQ(received.prefixed, (std::vector<bool>{false, false, false}));
}

TEST_F(LogTest, MaxLevelFollowsTheSlots) {
    zel_log_set_level(log.get(), ZEL_LOG_DEST_STDERR, 4);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, 6);
    EXPECT_EQ(log->maxLevel, 6u);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, 0);
    EXPECT_EQ(log->maxLevel, 4u);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_STDERR, 0);
    EXPECT_EQ(log->maxLevel, 0u);
    zel_log_set_level(log.get(), 6, 5);  // no such destination
    EXPECT_EQ(log->maxLevel, 0u);
    zel_log_set_all_levels(log.get(), 3);
    EXPECT_EQ(log->maxLevel, 3u);
    EXPECT_EQ(zel_log_level(log.get(), ZEL_LOG_DEST_FILE), 3u);
    zel_log_set_all_prefixes(log.get(), true);
    EXPECT_EQ(log->prefixFlags, 63u);
    zel_log_set_all_prefixes(log.get(), false);
    EXPECT_EQ(log->prefixFlags, 0u);
}

TEST_F(LogTest, LongTextIsCutToTheBuffer) {
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    const std::string big(20000, 'z');
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "%s", big.c_str());
    ASSERT_EQ(received.texts.size(), 1u);
    EXPECT_EQ(received.texts[0], std::string(16383, 'z'));
    EXPECT_EQ(log->bufferSize, 16384u);
}

TEST_F(LogTest, BufferManagement) {
    char mine[8];
    EXPECT_EQ(zel_log_set_buffer(log.get(), mine, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_log_set_buffer(log.get(), nullptr, 64), ZEL_SUCCESS);
    char* allocated = log->buffer;
    EXPECT_EQ(zel_log_set_buffer(log.get(), nullptr, 32), ZEL_SUCCESS);  // big enough: only the size drops
    EXPECT_EQ(log->buffer, allocated);
    EXPECT_EQ(log->bufferSize, 32u);
    EXPECT_EQ(zel_log_set_buffer(log.get(), mine, sizeof mine), ZEL_SUCCESS);  // frees the allocated one
    EXPECT_TRUE(log->bufferIsCallers);
    EXPECT_EQ(zel_log_set_buffer(log.get(), nullptr, 64), ZEL_INVALIDSTATE);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "%s", "0123456789");
    EXPECT_EQ(received.texts, (std::vector<std::string>{"0123456"}));
    EXPECT_EQ(zel_log_set_buffer(log.get(), nullptr, 0), ZEL_SUCCESS);  // dropped, not freed
    EXPECT_EQ(log->buffer, nullptr);
    EXPECT_FALSE(log->bufferIsCallers);
    EXPECT_EQ(zel_log_set_buffer(nullptr, nullptr, 0), ZEL_INVALIDPARAMETER);
}

TEST(LogLevels, NamesAndParsing) {
    EXPECT_STREQ(ZEL_LOGLEVEL_STRINGS[0], "None");
    EXPECT_STREQ(ZEL_LOGLEVEL_STRINGS[8], "Undef");
    EXPECT_STREQ(zel_log_level_name(4), "Notice");
    EXPECT_STREQ(zel_log_level_name(9), "Undef");
    EXPECT_EQ(zel_log_level_from_string("debug"), 6u);
    EXPECT_EQ(zel_log_level_from_string("VERBOSE"), 7u);
    EXPECT_EQ(zel_log_level_from_string("none"), 0u);
    EXPECT_EQ(zel_log_level_from_string("9"), 8u);
    EXPECT_EQ(zel_log_level_from_string("3"), 3u);
    EXPECT_EQ(zel_log_level_from_string("4x"), 4u);
    EXPECT_EQ(zel_log_level_from_string("99999999999999999999999"), 8u);
    EXPECT_EQ(zel_log_level_from_string("loud"), 8u);
    EXPECT_EQ(zel_log_level_from_string(""), 8u);
    EXPECT_EQ(zel_log_level_from_string(nullptr), 8u);
}

// A UDP receiver on loopback.
struct Receiver {
    int fd = -1;
    zel_sockaddr address{};
    Receiver() {
        const zel_sockaddr any = [] {
            zel_sockaddr a;
            zel_sockaddr__set_ipv4(&a, htonl(INADDR_LOOPBACK), 0);
            return a;
        }();
        EXPECT_EQ(zel_socket__open_bound(&fd, &any), ZEL_SUCCESS);
        EXPECT_EQ(zel_socket__local_address(fd, &address), ZEL_SUCCESS);
    }
    ~Receiver() { zel_socket__close(&fd); }
    // Every datagram waiting now (after a short grace for loopback delivery).
    std::vector<std::string> drain() {
        std::vector<std::string> out;
        const zel_utime grace{0, 200000};
        while (zel_socket__wait_one_readable(fd, &grace) == ZEL_SUCCESS) {
            char buf[2048];
            std::uint32_t len = sizeof buf;
            if (zel_socket__recv(fd, buf, &len, nullptr) != ZEL_SUCCESS) break;
            out.emplace_back(buf, len);
            if (out.size() > 16) break;
        }
        return out;
    }
};

TEST_F(LogTest, NetworkSplitsLongTextsIntoDatagrams) {
    Receiver rx;
    zel_log_set_network_destination(log.get(), &rx.address, 0);
    ASSERT_GE(log->network[0].socket, 0);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_NETWORK, ZEL_LOG_DEBUG);
    std::string text;
    for (int i = 0; i < 3000; ++i) text.push_back(static_cast<char>('a' + i % 26));
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "%s", text.c_str());
    const std::vector<std::string> got = rx.drain();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].size(), 1458u);
    EXPECT_EQ(got[1].size(), 1458u);
    EXPECT_EQ(got[2].size(), 87u);
    EXPECT_EQ(got[0].substr(0, 3), " E ");
    EXPECT_EQ(got[0].substr(3) + got[1] + got[2], text);

    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_NETWORK, true);
    zel_log_write(log.get(), ZEL_LOG_NOTICE, "short\n");
    const std::vector<std::string> stamped = rx.drain();
    ASSERT_EQ(stamped.size(), 1u);
    EXPECT_TRUE(matches(stamped[0], std::string(kStamp) + "N short\n")) << stamped[0];

    zel_log_set_network_destination(log.get(), nullptr, 0);
    EXPECT_EQ(log->network[0].socket, -1);
    EXPECT_EQ(zel_sockaddr__family(&log->network[0].address), 0);
}

TEST_F(LogTest, NotASocketDisablesTheDestinationAndIsReportedElsewhere) {
    Receiver rx;
    zel_log_set_network_destination(log.get(), &rx.address, 1);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    log->network[0].address = rx.address;
    log->network[0].socket = pipe_fds[0];  // a descriptor that is no socket
    zel_log_set_level(log.get(), ZEL_LOG_DEST_NETWORK, ZEL_LOG_ERROR);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_ERROR);
    zel_log_write(log.get(), ZEL_LOG_ERROR, "hello");
    const std::string report = "zel_log: bad network logging socket " + std::to_string(pipe_fds[0]) +
                               " - network logging disabled: NOTSOCK (44)";
    EXPECT_EQ(received.texts, (std::vector<std::string>{report, "hello"}));
    EXPECT_EQ(received.levels, (std::vector<unsigned>{2, 2}));
    EXPECT_EQ(rx.drain(), (std::vector<std::string>{" E " + report, " E hello"}));
    EXPECT_EQ(log->network[0].socket, -1);
    EXPECT_EQ(zel_sockaddr__family(&log->network[0].address), 0);
    close(pipe_fds[1]);
}

TEST_F(LogTest, OtherSendErrorsAreReportedAtNoticeAndSendingGoesOn) {
    zel_sockaddr bad{};
    ASSERT_EQ(zel_sockaddr__set_local(&bad, "/tmp/not-an-inet-address"), ZEL_SUCCESS);
    zel_log_set_network_destination(log.get(), &bad, 0);
    ASSERT_GE(log->network[0].socket, 0);
    const int fd = log->network[0].socket;
    zel_log_set_level(log.get(), ZEL_LOG_DEST_NETWORK, ZEL_LOG_ERROR);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_NOTICE);
    zel_log_write(log.get(), ZEL_LOG_ERROR, std::string(2000, 'q').c_str());  // two datagrams, two failures
    ASSERT_EQ(received.texts.size(), 3u);
    const std::string report = "zel_log: network logging to /tmp/not-an-inet-address (fd " + std::to_string(fd) +
                               ") failed: AFNOSUPPORT (21)";
    EXPECT_EQ(received.texts[0], report);
    EXPECT_EQ(received.texts[1], report);
    EXPECT_EQ(received.levels[0], 4u);
    EXPECT_EQ(received.texts[2].size(), 2000u);
    EXPECT_EQ(log->network[0].socket, fd);  // kept after the report
}

}  // namespace
