#include "net/socket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>

#include "common/tempdir.h"

namespace {

std::uint32_t ip(const char* text) {
    std::uint32_t a = 0;
    EXPECT_EQ(zel_inet_aton(text, &a), ZEL_SUCCESS) << text;
    return a;
}

zel_sockaddr v4(const char* text, std::uint16_t port) {
    zel_sockaddr a;
    zel_sockaddr__set_ipv4(&a, ip(text), port);
    return a;
}

zel_sockaddr local(const std::string& path) {
    zel_sockaddr a;
    EXPECT_EQ(zel_sockaddr__set_local(&a, path.c_str()), ZEL_SUCCESS);
    return a;
}

std::string text_of(const zel_sockaddr& a, size_t n = 64) {
    char buf[128];
    std::memset(buf, 'x', sizeof buf);
    return zel_sockaddr__text(&a, buf, n);
}

TEST(SockaddrText, Ipv4LocalAndEmpty) {
    const struct {
        zel_sockaddr a;
        size_t n;
        const char* text;
    } cases[] = {{v4("10.0.0.1", 69), 64, "10.0.0.1:69 (len=16)"},
                 {v4("255.255.255.255", 65535), 32, "255.255.255.255:65535 (len=16)"},
                 {v4("10.0.0.1", 69), 15, ""},  // no room for the dotted quad
                 {local("/tmp/some.sock"), 64, "/tmp/some.sock"},
                 {local("/tmp/some.sock"), 5, ""},
                 {zel_sockaddr{}, 64, ""}};
    for (const auto& c : cases) EXPECT_EQ(text_of(c.a, c.n), c.text);
    EXPECT_EQ(local("/tmp/some.sock").len, std::strlen("/tmp/some.sock") + 3);
}

TEST(SockaddrHost, SameHostIgnoresPortsAndComparesOnlyIpv4) {
    const zel_sockaddr a = v4("10.0.0.1", 69), b = v4("10.0.0.1", 50123), c = v4("10.0.0.2", 69), z{};
    EXPECT_TRUE(zel_sockaddr__same_host(&a, &b));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, &c));
    EXPECT_FALSE(zel_sockaddr__same_host(&z, &z));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, nullptr));
    const zel_sockaddr l = local("/tmp/x");
    EXPECT_FALSE(zel_sockaddr__same_host(&l, &l));
}

TEST(SockaddrSetters, FamilyChecksAndPorts) {
    zel_sockaddr a = v4("1.2.3.4", 7);
    const zel_sockaddr before = a;
    EXPECT_EQ(zel_sockaddr__set_any(&a, 0, 1), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_sockaddr__set_any(&a, AF_INET6, 1), ZEL_NOTSUPPORTED);
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, "not-an-ip", 1), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(std::memcmp(&a, &before, sizeof a), 0);
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, "9.8.7.6", 1000), ZEL_SUCCESS);
    EXPECT_EQ(zel_sockaddr__set_port(&a, 69), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "9.8.7.6:69 (len=16)");
    EXPECT_EQ(zel_sockaddr__set_ipv4_ptr(&a, nullptr, 6), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "0.0.0.0:6 (len=16)");
    zel_sockaddr path = local("/tmp/y");
    EXPECT_EQ(zel_sockaddr__set_port(&path, 1), ZEL_AFNOSUPPORT);
    EXPECT_EQ(zel_sockaddr__set_local(&path, std::string(108, 'p').c_str()), ZEL_TRUNCATED);
    EXPECT_STREQ(zel_sockaddr__local_path(&path), "/tmp/y");
}

TEST(InetNtoa, BytesByHand) {
    char buf[16], small[15];
    EXPECT_STREQ(zel_inet_ntoa(ip("0.9.10.99"), buf, sizeof buf), "0.9.10.99");
    EXPECT_STREQ(zel_inet_ntoa(ip("100.200.255.1"), buf, sizeof buf), "100.200.255.1");
    EXPECT_EQ(zel_inet_ntoa(ip("1.1.1.1"), small, sizeof small), nullptr);
}

TEST(Resolve, GetaddrinfoErrorTable) {
    const std::pair<int, zel_error_t> table[] = {
        {EAI_BADFLAGS, ZEL_INVALIDPARAMETER}, {EAI_NONAME, ZEL_NOTFOUND},     {EAI_SERVICE, ZEL_NOTFOUND},
        {EAI_AGAIN, ZEL_TRYAGAIN},            {EAI_FAIL, ZEL_FAULT},          {EAI_NODATA, ZEL_NODATA},
        {EAI_ADDRFAMILY, ZEL_NODATA},         {EAI_FAMILY, ZEL_NOTSUPPORTED}, {EAI_SOCKTYPE, ZEL_NOTSUPPORTED},
        {EAI_MEMORY, ZEL_NOMEMORY},           {0, ZEL_SUCCESS}};
    for (const auto& c : table) EXPECT_EQ(zel_gai_error_code(c.first), c.second) << c.first;
    errno = ECONNREFUSED;
    EXPECT_EQ(zel_gai_error_code(EAI_SYSTEM), ZEL_CONNREFUSED);
}

