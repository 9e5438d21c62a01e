#include "net/socket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::string text_of(const zel_sockaddr& a, size_t n = 64) {
    char buf[128];
    std::memset(buf, 'x', sizeof buf);
    return zel_sockaddr__text(&a, buf, n);
}

// A socket descriptor that closes itself.
struct Sock {
    int fd = -1;
    ~Sock() { zel_socket__close(&fd); }
};

TEST(SockaddrText, Ipv4LocalAndEmpty) {
    EXPECT_EQ(text_of(v4("10.0.0.1", 69)), "10.0.0.1:69 (len=16)");
    EXPECT_EQ(text_of(v4("192.168.10.100", 69), 32), "192.168.10.100:69 (len=16)");
    EXPECT_EQ(text_of(v4("255.255.255.255", 65535), 32), "255.255.255.255:65535 (len=16)");
    zel_sockaddr local;
    ASSERT_EQ(zel_sockaddr__set_local(&local, "/tmp/some.sock"), ZEL_SUCCESS);
    EXPECT_EQ(local.len, std::strlen("/tmp/some.sock") + 3);
    EXPECT_EQ(text_of(local), "/tmp/some.sock");
    zel_sockaddr zero{};
    EXPECT_EQ(text_of(zero), "");
    EXPECT_EQ(text_of(v4("10.0.0.1", 69), 15), "");  // no room for the dotted quad
    EXPECT_EQ(text_of(local, 5), "");
}

TEST(SockaddrHost, SameHostIgnoresPorts) {
    const zel_sockaddr a = v4("10.0.0.1", 69), b = v4("10.0.0.1", 50123), c = v4("10.0.0.2", 69);
    zel_sockaddr z1{}, z2{};
    EXPECT_TRUE(zel_sockaddr__same_host(&a, &b));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, &c));
    EXPECT_FALSE(zel_sockaddr__same_host(&z1, &z2));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, nullptr));
    zel_sockaddr l1, l2;
    zel_sockaddr__set_local(&l1, "/tmp/x");
    zel_sockaddr__set_local(&l2, "/tmp/x");
    EXPECT_FALSE(zel_sockaddr__same_host(&l1, &l2));  // only IPv4 hosts compare
}

TEST(SockaddrSetters, FamilyChecksAndPorts) {
    zel_sockaddr a = v4("1.2.3.4", 7);
    const zel_sockaddr before = a;
    EXPECT_EQ(zel_sockaddr__set_any(&a, 0, 1), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_sockaddr__set_any(&a, AF_INET6, 1), ZEL_NOTSUPPORTED);
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, "not-an-ip", 1), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(std::memcmp(&a, &before, sizeof a), 0);
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, "9.8.7.6", 1000), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "9.8.7.6:1000 (len=16)");
    EXPECT_EQ(zel_sockaddr__set_port(&a, 69), ZEL_SUCCESS);
    EXPECT_EQ(zel_sockaddr__port(&a), 69);
    EXPECT_EQ(zel_sockaddr__set_any(&a, AF_INET, 5), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "0.0.0.0:5 (len=16)");
    EXPECT_EQ(zel_sockaddr__set_ipv4_ptr(&a, nullptr, 6), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "0.0.0.0:6 (len=16)");
    zel_sockaddr local;
    zel_sockaddr__set_local(&local, "/tmp/y");
    EXPECT_EQ(zel_sockaddr__set_port(&local, 1), ZEL_AFNOSUPPORT);
    EXPECT_EQ(zel_sockaddr__port(&local), 0);
    EXPECT_STREQ(zel_sockaddr__local_path(&local), "/tmp/y");
    EXPECT_EQ(zel_sockaddr__local_path(&a), nullptr);
    EXPECT_EQ(zel_sockaddr__set_local(&local, std::string(108, 'p').c_str()), ZEL_TRUNCATED);
    EXPECT_STREQ(zel_sockaddr__local_path(&local), "/tmp/y");
}

TEST(InetNtoa, BytesByHand) {
    char buf[16];
    EXPECT_STREQ(zel_inet_ntoa(ip("0.9.10.99"), buf, sizeof buf), "0.9.10.99");
    EXPECT_STREQ(zel_inet_ntoa(ip("100.200.255.1"), buf, sizeof buf), "100.200.255.1");
    char small[15];
    EXPECT_EQ(zel_inet_ntoa(ip("1.1.1.1"), small, sizeof small), nullptr);
}

struct GaiCase {
    int gai;
    zel_error_t code;
};

TEST(Resolve, GetaddrinfoErrorTable) {
    const GaiCase table[] = {
        {EAI_BADFLAGS, ZEL_INVALIDPARAMETER}, {EAI_NONAME, ZEL_NOTFOUND},  {EAI_SERVICE, ZEL_NOTFOUND},
        {EAI_AGAIN, ZEL_TRYAGAIN},            {EAI_FAIL, ZEL_FAULT},        {EAI_NODATA, ZEL_NODATA},
        {EAI_ADDRFAMILY, ZEL_NODATA},         {EAI_FAMILY, ZEL_NOTSUPPORTED}, {EAI_SOCKTYPE, ZEL_NOTSUPPORTED},
        {EAI_MEMORY, ZEL_NOMEMORY},           {0, ZEL_SUCCESS},
    };
    for (const GaiCase& c : table) EXPECT_EQ(zel_gai_error_code(c.gai), c.code) << c.gai;
    errno = ECONNREFUSED;
    EXPECT_EQ(zel_gai_error_code(EAI_SYSTEM), ZEL_CONNREFUSED);
}

