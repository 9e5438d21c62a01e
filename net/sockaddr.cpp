// Address half of the socket layer: the zel_sockaddr record, resolving,
// printing and comparing, and temporary paths for local sockets.
#include "net/socket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/strings.h"

static_assert(sizeof(sockaddr_un) == ZEL_SOCKADDR_STORAGE, "local address must fill the storage");
static_assert(sizeof(sockaddr_in) <= ZEL_SOCKADDR_STORAGE, "IPv4 address must fit the storage");

namespace {

// Temporary local sockets live here.
const char kTempDir[] = "/tmp";

// The record's storage is read and written through copies, never through a
// cast, so its alignment and the kernel structures' never matter.
sockaddr_in read_in(const zel_sockaddr* a) {
    sockaddr_in in;
    std::memcpy(&in, a->addr, sizeof in);
    return in;
}

void write_in(zel_sockaddr* a, const sockaddr_in& in) {
    std::memset(a, 0, sizeof *a);
    std::memcpy(a->addr, &in, sizeof in);
    a->len = sizeof in;
}

void ipv4(zel_sockaddr* a, std::uint32_t address, std::uint16_t port) {
    sockaddr_in in;
    std::memset(&in, 0, sizeof in);
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    in.sin_addr.s_addr = address;
    write_in(a, in);
}

zel_error_t check_ipv4_family(int family) {
    if (family == 0) return ZEL_INVALIDPARAMETER;
    if (family != AF_INET) return ZEL_NOTSUPPORTED;
    return ZEL_SUCCESS;
}

struct AddrInfoFree {
    void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

}  // namespace

zel_error_t zel_netif__from_name(zel_netif* netif, const char* name) {
    if (netif == nullptr || name == nullptr || name[0] == 0 || std::strlen(name) >= sizeof netif->name) {
        return ZEL_INVALIDPARAMETER;
    }
    const unsigned index = if_nametoindex(name);
    if (index == 0) return ZEL_NODEV;
    std::memset(netif, 0, sizeof *netif);
    zel_strlcpy(netif->name, name, sizeof netif->name);
    netif->index = index;
    return ZEL_SUCCESS;
}

zel_error_t zel_gai_error_code(int gai_result) {
    switch (gai_result) {
        case 0: return ZEL_SUCCESS;
        case EAI_BADFLAGS: return ZEL_INVALIDPARAMETER;
        case EAI_NONAME:
        case EAI_SERVICE: return ZEL_NOTFOUND;
        case EAI_AGAIN: return ZEL_TRYAGAIN;
        case EAI_FAIL: return ZEL_FAULT;
        case EAI_NODATA:
        case EAI_ADDRFAMILY: return ZEL_NODATA;
        case EAI_FAMILY:
        case EAI_SOCKTYPE: return ZEL_NOTSUPPORTED;
        case EAI_MEMORY: return ZEL_NOMEMORY;
        default: return zel_error_from_errno(errno);
    }
}

zel_error_t zel_resolve_address(zel_sockaddr* out, int family, const char* host, const char* service) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = family;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo* raw = nullptr;
    const int rc = getaddrinfo(host, service, &hints, &raw);
    if (rc != 0) return zel_gai_error_code(rc);
    std::unique_ptr<addrinfo, AddrInfoFree> results(raw);

    const addrinfo* chosen = nullptr;
    for (const addrinfo* ai = results.get(); ai != nullptr; ai = ai->ai_next) {
        if (family != 0 || ai->ai_family == AF_INET) {
            chosen = ai;
            break;
        }
    }
    if (chosen == nullptr || chosen->ai_addr == nullptr) return ZEL_NOTFOUND;
    if (chosen->ai_addrlen > ZEL_SOCKADDR_STORAGE) return ZEL_NOTSUPPORTED;
    std::memset(out, 0, sizeof *out);
    std::memcpy(out->addr, chosen->ai_addr, chosen->ai_addrlen);
    out->len = static_cast<std::uint8_t>(chosen->ai_addrlen);
    return ZEL_SUCCESS;
}

zel_error_t zel_sockaddr__set_ipv4(zel_sockaddr* a, std::uint32_t address, std::uint16_t port) {
    if (a == nullptr) return ZEL_INVALIDPARAMETER;
    ipv4(a, address, port);
    return ZEL_SUCCESS;
}

zel_error_t zel_sockaddr__set_ipv4_ptr(zel_sockaddr* a, const std::uint32_t* address, std::uint16_t port) {
    return zel_sockaddr__set_ipv4(a, address != nullptr ? *address : 0, port);
}

zel_error_t zel_sockaddr__set_any(zel_sockaddr* a, int family, std::uint16_t port) {
    if (a == nullptr) return ZEL_INVALIDPARAMETER;
    const zel_error_t rc = check_ipv4_family(family);
    if (rc != ZEL_SUCCESS) return rc;
    ipv4(a, 0, port);
    return ZEL_SUCCESS;
}

zel_error_t zel_sockaddr__set_ipv4_text(zel_sockaddr* a, int family, const char* text, std::uint16_t port) {
    if (a == nullptr) return ZEL_INVALIDPARAMETER;
    zel_error_t rc = check_ipv4_family(family);
    if (rc != ZEL_SUCCESS) return rc;
    std::uint32_t address = 0;
    rc = zel_inet_aton(text, &address);
    if (rc != ZEL_SUCCESS) return rc;
    ipv4(a, address, port);
    return ZEL_SUCCESS;
}

