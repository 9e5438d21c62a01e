#include "bench/tftp_server.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "net/tftp_packet.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Udp {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    Udp() = default;
    Udp(const Udp&) = delete;
    Udp& operator=(const Udp&) = delete;
    ~Udp() {
        if (fd >= 0) ::close(fd);
    }
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    return a;
}

// A port that was free a moment ago; losing the race only costs a retry.
uint16_t freePort() {
    Udp s;
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (s.fd < 0 || ::bind(s.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(s.fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        return 0;
    }
    return ntohs(a.sin_port);
}

std::string userName() {
    const passwd* pw = ::getpwuid(::geteuid());
    return pw != nullptr ? pw->pw_name : "root";
}

}  // namespace

TftpServer::TftpServer(const std::string& root, const std::string& probeFile, const std::string& logPath)
    : root_(root), probeFile_(probeFile), logPath_(logPath) {
    if (::access(kPath, X_OK) != 0) {
        throw std::runtime_error(std::string(kPath) + " is missing (Debian package tftpd-hpa)");
    }
    for (int attempt = 0; attempt < 8; ++attempt) {
        const uint16_t port = freePort();
        if (port != 0 && start(port)) return;
        stop();
    }
    throw std::runtime_error("in.tftpd did not come up (it must run as root); see " + logPath_);
}

TftpServer::~TftpServer() { stop(); }

bool TftpServer::start(uint16_t port) {
    std::vector<std::string> args = {kPath,     "--foreground", "--address",
                                     "127.0.0.1:" + std::to_string(port),
                                     "--secure", "--user",       userName(), root_};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        ::setpgid(0, 0);
        const int out = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        const int in = ::open("/dev/null", O_RDONLY);
        if (out >= 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
        }
        if (in >= 0) ::dup2(in, 0);
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::setpgid(pid, pid);
    pid_ = pid;
    port_ = port;

    const Clock::time_point end = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < end) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;  // gone: the port was taken, or no root
            return false;
        }
        if (answersProbe()) return true;
    }
    return false;
}

// Reads the probe file with one request; true once its first block arrived.
bool TftpServer::answersProbe() const {
    Udp s;
    if (s.fd < 0) return false;
    uint8_t buf[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 0;
    if (zel_tftp_packet_encode_rrq(buf, sizeof buf, probeFile_.c_str(), &length) != ZEL_SUCCESS) return false;
    const sockaddr_in server = loopback(port_);
    ::sendto(s.fd, buf, length, 0, reinterpret_cast<const sockaddr*>(&server), sizeof server);

    pollfd p{s.fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) return false;
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = ::recvfrom(s.fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0) return false;
    const zel_tftp_packet_view view = zel_tftp_packet_decode(buf, static_cast<uint32_t>(n));
    if (view.kind != ZEL_TFTP_PACKET_DATA || view.number != 1) return false;
    // Acknowledged, so the server's transfer process ends at once.
    zel_tftp_packet_encode_ack(buf, sizeof buf, 1, &length);
    ::sendto(s.fd, buf, length, 0, reinterpret_cast<const sockaddr*>(&from), len);
    return true;
}

void TftpServer::stop() {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGTERM);
    const Clock::time_point end = Clock::now() + std::chrono::seconds(2);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() >= end) {
            ::kill(-pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ::kill(-pid_, SIGKILL);  // transfer processes left in the group
    pid_ = -1;
}

}  // namespace bench
