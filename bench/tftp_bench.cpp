// A 32 MB download from Debian's in.tftpd on loopback, started here on a free
// port: brivlo (the real binary on a flashsim board, so its download lands in
// the board's /tmp/flashit) against tftp-hpa's tftp and curl. The served file
// is named *.qim and is no package, so brivlo ends right after the download
// when the package reader refuses the first bytes: its run is start-up plus
// download, like the other two clients' runs.
#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <sys/wait.h>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"
#include "common/tftpd.h"

namespace bench {

namespace {

// The largest file a 16-bit block number can carry in 512-byte blocks:
// 65534 full blocks and a last one of 511 bytes.
constexpr std::size_t kFileSize = 65534u * 512u + 511u;
constexpr int kDownloadFailed = 2;  // brivlo's exit status for a failed download

struct Client {
    std::string name;
    std::vector<std::string> argv;
    std::string cwd;
    std::string output;  // where the downloaded bytes land
    std::vector<double> wall, cpu;
};

// True when the run downloaded the whole file. brivlo's own exit status after
// a good download is the package reader's refusal, anything but "download failed".
bool downloaded(const Client& c, const ChildRun& run, const std::vector<uint8_t>& content, bool isBrivlo) {
    if (!run.started || run.timedOut || !WIFEXITED(run.waitStatus)) return false;
    const int status = WEXITSTATUS(run.waitStatus);
    if (isBrivlo ? (status == kDownloadFailed || status == 255) : status != 0) return false;
    return sameContent(c.output, content);
}

std::string seconds(double s) {
    return format("%.2f s", s) + format(" (%.1f MiB/s)", kFileSize / kMiB / s);
}

}  // namespace

void tftpBenchmarks(const Config& config, Table& table) {
    ScratchDir dir("brivlo-bench-tftp");
    const std::vector<uint8_t> content = patternBytes(kFileSize, 4242);
    // The tests' launcher of Debian's in.tftpd: a free loopback port, a
    // private served directory, the whole process group stopped at the end.
    testutil::Tftpd server;
    server.addFile("fw.qim", std::string(content.begin(), content.end()));
    const std::string port = std::to_string(server.port());

    const std::string board = dir.file("board");
    if (!runChild({config.flashsim, "init", board}).exitedWith(0)) throw std::runtime_error("flashsim init failed");

    std::vector<Client> clients = {
        {"brivlo (on a flashsim board)",
         {config.flashsim, "run", board, "--", config.brivlo, "tftp://127.0.0.1:" + port, "fw.qim", "qim"},
         "",
         board + "/tmp/flashit",
         {},
         {}},
        {"tftp-hpa tftp", {"tftp", "127.0.0.1", port, "-m", "binary", "-c", "get", "fw.qim"},
         dir.subdir("tftp"), dir.file("tftp/fw.qim"), {}, {}},
        {"curl", {"curl", "-s", "-o", dir.file("curl.out"), "tftp://127.0.0.1:" + port + "/fw.qim"},
         "", dir.file("curl.out"), {}, {}},
    };

    // Rounds with a rotating order, so that no client always follows another.
    for (int round = 0; round < config.tftpRuns; ++round) {
        for (std::size_t k = 0; k < clients.size(); ++k) {
            const std::size_t i = (k + static_cast<std::size_t>(round)) % clients.size();
            Client& c = clients[i];
            std::remove(c.output.c_str());
            ChildOptions options;
            options.cwd = c.cwd;
            options.stderrPath = dir.file("client.err");
            const ChildRun run = runChild(c.argv, options);
            if (!downloaded(c, run, content, i == 0)) {
                throw std::runtime_error("download failed: " + commandText(c.argv) + " (see " +
                                         options.stderrPath + ")");
            }
            c.wall.push_back(run.wallSeconds);
            c.cpu.push_back(run.cpuSeconds());
        }
    }

    const double refWall = median(clients[1].wall), refCpu = median(clients[1].cpu);
    const std::string what = "TFTP download of 33553919 bytes, wall";
    const double brivloWall = median(clients[0].wall);
    table.add({what, clients[0].name, seconds(brivloWall), clients[1].name, seconds(refWall), brivloWall / refWall,
               "ratio <= 1.00", verdictOf(brivloWall <= refWall)});
    const double curlWall = median(clients[2].wall);
    table.add({what, clients[2].name, seconds(curlWall), clients[1].name, seconds(refWall), curlWall / refWall, "",
               Verdict::kReported});
    for (std::size_t i : {std::size_t{0}, std::size_t{2}}) {
        const double cpu = median(clients[i].cpu);
        table.add({"TFTP download, client CPU user+sys", clients[i].name, format("%.2f s", cpu), clients[1].name,
                   format("%.2f s", refCpu), cpu / refCpu, "", Verdict::kReported});
    }
    // Load on the machine only ever adds time, so the fastest run shows what
    // each client costs by itself.
    std::string fastest;
    for (const Client& c : clients) {
        fastest += (fastest.empty() ? "" : ", ") + c.name + " " +
                   format("%.2f s", *std::min_element(c.wall.begin(), c.wall.end()));
    }
    table.note("TFTP: in.tftpd on 127.0.0.1, 512-byte blocks, " + std::to_string(config.tftpRuns) +
               " downloads per client in rotating order; every download compared with the served file. Fastest "
               "runs: " + fastest + ".");
}

}  // namespace bench
