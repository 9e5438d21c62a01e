// Socket half of the socket layer: opening, binding, sending, receiving,
// options and waiting, each failure reported as the code of errno.
#include "net/socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const sockaddr* as_sockaddr(const zel_sockaddr* a) { return reinterpret_cast<const sockaddr*>(a->addr); }

zel_error_t from_errno() { return zel_error_from_errno(errno); }

zel_error_t check(int rc) { return rc < 0 ? from_errno() : ZEL_SUCCESS; }

zel_error_t set_int_option(int fd, int level, int name, int value) {
    if (fd < 0) return ZEL_INVALIDPARAMETER;
    return check(setsockopt(fd, level, name, &value, sizeof value));
}

int flag_value(int on) { return on == 1 ? 1 : 0; }

zel_error_t get_int_option(int fd, int name, int* out) {
    if (fd < 0 || out == nullptr) return ZEL_INVALIDPARAMETER;
    int value = 0;
    socklen_t len = sizeof value;
    if (getsockopt(fd, SOL_SOCKET, name, &value, &len) < 0) return from_errno();
    *out = value;
    return ZEL_SUCCESS;
}

// getsockname and getpeername have the same shape.
zel_error_t query_address(int fd, zel_sockaddr* a, int (*call)(int, sockaddr*, socklen_t*)) {
    if (fd < 0 || a == nullptr) return ZEL_INVALIDPARAMETER;
    zel_sockaddr got;
    std::memset(&got, 0, sizeof got);
    socklen_t len = sizeof got.addr;
    if (call(fd, reinterpret_cast<sockaddr*>(got.addr), &len) < 0) return from_errno();
    got.len = static_cast<std::uint8_t>(len < sizeof got.addr ? len : sizeof got.addr);
    *a = got;
    return ZEL_SUCCESS;
}

// Opens a socket of a's family and applies `then` (bind or connect); a failed
// step closes the socket again so the caller's slot holds -1.
zel_error_t open_then(int* fd, const zel_sockaddr* a, zel_error_t (*then)(int, const zel_sockaddr*)) {
    if (fd == nullptr || a == nullptr) return ZEL_INVALIDPARAMETER;
    zel_error_t rc = zel_socket__open(fd, zel_sockaddr__family(a));
    if (rc != ZEL_SUCCESS) return rc;
    rc = then(*fd, a);
    if (rc != ZEL_SUCCESS) {
        const int saved = errno;
        zel_socket__close(fd);
        errno = saved;
    }
    return rc;
}

}  // namespace

zel_error_t zel_socket__open(int* fd, int family) {
    if (fd == nullptr || *fd >= 0) return ZEL_INVALIDPARAMETER;
    const int protocol = family == AF_UNIX ? 0 : IPPROTO_UDP;
    const int s = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, protocol);
    if (s < 0) return from_errno();
    *fd = s;
    return ZEL_SUCCESS;
}

zel_error_t zel_socket__bind(int fd, const zel_sockaddr* a) {
    if (fd < 0 || a == nullptr) return ZEL_INVALIDPARAMETER;
    if (const char* path = zel_sockaddr__local_path(a)) {
        if (path[0] != 0) unlink(path);
    }
    return check(bind(fd, as_sockaddr(a), a->len));
}

zel_error_t zel_socket__connect(int fd, const zel_sockaddr* a) {
    if (fd < 0 || a == nullptr) return ZEL_INVALIDPARAMETER;
    return check(connect(fd, as_sockaddr(a), a->len));
}

zel_error_t zel_socket__open_bound(int* fd, const zel_sockaddr* a) { return open_then(fd, a, zel_socket__bind); }

zel_error_t zel_socket__open_connected(int* fd, const zel_sockaddr* a) {
    return open_then(fd, a, zel_socket__connect);
}

zel_error_t zel_socket__open_local(int* fd, int family, zel_sockaddr* out) {
    if (fd == nullptr) return ZEL_INVALIDPARAMETER;
    if (family != AF_UNIX) return ZEL_NOTSUPPORTED;
    if (*fd >= 0) return ZEL_INVALIDPARAMETER;
    zel_sockaddr local;
    zel_error_t rc = zel_sockaddr__set_local(&local, nullptr);
    if (rc != ZEL_SUCCESS) return rc;
    rc = zel_socket__open_bound(fd, &local);
    if (rc != ZEL_SUCCESS) {
        unlink(zel_sockaddr__local_path(&local));  // the placeholder file made for the path
        return rc;
    }
    if (out != nullptr) *out = local;
    return ZEL_SUCCESS;
}

zel_error_t zel_socket__local_address(int fd, zel_sockaddr* a) { return query_address(fd, a, getsockname); }

zel_error_t zel_socket__peer_address(int fd, zel_sockaddr* a) { return query_address(fd, a, getpeername); }

zel_error_t zel_socket__close(int* fd) {
    if (fd == nullptr) return ZEL_INVALIDPARAMETER;
    if (*fd < 0) return ZEL_SUCCESS;
    zel_sockaddr local;
    if (zel_socket__local_address(*fd, &local) == ZEL_SUCCESS) {
        const char* path = zel_sockaddr__local_path(&local);
        if (path != nullptr && path[0] != 0) unlink(path);
    }
    close(*fd);
    *fd = -1;
    return ZEL_SUCCESS;
}

