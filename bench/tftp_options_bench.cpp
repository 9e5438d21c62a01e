// brivlo -F (blksize 1468, windowsize 8, tsize, rollover) against the clients
// a firmware engineer already has, from Debian's in.tftpd, atftpd and dnsmasq
// started here: on loopback, and through a relay that delays every datagram
// by 0.5 ms each way (the round trip of a LAN). brivlo runs on a flashsim
// board and downloads a file named *.qim that is no package, so its run ends
// when the package reader refuses the first bytes (start-up plus download).
// Every download is compared with the served file.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"
#include "bench/udp_relay.h"
#include "common/tftpd.h"

namespace bench {

namespace {

using testutil::Tftpd;
using testutil::TftpdKind;

constexpr std::size_t kLargest512 = 65534u * 512u + 511u;  // the most a download without -F carries
constexpr std::size_t k64MiB = 64u << 20;
constexpr std::size_t kLockStepSample = 4u << 20;  // 512-byte lock step through the relay: 0.5 MB/s
constexpr unsigned kRelayDelay = 500;                // microseconds each way
constexpr int kDownloadFailed = 2;
constexpr const char* kRelay = "127.0.0.1";  // where the relay listens for the clients

struct Measured {
    double wall = 0;  // median seconds
    double cpu = 0;   // median user + system seconds
    std::size_t bytes = 0;

    double mibPerSecond() const { return bytes / kMiB / wall; }
    std::string text() const {
        return format("%.2f s", wall) + format(" (%.1f MiB/s, ", mibPerSecond()) +
               format("CPU %.1f ms/MiB)", cpu * 1000 / (bytes / kMiB));
    }
};

class Runner {
public:
    Runner(const Config& config, ScratchDir& dir) : config_(config), dir_(dir), board_(dir.file("board")) {
        if (!runChild({config.flashsim, "init", board_}).exitedWith(0)) {
            throw std::runtime_error("flashsim init failed");
        }
        atftp_ = std::string(BRIVLO_ATFTP_ROOT) + "/usr/bin/atftp";
    }

    Measured brivlo(const std::string& host, uint16_t port, const std::string& name, bool options,
                    const std::vector<uint8_t>& content, int runs) {
        std::vector<std::string> argv = {config_.flashsim, "run", board_, "--", config_.brivlo,
                                         "tftp://" + host + ":" + std::to_string(port), name, "qim"};
        if (options) argv.push_back("-F");
        return measure(argv, board_ + "/tmp/flashit", content, runs, true);
    }
    Measured curl(const std::string& host, uint16_t port, const std::string& name,
                  const std::vector<uint8_t>& content, int runs) {
        const std::string out = dir_.file("curl.out");
        return measure({"curl", "-s", "--tftp-blksize", "1468", "-o", out,
                        "tftp://" + host + ":" + std::to_string(port) + "/" + name},
                       out, content, runs, false);
    }
    Measured atftp(const std::string& host, uint16_t port, const std::string& name,
                   const std::vector<uint8_t>& content, int runs) {
        const std::string out = dir_.file("atftp.out");
        return measure({atftp_, "--option", "blksize 1468", "--option", "windowsize 8", "-g", "-r", name, "-l", out,
                        host, std::to_string(port)},
                       out, content, runs, false);
    }

private:
    Measured measure(const std::vector<std::string>& argv, const std::string& output,
                     const std::vector<uint8_t>& content, int runs, bool isBrivlo) {
        std::vector<double> wall, cpu;
        for (int i = 0; i < runs; ++i) {
            std::remove(output.c_str());
            ChildOptions options;
            options.stderrPath = dir_.file("client.err");
            options.timeoutSeconds = 300;
            const ChildRun run = runChild(argv, options);
            bool ok = run.started && !run.timedOut && WIFEXITED(run.waitStatus);
            if (ok) {
                const int status = WEXITSTATUS(run.waitStatus);
                ok = isBrivlo ? status != kDownloadFailed && status != 255 : status == 0;
            }
            if (!ok || !sameContent(output, content)) {
                throw std::runtime_error("download failed: " + commandText(argv) + " (see " + options.stderrPath +
                                         ")");
            }
            wall.push_back(run.wallSeconds);
            cpu.push_back(run.cpuSeconds());
        }
        return {median(wall), median(cpu), content.size()};
    }

