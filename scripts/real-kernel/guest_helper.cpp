// Small jobs inside the test guest that busybox cannot do there:
//   guest_helper settime EPOCH   set the clock, also past 2038 (64-bit time_t)
//   guest_helper tftp-junk PORT  answer the first datagram on 127.0.0.1:PORT
//                                with a malformed 2-byte DATA packet, then a
//                                TFTP "File not found" error
//   guest_helper good MTD        write the good blocks of MTD to standard
//                                output in order, skipping the bad ones, as
//                                the kernel's bad-block-aware readers do;
//                                status 3 when the read met an ECC error the
//                                chip could not correct
//   guest_helper bad MTD         print the numbers of MTD's bad blocks
//   guest_helper ecc MTD         print MTD's ECC counters: corrected failed
//   guest_helper time FILE CMD.. run CMD, write its wall time in microseconds
//                                to FILE and exit with its status
//   guest_helper diffcopy FILE MTD  copy FILE into MTD the way mtd-utils'
//                                `flashcp -p` does once its buffers hold a
//                                whole erase block: per block, read the file
//                                and the flash and compare; erase, write and
//                                read back only a block that differs. (Debian
//                                12's flashcp -p reads blocks into 10 KiB
//                                buffers and crashes on 64 KiB ones.)
// Built statically for the board by scripts/real-kernel.sh.
#include <arpa/inet.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

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

// An open MTD device with its geometry; fd < 0 when opening failed (said).
struct Mtd {
    int fd = -1;
    mtd_info_user info{};
    explicit Mtd(const char* path) : fd(::open(path, O_RDONLY)) {
        if (fd < 0) {
            std::perror(path);
        } else if (::ioctl(fd, MEMGETINFO, &info) != 0 || info.erasesize == 0) {
            std::perror("guest_helper: MEMGETINFO");
            ::close(fd);
            fd = -1;
        }
    }
    ~Mtd() {
        if (fd >= 0) ::close(fd);
    }
    Mtd(const Mtd&) = delete;
    Mtd& operator=(const Mtd&) = delete;
    uint32_t blocks() const { return info.size / info.erasesize; }
    // A driver without bad blocks (NOR, RAM) answers 0 for every block.
    bool bad(uint32_t block) const {
        loff_t offset = static_cast<loff_t>(block) * info.erasesize;
        return ::ioctl(fd, MEMGETBADBLOCK, &offset) > 0;
    }
    bool stats(mtd_ecc_stats* out) const {
        *out = mtd_ecc_stats{};
        return ::ioctl(fd, ECCGETSTATS, out) == 0;
    }
};

int goodBlocks(const char* path) {
    Mtd mtd(path);
    if (mtd.fd < 0) return 1;
    mtd_ecc_stats before{};
    const bool counted = mtd.stats(&before);
    std::vector<char> block(mtd.info.erasesize);
    for (uint32_t i = 0; i < mtd.blocks(); ++i) {
        if (mtd.bad(i)) continue;
        const off_t at = static_cast<off_t>(i) * mtd.info.erasesize;
        // The MTD character device hands out a page whose ECC failed as if
        // all were well: only the counters below tell.
        if (::pread(mtd.fd, block.data(), block.size(), at) != static_cast<ssize_t>(block.size()) ||
            std::fwrite(block.data(), 1, block.size(), stdout) != block.size()) {
            std::fprintf(stderr, "guest_helper: cannot read block %u of %s\n", i, path);
            return 1;
        }
    }
    std::fflush(stdout);
    mtd_ecc_stats after{};
    if (counted && mtd.stats(&after) && after.failed != before.failed) {
        std::fprintf(stderr, "guest_helper: %u uncorrectable ECC errors reading %s\n", after.failed - before.failed,
                     path);
        return 3;
    }
    return 0;
}

