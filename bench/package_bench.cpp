// The peak memory of a package upgrade: a 31 MiB package of four parts,
// written by brivlo on a flashsim board, against its largest part. The
// flasher holds one part at a time, so the largest part bounds the buffer.
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"

namespace bench {

namespace {

constexpr long kMemoryAllowanceKiB = 4 * 1024;  // above the largest part

struct Part {
    const char* kind;       // part kind number
    const char* partition;  // where the default board puts it
    std::size_t size;
};

// Kinds 0, 2, 11 and 21 go to flashall (32 MiB, protected), fpga (4 MiB),
// userarea (2 MiB) and imxrt (1 MiB) on the default board.
const Part kParts[] = {
    {"0", "flashall", 24u << 20},
    {"2", "fpga", 4u << 20},
    {"11", "userarea", 2u << 20},
    {"21", "imxrt", 1u << 20},
};

}  // namespace

void packageMemoryBenchmarks(const Config& config, Table& table) {
    ScratchDir dir("brivlo-bench-package");
    std::vector<std::string> create = {config.qimtool,     "create", "-o", dir.file("fw.qim"), "--device-code",
                                       "40",               "--product-version", "1"};
    std::size_t largest = 0, total = 0;
    std::vector<std::vector<uint8_t>> contents;
    for (const Part& p : kParts) {
        const std::string file = dir.file(std::string("part") + p.kind + ".bin");
        contents.push_back(patternBytes(p.size, static_cast<uint32_t>(p.size)));
        writeBytes(file, contents.back().data(), p.size);
        create.push_back("--part");
        create.push_back(std::string(p.kind) + ":1.0.0.0:" + file);
        largest = std::max(largest, p.size);
        total += p.size;
    }
    if (!runChild(create).exitedWith(0)) throw std::runtime_error("qimtool create failed: " + commandText(create));

    const std::string board = dir.file("board");
    if (!runChild({config.flashsim, "init", board}).exitedWith(0)) throw std::runtime_error("flashsim init failed");
    const std::vector<std::string> upgrade = {config.flashsim, "run", board, "--", config.brivlo, "local",
                                              dir.file("fw.qim"), "qim"};
    ChildOptions options;
    options.stderrPath = dir.file("brivlo.err");

    std::vector<double> rss, wall;
    for (int i = 0; i < config.memoryRuns; ++i) {
        const ChildRun run = runChild(upgrade, options);
        if (!run.exitedWith(0)) {
            throw std::runtime_error("package upgrade failed: " + commandText(upgrade) + " (see " +
                                     options.stderrPath + ")");
        }
        rss.push_back(static_cast<double>(run.maxRssKiB));
        wall.push_back(run.wallSeconds);
    }
    for (std::size_t i = 0; i < contents.size(); ++i) {
        std::vector<uint8_t> flash = readBytes(board + "/flash/" + kParts[i].partition);
        flash.resize(contents[i].size());
        if (flash != contents[i]) throw std::runtime_error(std::string("part not written: ") + kParts[i].partition);
    }

    const double rssKiB = median(rss);
    const double limitKiB = static_cast<double>(largest / 1024 + kMemoryAllowanceKiB);
    table.add({"peak memory, package upgrade (" + format("%.0f", total / kMiB) + " MiB, 4 parts)", "brivlo max RSS",
               format("%.1f MiB", rssKiB / 1024.0), "largest part", format("%.1f MiB", largest / kMiB),
               rssKiB * 1024.0 / static_cast<double>(largest), "<= largest part + 4 MiB",
               verdictOf(rssKiB <= limitKiB)});
    table.note("Package upgrade: " + std::to_string(config.memoryRuns) + " runs, median wall " +
               format("%.2f s", median(wall)) + "; every part compared with its partition afterwards.");
}

}  // namespace bench
