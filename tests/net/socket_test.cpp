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
        {v4("10.0.0.1", 69), 64, "10.0.0.1:69 (len=16)"},
        {v4("255.255.255.255", 65535), 32, "255.255.255.255:65535 (len=16)"},
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

// Family 0 takes the first IPv4 result; a name with none (numeric IPv6 here,
// so no query leaves the machine) is NOTFOUND and leaves the record untouched.
TEST(Resolve, FamilyZeroWithoutAnIpv4ResultIsNotFound) {
    zel_sockaddr out = v4("10.9.8.7", 1);
    EXPECT_EQ(zel_resolve_address(&out, 0, "::1", "69"), ZEL_NOTFOUND);
    EXPECT_EQ(text_of(out), "10.9.8.7:1 (len=16)");
    EXPECT_EQ(zel_resolve_address(&out, 0, "127.0.0.1", "69"), ZEL_SUCCESS);
    EXPECT_EQ(text_of(out), "127.0.0.1:69 (len=16)");
}

}  // namespace
