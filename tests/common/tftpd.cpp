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

sockaddr_in loopback(uint16_t port, const std::string& host = "127.0.0.1") {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    ::inet_pton(AF_INET, host.c_str(), &a.sin_addr);
    a.sin_port = htons(port);
    return a;
}

const char* pathOf(TftpdKind kind) {
    switch (kind) {
    case TftpdKind::Atftpd:
        return BRIVLO_ATFTPD;
    case TftpdKind::Dnsmasq:
        return Tftpd::kDnsmasqPath;
    case TftpdKind::InTftpd:
        break;
    }
    return Tftpd::kPath;
}

// A port that was free a moment ago; the caller copes with losing the race.
uint16_t freePort(const std::string& host) {
    Udp s;
    sockaddr_in a = loopback(0, host);
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

Tftpd::Tftpd(TftpdKind kind, bool options) : kind_(kind), options_(options) {
    if (::access(pathOf(kind_), X_OK) != 0) {
        throw std::runtime_error(std::string(pathOf(kind_)) +
                                 " is missing: scripts/deps.sh installs tftpd-hpa and dnsmasq-base, "
                                 "scripts/atftp-fetch.sh unpacks atftpd");
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
        if (kind_ != TftpdKind::InTftpd) {
            // An address of its own, drawn from the process and the attempt:
            // dnsmasq always listens on port 69, and atftpd's sockets allow
            // another server on the same port and address, which would take
            // its datagrams (in.tftpd stays on 127.0.0.1, where the
            // end-to-end tests look for it).
            const unsigned n = static_cast<unsigned>(::getpid()) * 7u + static_cast<unsigned>(attempt) * 131u +
                               (kind_ == TftpdKind::Atftpd ? 61u : 0u);
            host_ = "127." + std::to_string(1 + n % 250) + "." + std::to_string((n / 250) % 250) + "." +
                    std::to_string(2 + attempt);
        }
        const uint16_t port = kind_ == TftpdKind::Dnsmasq ? 69 : freePort(host_);
        if (port != 0 && start(port)) return;
        kill();
    }
    throw std::runtime_error(std::string(pathOf(kind_)) + " did not come up (it must run as root); its output:\n" +
                             readFile(logs_.file("tftpd.log")));
}

std::vector<std::string> Tftpd::command(uint16_t port) const {
    const std::string user = userName();
    switch (kind_) {
    case TftpdKind::Atftpd: {
        std::vector<std::string> args = {pathOf(kind_), "--daemon", "--no-fork", "--port", std::to_string(port),
                                         "--bind-address", host_, "--user", user, "--group",
                                         user == "root" ? "root" : "nogroup", "--logfile", "-", "--no-multicast",
                                         // Its default of 5 s to resend an unanswered window
                                         // equals a client's whole abort time: a window whose
                                         // ACK it drops would then end the transfer.
                                         "--retry-timeout", "1"};
        if (!options_) args.insert(args.end(), {"--no-blksize", "--no-windowsize", "--no-tsize", "--no-timeout"});
        args.push_back(root_.path());
        return args;
    }
    case TftpdKind::Dnsmasq: {
        std::vector<std::string> args = {pathOf(kind_), "--keep-in-foreground", "--conf-file=/dev/null", "--port=0",
                                         "--enable-tftp", "--tftp-root=" + root_.path(), "--listen-address=" + host_,
                                         "--bind-interfaces", "--user=" + user, "--pid-file=", "--log-facility=-"};
        // dnsmasq has no switch for tsize; it ignores blksize when told to.
        if (!options_) args.emplace_back("--tftp-no-blocksize");
        return args;
    }
    case TftpdKind::InTftpd:
        break;
    }
    std::vector<std::string> args = {kPath, "--foreground", "--address", host_ + ":" + std::to_string(port),
                                     "--secure", "--user", user, "-v"};
    if (!options_) {
        for (const char* option : {"blksize", "tsize", "timeout", "rollover", "utimeout"}) {
            args.insert(args.end(), {"--refuse", option});
        }
    }
    args.push_back(root_.path());
    return args;
}

Tftpd::~Tftpd() { kill(); }

void Tftpd::addFile(const std::string& name, const std::string& content) const {
    const std::string path = root_.file(name);
    writeFile(path, content);
    ::chmod(path.c_str(), 0644);
}

bool Tftpd::start(uint16_t port) {
    std::vector<std::string> args = command(port);
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
    const sockaddr_in server = loopback(port_, host_);
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
