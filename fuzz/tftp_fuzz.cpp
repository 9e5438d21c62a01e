// Datagrams of any content, from any source, fed to a live TFTP read request:
// a real client request on a real event loop, with the input cut into
// datagrams that three loopback sockets send to the client's socket — the
// port the read request went to and a transfer port on 127.0.0.1, and a
// foreign host on 127.0.0.2. After each datagram the loop turns once, so the
// request's receive path handles exactly that datagram.
//
// The request is held against a model of the lock-step rules (which blocks
// are written, when the transfer completes or fails, which TFTP error becomes
// which code), and the client may never send anything to the foreign host.
//
// Input: an options byte (bit 0: the callback resets the request when it
// ends, as the download driver does; bits 1-2 both set: 25 % simulated
// losses, which turns the model off), then per datagram a control byte (bits
// 0-1 source, bits 2-3 what to send, bits 4-5 the data length class, bit 6
// a variant) and its bytes, all read from the front.
//
// With bit 3 of the options byte set, the rest of the input is instead the
// option bytes of an OACK: parsed, checked against a request for blksize
// 1468, windowsize 8 and tsize, and what was read written back out and read
// again to the same values.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "fuzz_util.h"
#include "net/env.h"
#include "net/log.h"
#include "net/socket.h"
#include "net/tftp_client.h"
#include "net/tftp_packet.h"
#include "net/tftp_state.h"

namespace {

using fuzzutil::require;

int openUdp(const char* host, uint16_t* port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    require(fd >= 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    ::inet_pton(AF_INET, host, &a.sin_addr);
    socklen_t len = sizeof a;
    require(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0);
    require(::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0);
    *port = ntohs(a.sin_port);
    return fd;
}

// Everything the client sent to `fd` since the last drain: how many datagrams.
int drain(int fd) {
    int count = 0;
    uint8_t buf[2048];
    while (::recv(fd, buf, sizeof buf, MSG_DONTWAIT) >= 0) ++count;
    require(errno == EAGAIN || errno == EWOULDBLOCK);
    return count;
}

// The mapping of TFTP error codes, written out independently of the client.
zel_error_t expectedError(uint16_t code) {
    switch (code) {
    case 1: return ZEL_NOTFOUND;
    case 2: return ZEL_ACCES;
    case 3: return ZEL_NOBUFS;
    case 4: return ZEL_NOTSUPPORTED;
    case 5: return ZEL_INVALIDDATA;
    case 6: return ZEL_ALREADY;
    case 7: return ZEL_POLICY;
    default: return ZEL_SYSTEM;
    }
}

// The lock-step rules as a reader of the protocol states them.
struct Model {
    uint32_t state = ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING;
    uint32_t block = 0;
    zel_error_t error = ZEL_SUCCESS;
    std::string data;

    bool done() const {
        return state == ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED || state == ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR;
    }

    // A datagram as the client receives it (cut to 1472 bytes), from the
    // server's host or not.
    void receive(const std::vector<uint8_t>& d, bool serverHost) {
        if (!serverHost || d.size() < 2) return;
        const uint16_t opcode = static_cast<uint16_t>(d[0] << 8 | d[1]);
        if (d.size() <= 3) return;
        const uint16_t number = static_cast<uint16_t>(d[2] << 8 | d[3]);
        if (opcode == ZEL_TFTP_OPCODE_ERROR) {
            state = ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR;
            error = expectedError(number);
            return;
        }
        if (opcode != ZEL_TFTP_OPCODE_DATA) return;
        const std::size_t n = d.size() - 4;
        if (number == block + 1) {
            data.append(reinterpret_cast<const char*>(d.data() + 4), n);
            block = number;
        } else if (number != block) {
            return;  // out of order: dropped without an ACK
        }
        if (n < ZEL_TFTP_BLOCK_SIZE) {
            state = ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED;
        } else if (state == ZEL_TFTP_CLIENT_REQUEST_STATE_CONNECTING) {
            state = ZEL_TFTP_CLIENT_REQUEST_STATE_RECVING;
        }
    }
};

struct Harness {
    zel_env* env = nullptr;
    zel_tftp_client* client = nullptr;
    int listenFd = -1, transferFd = -1, foreignFd = -1;
    uint16_t listenPort = 0, transferPort = 0, foreignPort = 0;

    // Per input.
    bool resetInCallback = false;
    std::string written;
    uint32_t endState = ZEL_TFTP_CLIENT_REQUEST_STATE_NONE;
    zel_error_t endError = ZEL_SUCCESS;
    uint32_t endBytes = 0;
    int callbacks = 0;

    Harness() {
        require(zel_env_new(&env, nullptr, nullptr) == ZEL_SUCCESS);
        // Every log line is formatted (its arguments are part of the code
        // under test) and dropped.
        zel_log_set_callback(env->log, [](zel_log*, const char*, unsigned, const char*, unsigned) { return 0; });
        zel_log_set_level(env->log, ZEL_LOG_DEST_CALLBACK, ZEL_LOG_VERBOSE);
        client = zel_tftp_client__create(env);
        require(client != nullptr);
        zel_tftp_client__set_callback(client, &Harness::onRequest);
        zel_tftp_client__set_context(client, this);
        listenFd = openUdp("127.0.0.1", &listenPort);
        transferFd = openUdp("127.0.0.1", &transferPort);
        foreignFd = openUdp("127.0.0.2", &foreignPort);
    }

    static void onRequest(zel_tftp_client_request* request) {
        auto* self = static_cast<Harness*>(zel_tftp_client__context(zel_tftp_client_request__client(request)));
        ++self->callbacks;
        const uint32_t state = zel_tftp_client_request__state(request);
        if (state == ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED || state == ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR) {
            self->endState = state;
            self->endError = zel_tftp_client_request__error(request);
            self->endBytes = zel_tftp_client_request__bytes_transferred(request);
            if (self->resetInCallback) zel_tftp_client_request__reset(request);
        }
    }

    static Harness* current;
    static size_t collect(const void* data, size_t size, size_t count, FILE*) {
        current->written.append(static_cast<const char*>(data), size * count);
        return count;
    }
};

Harness* Harness::current = nullptr;

std::vector<uint8_t> header(uint16_t opcode, uint16_t number) {
    return {static_cast<uint8_t>(opcode >> 8), static_cast<uint8_t>(opcode), static_cast<uint8_t>(number >> 8),
            static_cast<uint8_t>(number)};
}

// The input, read from the front: seeds written by hand read as they look.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::size_t remaining() const { return size_ - pos_; }
    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(byte() << 8 | byte()); }
    // `n` bytes, zero-filled past the end of the input.
    std::vector<uint8_t> bytes(std::size_t n) {
        std::vector<uint8_t> out(n, 0);
        const std::size_t take = std::min(n, remaining());
        if (take != 0) std::memcpy(out.data(), data_ + pos_, take);
        pos_ += take;
        return out;
    }

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t pos_ = 0;
};

