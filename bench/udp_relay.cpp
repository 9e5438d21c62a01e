#include "bench/udp_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <stdexcept>
#include <vector>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in loopback(uint16_t port, const char* host = "127.0.0.1") {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    ::inet_pton(AF_INET, host, &a.sin_addr);
    a.sin_port = htons(port);
    return a;
}

int openUdp(uint16_t* port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    // Room for whole windows in flight.
    const int buffer = 4 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ::close(fd);
        return -1;
    }
    if (port != nullptr) *port = ntohs(a.sin_port);
    return fd;
}

struct Pending {
    Clock::time_point due;
    int fd;
    sockaddr_in to;
    std::vector<uint8_t> bytes;
};

}  // namespace

UdpRelay::UdpRelay(const std::string& serverHost, uint16_t serverPort, unsigned delayMicroseconds)
    : serverHost_(serverHost), serverPort_(serverPort), delay_(delayMicroseconds) {
    listenFd_ = openUdp(&port_);
    serverFd_ = openUdp(nullptr);
    if (listenFd_ < 0 || serverFd_ < 0) {
        if (listenFd_ >= 0) ::close(listenFd_);
        if (serverFd_ >= 0) ::close(serverFd_);
        throw std::runtime_error("relay: cannot open loopback sockets");
    }
    thread_ = std::thread([this] { run(); });
}

void UdpRelay::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

UdpRelay::~UdpRelay() {
    stop();
    ::close(listenFd_);
    ::close(serverFd_);
}

void UdpRelay::run() {
    // Wake-ups to the microsecond: the default timer slack is 50 µs.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    sockaddr_in client{};
    // Server transfer port -> the client-facing socket that stands for it.
    std::map<uint16_t, int> facing;
    std::map<int, uint16_t> serverPortOf;
    std::deque<Pending> queue;  // one fixed delay: arrival order is due order
    std::vector<double> late;
    std::vector<uint8_t> buf(65536);
    const auto delay = std::chrono::microseconds(delay_);

    while (!stop_) {
        std::vector<pollfd> fds = {{listenFd_, POLLIN, 0}, {serverFd_, POLLIN, 0}};
        for (const auto& f : facing) fds.push_back({f.second, POLLIN, 0});
        timespec wait{0, 20 * 1000 * 1000};
        if (!queue.empty()) {
            const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(queue.front().due - Clock::now());
            const long ns = std::max<long>(0, static_cast<long>(left.count()));
            wait = {ns / 1000000000L, ns % 1000000000L};
        }
        ::ppoll(fds.data(), fds.size(), &wait, nullptr);
        for (const pollfd& p : fds) {
            if ((p.revents & POLLIN) == 0) continue;
            for (;;) {
                sockaddr_in from{};
                socklen_t len = sizeof from;
                const ssize_t n = ::recvfrom(p.fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from), &len);
                if (n < 0) break;
                Pending d{Clock::now() + delay, -1, {}, std::vector<uint8_t>(buf.begin(), buf.begin() + n)};
                if (p.fd == listenFd_) {  // a read request: to the server's own port
                    client = from;
                    d.fd = serverFd_;
                    d.to = loopback(serverPort_, serverHost_.c_str());
                } else if (p.fd == serverFd_) {  // from a server transfer port: to the client
                    const uint16_t port = ntohs(from.sin_port);
                    auto it = facing.find(port);
                    if (it == facing.end()) {
                        const int fd = openUdp(nullptr);
                        if (fd < 0) continue;
                        it = facing.emplace(port, fd).first;
                        serverPortOf[fd] = port;
                    }
                    d.fd = it->second;
                    d.to = client;
                } else {  // from the client to a transfer port
                    d.fd = serverFd_;
                    d.to = loopback(serverPortOf[p.fd], serverHost_.c_str());
                }
                queue.push_back(std::move(d));
            }
        }
        const Clock::time_point now = Clock::now();
        while (!queue.empty() && queue.front().due <= now) {
            const Pending& d = queue.front();
            late.push_back(std::chrono::duration<double, std::micro>(now - d.due).count());
            ::sendto(d.fd, d.bytes.data(), d.bytes.size(), 0, reinterpret_cast<const sockaddr*>(&d.to), sizeof d.to);
            queue.pop_front();
        }
    }
    if (!late.empty()) {
        std::sort(late.begin(), late.end());
        lateness_ = late.back();
        medianLateness_ = late[late.size() / 2];
    }
    for (const auto& f : facing) ::close(f.second);
}

}  // namespace bench