int zel_sockaddr__family(const zel_sockaddr* a) {
    if (a == nullptr) return 0;
    sa_family_t family;
    std::memcpy(&family, a->addr, sizeof family);
    return family;
}

zel_error_t zel_sockaddr__set_port(zel_sockaddr* a, std::uint16_t port) {
    if (a == nullptr) return ZEL_INVALIDPARAMETER;
    if (zel_sockaddr__family(a) != AF_INET) return ZEL_AFNOSUPPORT;
    sockaddr_in in = read_in(a);
    in.sin_port = htons(port);
    std::memcpy(a->addr, &in, sizeof in);
    return ZEL_SUCCESS;
}

std::uint16_t zel_sockaddr__port(const zel_sockaddr* a) {
    if (zel_sockaddr__family(a) != AF_INET) return 0;
    return ntohs(read_in(a).sin_port);
}

zel_error_t zel_sockaddr__set_local(zel_sockaddr* a, const char* path) {
    if (a == nullptr) return ZEL_INVALIDPARAMETER;
    char temp[ZEL_SOCKADDR_PATH_MAX];
    if (path == nullptr || path[0] == 0) {
        const zel_error_t rc = zel_temp_path(kTempDir, temp, sizeof temp);
        if (rc != ZEL_SUCCESS) return rc;
        path = temp;
    }
    const std::size_t n = std::strlen(path);
    if (n >= ZEL_SOCKADDR_PATH_MAX) return ZEL_TRUNCATED;
    sockaddr_un un;
    std::memset(&un, 0, sizeof un);
    un.sun_family = AF_UNIX;
    std::memcpy(un.sun_path, path, n);
    std::memset(a, 0, sizeof *a);
    std::memcpy(a->addr, &un, sizeof un);
    a->len = static_cast<std::uint8_t>(n + 3);
    return ZEL_SUCCESS;
}

const char* zel_sockaddr__local_path(const zel_sockaddr* a) {
    if (zel_sockaddr__family(a) != AF_UNIX) return nullptr;
    return reinterpret_cast<const char*>(a->addr + offsetof(sockaddr_un, sun_path));
}

char* zel_sockaddr__host_text(const zel_sockaddr* a, char* buf, std::size_t n) {
    if (buf == nullptr || n == 0) return buf;
    buf[0] = 0;
    switch (zel_sockaddr__family(a)) {
        case AF_UNIX: {
            // The path field may be full (no terminator) in a record the
            // kernel filled; print at most what the field holds.
            const int max = static_cast<int>(sizeof(sockaddr_un::sun_path));
            const int w = std::snprintf(buf, n, "%.*s", max, zel_sockaddr__local_path(a));
            if (w < 0 || static_cast<std::size_t>(w) >= n) buf[0] = 0;
            break;
        }
        case AF_INET:
            if (zel_inet_ntoa(read_in(a).sin_addr.s_addr, buf, n) == nullptr) buf[0] = 0;
            break;
        default:
            break;
    }
    return buf;
}

char* zel_sockaddr__text(const zel_sockaddr* a, char* buf, std::size_t n) {
    zel_sockaddr__host_text(a, buf, n);
    if (buf == nullptr || n == 0 || buf[0] == 0 || zel_sockaddr__family(a) != AF_INET) return buf;
    const std::size_t used = std::strlen(buf);
    std::snprintf(buf + used, n - used, ":%u (len=%u)", static_cast<unsigned>(zel_sockaddr__port(a)),
                  static_cast<unsigned>(a->len));
    return buf;
}

bool zel_sockaddr__same_host(const zel_sockaddr* a, const zel_sockaddr* b) {
    if (a == nullptr || b == nullptr) return false;
    const int fa = zel_sockaddr__family(a);
    if (fa == 0 || fa != zel_sockaddr__family(b) || fa != AF_INET) return false;
    return read_in(a).sin_addr.s_addr == read_in(b).sin_addr.s_addr;
}

char* zel_inet_ntoa(std::uint32_t address, char* buf, std::size_t n) {
    if (buf == nullptr || n < 16) return nullptr;
    unsigned char bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);  // network order is memory order
    char* p = buf;
    for (int i = 0; i < 4; ++i) {
        const unsigned b = bytes[i];
        if (b > 99) *p++ = static_cast<char>('0' + b / 100);
        if (b > 9) *p++ = static_cast<char>('0' + b / 10 % 10);
        *p++ = static_cast<char>('0' + b % 10);
        *p++ = i < 3 ? '.' : '\0';
    }
    return buf;
}

zel_error_t zel_inet_aton(const char* text, std::uint32_t* address) {
    if (text == nullptr || address == nullptr) return ZEL_INVALIDPARAMETER;
    in_addr in;
    if (inet_aton(text, &in) == 0) return ZEL_INVALIDPARAMETER;
    *address = in.s_addr;
    return ZEL_SUCCESS;
}

zel_error_t zel_temp_path(const char* dir, char* buf, std::size_t n) {
    if (dir == nullptr || dir[0] == 0 || buf == nullptr) return ZEL_INVALIDPARAMETER;
    if (std::strlen(dir) + 9 > n) return ZEL_NOBUFS;
    std::string path = std::string(dir) + "/sXXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) return ZEL_NODATA;
    close(fd);
    zel_strlcpy(buf, path.c_str(), n);
    return ZEL_SUCCESS;
}