// One datagram from the control byte and the bytes after it.
std::vector<uint8_t> makeDatagram(Input& in, uint8_t control, uint16_t block) {
    const unsigned what = (control >> 2) & 3u;
    const unsigned lengthClass = (control >> 4) & 3u;
    std::size_t dataLength = 0;
    switch (lengthClass) {
    case 0: dataLength = ZEL_TFTP_BLOCK_SIZE; break;
    case 1: dataLength = in.u16() % ZEL_TFTP_BLOCK_SIZE; break;
    case 2: dataLength = 0; break;
    default: dataLength = ZEL_TFTP_BLOCK_SIZE + 1 + in.u16() % 1088; break;  // up to 1600
    }
    std::vector<uint8_t> d;
    switch (what) {
    case 0:  // raw bytes, up to beyond what the client takes
        return in.bytes(std::min<std::size_t>(in.u16() % 2049, in.remaining()));
    case 1:  // the next block
        d = header(ZEL_TFTP_OPCODE_DATA, static_cast<uint16_t>(block + 1 + ((control >> 6) & 1u)));
        break;
    case 2:  // the block last accepted again
        d = header(ZEL_TFTP_OPCODE_DATA, block);
        break;
    default: {  // an error packet, sometimes cut short
        d = header(ZEL_TFTP_OPCODE_ERROR, in.u16());
        if ((control >> 6) & 1u) d.resize(3);
        return d;
    }
    }
    const std::vector<uint8_t> payload = in.bytes(dataLength);
    d.insert(d.end(), payload.begin(), payload.end());
    return d;
}

