// A scriptable TFTP server on loopback, for tests of the TFTP client and of
// whole downloads. It runs on its own thread, listens on 127.0.0.1 at a free
// port, and answers each read request from a NEW transfer port, as a real
// server does. By default it serves `content` in lock step (512-byte blocks,
// block k+1 after ACK k, the current block again on a repeated ACK or read
// request); a script replaces single transmissions to inject faults.
//
//   testutil::FakeTftpScript script;
//   script.content = "hello";
//   script.instead[1] = {testutil::fromOtherHost(testutil::tftpData(1, "evil")),
//                        testutil::realBlock()};
//   testutil::FakeTftpServer server(script);
//   ... point the client at 127.0.0.1:server.port() ...
//   EXPECT_EQ(server.ackBlocks(), std::vector<uint16_t>{1});
//
// It records every datagram it receives with a time stamp and the port it
// arrived on, and stops by itself after `lifetime`.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <thread>
#include <vector>

namespace testutil {

using TftpClock = std::chrono::steady_clock;

// Where a scripted datagram leaves from.
enum class TftpFrom {
    TransferPort,  // the transfer socket of the current read request
    ListenPort,    // the socket that received the read request
    OtherHost,     // a socket on 127.0.0.2: a foreign host as far as the client can tell
};

struct TftpDatagram {
    std::vector<uint8_t> bytes;
    TftpFrom from = TftpFrom::TransferPort;
    bool real = false;  // send the block the server would have sent (bytes unused)
};

// Builders for scripts.
std::vector<uint8_t> tftpData(uint16_t block, const std::string& data);
std::vector<uint8_t> tftpError(uint16_t code, const std::string& message);
TftpDatagram packet(std::vector<uint8_t> bytes, TftpFrom from = TftpFrom::TransferPort);
TftpDatagram fromOtherHost(std::vector<uint8_t> bytes);
TftpDatagram realBlock(TftpFrom from = TftpFrom::TransferPort);

struct FakeTftpScript {
    // The file. Served in 512-byte blocks; a size that is a multiple of 512
    // (0 included) ends with an empty block.
    std::string content;
    // Datagrams sent instead of the FIRST transmission of block k (key k; 1 is
    // the answer to the read request). An empty list sends nothing then.
    // Retransmissions (answers to a repeated ACK or read request) send the real
    // block. Block k goes out on the wire as k modulo 65536.
    std::map<uint32_t, std::vector<TftpDatagram>> instead;
    // From this block on nothing is sent at all (0: never silent; 1: the read
    // request is never answered).
    uint32_t silentFromBlock = 0;
    // Read requests from a new client port that are answered; later ones get
    // no answer at all (0: every one).
    uint32_t answeredRequests = 0;
    // Answer a repeated ACK k-1 (or read request) by sending block k again.
    bool resendOnRepeat = true;
    // The server thread stops by itself after this long.
    std::chrono::milliseconds lifetime{20000};
};

struct TftpReceived {
    enum Kind { Rrq, Ack, Other };
    Kind kind = Other;
    TftpClock::time_point at;
    uint16_t localPort = 0;  // the server port it arrived on
    uint16_t peerPort = 0;   // the client port it came from
    std::string fileName;    // Rrq
    std::string mode;        // Rrq
    uint16_t block = 0;      // Ack
    std::vector<uint8_t> bytes;
};

class FakeTftpServer {
public:
    // Throws std::runtime_error when the sockets cannot be set up.
    explicit FakeTftpServer(FakeTftpScript script);
    ~FakeTftpServer();
    FakeTftpServer(const FakeTftpServer&) = delete;
    FakeTftpServer& operator=(const FakeTftpServer&) = delete;

    uint16_t port() const { return listenPort_; }
    // Port of the socket on 127.0.0.2 that TftpFrom::OtherHost sends from.
    uint16_t otherHostPort() const { return otherPort_; }
    // Port of the latest transfer socket; 0 before the first read request.
    uint16_t transferPort() const;
    TftpClock::time_point started() const { return started_; }

    std::vector<TftpReceived> received() const;
    std::vector<TftpReceived> readRequests() const;
    std::vector<uint16_t> ackBlocks() const;
    // The ACK of the last block has arrived.
    bool finished() const;
    // Waits until finished() (the client may complete before the server thread
    // has read its last ACK); false when `limit` passed first.
    bool waitFinished(std::chrono::milliseconds limit = std::chrono::milliseconds(2000)) const;

    // Stops the thread now (the destructor does it too).
    void stop();

private:
    void run();
    void onListen();
    void onTransfer();
    void transmit(uint32_t block, bool first);
    void sendFrom(TftpFrom from, const std::vector<uint8_t>& bytes);
    bool receive(int fd, uint16_t localPort, TftpReceived* out, sockaddr_in* from);

    const FakeTftpScript script_;
    int listenFd_ = -1;
    int otherFd_ = -1;
    uint16_t listenPort_ = 0;
    uint16_t otherPort_ = 0;
    TftpClock::time_point started_;

    // Owned by the server thread.
    int transferFd_ = -1;
    uint32_t current_ = 0;     // block being offered
    uint32_t lastBlock_ = 0;   // index of the final (short) block
    uint32_t newRequests_ = 0; // read requests from a new client port so far
    sockaddr_in peer_{};       // the client of the current transfer

    mutable std::mutex mutex_;
    std::vector<TftpReceived> received_;
    uint16_t transferPort_ = 0;
    bool finished_ = false;

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace testutil