zel_error_t zel_socket__recv(int fd, void* buf, std::uint32_t* len, zel_sockaddr* source) {
    if (fd < 0 || buf == nullptr || len == nullptr) return ZEL_INVALIDPARAMETER;
    zel_sockaddr from;
    std::memset(&from, 0, sizeof from);
    socklen_t from_len = sizeof from.addr;
    const ssize_t n = recvfrom(fd, buf, *len, 0, reinterpret_cast<sockaddr*>(from.addr), &from_len);
    if (n < 0) return from_errno();
    *len = static_cast<std::uint32_t>(n);
    if (source != nullptr) {
        from.len = static_cast<std::uint8_t>(from_len < sizeof from.addr ? from_len : sizeof from.addr);
        *source = from;
    }
    return ZEL_SUCCESS;
}

zel_error_t zel_socket__send(int fd, const void* buf, std::uint32_t* len, const zel_sockaddr* dest) {
    if (fd < 0 || buf == nullptr || len == nullptr) return ZEL_INVALIDPARAMETER;
    const ssize_t n = dest != nullptr ? sendto(fd, buf, *len, 0, as_sockaddr(dest), dest->len)
                                      : send(fd, buf, *len, 0);
    if (n < 0) return from_errno();
    *len = static_cast<std::uint32_t>(n);
    return ZEL_SUCCESS;
}

zel_error_t zel_socket__set_blocking(int fd, bool blocking) {
    if (fd < 0) return ZEL_INVALIDPARAMETER;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return from_errno();
    const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return check(fcntl(fd, F_SETFL, wanted));
}

zel_error_t zel_socket__set_reuse_address(int fd, int on) {
    return set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, flag_value(on));
}

zel_error_t zel_socket__set_reuse_port(int fd, int on) {
    const zel_error_t rc = set_int_option(fd, SOL_SOCKET, SO_REUSEPORT, flag_value(on));
    return rc == ZEL_NOPROTOOPT ? ZEL_NOTSUPPORTED : rc;
}

zel_error_t zel_socket__set_broadcast(int fd, int on) {
    return set_int_option(fd, SOL_SOCKET, SO_BROADCAST, flag_value(on));
}

zel_error_t zel_socket__set_multicast_loop(int fd, int on) {
    if (fd < 0) return ZEL_INVALIDPARAMETER;
    const unsigned char value = on == 1 ? 1 : 0;
    return check(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &value, sizeof value));
}

zel_error_t zel_socket__set_multicast_all(int fd, int on) {
    return set_int_option(fd, IPPROTO_IP, IP_MULTICAST_ALL, flag_value(on));
}

zel_error_t zel_socket__bind_to_device(int fd, const char* name) {
    if (fd < 0 || name == nullptr) return ZEL_INVALIDPARAMETER;
    const socklen_t len = static_cast<socklen_t>(std::strlen(name) + 1);
    return check(setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, len));
}

zel_error_t zel_socket__recv_buffer_size(int fd, int* out) { return get_int_option(fd, SO_RCVBUF, out); }

zel_error_t zel_socket__send_buffer_size(int fd, int* out) { return get_int_option(fd, SO_SNDBUF, out); }

zel_error_t zel_socket__set_tos(int fd, int tos) { return set_int_option(fd, IPPROTO_IP, IP_TOS, tos); }

zel_error_t zel_socket__set_tos_priority(int fd, int tos, int priority) {
    const zel_error_t rc = zel_socket__set_tos(fd, tos);
    if (rc != ZEL_SUCCESS) return rc;
    return set_int_option(fd, SOL_SOCKET, SO_PRIORITY, priority);
}

zel_error_t zel_socket__set_multicast_interface(int fd, const zel_netif* netif) {
    if (fd < 0 || netif == nullptr) return ZEL_INVALIDPARAMETER;
    ip_mreqn request;
    std::memset(&request, 0, sizeof request);
    request.imr_ifindex = static_cast<int>(netif->index);
    return check(setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request));
}

zel_error_t zel_socket__wait_readable(int* fds, unsigned count, const zel_utime* timeout) {
    if (fds == nullptr || count == 0) return ZEL_INVALIDPARAMETER;
    if (timeout != nullptr && (timeout->sec < 0 || timeout->usec < 0)) return ZEL_INVALIDPARAMETER;
    fd_set readable;
    FD_ZERO(&readable);
    int nfds = 0;
    for (unsigned i = 0; i < count; ++i) {
        if (fds[i] < 0) continue;
        if (fds[i] >= FD_SETSIZE) return ZEL_INVALIDPARAMETER;
        FD_SET(fds[i], &readable);
        if (fds[i] + 1 > nfds) nfds = fds[i] + 1;
    }
    if (nfds == 0) return ZEL_INVALIDPARAMETER;  // nothing to wait for
    timeval tv;
    if (timeout != nullptr) {
        zel_utime t = *timeout;
        zel_utime_normalise(&t);
        tv.tv_sec = t.sec;
        tv.tv_usec = t.usec;
    }
    const int rc = select(nfds, &readable, nullptr, nullptr, timeout != nullptr ? &tv : nullptr);
    if (rc < 0) return from_errno();
    for (unsigned i = 0; i < count; ++i) {
        if (fds[i] >= 0 && !FD_ISSET(fds[i], &readable)) fds[i] = -1;
    }
    return rc == 0 ? ZEL_TIMEDOUT : ZEL_SUCCESS;
}

zel_error_t zel_socket__wait_one_readable(int fd, const zel_utime* timeout) {
    return zel_socket__wait_readable(&fd, 1, timeout);
}
