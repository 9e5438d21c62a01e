// The package library's CRC-32 against zlib's crc32 on 32 MiB in memory, and
// the loading (with validation) of a 32 MiB package against zlib's crc32 over
// the same file read in the reader's chunk size, I/O included.
#include <zlib.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/scratch.h"
#include "bench/stats.h"
#include "qim/crc32.h"
#include "qim/crc32_paths.h"
#include "qim/package.h"
#include "qim/package_builder.h"

namespace bench {

namespace {

constexpr std::size_t kSize = 32u << 20;
constexpr std::size_t kChunk = 4096;  // the reader's chunk, used by the baseline too
constexpr std::size_t kHeaderSize = 96;  // of the one-part package below

double medianMs(int runs, const std::function<void()>& work) {
    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        work();
        const auto t1 = std::chrono::steady_clock::now();
        ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    return median(ms);
}

uint32_t zlibFileCrc(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw std::runtime_error("cannot open " + path);
    static unsigned char buf[kChunk];
    uLong crc = crc32(0L, Z_NULL, 0);
    std::size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) crc = crc32(crc, buf, static_cast<uInt>(got));
    std::fclose(f);
    return static_cast<uint32_t>(crc);
}

std::string msAndRate(double ms) {
    return format("%.2f ms", ms) + format(" (%.0f MiB/s)", kSize / kMiB / (ms / 1000.0));
}

// A 32 MiB package: one part that fills it.
void writePackage(const ScratchDir& dir, const std::vector<uint8_t>& data, const std::string& path) {
    const std::string part = dir.file("part.bin");
    writeBytes(part, data.data(), kSize - kHeaderSize);
    qim_package* pkg = nullptr;
    qim_package_create(&pkg);
    qim_package_init_header(pkg, 40, 1, &QIM_MFGC_ID_ANY);
    qim_package_add_part_file(pkg, 1, 0x04030100, part.c_str(), nullptr);
    qim_package_add_model(pkg, &QIM_MODEL_ID_ANY);
    qim_package_set_model_part(pkg, &QIM_MODEL_ID_ANY, 0);
    FILE* out = std::fopen(path.c_str(), "w+b");
    const zel_error_t rc = out != nullptr ? qim_package_write(pkg, out) : ZEL_SYSTEM;
    if (out != nullptr) std::fclose(out);
    qim_package_free(pkg);
    if (rc != ZEL_SUCCESS) throw std::runtime_error("cannot build the benchmark package");
}

// Milliseconds of this thread's processor time: under emulation (qemu-arm)
// and on a loaded machine, wall time mostly measures the other processes.
double cpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

}  // namespace

void crcBenchmarks(const Config& config, Table& table) {
    const int runs = config.runs;
    const std::vector<uint8_t> data = patternBytes(kSize, 12345);

    // The three take turns within each run, so the machine's load and the
    // caches treat them alike; the median of each is reported.
    uint32_t ours = 0, ref = 0, portable = 0;
    std::vector<double> refRuns, oursRuns, portableRuns;
    const auto timed = [](std::vector<double>& into, const std::function<void()>& work) {
        const double t0 = cpuMs();
        work();
        into.push_back(cpuMs() - t0);
    };
    for (int i = 0; i < runs; ++i) {
        timed(refRuns, [&] { ref = static_cast<uint32_t>(crc32(0L, data.data(), kSize)); });
        timed(oursRuns, [&] { ours = crc32_compute(data.data(), kSize); });
        timed(portableRuns, [&] { portable = ~crc32_update_portable(CRC32_INIT, data.data(), kSize); });
    }
    const double refMs = median(refRuns), oursMs = median(oursRuns), portableMs = median(portableRuns);
    if (ours != ref || portable != ref) {
        char text[128];
        std::snprintf(text, sizeof text, "CRC mismatch: ours %08x, portable %08x, zlib %08x", ours, portable, ref);
        throw std::runtime_error(text);
    }

    ScratchDir dir("brivlo-bench-crc");
    const std::string pkgPath = dir.file("bench.qim");
    writePackage(dir, data, pkgPath);
    uint32_t fileCrc = 0;
    zel_error_t rc = ZEL_SUCCESS;
    // Interleaved in alternating order, so the page cache and the machine's
    // load treat both alike.
    std::vector<double> zlibFile, load;
    const auto timeZlib = [&] { zlibFile.push_back(medianMs(1, [&] { fileCrc = zlibFileCrc(pkgPath); })); };
    const auto timeLoad = [&] {
        load.push_back(medianMs(1, [&] {
            qim_package* pkg = nullptr;
            qim_package_create(&pkg);
            rc |= qim_package_load(pkg, pkgPath.c_str());
            qim_package_free(pkg);
        }));
    };
    for (int i = 0; i < runs; ++i) {
        if (i % 2 == 0) {
            timeZlib();
            timeLoad();
        } else {
            timeLoad();
            timeZlib();
        }
    }
    if (rc != ZEL_SUCCESS || fileCrc == 0) throw std::runtime_error("the benchmark package does not load");
    const double zfileMs = median(zlibFile), loadMs = median(load);

    const std::string crcName = "CRC-32, 32 MiB in memory";
    table.add({crcName, "crc32_update", msAndRate(oursMs), "zlib crc32", msAndRate(refMs), oursMs / refMs,
               "ratio <= 1.00", verdictOf(oursMs <= refMs)});
    // Where crc32_update folds with carry-less multiplication, the portable
    // path (the board's) is only reported; where it does not, the two rows
    // measure the same code.
    table.add({crcName, "crc32_update, portable path", msAndRate(portableMs), "zlib crc32", msAndRate(refMs),
               portableMs / refMs, crc32_clmul_available() ? "" : "ratio <= 1.00",
               crc32_clmul_available() ? Verdict::kReported : verdictOf(portableMs <= refMs)});
    table.add({"package validation, 32 MiB file", "qim_package_load", msAndRate(loadMs),
               "zlib crc32 over the file, 4 KiB reads", msAndRate(zfileMs), loadMs / zfileMs, "ratio <= 1.20",
               verdictOf(loadMs <= 1.2 * zfileMs)});
    char note[160];
    std::snprintf(note, sizeof note, "CRC-32 results identical to zlib's on all paths (%08x); %d runs each.", ref,
                  runs);
    table.note(note);
}

}  // namespace bench
