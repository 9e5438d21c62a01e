// A UDP relay on loopback that delays every datagram by a fixed time, so that
// a TFTP transfer on one machine sees the round trip of a LAN. It stands
// between one client and one TFTP server: the client sends its read request
// to port(), the relay passes it on to the server's port, and every transfer
// port the server answers from gets a client-facing port of its own, so the
// client sees one peer per server transfer port, as without the relay.
//
//   bench::UdpRelay relay("127.0.0.1", serverPort, 500);   // 0.5 ms each way
//   ... client reads from 127.0.0.1:relay.port() ...
//   relay.lateness()                           // worst scheduling error, µs
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace bench {

class UdpRelay {
public:
    // Throws std::runtime_error when its sockets cannot be set up.
    UdpRelay(const std::string& serverHost, uint16_t serverPort, unsigned delayMicroseconds);
    ~UdpRelay();
    UdpRelay(const UdpRelay&) = delete;
    UdpRelay& operator=(const UdpRelay&) = delete;

    uint16_t port() const { return port_; }
    // Stops relaying (the destructor does it too); the lateness figures are
    // final from then on.
    void stop();
    // The largest delay beyond the asked one that a datagram got, in
    // microseconds (what the relay itself adds).
    double lateness() const { return lateness_.load(); }
    // The median of those extra delays, in microseconds.
    double medianLateness() const { return medianLateness_.load(); }

private:
    void run();

    std::string serverHost_;
    uint16_t serverPort_;
    unsigned delay_;
    int listenFd_ = -1;  // client-facing: the read request arrives here
    int serverFd_ = -1;  // server-facing: everything to the server leaves here
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<double> lateness_{0};
    std::atomic<double> medianLateness_{0};
    std::thread thread_;
};

}  // namespace bench
