// A small program for flashsim's own tests (test_flashsim runs it on
// simulated boards): it performs, in order, the operations named on its
// command line the way a C++ program on the board does (open/ioctl/write on
// /dev/flash/<name>, a socket ioctl for the PHY, file streams and rename on
// the /tmp files) and prints one line per operation: the operation's name,
// its result and, on failure, the errno name. It has the operations the
// tests use, no more.
// The request numbers are written out here, not taken from flashsim's headers,
// so the tests check the simulator against the board's real numbers.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <mtd/mtd-abi.h>
#include <sys/stat.h>
#include <net/if.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr unsigned long kMemGetInfo = 0x80204D01;
constexpr unsigned long kMemErase = 0x40084D02;
constexpr unsigned long kMemLockCtl = 0xC00C4D41;
constexpr unsigned long kPhyRequest = 0x89F5;
constexpr unsigned long kMemGetBadBlock = 0x40084D0B;
constexpr unsigned long kMemSetBadBlock = 0x40084D0C;
constexpr unsigned long kEccGetStats = 0x80104D12;

struct LockCtl {
    uint8_t lock;
    uint8_t pad[3];
    uint32_t start;
    uint32_t length;
};
static_assert(sizeof(LockCtl) == 12, "lock-control record");
static_assert(sizeof(mtd_info_user) == 32 && sizeof(erase_info_user) == 8, "MTD records");
static_assert(MEMGETINFO == kMemGetInfo && MEMERASE == kMemErase, "MTD request numbers");
static_assert(MEMGETBADBLOCK == kMemGetBadBlock && MEMSETBADBLOCK == kMemSetBadBlock && ECCGETSTATS == kEccGetStats,
              "NAND request numbers");

// Any value a correct library leaves alone on success.
constexpr int kErrnoSentinel = EDOM;

std::string errnoName(int e) {
    switch (e) {
        case EPERM: return "EPERM";
        case ENOENT: return "ENOENT";
        case EIO: return "EIO";
        case EBADF: return "EBADF";
        case EFAULT: return "EFAULT";
        case EEXIST: return "EEXIST";
        case ENODEV: return "ENODEV";
        case EINVAL: return "EINVAL";
        case ENOSPC: return "ENOSPC";
        case ENOTTY: return "ENOTTY";
        case EOPNOTSUPP: return "EOPNOTSUPP";
        default: return "E" + std::to_string(e);
    }
}

// "<op> <result>", the errno name when it failed, a marker when a successful
// call changed errno.
void report(const std::string& op, long long result, const std::string& extra = "") {
    const int e = errno;
    std::printf("%s %lld", op.c_str(), result);
    if (result < 0) std::printf(" %s", errnoName(e).c_str());
    if (result >= 0 && e != kErrnoSentinel) std::printf(" ERRNO-CLOBBERED");
    if (!extra.empty()) std::printf(" %s", extra.c_str());
    std::printf("\n");
}

std::string devicePath(const std::string& name) { return name[0] == '/' ? name : "/dev/flash/" + name; }

int openMode(const std::string& m) { return m == "ro" ? O_RDONLY : m == "wo" ? O_WRONLY : O_RDWR; }

unsigned long number(const std::string& s) { return std::strtoul(s.c_str(), nullptr, 0); }

