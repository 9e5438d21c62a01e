#include "common/tftpd.h"

#include "net/tftp_packet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace testutil {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kAttempts = 8;
constexpr auto kStartLimit = std::chrono::seconds(5);

// A UDP socket that closes itself.
struct Udp {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
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

// A port that was free a moment ago; the caller copes with losing the race.
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
    return pw ? pw->pw_name : "root";
}

}  // namespace

Tftpd::Tftpd() {
    if (::access(kPath, X_OK) != 0) {
        throw std::runtime_error(std::string(kPath) + " is missing: install tftpd-hpa (scripts/deps.sh)");
    }
    // The server drops to --user after changing root; everything it serves
    // must be reachable for that user.
    ::chmod(root_.path().c_str(), 0755);
    probeName_ = "probe-" + std::to_string(::getpid());
    // Unique content: an answer proves that OUR server serves OUR directory,
    // not some other process that took the port first.
    probeContent_ = "ready " + root_.path();
    addFile(probeName_, probeContent_);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const uint16_t port = freePort();
        if (port != 0 && start(port)) return;
        kill();
    }
    throw std::runtime_error("in.tftpd did not come up (it must run as root); its output:\n" +
                             readFile(logs_.file("tftpd.log")));
}

Tftpd::~Tftpd() { kill(); }

void Tftpd::addFile(const std::string& name, const std::string& content) const {
    const std::string path = root_.file(name);
    writeFile(path, content);
    ::chmod(path.c_str(), 0644);
}

bool Tftpd::start(uint16_t port) {
    const std::string address = "127.0.0.1:" + std::to_string(port);
    std::vector<std::string> args = {kPath,      "--foreground", "--address", address,        "--secure",
                                     "--user",   userName(),     "-v",        root_.path()};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const std::string log = logs_.file("tftpd.log");

    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        // Own process group: the destructor kills the server and the
        // transfer processes it forks in one go.
        ::setpgid(0, 0);
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
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

    const Clock::time_point end = Clock::now() + kStartLimit;
    while (Clock::now() < end) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;  // gone (port taken, or no root): try again elsewhere
            return false;
        }
        if (answersProbe()) return true;
    }
    return false;
}

// Reads the probe file with a minimal lock-step client; true once it arrived.
bool Tftpd::answersProbe() {
    Udp s;
    if (s.fd < 0) return false;
    uint8_t buf[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 0;
    zel_tftp_packet_encode_rrq(buf, sizeof buf, probeName_.c_str(), &length);
    const sockaddr_in server = loopback(port_);
    ::sendto(s.fd, buf, length, 0, reinterpret_cast<const sockaddr*>(&server), sizeof server);

    pollfd p{s.fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) return false;
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = ::recvfrom(s.fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0) return false;
    const zel_tftp_packet_view view = zel_tftp_packet_decode(buf, static_cast<uint32_t>(n));
    if (view.kind != ZEL_TFTP_PACKET_DATA || view.number != 1 ||
        std::string(reinterpret_cast<const char*>(view.payload), view.payload_length) != probeContent_) {
        return false;
    }
    // Acknowledge so that the transfer process ends at once.
    zel_tftp_packet_encode_ack(buf, sizeof buf, 1, &length);
    ::sendto(s.fd, buf, length, 0, reinterpret_cast<const sockaddr*>(&from), len);
    return true;
}

void Tftpd::kill() {
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
    // Transfer processes still running in the group go too.
    ::kill(-pid_, SIGKILL);
    pid_ = -1;
}

}  // namespace testutil