// The OACK parser and the negotiation over any option bytes.
void checkOack(const uint8_t* data, std::size_t size) {
    const zel_tftp_oack untouched = {0xFFFFFFFFu, 1, 2, 3};
    zel_tftp_oack oack = untouched;
    const zel_error_t parsed = zel_tftp_oack_parse(data, static_cast<uint32_t>(size), &oack);
    require(parsed == ZEL_SUCCESS || parsed == ZEL_INVALIDDATA);
    if (parsed != ZEL_SUCCESS) {
        require(std::memcmp(&oack, &untouched, sizeof oack) == 0);  // out-parameters stay as they were
        return;
    }
    require((oack.present & ~(ZEL_TFTP_OACK_BLKSIZE | ZEL_TFTP_OACK_WINDOWSIZE | ZEL_TFTP_OACK_TSIZE |
                              ZEL_TFTP_OACK_UNKNOWN)) == 0);
    for (uint64_t value : {oack.blksize, oack.windowsize, oack.tsize}) require(value < 10000000000000000000ull);

    const zel_tftp_options asked = {1468, 8, true, true, 0};
    zel_tftp_transfer transfer = {0, 0};
    const char* why = nullptr;
    if (zel_tftp_negotiate(&asked, &oack, &transfer, &why) == ZEL_SUCCESS) {
        require((oack.present & ZEL_TFTP_OACK_UNKNOWN) == 0);
        require(transfer.block_size >= 8 && transfer.block_size <= 1468);
        require(transfer.window_size >= 1 && transfer.window_size <= 8);
    } else {
        require(why != nullptr && transfer.block_size == 0 && transfer.window_size == 0);
    }

    // What was read, written as an OACK and read again, gives the same values.
    const std::string values[3] = {std::to_string(oack.blksize), std::to_string(oack.windowsize),
                                   std::to_string(oack.tsize)};
    zel_tftp_option list[3];
    uint32_t count = 0;
    if (oack.present & ZEL_TFTP_OACK_BLKSIZE) list[count++] = {"blksize", values[0].c_str()};
    if (oack.present & ZEL_TFTP_OACK_WINDOWSIZE) list[count++] = {"WindowSize", values[1].c_str()};
    if (oack.present & ZEL_TFTP_OACK_TSIZE) list[count++] = {"TSIZE", values[2].c_str()};
    uint8_t packet[ZEL_TFTP_PACKET_SIZE];
    uint32_t length = 0;
    require(zel_tftp_packet_encode_oack(packet, sizeof packet, list, count, &length) == ZEL_SUCCESS);
    const zel_tftp_packet_view view = zel_tftp_packet_decode(packet, length);
    require(view.kind == ZEL_TFTP_PACKET_OACK);
    zel_tftp_oack again{};
    require(zel_tftp_oack_parse(view.payload, view.payload_length, &again) == ZEL_SUCCESS);
    require(again.present == (oack.present & ~ZEL_TFTP_OACK_UNKNOWN));
    require(!(again.present & ZEL_TFTP_OACK_BLKSIZE) || again.blksize == oack.blksize);
    require(!(again.present & ZEL_TFTP_OACK_WINDOWSIZE) || again.windowsize == oack.windowsize);
    require(!(again.present & ZEL_TFTP_OACK_TSIZE) || again.tsize == oack.tsize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > 0 && (data[0] & 8u) != 0) {
        checkOack(data + 1, size - 1);
        return 0;
    }
    static Harness h;
    Harness::current = &h;
    Input in(data, size);
    const uint8_t options = in.byte();
    h.resetInCallback = (options & 1u) != 0;
    const bool lossy = (options & 6u) == 6u;
    h.written.clear();
    h.endState = ZEL_TFTP_CLIENT_REQUEST_STATE_NONE;
    h.endError = ZEL_SUCCESS;
    h.endBytes = 0;
    h.callbacks = 0;
    // Simulated losses draw from rand(): the same input must behave the same.
    std::srand(options);
    h.client->failure_probability = lossy ? 25 : 0;

    zel_sockaddr server{};
    require(zel_sockaddr__set_ipv4(&server, htonl(INADDR_LOOPBACK), h.listenPort) == ZEL_SUCCESS);
    // Timers far away: only datagrams move the request.
    const zel_utime longWait = {60, 0};
    zel_tftp_client_request* request = nullptr;
    require(zel_tftp_client__recv_file(h.client, &server, "fuzz.bin", nullptr, &Harness::collect, &longWait,
                                       &longWait, &request) == ZEL_SUCCESS);
    sockaddr_in client{};
    socklen_t clientLength = sizeof client;
    require(::getsockname(request->socket, reinterpret_cast<sockaddr*>(&client), &clientLength) == 0);
    client.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    Model model;
    const zel_utime turn = {0, 20000};
    for (int i = 0; i < 64 && in.remaining() > 0 && !model.done(); ++i) {
        const uint8_t control = in.byte();
        const std::vector<uint8_t> d = makeDatagram(in, control, static_cast<uint16_t>(model.block));
        const unsigned source = control & 3u;
        const int fd = source == 1 ? h.listenFd : source == 2 ? h.foreignFd : h.transferFd;
        if (::sendto(fd, d.data(), d.size(), 0, reinterpret_cast<const sockaddr*>(&client), sizeof client) < 0) {
            continue;
        }
        require(zel_event_loop__run_once(h.env->loop, &turn) == ZEL_SUCCESS);

        std::vector<uint8_t> received(d.begin(), d.begin() + std::min<std::size_t>(d.size(), ZEL_TFTP_PACKET_SIZE));
        model.receive(received, source != 2);
        if (lossy) continue;
        require(h.written == model.data);
        if (!h.resetInCallback || !model.done()) {
            require(request->state == model.state);
            require(request->bytes_transferred == model.data.size());
        }
    }

    const uint32_t state = request->state;
    if (state == ZEL_TFTP_CLIENT_REQUEST_STATE_COMPLETED || state == ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR) {
        // An ended request holds no socket and no timers.
        require(request->socket == -1 && request->retry_timer == nullptr && request->abort_timer == nullptr);
    }
    if (!lossy && model.done()) {
        require(h.endState == model.state && h.endBytes == model.data.size());
        if (model.state == ZEL_TFTP_CLIENT_REQUEST_STATE_ERROR) require(h.endError == model.error);
    }
    zel_tftp_client_request__reset(request);
    require(request->state == ZEL_TFTP_CLIENT_REQUEST_STATE_NONE && request->socket == -1);

    // The client answers only the server's host.
    require(drain(h.foreignFd) == 0);
    drain(h.listenFd);
    drain(h.transferFd);
    return 0;
}
