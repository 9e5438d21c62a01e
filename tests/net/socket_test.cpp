#include "net/socket.h"

#include <gtest/gtest.h>

#include <cstring>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <tuple>


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
    const zel_sockaddr path = local("/tmp/some.sock");
    EXPECT_EQ(path.len, std::strlen("/tmp/some.sock") + 3);
    const std::tuple<zel_sockaddr, size_t, const char*> cases[] = {
        {v4("10.0.0.1", 69), 64, "10.0.0.1:69 (len=16)"}, {v4("255.255.255.255", 65535), 32, "255.255.255.255:65535 (len=16)"},
        {v4("10.0.0.1", 69), 15, ""},  // no room for the dotted quad
        {path, 64, "/tmp/some.sock"},     {path, 5, ""}, {zel_sockaddr{}, 64, ""}};
    for (const auto& [a, n, text] : cases) EXPECT_EQ(text_of(a, n), text);
}

TEST(SockaddrHost, SameHostIgnoresPortsAndComparesOnlyIpv4) {
    const zel_sockaddr a = v4("10.0.0.1", 69), b = v4("10.0.0.1", 50123), c = v4("10.0.0.2", 69), z{};
    const zel_sockaddr l = local("/tmp/x");
    EXPECT_TRUE(zel_sockaddr__same_host(&a, &b));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, &c) || zel_sockaddr__same_host(&z, &z));
    EXPECT_FALSE(zel_sockaddr__same_host(&a, nullptr) || zel_sockaddr__same_host(&l, &l));
}

TEST(SockaddrSetters, RefusalsLeaveTheAddressAlone) {
    zel_sockaddr a = v4("1.2.3.4", 7), path = local("/tmp/y");
    EXPECT_EQ(zel_sockaddr__set_any(&a, AF_INET6, 1), ZEL_NOTSUPPORTED);
    EXPECT_EQ(zel_sockaddr__set_ipv4_text(&a, AF_INET, "not-an-ip", 1), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(text_of(a), "1.2.3.4:7 (len=16)");
    EXPECT_EQ(zel_sockaddr__set_port(&path, 1), ZEL_AFNOSUPPORT);
    EXPECT_EQ(zel_sockaddr__set_local(&path, std::string(108, 'p').c_str()), ZEL_TRUNCATED);
    EXPECT_EQ(text_of(path), "/tmp/y");
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

}  // namespace
