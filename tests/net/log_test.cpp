#include "net/log.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <memory>
#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// What the callback destination received: "<level>[*] <text>", '*' when a
// time-stamp prefix was passed.
int capture(zel_log* log, const char* prefix, unsigned level, const char* text, unsigned length) {
    static_cast<std::vector<std::string>*>(zel_log_callback_context(log))
        ->push_back(std::to_string(level) + (prefix != nullptr ? "* " : " ") + std::string(text, length));
    return 0;
}

// "Mmm dd hh:mm:ss" followed by a blank.
const std::string kStamp = "[A-Z][a-z][a-z] [ 0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9] ";

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

class LogTest : public ::testing::Test {
protected:
    std::unique_ptr<zel_log, void (*)(zel_log*)> log{zel_log_create(), zel_log_release};
    std::vector<std::string> received;

    void SetUp() override {
        ASSERT_NE(log, nullptr);
        zel_log_set_callback(log.get(), capture);
        zel_log_set_callback_context(log.get(), &received);
    }
};

TEST_F(LogTest, FanOutWithLevelsPrefixesAndTheLineFeedRule) {
    zel_log_printf(log.get(), ZEL_LOG_CRITICAL, "dropped");  // a new log is silent
    EXPECT_TRUE(received.empty());
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    zel_log_set_file(log.get(), file);
    zel_log_set_all_levels(log.get(), ZEL_LOG_VERBOSE);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_STDERR, ZEL_LOG_NOTICE);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_CALLBACK, ZEL_LOG_WARNING);
    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_STDOUT, false);
    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_CALLBACK, true);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    zel_log_printf(log.get(), ZEL_LOG_WARNING, "ends with a line feed\n");
    zel_log_write(log.get(), ZEL_LOG_VERBOSE, "plain text");
    zel_log_write(log.get(), ZEL_LOG_INFO, "");       // writes nothing
    zel_log_write(log.get(), ZEL_LOG_NONE, "never");  // level 0 is never written
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "loud %d", 2);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "Warning ends with a line feed\nVerbose plain text\nError loud 2\n");
    EXPECT_TRUE(matches(err, kStamp + "Warning ends with a line feed\n" + kStamp + "Error loud 2\n")) << err;
    std::rewind(file);
    char buf[256] = {};
    const std::string in_file(buf, std::fread(buf, 1, sizeof buf - 1, file));
    std::fclose(file);
    EXPECT_TRUE(matches(in_file, kStamp + "Warning ends with a line feed\n" + kStamp + "Verbose plain text\n" + kStamp +
                                     "Error loud 2\n"))
        << in_file;
    EXPECT_EQ(received, (std::vector<std::string>{"3* ends with a line feed\n", "2* loud 2"}));
}

// A UDP receiver on loopback.
struct Receiver {
    int fd = -1;
    zel_sockaddr address{};
    Receiver() {
        zel_sockaddr__set_ipv4(&address, htonl(INADDR_LOOPBACK), 0);
        EXPECT_EQ(zel_socket__open_bound(&fd, &address), ZEL_SUCCESS);
        EXPECT_EQ(zel_socket__local_address(fd, &address), ZEL_SUCCESS);
    }
    ~Receiver() { zel_socket__close(&fd); }
    // Every datagram waiting now (after a short grace for loopback delivery).
    std::vector<std::string> drain() {
        std::vector<std::string> out;
        const zel_utime grace{0, 200000};
        char buf[2048];
        std::uint32_t len = sizeof buf;
        while (out.size() < 16 && zel_socket__wait_one_readable(fd, &grace) == ZEL_SUCCESS &&
               zel_socket__recv(fd, buf, &len, nullptr) == ZEL_SUCCESS) {
            out.emplace_back(buf, len);
            len = sizeof buf;
        }
        return out;
    }
};

TEST_F(LogTest, NetworkSplitsLongTextsIntoDatagrams) {
    Receiver rx;
    zel_log_set_network_destination(log.get(), &rx.address, 0);
    zel_log_set_level(log.get(), ZEL_LOG_DEST_NETWORK, ZEL_LOG_DEBUG);
    std::string text;
    for (int i = 0; i < 3000; ++i) text.push_back(static_cast<char>('a' + i % 26));
    zel_log_printf(log.get(), ZEL_LOG_ERROR, "%s", text.c_str());
    const std::vector<std::string> got = rx.drain();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ((std::vector<size_t>{got[0].size(), got[1].size(), got[2].size()}),
              (std::vector<size_t>{1458, 1458, 87}));
    EXPECT_EQ(got[0] + got[1] + got[2], " E " + text);

    zel_log_set_prefix(log.get(), ZEL_LOG_DEST_NETWORK, true);
    zel_log_write(log.get(), ZEL_LOG_NOTICE, "short\n");
    const std::vector<std::string> stamped = rx.drain();
    ASSERT_EQ(stamped.size(), 1u);
    EXPECT_TRUE(matches(stamped[0], kStamp + "N short\n")) << stamped[0];

    zel_log_set_network_destination(log.get(), nullptr, 0);
    EXPECT_EQ(log->network[0].socket, -1);
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
    EXPECT_EQ(received, (std::vector<std::string>{"2 " + report, "2 hello"}));
    EXPECT_EQ(rx.drain(), (std::vector<std::string>{" E " + report, " E hello"}));
    EXPECT_EQ(log->network[0].socket, -1);
    EXPECT_EQ(zel_sockaddr__family(&log->network[0].address), 0);
    close(pipe_fds[1]);
}

}  // namespace