int badBlocks(const char* path) {
    Mtd mtd(path);
    if (mtd.fd < 0) return 1;
    const char* separator = "";
    for (uint32_t i = 0; i < mtd.blocks(); ++i) {
        if (mtd.bad(i)) {
            std::printf("%s%u", separator, i);
            separator = " ";
        }
    }
    std::printf("\n");
    return 0;
}

int eccCounters(const char* path) {
    Mtd mtd(path);
    if (mtd.fd < 0) return 1;
    mtd_ecc_stats stats{};
    if (!mtd.stats(&stats)) {
        std::perror("guest_helper: ECCGETSTATS");
        return 1;
    }
    std::printf("%u %u\n", stats.corrected, stats.failed);
    return 0;
}

int diffCopy(const char* file, const char* path) {
    const int data = ::open(file, O_RDONLY);
    if (data < 0) {
        std::perror(file);
        return 1;
    }
    struct stat status {};
    if (::fstat(data, &status) != 0) {
        std::perror(file);
        ::close(data);
        return 1;
    }
    const int fd = ::open(path, O_RDWR | O_SYNC);
    mtd_info_user info{};
    if (fd < 0 || ::ioctl(fd, MEMGETINFO, &info) != 0 || info.erasesize == 0 || status.st_size > info.size) {
        std::fprintf(stderr, "guest_helper: %s is no MTD device that %s fits into\n", path, file);
        if (fd >= 0) ::close(fd);
        ::close(data);
        return 1;
    }
    std::vector<char> want(info.erasesize);
    std::vector<char> have(info.erasesize);
    int result = 0;
    for (off_t at = 0; at < status.st_size && result == 0; at += info.erasesize) {
        const size_t n = static_cast<size_t>(std::min<off_t>(info.erasesize, status.st_size - at));
        const ssize_t size = static_cast<ssize_t>(n);
        if (::pread(data, want.data(), n, at) != size || ::pread(fd, have.data(), n, at) != size) {
            result = 1;
        } else if (std::memcmp(want.data(), have.data(), n) != 0) {
            erase_info_user erase{static_cast<uint32_t>(at), info.erasesize};
            if (::ioctl(fd, MEMERASE, &erase) != 0 || ::pwrite(fd, want.data(), n, at) != size ||
                ::pread(fd, have.data(), n, at) != size || std::memcmp(want.data(), have.data(), n) != 0) {
                result = 1;
            }
        }
        if (result != 0) std::fprintf(stderr, "guest_helper: copying block at %lld failed\n", static_cast<long long>(at));
    }
    ::close(fd);
    ::close(data);
    return result;
}

long long microseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int timed(const char* file, char** command) {
    const long long start = microseconds();
    const pid_t child = ::fork();
    if (child < 0) {
        std::perror("guest_helper: fork");
        return 1;
    }
    if (child == 0) {
        ::execvp(command[0], command);
        std::perror(command[0]);
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            std::perror("guest_helper: waitpid");
            return 1;
        }
    }
    const long long elapsed = microseconds() - start;
    FILE* out = std::fopen(file, "w");
    if (out == nullptr || std::fprintf(out, "%lld\n", elapsed) < 0 || std::fclose(out) != 0) {
        std::perror(file);
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "settime") == 0) return setTime(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "tftp-junk") == 0) return tftpJunk(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "good") == 0) return goodBlocks(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "bad") == 0) return badBlocks(argv[2]);
    if (argc == 3 && std::strcmp(argv[1], "ecc") == 0) return eccCounters(argv[2]);
    if (argc >= 4 && std::strcmp(argv[1], "time") == 0) return timed(argv[2], argv + 3);
    if (argc == 4 && std::strcmp(argv[1], "diffcopy") == 0) return diffCopy(argv[2], argv[3]);
    std::fprintf(stderr,
                 "usage: guest_helper settime EPOCH | tftp-junk PORT | good MTD | bad MTD | ecc MTD |"
                 " time FILE COMMAND... | diffcopy FILE MTD\n");
    return 2;
}
