// Two small jobs inside the test guest that busybox cannot do there:
//   guest_helper settime EPOCH   set the clock, also past 2038 (64-bit time_t)
//   guest_helper tftp-junk PORT  answer the first datagram on 127.0.0.1:PORT
//                                with a malformed 2-byte DATA packet, then a
//                                TFTP "File not found" error
// Built statically for the board by scripts/real-kernel.sh.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

int setTime(const char* text) {
    char* end = nullptr;
    errno = 0;
    const long long seconds = std::strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') {
        std::fprintf(stderr, "guest_helper: bad time %s\n", text);
        return 2;
    }
    timespec now{};
    now.tv_sec = static_cast<time_t>(seconds);
    static_assert(sizeof(time_t) == 8, "built without a 64-bit time_t");
    if (clock_settime(CLOCK_REALTIME, &now) != 0) {
        std::perror("guest_helper: clock_settime");
        return 1;
    }
    return 0;
}

int tftpJunk(const char* portText) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        std::perror("guest_helper: socket");
        return 1;
    }
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_port = htons(static_cast<uint16_t>(std::atoi(portText)));
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&self), sizeof self) != 0) {
        std::perror("guest_helper: bind");
        ::close(fd);
        return 1;
    }
    std::puts("listening");
    std::fflush(stdout);
    char request[600];
    sockaddr_in peer{};
    socklen_t peerLength = sizeof peer;
    if (::recvfrom(fd, request, sizeof request, 0, reinterpret_cast<sockaddr*>(&peer), &peerLength) < 0) {
        std::perror("guest_helper: recvfrom");
        ::close(fd);
        return 1;
    }
    const unsigned char junk[2] = {0, 3};
    const unsigned char notFound[] = {0, 5, 0, 1, 'F', 'i', 'l', 'e', ' ', 'n', 'o', 't', ' ', 'f', 'o', 'u', 'n', 'd', 0};
    const sockaddr* to = reinterpret_cast<const sockaddr*>(&peer);
    const bool sent = ::sendto(fd, junk, sizeof junk, 0, to, peerLength) == sizeof junk &&
                      ::sendto(fd, notFound, sizeof notFound, 0, to, peerLength) == sizeof notFound;
    ::close(fd);
    if (!sent) {
        std::perror("guest_helper: sendto");
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "settime") == 0) return setTime(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "tftp-junk") == 0) return tftpJunk(argv[2]);
    std::fprintf(stderr, "usage: guest_helper settime EPOCH | tftp-junk PORT\n");
    return 2;
}