// Only names that resolve without a name server: the tests send no traffic off
// the machine.
TEST(Resolve, NumericHostsAndServices) {
    zel_sockaddr a{};
    ASSERT_EQ(zel_resolve_address(&a, AF_INET, "127.0.0.1", "69"), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "127.0.0.1:69 (len=16)");
    ASSERT_EQ(zel_resolve_address(&a, 0, "127.0.0.2", "70"), ZEL_SUCCESS);
    EXPECT_EQ(text_of(a), "127.0.0.2:70 (len=16)");
    const zel_sockaddr before = a;
    EXPECT_EQ(zel_resolve_address(&a, AF_INET, "127.0.0.1", "no-such-service"), ZEL_NOTFOUND);
    EXPECT_EQ(zel_resolve_address(&a, 0, "::1", "69"), ZEL_NOTFOUND);  // no IPv4 result
    EXPECT_EQ(std::memcmp(&a, &before, sizeof a), 0);
    EXPECT_EQ(zel_resolve_address(nullptr, AF_INET, "127.0.0.1", "69"), ZEL_INVALIDPARAMETER);
}

TEST(Socket, OpenRefusesABusySlotAndCloseResets) {
    int fd = 5;
    EXPECT_EQ(zel_socket__open(&fd, AF_INET), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(fd, 5);
    fd = -1;
    EXPECT_EQ(zel_socket__close(&fd), ZEL_SUCCESS);
    EXPECT_EQ(fd, -1);
    ASSERT_EQ(zel_socket__open(&fd, AF_INET), ZEL_SUCCESS);
    EXPECT_GE(fd, 0);
    const int opened = fd;
    EXPECT_EQ(zel_socket__close(&fd), ZEL_SUCCESS);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(fcntl(opened, F_GETFD), -1);  // really closed
    EXPECT_EQ(zel_socket__close(nullptr), ZEL_INVALIDPARAMETER);
}

TEST(Socket, UdpRoundTripOnLoopback) {
    Sock rx, tx;
    const zel_sockaddr any = v4("127.0.0.1", 0);
    ASSERT_EQ(zel_socket__open_bound(&rx.fd, &any), ZEL_SUCCESS);
    ASSERT_EQ(zel_socket__open_bound(&tx.fd, &any), ZEL_SUCCESS);
    zel_sockaddr rx_addr{}, tx_addr{};
    ASSERT_EQ(zel_socket__local_address(rx.fd, &rx_addr), ZEL_SUCCESS);
    ASSERT_EQ(zel_socket__local_address(tx.fd, &tx_addr), ZEL_SUCCESS);
    EXPECT_EQ(rx_addr.len, 16);
    EXPECT_NE(zel_sockaddr__port(&rx_addr), 0);

    std::uint32_t len = 5;
    ASSERT_EQ(zel_socket__send(tx.fd, "hello", &len, &rx_addr), ZEL_SUCCESS);
    EXPECT_EQ(len, 5u);
    ASSERT_EQ(zel_socket__wait_one_readable(rx.fd, nullptr), ZEL_SUCCESS);
    char buf[3];
    std::uint32_t cap = sizeof buf;
    zel_sockaddr source{};
    ASSERT_EQ(zel_socket__recv(rx.fd, buf, &cap, &source), ZEL_SUCCESS);
    EXPECT_EQ(cap, 3u);  // cut to the capacity
    EXPECT_EQ(std::string(buf, 3), "hel");
    EXPECT_EQ(text_of(source), text_of(tx_addr));

    // Nothing more to read: the wait times out and marks the slot -1.
    int fds[2] = {rx.fd, -1};
    const zel_utime brief{0, 1000};
    EXPECT_EQ(zel_socket__wait_readable(fds, 2, &brief), ZEL_TIMEDOUT);
    EXPECT_EQ(fds[0], -1);
    EXPECT_EQ(zel_socket__wait_readable(fds, 2, &brief), ZEL_INVALIDPARAMETER);  // nothing left to wait for
    EXPECT_EQ(zel_socket__recv(rx.fd, nullptr, &cap, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_socket__recv(-1, buf, &cap, nullptr), ZEL_INVALIDPARAMETER);
}

TEST(Socket, FailedBindClosesAgain) {
    Sock first;
    const zel_sockaddr any = v4("127.0.0.1", 0);
    ASSERT_EQ(zel_socket__open_bound(&first.fd, &any), ZEL_SUCCESS);
    zel_sockaddr taken{};
    ASSERT_EQ(zel_socket__local_address(first.fd, &taken), ZEL_SUCCESS);
    int fd = -1;
    EXPECT_EQ(zel_socket__open_bound(&fd, &taken), ZEL_ADDRINUSE);
    EXPECT_EQ(fd, -1);
}

TEST(Socket, ErrorsComeFromErrno) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    zel_sockaddr a{};
    EXPECT_EQ(zel_socket__local_address(pipe_fds[0], &a), ZEL_NOTSOCK);
    std::uint32_t len = 1;
    const zel_sockaddr dest = v4("127.0.0.1", 9);
    EXPECT_EQ(zel_socket__send(pipe_fds[1], "x", &len, &dest), ZEL_NOTSOCK);
    EXPECT_EQ(len, 1u);
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    int fd = -1;
    EXPECT_EQ(zel_socket__open_local(&fd, AF_INET, nullptr), ZEL_NOTSUPPORTED);
}

TEST(Socket, OptionsOnARealSocket) {
    Sock s;
    ASSERT_EQ(zel_socket__open(&s.fd, AF_INET), ZEL_SUCCESS);
    EXPECT_EQ(zel_socket__set_reuse_address(s.fd, 1), ZEL_SUCCESS);
    int value = 0;
    socklen_t vlen = sizeof value;
    getsockopt(s.fd, SOL_SOCKET, SO_REUSEADDR, &value, &vlen);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(zel_socket__set_reuse_address(s.fd, 2), ZEL_SUCCESS);  // only 1 means on
    getsockopt(s.fd, SOL_SOCKET, SO_REUSEADDR, &value, &vlen);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(zel_socket__set_broadcast(s.fd, 1), ZEL_SUCCESS);
    EXPECT_EQ(zel_socket__set_tos(s.fd, 0x10), ZEL_SUCCESS);
    EXPECT_EQ(zel_socket__set_multicast_loop(s.fd, 0), ZEL_SUCCESS);
    int size = 0;
    EXPECT_EQ(zel_socket__recv_buffer_size(s.fd, &size), ZEL_SUCCESS);
    EXPECT_GT(size, 0);
    EXPECT_EQ(zel_socket__set_blocking(s.fd, false), ZEL_SUCCESS);
    EXPECT_NE(fcntl(s.fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(zel_socket__set_blocking(s.fd, true), ZEL_SUCCESS);
    EXPECT_EQ(fcntl(s.fd, F_GETFL) & O_NONBLOCK, 0);
    zel_netif lo;
    ASSERT_EQ(zel_netif__from_name(&lo, "lo"), ZEL_SUCCESS);
    EXPECT_GT(lo.index, 0u);
    EXPECT_EQ(zel_socket__set_multicast_interface(s.fd, &lo), ZEL_SUCCESS);
    EXPECT_EQ(zel_netif__from_name(&lo, "no-such-if0"), ZEL_NODEV);
    EXPECT_STREQ(lo.name, "lo");
}

TEST(TempPath, BoundsAndCreation) {
    testutil::TempDir dir;
    char buf[256];
    EXPECT_EQ(zel_temp_path("", buf, sizeof buf), ZEL_INVALIDPARAMETER);
    const size_t need = dir.path().size() + 9;
    EXPECT_EQ(zel_temp_path(dir.path().c_str(), buf, need - 1), ZEL_NOBUFS);
    ASSERT_EQ(zel_temp_path(dir.path().c_str(), buf, need), ZEL_SUCCESS);
    EXPECT_EQ(std::string(buf).substr(0, dir.path().size() + 2), dir.path() + "/s");
    EXPECT_TRUE(testutil::fileExists(buf));
    EXPECT_EQ(zel_temp_path((dir.path() + "/missing").c_str(), buf, sizeof buf), ZEL_NODATA);
}

TEST(LocalSocket, BoundToAPathThatCloseRemoves) {
    testutil::TempDir dir;
    const std::string path = dir.file("log.sock");
    zel_sockaddr a;
    ASSERT_EQ(zel_sockaddr__set_local(&a, path.c_str()), ZEL_SUCCESS);
    testutil::writeFile(path, "stale");  // bind unlinks a leftover first
    int fd = -1;
    ASSERT_EQ(zel_socket__open_bound(&fd, &a), ZEL_SUCCESS);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    zel_sockaddr got{};
    ASSERT_EQ(zel_socket__local_address(fd, &got), ZEL_SUCCESS);
    EXPECT_STREQ(zel_sockaddr__local_path(&got), path.c_str());
    zel_socket__close(&fd);
    EXPECT_FALSE(testutil::fileExists(path));

    zel_sockaddr fresh{};
    ASSERT_EQ(zel_socket__open_local(&fd, AF_UNIX, &fresh), ZEL_SUCCESS);
    const std::string temp = zel_sockaddr__local_path(&fresh);
    EXPECT_EQ(temp.substr(0, 6), "/tmp/s");
    EXPECT_TRUE(testutil::fileExists(temp));
    zel_socket__close(&fd);
    EXPECT_FALSE(testutil::fileExists(temp));
}

}  // namespace
