// Datagram sockets and the address record they use. Every failure comes back
// as a zel_error_t built from errno; nothing here retries or logs.
//
// Unless said otherwise an operation returns SUCCESS, INVALIDPARAMETER for a
// null pointer or a negative descriptor, and zel_error_from_errno(errno) when
// the system call fails. Out-parameters are written only on success.
#pragma once

#include <cstddef>
#include <cstdint>

#include "net/time.h"
#include "support/errors.h"

// Bytes of address storage: room for a local (path) address, the largest kind.
enum : std::size_t { ZEL_SOCKADDR_STORAGE = 110, ZEL_SOCKADDR_PATH_MAX = 108 };

// One socket address: an IPv4 address or a local path, zero-filled before use.
// `addr` holds the kernel's layout: the 16-bit family first (AF_INET, AF_UNIX,
// or 0 for none), then for AF_INET the port and address in network order, for
// AF_UNIX the path. `len` is the number of meaningful bytes (16 for IPv4, the
// path length + 3 for a local address); it is what bind/connect/sendto get.
struct zel_sockaddr {
    std::uint8_t len;
    alignas(4) unsigned char addr[ZEL_SOCKADDR_STORAGE];
};

// An outgoing network interface. Only `name` and `index` are read by this
// library; the caller fills them (zel_netif__from_name does so from a name).
struct zel_netif {
    char name[64];         // empty (first byte 0) = no interface
    std::uint32_t index;   // the kernel's interface index
    std::uint32_t flags;   // caller's use; not read here
    std::uint32_t address; // caller's use (IPv4, network order); not read here
};

// Fills `netif` (zeroed first) with `name` and the kernel's index for it.
// INVALIDPARAMETER for null or an empty name or one of 64 bytes or more,
// NODEV when no interface has that name; `netif` untouched on failure.
zel_error_t zel_netif__from_name(zel_netif* netif, const char* name);

// ---- Addresses ----

// Resolves `host` and `service` with getaddrinfo (datagram, UDP). With a
// `family` other than 0 the first result is taken; with 0 the first IPv4 one
// (NOTFOUND when there is none). getaddrinfo failures map as
// zel_gai_error_code does.
zel_error_t zel_resolve_address(zel_sockaddr* out, int family, const char* host, const char* service);
// The code for a getaddrinfo result (0 gives SUCCESS); EAI_SYSTEM and unknown
// results give zel_error_from_errno(errno).
zel_error_t zel_gai_error_code(int gai_result);

// Zero-fills `a`; IPv4 `address` (already in network order) and `port` (host
// order). `len` 16.
zel_error_t zel_sockaddr__set_ipv4(zel_sockaddr* a, std::uint32_t address, std::uint16_t port);
// Like zel_sockaddr__set_ipv4 with address 0 when `address` is null.
zel_error_t zel_sockaddr__set_ipv4_ptr(zel_sockaddr* a, const std::uint32_t* address, std::uint16_t port);
// INVALIDPARAMETER for family 0, NOTSUPPORTED for a family other than AF_INET;
// otherwise the IPv4 any-address with `port`.
zel_error_t zel_sockaddr__set_any(zel_sockaddr* a, int family, std::uint16_t port);
// The same family checks; the address parsed from dotted-quad `text`
// (INVALIDPARAMETER when it does not parse).
zel_error_t zel_sockaddr__set_ipv4_text(zel_sockaddr* a, int family, const char* text, std::uint16_t port);
// AFNOSUPPORT unless `a` is AF_INET; else stores `port` (host order given).
zel_error_t zel_sockaddr__set_port(zel_sockaddr* a, std::uint16_t port);
// Port in host order for AF_INET, else 0 (also for null).
std::uint16_t zel_sockaddr__port(const zel_sockaddr* a);
// The address family stored in `a` (0 for none or null).
int zel_sockaddr__family(const zel_sockaddr* a);
// Local address: an absolute path is copied; a null or empty path gets a fresh
// temporary path in "/tmp" (zel_temp_path). A relative path is copied as given
// (the kernel resolves it against the working directory). TRUNCATED when the
// path does not fit in 108 bytes with its terminator. `len` = path length + 3.
zel_error_t zel_sockaddr__set_local(zel_sockaddr* a, const char* path);
// The path of a local address; null for other families or null.
const char* zel_sockaddr__local_path(const zel_sockaddr* a);

// Host part as text into `buf` (`n` bytes): the path for AF_UNIX, the dotted
// quad for AF_INET, and an empty text for other families or when `buf` is too
// small. Returns `buf` (nothing is written for a null `buf` or `n` 0).
char* zel_sockaddr__host_text(const zel_sockaddr* a, char* buf, std::size_t n);
// The host text, and for AF_INET with a non-empty host text
// ":<port> (len=<len>)" appended (cut to `n`), e.g. "10.0.0.1:69 (len=16)".
char* zel_sockaddr__text(const zel_sockaddr* a, char* buf, std::size_t n);
// True when both are AF_INET with the same IPv4 address (ports not compared);
// false for null, family 0, differing families or any other family.
bool zel_sockaddr__same_host(const zel_sockaddr* a, const zel_sockaddr* b);

