#include "common/fake_tftp_server.h"

#include "net/tftp_packet.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace testutil {

namespace {

// Room for oversized datagrams: scripts may send more than the client takes.
constexpr size_t kMaxDatagram = 65507;

int openBound(const char* host, uint16_t* port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    ::inet_pton(AF_INET, host, &a.sin_addr);
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ::close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

std::vector<uint8_t> tftpData(uint16_t block, const std::string& data) {
    std::vector<uint8_t> out(ZEL_TFTP_HEADER_SIZE + data.size());
    uint32_t length = 0;
    zel_tftp_packet_encode_data(out.data(), static_cast<uint32_t>(out.size()), block,
                                reinterpret_cast<const uint8_t*>(data.data()), static_cast<uint32_t>(data.size()),
                                &length);
    return out;
}

std::vector<uint8_t> tftpError(uint16_t code, const std::string& message) {
    std::vector<uint8_t> out(ZEL_TFTP_HEADER_SIZE + message.size() + 1);
    uint32_t length = 0;
    zel_tftp_packet_encode_error(out.data(), static_cast<uint32_t>(out.size()), code, message.c_str(), &length);
    return out;
}

TftpDatagram packet(std::vector<uint8_t> bytes, TftpFrom from) { return TftpDatagram{std::move(bytes), from, false}; }

TftpDatagram fromOtherHost(std::vector<uint8_t> bytes) { return packet(std::move(bytes), TftpFrom::OtherHost); }

TftpDatagram realBlock(TftpFrom from) { return TftpDatagram{{}, from, true}; }

FakeTftpServer::FakeTftpServer(FakeTftpScript script) : script_(std::move(script)), started_(TftpClock::now()) {
    listenFd_ = openBound("127.0.0.1", &listenPort_);
    otherFd_ = openBound("127.0.0.2", &otherPort_);
    if (listenFd_ < 0 || otherFd_ < 0) {
        const std::string why = std::strerror(errno);
        closeFd(listenFd_);
        closeFd(otherFd_);
        throw std::runtime_error("fake TFTP server: cannot bind loopback sockets: " + why);
    }
    lastBlock_ = static_cast<uint32_t>(script_.content.size() / ZEL_TFTP_BLOCK_SIZE) + 1;
    thread_ = std::thread([this] { run(); });
}

FakeTftpServer::~FakeTftpServer() {
    stop();
    closeFd(listenFd_);
    closeFd(otherFd_);
    closeFd(transferFd_);
}

void FakeTftpServer::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

uint16_t FakeTftpServer::transferPort() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return transferPort_;
}

std::vector<TftpReceived> FakeTftpServer::received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

std::vector<TftpReceived> FakeTftpServer::readRequests() const {
    std::vector<TftpReceived> out;
    for (TftpReceived& r : received())
        if (r.kind == TftpReceived::Rrq) out.push_back(std::move(r));
    return out;
}

std::vector<uint16_t> FakeTftpServer::ackBlocks() const {
    std::vector<uint16_t> out;
    for (const TftpReceived& r : received())
        if (r.kind == TftpReceived::Ack) out.push_back(r.block);
    return out;
}

bool FakeTftpServer::finished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
}

bool FakeTftpServer::waitFinished(std::chrono::milliseconds limit) const {
    const TftpClock::time_point end = TftpClock::now() + limit;
    while (!finished()) {
        if (TftpClock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void FakeTftpServer::run() {
    const TftpClock::time_point end = started_ + script_.lifetime;
    while (!stop_ && TftpClock::now() < end) {
        pollfd fds[3] = {{listenFd_, POLLIN, 0}, {transferFd_, POLLIN, 0}, {otherFd_, POLLIN, 0}};
        // A short poll keeps stop() prompt without a wake-up descriptor.
        const int ready = ::poll(fds, transferFd_ >= 0 ? 2 : 1, 10);
        if (ready <= 0) continue;
        if (fds[0].revents & POLLIN) onListen();
        if (transferFd_ >= 0 && (fds[1].revents & POLLIN)) onTransfer();
    }
}

bool FakeTftpServer::receive(int fd, uint16_t localPort, TftpReceived* out, sockaddr_in* from) {
    std::vector<uint8_t> buf(kMaxDatagram);
    socklen_t len = sizeof *from;
    const ssize_t n = ::recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(from), &len);
    if (n < 0) return false;
    buf.resize(static_cast<size_t>(n));
    out->at = TftpClock::now();
    out->localPort = localPort;
    out->peerPort = ntohs(from->sin_port);
    const zel_tftp_packet_view view = zel_tftp_packet_decode(buf.data(), static_cast<uint32_t>(buf.size()));
    if (view.kind == ZEL_TFTP_PACKET_RRQ) {
        out->kind = TftpReceived::Rrq;
        out->fileName.assign(reinterpret_cast<const char*>(view.payload), view.payload_length);
        out->mode = view.mode;
    } else if (view.kind == ZEL_TFTP_PACKET_ACK) {
        out->kind = TftpReceived::Ack;
        out->block = view.number;
    }
    out->bytes = std::move(buf);
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back(*out);
    return true;
}

void FakeTftpServer::onListen() {
    TftpReceived r;
    sockaddr_in from{};
    if (!receive(listenFd_, listenPort_, &r, &from) || r.kind != TftpReceived::Rrq) return;
    const bool sameClient = transferFd_ >= 0 && from.sin_addr.s_addr == peer_.sin_addr.s_addr &&
                            from.sin_port == peer_.sin_port;
    if (sameClient) {
        // A retransmitted read request: the client has not seen block 1 yet.
        if (current_ == 1 && script_.resendOnRepeat) transmit(1, false);
        return;
    }
    if (script_.answeredRequests != 0 && ++newRequests_ > script_.answeredRequests) return;
    closeFd(transferFd_);
    uint16_t port = 0;
    transferFd_ = openBound("127.0.0.1", &port);
    if (transferFd_ < 0) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        transferPort_ = port;
        finished_ = false;
    }
    peer_ = from;
    current_ = 1;
    transmit(1, true);
}

void FakeTftpServer::onTransfer() {
    TftpReceived r;
    sockaddr_in from{};
    if (!receive(transferFd_, transferPort(), &r, &from) || r.kind != TftpReceived::Ack) return;
    if (r.block == static_cast<uint16_t>(current_)) {
        if (current_ == lastBlock_) {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_ = true;
            return;
        }
        ++current_;
        transmit(current_, true);
    } else if (r.block == static_cast<uint16_t>(current_ - 1) && script_.resendOnRepeat) {
        transmit(current_, false);
    }
}

void FakeTftpServer::transmit(uint32_t block, bool first) {
    if (script_.silentFromBlock != 0 && block >= script_.silentFromBlock) return;
    const size_t offset = static_cast<size_t>(block - 1) * ZEL_TFTP_BLOCK_SIZE;
    const std::vector<uint8_t> real =
        tftpData(static_cast<uint16_t>(block), script_.content.substr(offset, ZEL_TFTP_BLOCK_SIZE));
    const auto scripted = script_.instead.find(block);
    if (!first || scripted == script_.instead.end()) {
        sendFrom(TftpFrom::TransferPort, real);
        return;
    }
    for (const TftpDatagram& d : scripted->second) sendFrom(d.from, d.real ? real : d.bytes);
}

void FakeTftpServer::sendFrom(TftpFrom from, const std::vector<uint8_t>& bytes) {
    const int fd = from == TftpFrom::ListenPort ? listenFd_ : from == TftpFrom::OtherHost ? otherFd_ : transferFd_;
    ::sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&peer_), sizeof peer_);
}

}  // namespace testutil
