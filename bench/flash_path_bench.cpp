// A 32 MiB raw upgrade from a local file through flashsim (erase, write,
// progress, status file) against plain dd of the same bytes into the
// partition's backing file, with the bare erase-and-write sequence on the same
// simulator in between; and the upgrade's peak memory against the image size.
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"

namespace bench {

namespace {

constexpr std::size_t kImageSize = 32u << 20;
constexpr long kMemoryAllowanceKiB = 4 * 1024;  // above the image size

struct Runs {
    std::vector<double> wall, rss;
};

std::string throughput(double s) {
    return format("%.3f s", s) + format(" (%.0f MiB/s)", kImageSize / kMiB / s);
}

}  // namespace

void flashPathBenchmarks(const Config& config, Table& table) {
    ScratchDir dir("brivlo-bench-flash");
    const std::string board = dir.file("board");
    if (!runChild({config.flashsim, "init", board, "--part", "rootfs=32M:64K"}).exitedWith(0)) {
        throw std::runtime_error("flashsim init failed");
    }
    const std::vector<uint8_t> image = patternBytes(kImageSize, 777);
    const std::string imagePath = dir.file("image.bin");
    writeBytes(imagePath, image.data(), image.size());
    const std::string backing = board + "/flash/rootfs";

    const std::vector<std::string> brivlo = {config.flashsim, "run", board, "--", config.brivlo, "local", imagePath,
                                             "rootfs"};
    const std::vector<std::string> floor = {config.flashsim, "run", board, "--", config.mtdFloor, imagePath, "rootfs"};
    const std::vector<std::string> dd = {"dd", "if=" + imagePath, "of=" + backing, "bs=64K", "conv=notrunc",
                                         "status=none"};
    ChildOptions brivloOptions;
    brivloOptions.stdoutPath = dir.file("brivlo.out");
    brivloOptions.stderrPath = dir.file("brivlo.err");

    // The first open of the partition makes its backing file; not measured.
    if (!runChild(brivlo, brivloOptions).exitedWith(0)) throw std::runtime_error("raw upgrade failed");

    Runs b, f, d;
    const auto runBrivlo = [&] {
        const ChildRun run = runChild(brivlo, brivloOptions);
        const std::vector<uint8_t> text = readBytes(brivloOptions.stdoutPath);
        const std::string shown(text.begin(), text.end());
        if (!run.exitedWith(0) || shown.find("Flash write complete.") == std::string::npos ||
            !sameContent(backing, image)) {
            throw std::runtime_error("raw upgrade failed: " + commandText(brivlo) + " (see " +
                                     brivloOptions.stderrPath + ")");
        }
        b.wall.push_back(run.wallSeconds);
        b.rss.push_back(static_cast<double>(run.maxRssKiB));
    };
    const auto runFloor = [&] {
        const ChildRun run = runChild(floor);
        if (!run.exitedWith(0) || !sameContent(backing, image)) throw std::runtime_error("bench_mtd_floor failed");
        f.wall.push_back(run.wallSeconds);
    };
    const auto runDd = [&] {
        const ChildRun run = runChild(dd);
        if (!run.exitedWith(0) || !sameContent(backing, image)) throw std::runtime_error("dd failed");
        d.wall.push_back(run.wallSeconds);
    };
    const std::function<void()> order[] = {runBrivlo, runFloor, runDd};
    // Rounds with a rotating order, so that none always follows another.
    for (int i = 0; i < config.runs; ++i) {
        for (int k = 0; k < 3; ++k) order[(k + i) % 3]();
    }

    const double bw = median(b.wall), fw = median(f.wall), dw = median(d.wall);
    const std::string what = "flash path, 32 MiB raw image";
    const std::string ref = "dd bs=64K into the backing file";
    table.add({what, "brivlo local IMG rootfs (flashsim)", throughput(bw), ref, throughput(dw), bw / dw, "",
               Verdict::kReported});
    table.add({what, "bare erase+write (flashsim)", throughput(fw), ref, throughput(dw), fw / dw, "",
               Verdict::kReported});
    // brivlo reads every image back and compares it; the floor does not.
    table.add({what, "brivlo, read back and compared", throughput(bw), "bare erase+write (flashsim)", throughput(fw),
               bw / fw, "<= 1.15", verdictOf(bw / fw <= 1.15)});

    const double rssKiB = median(b.rss);
    const double limitKiB = static_cast<double>(kImageSize / 1024 + kMemoryAllowanceKiB);
    table.add({"peak memory, raw upgrade of 32 MiB", "brivlo max RSS", format("%.1f MiB", rssKiB / 1024.0),
               "image size", format("%.1f MiB", kImageSize / kMiB), rssKiB * 1024.0 / kImageSize,
               "<= image + 4 MiB", verdictOf(rssKiB <= limitKiB)});
    table.note("Flash path: " + std::to_string(config.runs) +
               " runs each, interleaved; flashsim stores every write as old AND new (a read and a write of the "
               "backing file) and an erase as a write of 0xFF, so the bare erase+write row is the simulator's floor "
               "and the distance from it to brivlo is brivlo's own cost: the console dots, a read of the status "
               "file per erased block and written chunk, and reading the image back to compare it (a raw image's status text never changes, so it is not "
               "rewritten). Both hold the image in pages mapped at once.");
}

}  // namespace bench
