// What an unprivileged user of the board (uid 65534, "nobody") and a hostile
// TFTP server can try against an upgrade, each row on a private flashsim
// board with the real brivlo running as root, keys and signatures made by
// the real minisign. Every row must end as the operator expects: the upgrade
// goes through untouched by the attacker, or it is refused with a clear
// message before anything is erased; never a hang, never the attacker's bytes
// in flash. Rows that play nobody need root and skip without it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/tftpd.h"
#include "package_fixture.h"
#include "release_keys.h"

namespace {

using e2e::Board;
using testutil::ProcessResult;

constexpr uid_t kNobody = 65534;
constexpr double kQuick = 20.0;  // seconds; a row that hangs is killed after this

// A process of the attacker: forked from the test, dropped to nobody, runs
// `act` and stays alive holding whatever it opened until the object goes.
class Attacker {
public:
    explicit Attacker(const std::function<bool()>& act) {
        int result[2];
        if (::pipe(result) != 0 || ::pipe(release_) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(result[0]);
            ::close(release_[1]);
            const bool dropped = ::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
            const char ok = dropped && act() ? 1 : 0;
            (void)!::write(result[1], &ok, 1);
            char none;
            (void)!::read(release_[0], &none, 1);  // until the test lets go
            _exit(0);
        }
        ::close(result[1]);
        ::close(release_[0]);
        char ok = 0;
        succeeded_ = ::read(result[0], &ok, 1) == 1 && ok == 1;
        ::close(result[0]);
    }
    ~Attacker() {
        ::close(release_[1]);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    Attacker(const Attacker&) = delete;
    Attacker& operator=(const Attacker&) = delete;

    bool succeeded() const { return succeeded_; }

private:
    pid_t pid_ = -1;
    int release_[2] = {-1, -1};
    bool succeeded_ = false;
};

// What one row leaves behind for the checks.
struct Scene {
    Board board{{"--part", "fpga=4M", "--fault", "fpga:slow-erase:50"}};
    testutil::Tftpd tftpd;
    ProcessResult run;
    std::string expectedInFpga;        // bytes fpga must start with; empty: fpga untouched
    std::string path;                  // the firmware path as brivlo names it
    std::vector<int> queries;          // -S answers seen while the upgrade ran
    long peakKiB = 0;                  // brivlo's peak resident set
    std::string tftpUrl() const { return "tftp://127.0.0.1:" + std::to_string(tftpd.port()); }
};

// The scratch directory and the board become reachable for nobody (a test
// directory is private to root), as the files of a real board would be.
void openToNobody(const Board& board) {
    const std::string scratch = board.scratch("");
    for (const std::string& dir : {scratch, board.dir()}) ASSERT_EQ(::chmod(dir.c_str(), 0755), 0) << dir;
}

void giveToNobody(const std::string& path, mode_t mode) {
    ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

// Whether process `pid` (of root's, which nobody cannot wait for) still runs.
bool alive(pid_t pid) {
    const std::string stat = testutil::readFile("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

ProcessResult brivlo(const Scene& s, const std::vector<std::string>& args) {
    return s.board.brivlo(args, kQuick);
}

// A signed raw image and its key: the release an attacker got hold of.
struct Release {
    e2e::KeyPair key;
    std::string firmware;
};
Release signedRelease(const Board& board, e2e::Tool tool, const std::string& data) {
    Release r{e2e::makeKeys(board, e2e::Tool::kMinisign, "release"), board.scratch("release.bin")};
    testutil::writeFile(r.firmware, data);
    e2e::sign({tool, r.key.pub, r.key.sec}, r.firmware);
    return r;
}

// The release's prehashed signature relabelled as legacy ("ED" to "Ed")
// beside a 64-byte file holding the hash it signs.
std::string relabelledOverHash(const Board& board, const Release& r) {
    const ProcessResult sum = testutil::runProcess({"/usr/bin/b2sum", r.firmware});
    std::string hash;
    for (std::size_t i = 0; i < 128; i += 2) hash += static_cast<char>(std::stoi(sum.out.substr(i, 2), nullptr, 16));
    const std::string forged = board.scratch("forged.bin");
    testutil::writeFile(forged, hash);
    std::string sig = testutil::readFile(r.firmware + ".minisig");
    const std::size_t line = sig.find('\n') + 1;
    EXPECT_EQ(sig.substr(line, 2), "RU");
    sig[line + 1] = 'W';
    testutil::writeFile(forged + ".minisig", sig);
    return forged;
}

// ---- The rows.

void lockHeldByNobody(Scene& s) {
    openToNobody(s.board);
    s.expectedInFpga = e2e::randomBytes(70000, 1);
    s.path = s.board.scratch("fw.bin");
    testutil::writeFile(s.path, s.expectedInFpga);
    // One upgrade first, so the lock file exists for nobody to try.
    ASSERT_EQ(brivlo(s, {"local", s.path, "fpga"}).status, 0);
    const std::string flashDir = s.board.file("flash");
    const std::string lockFile = s.board.file("run/brivlo.lock");
    Attacker nobody([&] {
        // Every lock nobody can open: the device folder, and the lock file
        // if it could be opened at all.
        const int dir = ::open(flashDir.c_str(), O_RDONLY | O_DIRECTORY);
        const int file = ::open(lockFile.c_str(), O_RDONLY);
        if (file >= 0) ::flock(file, LOCK_EX | LOCK_NB);
        return dir >= 0 && ::flock(dir, LOCK_EX | LOCK_NB) == 0 && file < 0;
    });
    EXPECT_TRUE(nobody.succeeded()) << "nobody could open the lock file, or not even the folder";
    s.run = brivlo(s, {"local", s.path, "fpga"});
}

void relabelledSignatureLocal(Scene& s) {
    const Release r = signedRelease(s.board, e2e::Tool::kMinisign, e2e::randomBytes(70000, 2));
    s.path = relabelledOverHash(s.board, r);
    s.run = brivlo(s, {"local", s.path, "boot", "-K", r.key.pub});
}

void relabelledSignatureTftp(Scene& s) {
    const Release r = signedRelease(s.board, e2e::Tool::kMinisign, e2e::randomBytes(70000, 3));
    const std::string forged = relabelledOverHash(s.board, r);
    s.tftpd.addFile("fw.bin", testutil::readFile(forged));
    s.tftpd.addFile("fw.bin.minisig", testutil::readFile(forged + ".minisig"));
    s.path = "fw.bin";
    s.run = brivlo(s, {s.tftpUrl(), "fw.bin", "boot", "-K", r.key.pub});
}

void legacySignature(Scene& s) {
    const Release r = signedRelease(s.board, e2e::Tool::kMinisignLegacy, e2e::randomBytes(70000, 4));
    s.path = r.firmware;
    s.run = brivlo(s, {"local", s.path, "fpga", "-K", r.key.pub});
}

void legacySignatureWithoutComment(Scene& s) {
    const Release r = signedRelease(s.board, e2e::Tool::kMinisignLegacy, e2e::randomBytes(70000, 5));
    const std::string sig = testutil::readFile(r.firmware + ".minisig");
    testutil::writeFile(r.firmware + ".minisig", sig.substr(0, sig.find("\ntrusted comment: ") + 1));
    s.path = r.firmware;
    s.run = brivlo(s, {"local", s.path, "fpga", "-K", r.key.pub});
}

// The owner of a signed package (not root) rewrites its second part in place
// once the first part is being written.
void signedPackageRewrittenByOwner(Scene& s) {
    openToNobody(s.board);
    const e2e::KeyPair key = e2e::makeKeys(s.board, e2e::Tool::kMinisign, "release");
    const std::string config = e2e::randomBytes(30000, 7);
    s.path = e2e::buildPackage(
        s.board, {e2e::kLocalDeviceCode, "", {{"fpga", "1.0.0.0", e2e::randomBytes(300000, 6)}, {"config", "1.0.0.0", config}}, {}});
    e2e::sign(key, s.path);
    giveToNobody(s.path, 0644);
    const std::size_t at = testutil::readFile(s.path).find(config);
    ASSERT_NE(at, std::string::npos);
    const std::string status = s.board.statusPath();
    const std::string package = s.path;
    auto run = s.board.startBrivlo({"local", s.path, "qim", "-K", key.pub}, kQuick);
    const pid_t brivloPid = run->pid();
    Attacker owner([&] {
        const int fd = ::open(package.c_str(), O_RDWR);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            std::string now;
            const int in = ::open(status.c_str(), O_RDONLY | O_NONBLOCK);
            if (in >= 0) {
                char buf[64];
                const ssize_t got = ::read(in, buf, sizeof buf);
                ::close(in);
                if (got > 0) now.assign(buf, static_cast<std::size_t>(got));
            }
            if (now.rfind("status=2", 0) == 0) {
                const std::string evil(config.size(), 'X');
                return ::pwrite(fd, evil.data(), evil.size(), static_cast<off_t>(at)) ==
                       static_cast<ssize_t>(evil.size());
            }
            if (!alive(brivloPid)) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    });
    s.run = run->wait();
    const std::string flashed = s.board.partition("config").substr(0, config.size());
    EXPECT_TRUE(s.run.status != 0 || flashed == config) << "the owner's bytes were flashed";
}

// The release key file replaced by the attacker's own key, which signed the
// attacker's image.
void keyWritableByNobody(Scene& s, bool ownedByNobody) {
    openToNobody(s.board);
    const e2e::KeyPair release = e2e::makeKeys(s.board, e2e::Tool::kMinisign, "release");
    const e2e::KeyPair own = e2e::makeKeys(s.board, e2e::Tool::kMinisign, "attacker");
    if (ownedByNobody) {
        giveToNobody(release.pub, 0644);
    } else {
        ASSERT_EQ(::chmod(release.pub.c_str(), 0666), 0);
    }
    s.path = s.board.scratch("evil.bin");
    testutil::writeFile(s.path, e2e::randomBytes(70000, 8));
    e2e::sign(own, s.path);
    const std::string replacement = testutil::readFile(own.pub);
    const std::string keyPath = release.pub;
    Attacker nobody([&] {
        const int fd = ::open(keyPath.c_str(), O_WRONLY | O_TRUNC);
        return fd >= 0 && ::write(fd, replacement.data(), replacement.size()) == static_cast<ssize_t>(replacement.size());
    });
    ASSERT_TRUE(nobody.succeeded());
    s.run = brivlo(s, {"local", s.path, "fpga", "-K", keyPath});
}

void worldWritableKey(Scene& s) { keyWritableByNobody(s, false); }
void nobodyOwnedKey(Scene& s) { keyWritableByNobody(s, true); }

// What stands at the local path: made by nobody, in a folder of nobody's.
enum class Thing { kFifo, kDevZero, kDirectory };
void localThing(Scene& s, Thing thing, bool package) {
    const std::string name = package ? "fw.qim" : "fw.bin";
    s.path = s.board.scratch(name);
    if (thing == Thing::kFifo) {
        ASSERT_EQ(::mkfifo(s.path.c_str(), 0666), 0);
    }
    if (thing == Thing::kDirectory) {
        ASSERT_EQ(::mkdir(s.path.c_str(), 0777), 0);
    }
    if (thing == Thing::kDevZero) {
        // The link is nobody's; /dev/zero itself is left alone.
        ASSERT_EQ(::symlink("/dev/zero", s.path.c_str()), 0);
        ASSERT_EQ(::lchown(s.path.c_str(), kNobody, kNobody), 0);
    } else {
        giveToNobody(s.path, 0666);
    }
    s.run = brivlo(s, {"local", s.path, package ? "qim" : "fpga"});
}

// A directory of nobody's with a file in it at one of brivlo's fixed names
// in /tmp, which root cannot remove; a package over TFTP, polled with -S.
void squattedTmpName(Scene& s, const std::string& name) {
    const std::string dir = s.board.file("tmp/" + name);
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    testutil::writeFile(dir + "/keep", "x");
    giveToNobody(dir + "/keep", 0644);
    giveToNobody(dir, 0755);
    s.expectedInFpga = e2e::randomBytes(400000, 9);
    const std::string package = e2e::buildPackage(s.board, {e2e::kLocalDeviceCode, "", {{"fpga", "1.0.0.0", s.expectedInFpga}}, {}});
    s.tftpd.addFile("fw.qim", testutil::readFile(package));
    auto run = s.board.startBrivlo({s.tftpUrl(), "fw.qim", "qim"}, kQuick);
    while (run->running()) s.queries.push_back(s.board.brivlo({"-S"}).status);
    s.run = run->wait();
}

// brivlo's own peak stays under 16 MiB. AddressSanitizer's shadow memory, or
// qemu-arm's own memory (the ARM build runs under it here), adds tens of MiB
// to any run; a file read into memory would still be 3 GiB above the bound.
#if defined(__SANITIZE_ADDRESS__) || defined(__arm__)
constexpr long kPeakKiBLimit = 256 * 1024;
#else
constexpr long kPeakKiBLimit = 16 * 1024;
#endif

// A 3 GiB sparse file for the 4 MiB partition fpga, run in a child of its
// own so that the peak resident set of its children is brivlo's alone.
void sparseFileLargerThanPartition(Scene& s) {
    s.path = s.board.scratch("huge.bin");
    const int fd = ::open(s.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 3LL << 30), 0);
    ::close(fd);
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        const ProcessResult r = brivlo(s, {"local", s.path, "fpga"});
        struct rusage usage {};
        ::getrusage(RUSAGE_CHILDREN, &usage);
        const std::string report = std::to_string(r.status) + " " + std::to_string(usage.ru_maxrss) + "\n" + r.err;
        (void)!::write(pipeFds[1], report.data(), report.size());
        _exit(0);
    }
    ::close(pipeFds[1]);
    std::string report;
    char buf[4096];
    ssize_t got;
    while ((got = ::read(pipeFds[0], buf, sizeof buf)) > 0) report.append(buf, static_cast<std::size_t>(got));
    ::close(pipeFds[0]);
    ::waitpid(pid, nullptr, 0);
    const std::size_t blank = report.find(' ');
    const std::size_t newline = report.find('\n');
    ASSERT_NE(newline, std::string::npos) << report;
    s.run.status = std::stoi(report.substr(0, blank));
    s.peakKiB = std::stol(report.substr(blank + 1, newline - blank - 1));
    s.run.err = report.substr(newline + 1);
}

struct AttackCase {
    const char* name;
    std::function<void(Scene&)> attack;
    int status;
    // The end of the last refusal line of standard error ("PATH" stands for
    // the firmware path as brivlo names it); empty: nothing on it but what
    // `errStart` says.
    std::string errEnd;
    std::string errStart;  // what standard error begins with (PATH as above)
};
void PrintTo(const AttackCase& c, std::ostream* os) { *os << c.name; }

std::string withPath(std::string text, const std::string& path) {
    const std::size_t at = text.find("PATH");
    return at == std::string::npos ? text : text.replace(at, 4, path);
}

class Attack : public ::testing::TestWithParam<AttackCase> {};

TEST_P(Attack, UpgradeUntouchedOrRefusedBeforeAnyErase) {
    const AttackCase& c = GetParam();
    if (::geteuid() != 0) GTEST_SKIP() << "playing another user needs root";
    Scene s;
    c.attack(s);
    if (HasFatalFailure()) return;
    EXPECT_FALSE(s.run.timedOut) << "brivlo hung";
    EXPECT_EQ(s.run.status, c.status) << s.run.err;
    if (!c.errStart.empty()) {
        EXPECT_EQ(s.run.err.rfind(withPath(c.errStart, s.path), 0), 0u) << s.run.err;
    }
    if (!c.errEnd.empty()) {
        const std::string end = withPath(c.errEnd, s.path);
        EXPECT_TRUE(s.run.err.size() >= end.size() && s.run.err.compare(s.run.err.size() - end.size(), end.size(), end) == 0)
            << s.run.err;
    }
    if (c.errStart.empty() && c.errEnd.empty()) {
        EXPECT_EQ(s.run.err, "");
    }
    if (s.expectedInFpga.empty()) {
        EXPECT_TRUE(s.board.logLines("erase ").empty()) << "erased";
        EXPECT_TRUE(s.board.logLines("write ").empty()) << "written";
    } else {
        EXPECT_TRUE(s.board.partition("fpga").substr(0, s.expectedInFpga.size()) == s.expectedInFpga);
    }
    if (!s.queries.empty()) {
        EXPECT_GE(*std::max_element(s.queries.begin(), s.queries.end()), 200) << "-S never saw the package written";
    }
    if (s.peakKiB != 0) {
        EXPECT_LT(s.peakKiB, kPeakKiBLimit) << "peak resident set in KiB";
    }
    EXPECT_FALSE(s.board.statusExists());
}

const std::string kLegacy =
    "legacy minisign signature (minisign -l) refused: sign with minisign's default prehashed signatures\n";
const std::string kUnreadable = "Error reading from file PATH\n";
const std::string kPackageUnreadable = "Failed to write QIM file. Exiting.\n";
std::string squatted(const std::string& name) {
    return "main: /tmp/" + name + " could not be removed; moved aside to /tmp/" + name + ".";
}

const AttackCase kAttacks[] = {
    {"LockHeldByNobody", lockHeldByNobody, 0, "", ""},
    {"RelabelledSignatureOverHashLocal", relabelledSignatureLocal, 14, kLegacy, ""},
    {"RelabelledSignatureOverHashTftp", relabelledSignatureTftp, 14, kLegacy, ""},
    {"LegacySignature", legacySignature, 14, kLegacy, ""},
    {"LegacySignatureWithoutComment", legacySignatureWithoutComment, 14,
     "signature without a trusted comment refused: a minisign key takes only minisign's prehashed signatures\n", ""},
    {"SignedPackageRewrittenByOwner", signedPackageRewrittenByOwner, 14,
     "firmware file owned by user 65534: only a file nobody else can write is flashed\n" + kPackageUnreadable, ""},
    {"WorldWritableKey", worldWritableKey, 14,
     "cannot be used: writable by group or others (mode 0666): only a key file nobody else can write is trusted\n", ""},
    {"NobodyOwnedKey", nobodyOwnedKey, 14,
     "cannot be used: owned by user 65534: only a key file nobody else can write is trusted\n", ""},
    {"FifoRaw", [](Scene& s) { localThing(s, Thing::kFifo, false); }, 0, "", kUnreadable},
    {"FifoPackage", [](Scene& s) { localThing(s, Thing::kFifo, true); }, 6, kPackageUnreadable, ""},
    {"DevZeroRaw", [](Scene& s) { localThing(s, Thing::kDevZero, false); }, 0, "", kUnreadable},
    {"DevZeroPackage", [](Scene& s) { localThing(s, Thing::kDevZero, true); }, 6, kPackageUnreadable, ""},
    {"DirectoryRaw", [](Scene& s) { localThing(s, Thing::kDirectory, false); }, 0, "", kUnreadable},
    {"DirectoryPackage", [](Scene& s) { localThing(s, Thing::kDirectory, true); }, 6, kPackageUnreadable, ""},
    {"SquatterAtDownloadFile", [](Scene& s) { squattedTmpName(s, "flashit"); }, 0, "", squatted("flashit")},
    {"SquatterAtTempStatusFile", [](Scene& s) { squattedTmpName(s, "temp_brivlo_status"); }, 0, "",
     squatted("temp_brivlo_status")},
    {"SquatterAtStatusFile", [](Scene& s) { squattedTmpName(s, "brivlo_status"); }, 0, "", squatted("brivlo_status")},
    {"SparseFileLargerThanPartition", sparseFileLargerThanPartition, 0, "",
     "writeImageToFlash: Error - image of size 3221225472 too large for flash partition fpga of size 4194304\n"
     "Error writing to flash\n"},
};

INSTANTIATE_TEST_SUITE_P(E2e, Attack, ::testing::ValuesIn(kAttacks),
                         [](const ::testing::TestParamInfo<AttackCase>& i) { return std::string(i.param.name); });

}  // namespace
