// brivlo's benchmarks: every figure next to a reference measured in the same
// run, in one table (bench/run builds and runs this).
//
//   brivlo_bench [--runs N] [--tftp-runs N] [--spawn-runs N] [--memory-runs N]
//                [--only crc,tftp,tftp-options,status,flash,package,signature]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>
#include <sstream>
#include <string>

#include "bench/benches.h"

namespace {

using bench::Config;
using bench::Table;

struct Benchmark {
    const char* name;
    void (*run)(const Config&, Table&);
};

#ifdef BRIVLO_BENCH_BOARD
// A cross build for the board, run under emulation: the other benchmarks
// time programs against tools of the build machine.
const Benchmark kBenchmarks[] = {{"crc", bench::crcBenchmarks}, {"signature", bench::signatureBenchmarks}};
#else
const Benchmark kBenchmarks[] = {
    {"crc", bench::crcBenchmarks},         {"tftp", bench::tftpBenchmarks},
    {"tftp-options", bench::tftpOptionBenchmarks},
    {"status", bench::statusQueryBenchmarks}, {"flash", bench::flashPathBenchmarks},
    {"package", bench::packageMemoryBenchmarks}, {"signature", bench::signatureBenchmarks},
};
#endif

int usage() {
    std::fprintf(stderr,
                 "usage: brivlo_bench [--runs N] [--tftp-runs N] [--spawn-runs N] [--memory-runs N] "
                 "[--only crc,tftp,tftp-options,status,flash,package,signature]\n");
    return 2;
}

bool positive(const char* text, int* out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 1 || v > 100000) return false;
    *out = static_cast<int>(v);
    return true;
}

std::string loadAverage() {
    double load[3] = {0, 0, 0};
    FILE* f = std::fopen("/proc/loadavg", "r");
    if (f != nullptr) {
        if (std::fscanf(f, "%lf %lf %lf", &load[0], &load[1], &load[2]) != 3) load[0] = -1;
        std::fclose(f);
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    Config config;
    config.qimtool = QIMTOOL_BIN;
#ifndef BRIVLO_BENCH_BOARD
    config.brivlo = BRIVLO_BIN;
    config.flashsim = FLASHSIM_BIN;
    config.mtdFloor = MTD_FLOOR_BIN;
#endif
    std::set<std::string> only;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return usage();
        const char* value = argv[++i];
        if (arg == "--runs") {
            if (!positive(value, &config.runs)) return usage();
        } else if (arg == "--tftp-runs") {
            if (!positive(value, &config.tftpRuns)) return usage();
        } else if (arg == "--spawn-runs") {
            if (!positive(value, &config.spawnRuns)) return usage();
        } else if (arg == "--memory-runs") {
            if (!positive(value, &config.memoryRuns)) return usage();
        } else if (arg == "--only") {
            std::stringstream list(value);
            std::string name;
            while (std::getline(list, name, ',')) only.insert(name);
        } else {
            return usage();
        }
    }

    Table table;
    const std::string loadBefore = loadAverage();
    for (const Benchmark& b : kBenchmarks) {
        if (!only.empty() && only.count(b.name) == 0) continue;
        std::fprintf(stderr, "running %s ...\n", b.name);
        try {
            b.run(config, table);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "benchmark %s failed: %s\n", b.name, e.what());
            return 1;
        }
    }
    table.note("Load average before: " + loadBefore + "; after: " + loadAverage() + ".");
    const int missed = table.print();
    std::printf("\ntargets missed: %d\n", missed);
    return 0;
}