class Client {
public:
    // Runs the operation at args[i]; returns the index after its arguments.
    size_t step(const std::vector<std::string>& a, size_t i) {
        const std::string& op = a[i];
        auto arg = [&](size_t k) -> const std::string& {
            if (i + k >= a.size()) {
                std::fprintf(stderr, "testclient: %s needs %zu arguments\n", op.c_str(), k);
                std::exit(2);
            }
            return a[i + k];
        };
        errno = kErrnoSentinel;
        if (op == "open") {
            fd_ = ::open(devicePath(arg(1)).c_str(), openMode(arg(2)));
            report(op, fd_ < 0 ? -1 : 0);
            return i + 3;
        }
        if (op == "close") {
            report(op, ::close(fd_));
            fd_ = -1;
            return i + 1;
        }
        if (op == "getinfo") {
            mtd_info_user info;
            std::memset(&info, 0xA5, sizeof info);
            const int r = ::ioctl(fd_, kMemGetInfo, &info);
            char extra[160] = "";
            if (r >= 0) {
                std::snprintf(extra, sizeof extra, "type=%u flags=0x%x size=%u erasesize=%u writesize=%u oobsize=%u",
                              info.type, info.flags, info.size, info.erasesize, info.writesize, info.oobsize);
            }
            report(op, r, extra);
            return i + 1;
        }
        if (op == "erase") {
            erase_info_user e{static_cast<uint32_t>(number(arg(1))), static_cast<uint32_t>(number(arg(2)))};
            report(op, ::ioctl(fd_, kMemErase, &e));
            return i + 3;
        }
        if (op == "isbad" || op == "markbad") {  // OFFSET
            int64_t offset = static_cast<int64_t>(number(arg(1)));
            report(op, ::ioctl(fd_, op == "isbad" ? kMemGetBadBlock : kMemSetBadBlock, &offset));
            return i + 2;
        }
        if (op == "eccstats") {
            mtd_ecc_stats stats;
            std::memset(&stats, 0xA5, sizeof stats);
            const int r = ::ioctl(fd_, kEccGetStats, &stats);
            char extra[96] = "";
            if (r >= 0) {
                std::snprintf(extra, sizeof extra, "corrected=%u failed=%u badblocks=%u bbtblocks=%u", stats.corrected,
                              stats.failed, stats.badblocks, stats.bbtblocks);
            }
            report(op, r, extra);
            return i + 1;
        }
        if (op == "lockctl") {
            LockCtl c{static_cast<uint8_t>(number(arg(1))), {0, 0, 0}, static_cast<uint32_t>(number(arg(2))),
                      static_cast<uint32_t>(number(arg(3)))};
            report(op, ::ioctl(fd_, kMemLockCtl, &c));
            return i + 4;
        }
        if (op == "write") {  // LENGTH BYTE
            const std::vector<uint8_t> data(number(arg(1)), static_cast<uint8_t>(number(arg(2))));
            report(op, ::write(fd_, data.data(), data.size()));
            return i + 3;
        }
        if (op == "seek") {
            report(op, ::lseek(fd_, static_cast<off_t>(std::strtoll(arg(1).c_str(), nullptr, 0)), SEEK_SET));
            return i + 2;
        }
        if (op == "phy") {  // [IFNAME]
            const bool named = i + 1 < a.size() && a[i + 1].rfind("if=", 0) == 0;
            const std::string name = named ? a[i + 1].substr(3) : "eth0";
            const int s = ::socket(AF_INET, SOCK_DGRAM, 0);
            ifreq request;
            std::memset(&request, 0, sizeof request);
            std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
            uint16_t id = 0xBEEF;  // left as it is when the driver does not answer
            request.ifr_data = reinterpret_cast<char*>(&id);
            errno = kErrnoSentinel;
            const int r = ::ioctl(s, kPhyRequest, &request);
            const int e = errno;
            ::close(s);
            errno = e;
            char extra[32];
            std::snprintf(extra, sizeof extra, "id=0x%04x", id);
            report(op, r, extra);
            return i + (named ? 2 : 1);
        }
        if (op == "ofstream") {  // PATH TEXT: written with truncation
            std::ofstream out(arg(1), std::ios::binary | std::ios::trunc);
            out << arg(2);
            out.close();
            report(op, out ? 0 : -1);
            return i + 3;
        }
        if (op == "ifstream") {  // PATH: prints the content
            std::ifstream in(arg(1), std::ios::binary);
            std::ostringstream content;
            content << in.rdbuf();
            report(op, in ? 0 : -1, in ? "[" + content.str() + "]" : "");
            return i + 2;
        }
        if (op == "rename") {
            report(op, std::rename(arg(1).c_str(), arg(2).c_str()));
            return i + 3;
        }
        if (op == "exists") {
            const int r = ::access(arg(1).c_str(), F_OK);
            errno = kErrnoSentinel;
            report(op, r == 0 ? 1 : 0);
            return i + 2;
        }
        if (step_tmp(op, arg)) return i + tmpArgs(op);
        std::fprintf(stderr, "testclient: unknown operation %s\n", op.c_str());
        std::exit(2);
    }

private:
    // Ways of making files in /tmp; each that opens one keeps it as the
    // descriptor the other operations use.
    static size_t tmpArgs(const std::string& op) {
        return op == "tmpfile" || op == "where" ? 1 : op == "link" || op == "symlink" ? 3 : 2;
    }
    template <typename Arg>
    bool step_tmp(const std::string& op, Arg arg) {
        if (op == "mkstemp") {  // TEMPLATE: prints it with the generated characters as #
            std::string name = arg(1);
            fd_ = ::mkstemp(&name[0]);
            report(op, fd_ < 0 ? -1 : 0, generatedMasked(arg(1), name));
        } else if (op == "tmpfile") {
            FILE* f = std::tmpfile();  // left open: the process ends soon
            fd_ = f != nullptr ? fileno(f) : -1;
            report(op, fd_ < 0 ? -1 : 0);
        } else if (op == "otmpfile") {  // FOLDER
            fd_ = ::open(arg(1).c_str(), O_TMPFILE | O_RDWR, 0600);
            report(op, fd_ < 0 ? -1 : 0);
        } else if (op == "linkfd") {  // PATH: names the descriptor's file, as an unprivileged program can
            const std::string self = "/proc/self/fd/" + std::to_string(fd_);
            report(op, ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, arg(1).c_str(), AT_SYMLINK_FOLLOW));
        } else if (op == "link") {
            report(op, ::link(arg(1).c_str(), arg(2).c_str()));
        } else if (op == "symlink") {  // TARGET PATH
            report(op, ::symlink(arg(1).c_str(), arg(2).c_str()));
        } else if (op == "mkdir") {
            report(op, ::mkdir(arg(1).c_str(), 0755));
        } else if (op == "where") {  // is the descriptor's file in the board's /tmp?
            const std::string self = "/proc/self/fd/" + std::to_string(fd_);
            char target[4096] = "";
            const ssize_t n = ::readlink(self.c_str(), target, sizeof target - 1);
            const char* board = std::getenv("FLASHSIM_BOARD");
            const std::string tmp = std::string(board != nullptr ? board : "?") + "/tmp/";
            errno = kErrnoSentinel;
            report(op, n < 0 ? -1 : 0, std::string(target).rfind(tmp, 0) == 0 ? "board" : "elsewhere");
        } else {
            return false;
        }
        return true;
    }
    static std::string generatedMasked(const std::string& before, std::string after) {
        const std::size_t x = before.rfind("XXXXXX");
        if (x != std::string::npos && after.size() == before.size() && after.compare(x, 6, "XXXXXX") != 0) {
            after.replace(x, 6, "######");
        }
        return after;
    }

    int fd_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    Client client;
    for (size_t i = 0; i < args.size();) i = client.step(args, i);
    return 0;
}