    const Config& config_;
    ScratchDir& dir_;
    std::string board_;
    std::string atftp_;
};

void compare(Table& table, const std::string& what, const std::string& subject, const Measured& s,
             const std::string& reference, const Measured& r, double limit) {
    // Per MiB, so that files of different sizes compare as rates.
    const double ratio = (s.wall / s.bytes) / (r.wall / r.bytes);
    table.add({what, subject, s.text(), reference, r.text(), ratio, format("ratio <= %.3g", limit),
               verdictOf(ratio <= limit)});
}

}  // namespace

void tftpOptionBenchmarks(const Config& config, Table& table) {
    ScratchDir dir("brivlo-bench-tftp-options");
    Runner runner(config, dir);
    const int runs = std::max(1, std::min(config.tftpRuns, 5));
    const int relayRuns = std::max(1, std::min(config.tftpRuns, 3));

    const std::vector<uint8_t> large = patternBytes(k64MiB, 64);
    const std::vector<uint8_t> full = patternBytes(kLargest512, 32);
    const std::vector<uint8_t> sample = patternBytes(kLockStepSample, 4);
    Tftpd inTftpd(TftpdKind::InTftpd), atftpd(TftpdKind::Atftpd), dnsmasq(TftpdKind::Dnsmasq);
    for (const Tftpd* server : {&inTftpd, &atftpd, &dnsmasq}) {
        server->addFile("large.qim", std::string(large.begin(), large.end()));
        server->addFile("fw.qim", std::string(full.begin(), full.end()));
        server->addFile("sample.qim", std::string(sample.begin(), sample.end()));
    }

    // 64 MiB: more than 512-byte blocks numbered to 65535 can carry.
    const struct {
        const char* name;
        const Tftpd* server;
    } servers[] = {{"in.tftpd", &inTftpd}, {"atftpd", &atftpd}, {"dnsmasq", &dnsmasq}};
    for (const auto& s : servers) {
        const Measured m = runner.brivlo(s.server->host(), s.server->port(), "large.qim", true, large, 1);
        table.add({"TFTP 64 MiB with -F from " + std::string(s.name) + ", loopback", "brivlo -F", m.text(),
                   "the served file", "byte-exact", std::nan(""), "byte-exact", Verdict::kMet});
    }

    // 33553919 bytes on loopback from in.tftpd.
    const std::string loop = "TFTP 33553919 bytes from in.tftpd, loopback";
    const std::string& in = inTftpd.host();
    const Measured withF = runner.brivlo(in, inTftpd.port(), "fw.qim", true, full, runs);
    const Measured curl = runner.curl(in, inTftpd.port(), "fw.qim", full, runs);
    const Measured plain = runner.brivlo(in, inTftpd.port(), "fw.qim", false, full, runs);
    compare(table, loop, "brivlo -F", withF, "curl --tftp-blksize 1468", curl, 1.0);
    compare(table, loop, "brivlo -F", withF, "brivlo without -F", plain, 0.5);

    // Through the relay: 0.5 ms each way.
    double worstLate = 0, medianLate = 0;
    auto viaRelay = [&](const Tftpd& server, const std::function<Measured(uint16_t)>& client) {
        UdpRelay relay(server.host(), server.port(), kRelayDelay);
        const Measured m = client(relay.port());
        relay.stop();
        worstLate = std::max(worstLate, relay.lateness());
        medianLate = std::max(medianLate, relay.medianLateness());
        return m;
    };
    const std::string fromAtftpd = "TFTP through a relay of 0.5 ms each way, from atftpd";
    const Measured relayF = viaRelay(atftpd, [&](uint16_t p) { return runner.brivlo(kRelay, p, "fw.qim", true, full, relayRuns); });
    const Measured relayAtftp = viaRelay(atftpd, [&](uint16_t p) { return runner.atftp(kRelay, p, "fw.qim", full, relayRuns); });
    // 512-byte lock step: a 4 MiB sample, compared as a rate.
    const Measured relayPlain =
        viaRelay(atftpd, [&](uint16_t p) { return runner.brivlo(kRelay, p, "sample.qim", false, sample, 1); });
    compare(table, fromAtftpd, "brivlo -F", relayF, "atftp, blksize 1468, windowsize 8", relayAtftp, 1.0);
    compare(table, fromAtftpd, "brivlo -F", relayF, "brivlo without -F (4 MiB, per MiB)", relayPlain, 0.125);
    const std::string fromInTftpd = "TFTP through a relay of 0.5 ms each way, from in.tftpd (no windows)";
    const Measured relayInF =
        viaRelay(inTftpd, [&](uint16_t p) { return runner.brivlo(kRelay, p, "fw.qim", true, full, relayRuns); });
    const Measured relayCurl = viaRelay(inTftpd, [&](uint16_t p) { return runner.curl(kRelay, p, "fw.qim", full, relayRuns); });
    compare(table, fromInTftpd, "brivlo -F", relayInF, "curl --tftp-blksize 1468", relayCurl, 1.0);

    table.note("TFTP -F: in.tftpd, atftpd (--retry-timeout 1) and dnsmasq on loopback; " + std::to_string(runs) +
               " runs per client on loopback, " + std::to_string(relayRuns) +
               " through the relay (medians); ratios compare time per MiB. The relay maps each server transfer "
               "port to a client-facing port of its own and added " +
               format("%.0f", medianLate) + " us (median), " + format("%.0f", worstLate) +
               " us (worst) to its 500 us per datagram. CPU per MiB: user + system time of the client process "
               "(brivlo's includes flashsim's start-up).");
}

}  // namespace bench