// Only names that resolve without a name server: no traffic leaves the machine.
TEST(Resolve, NumericHostsAndServicesFirstIpv4Wins) {
    zel_sockaddr a{};
    ASSERT_EQ(zel_resolve_address(&a, 0, "127.0.0.2", "70"), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "127.0.0.2:70 (len=16)");
    const zel_sockaddr before = a;
    EXPECT_EQ(zel_resolve_address(&a, AF_INET, "127.0.0.1", "no-such-service"), ZEL_NOTFOUND);
    EXPECT_EQ(zel_resolve_address(&a, 0, "::1", "69"), ZEL_NOTFOUND);  // no IPv4 result
    EXPECT_EQ(std::memcmp(&a, &before, sizeof a), 0);
}

TEST(Socket, UdpRoundTripOnLoopback) {
    int rx = -1, tx = -1, busy = 5;
    EXPECT_EQ(zel_socket__open(&busy, AF_INET), ZEL_INVALIDPARAMETER);  // the slot is in use
    const zel_sockaddr any = v4("127.0.0.1", 0);
    ASSERT_EQ(zel_socket__open_bound(&rx, &any), ZEL_SUCCESS);
    ASSERT_EQ(zel_socket__open_bound(&tx, &any), ZEL_SUCCESS);
    zel_sockaddr rx_addr{}, tx_addr{}, source{};
    ASSERT_EQ(zel_socket__local_address(rx, &rx_addr), ZEL_SUCCESS);
    ASSERT_EQ(zel_socket__local_address(tx, &tx_addr), ZEL_SUCCESS);
    int taken = -1;
    EXPECT_EQ(zel_socket__open_bound(&taken, &rx_addr), ZEL_ADDRINUSE);
    EXPECT_EQ(taken, -1);  // closed again
    std::uint32_t len = 5;
    ASSERT_EQ(zel_socket__send(tx, "hello", &len, &rx_addr), ZEL_SUCCESS);
    ASSERT_EQ(zel_socket__wait_one_readable(rx, nullptr), ZEL_SUCCESS);
    char buf[3];
    len = sizeof buf;
    ASSERT_EQ(zel_socket__recv(rx, buf, &len, &source), ZEL_SUCCESS);
    EXPECT_EQ(std::string(buf, len), "hel");  // cut to the capacity
    EXPECT_EQ(text_of(source), text_of(tx_addr));
    // Nothing more to read: the wait times out and marks the slot -1.
    int fds[2] = {rx, -1};
    const zel_utime brief{0, 1000};
    EXPECT_EQ(zel_socket__wait_readable(fds, 2, &brief), ZEL_TIMEDOUT);
    EXPECT_EQ(fds[0], -1);
    EXPECT_EQ(zel_socket__wait_readable(fds, 2, &brief), ZEL_INVALIDPARAMETER);  // nothing left to wait for
    zel_socket__close(&tx);
    EXPECT_EQ(zel_socket__close(&rx), ZEL_SUCCESS);
    EXPECT_EQ(rx, -1);
}

TEST(LocalSocket, TempPathBindAndCloseRemovesThePath) {
    testutil::TempDir dir;
    char buf[256];
    const size_t need = dir.path().size() + 9;
    EXPECT_EQ(zel_temp_path(dir.path().c_str(), buf, need - 1), ZEL_NOBUFS);
    ASSERT_EQ(zel_temp_path(dir.path().c_str(), buf, need), ZEL_SUCCESS);
    EXPECT_EQ(std::string(buf).substr(0, dir.path().size() + 2), dir.path() + "/s");
    EXPECT_TRUE(testutil::fileExists(buf));
    EXPECT_EQ(zel_temp_path((dir.path() + "/missing").c_str(), buf, sizeof buf), ZEL_NODATA);

    const zel_sockaddr a = local(buf);  // bind unlinks the leftover file first
    int fd = -1;
    ASSERT_EQ(zel_socket__open_bound(&fd, &a), ZEL_SUCCESS);
    struct stat st;
    ASSERT_EQ(stat(buf, &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    zel_socket__close(&fd);
    EXPECT_FALSE(testutil::fileExists(buf));
    zel_sockaddr fresh{};
    ASSERT_EQ(zel_socket__open_local(&fd, AF_UNIX, &fresh), ZEL_SUCCESS);
    const std::string temp = zel_sockaddr__local_path(&fresh);
    EXPECT_EQ(temp.substr(0, 6), "/tmp/s");
    EXPECT_TRUE(testutil::fileExists(temp));
    zel_socket__close(&fd);
    EXPECT_FALSE(testutil::fileExists(temp));
}

}  // namespace