// Dotted-quad text of `address` (network order); null when `n` < 16 or `buf`
// is null.
char* zel_inet_ntoa(std::uint32_t address, char* buf, std::size_t n);
// inet_aton; INVALIDPARAMETER when the text is not an address.
zel_error_t zel_inet_aton(const char* text, std::uint32_t* address);

// Writes `dir` + "/sXXXXXX" into `buf` and creates that file with mkstemp
// (closed and left in place). INVALIDPARAMETER for a null/empty `dir` or null
// `buf`; NOBUFS when strlen(dir) + 9 exceeds `n`; NODATA when mkstemp fails.
zel_error_t zel_temp_path(const char* dir, char* buf, std::size_t n);

// ---- Sockets (plain int descriptors; -1 = none) ----

// Opens a datagram socket of `family` (UDP, or protocol 0 for AF_UNIX) into
// `*fd`. INVALIDPARAMETER when `*fd` is not negative (the slot is in use).
zel_error_t zel_socket__open(int* fd, int family);
// bind to `a` with a->len; an AF_UNIX path is unlinked first.
zel_error_t zel_socket__bind(int fd, const zel_sockaddr* a);
// Opens with a's family and binds; on failure the socket is closed again,
// `*fd` is -1 and the error returned.
zel_error_t zel_socket__open_bound(int* fd, const zel_sockaddr* a);
// Opens with a's family and connects; on failure closed again as above.
zel_error_t zel_socket__open_connected(int* fd, const zel_sockaddr* a);
// NOTSUPPORTED unless `family` is AF_UNIX. Fills `out` (or a scratch record
// when null) with a fresh temporary path and opens a socket bound to it.
zel_error_t zel_socket__open_local(int* fd, int family, zel_sockaddr* out);
// connect to `a` with a->len.
zel_error_t zel_socket__connect(int fd, const zel_sockaddr* a);
// getsockname / getpeername into `a`.
zel_error_t zel_socket__local_address(int fd, zel_sockaddr* a);
zel_error_t zel_socket__peer_address(int fd, zel_sockaddr* a);
// INVALIDPARAMETER for null; SUCCESS and nothing done when `*fd` < 0. Else
// unlinks the path of a local address, closes, sets `*fd` to -1; SUCCESS
// (close errors are ignored).
zel_error_t zel_socket__close(int* fd);

// recvfrom into `buf` with capacity `*len`; on success `*len` is the size
// received (a larger datagram is cut to the capacity) and `source`, when
// given, the sender. INVALIDPARAMETER when `buf` or `len` is null.
zel_error_t zel_socket__recv(int fd, void* buf, std::uint32_t* len, zel_sockaddr* source);
// sendto `dest`; on success `*len` is the number of bytes sent (a short send
// is not an error). A null `dest` sends on a connected socket.
zel_error_t zel_socket__send(int fd, const void* buf, std::uint32_t* len, const zel_sockaddr* dest);

// Clears O_NONBLOCK when `blocking`, sets it otherwise.
zel_error_t zel_socket__set_blocking(int fd, bool blocking);
// Options whose `on` argument means on only for the value 1.
zel_error_t zel_socket__set_reuse_address(int fd, int on);   // SO_REUSEADDR
zel_error_t zel_socket__set_reuse_port(int fd, int on);      // SO_REUSEPORT; NOPROTOOPT -> NOTSUPPORTED
zel_error_t zel_socket__set_broadcast(int fd, int on);       // SO_BROADCAST
zel_error_t zel_socket__set_multicast_loop(int fd, int on);  // IP_MULTICAST_LOOP (one byte)
zel_error_t zel_socket__set_multicast_all(int fd, int on);   // IP_MULTICAST_ALL
// SO_BINDTODEVICE with `name` and its terminator.
zel_error_t zel_socket__bind_to_device(int fd, const char* name);
// getsockopt SO_RCVBUF / SO_SNDBUF into `*out`.
zel_error_t zel_socket__recv_buffer_size(int fd, int* out);
zel_error_t zel_socket__send_buffer_size(int fd, int* out);
// IP_TOS; and IP_TOS followed by SO_PRIORITY.
zel_error_t zel_socket__set_tos(int fd, int tos);
zel_error_t zel_socket__set_tos_priority(int fd, int tos, int priority);
// IP_MULTICAST_IF with the interface's index (addresses 0).
zel_error_t zel_socket__set_multicast_interface(int fd, const zel_netif* netif);

// One select for readability over `count` descriptors (no timeout when
// `timeout` is null). Afterwards every descriptor that is not readable is
// replaced by -1 in `fds` (all of them on TIMEDOUT). Negative entries are
// skipped. INVALIDPARAMETER for a null `fds`, `count` 0, no descriptor to wait
// for, a descriptor of 1024 or more, or a negative timeout; on a select
// failure its code, with `fds` untouched.
zel_error_t zel_socket__wait_readable(int* fds, unsigned count, const zel_utime* timeout);
// The same for one descriptor.
zel_error_t zel_socket__wait_one_readable(int fd, const zel_utime* timeout);
