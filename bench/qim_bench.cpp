// Times the package library's CRC-32 and the loading of a 32 MiB package
// against zlib's crc32 in the same run, and prints a table of medians.
//
//   qim_bench [runs]     (default 9)
#include <zlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "qim/crc32.h"
#include "qim/crc32_paths.h"
#include "qim/package.h"
#include "qim/package_builder.h"

namespace {

constexpr std::size_t kSize = 32u << 20;
constexpr std::size_t kChunk = 4096;  // the reader's chunk, used by the baseline too

double median_ms(int runs, const std::function<void()>& work) {
    std::vector<double> ms;
    for (int i = 0; i < runs; ++i) {
        auto t0 = std::chrono::steady_clock::now();
        work();
        auto t1 = std::chrono::steady_clock::now();
        ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(ms.begin(), ms.end());
    return ms[ms.size() / 2];
}

uint32_t zlib_file_crc(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) std::abort();
    static unsigned char buf[kChunk];
    uLong crc = crc32(0L, Z_NULL, 0);
    std::size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, f)) > 0) crc = crc32(crc, buf, static_cast<uInt>(got));
    std::fclose(f);
    return static_cast<uint32_t>(crc);
}

void row(const char* what, double ms, double ref_ms) {
    std::printf("| %-44s | %9.2f | %8.0f | %6.2f |\n", what, ms, kSize / 1048576.0 / (ms / 1000.0),
                ms / ref_ms);
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
    std::vector<unsigned char> data(kSize);
    uint32_t x = 12345;
    for (auto& b : data) {
        x = x * 1103515245u + 12345u;
        b = static_cast<unsigned char>(x >> 16);
    }

    uint32_t ours = 0, ref = 0, tables = 0;
    const double ref_ms = median_ms(runs, [&] { ref = static_cast<uint32_t>(crc32(0L, data.data(), kSize)); });
    const double ours_ms = median_ms(runs, [&] { ours = crc32_compute(data.data(), kSize); });
    const double tables_ms =
        median_ms(runs, [&] { tables = ~crc32_update_tables(CRC32_INIT, data.data(), kSize); });
    if (ours != ref || tables != ref) {
        std::fprintf(stderr, "CRC mismatch: ours %08x, tables %08x, zlib %08x\n", ours, tables, ref);
        return 1;
    }

    // A 32 MiB package: one part that fills it.
    char dir_template[] = "/tmp/qim_bench.XXXXXX";
    if (mkdtemp(dir_template) == nullptr) return 1;
    const std::string dir = dir_template;
    const std::string part = dir + "/part.bin", pkg_path = dir + "/bench.qim";
    {
        FILE* f = std::fopen(part.c_str(), "wb");
        std::fwrite(data.data(), 1, kSize - 96, f);  // with the header: exactly 32 MiB
        std::fclose(f);
        qim_package* pkg = nullptr;
        qim_package_create(&pkg);
        qim_package_init_header(pkg, 40, 1, &QIM_MFGC_ID_ANY);
        qim_package_add_part_file(pkg, 1, 0x04030100, part.c_str(), nullptr);
        qim_package_add_model(pkg, &QIM_MODEL_ID_ANY);
        qim_package_set_model_part(pkg, &QIM_MODEL_ID_ANY, 0);
        FILE* out = std::fopen(pkg_path.c_str(), "w+b");
        if (qim_package_write(pkg, out) != ZEL_SUCCESS) return 1;
        std::fclose(out);
        qim_package_free(pkg);
    }
    uint32_t file_crc = 0;
    const double zfile_ms = median_ms(runs, [&] { file_crc = zlib_file_crc(pkg_path); });
    zel_error_t rc = 0;
    const double load_ms = median_ms(runs, [&] {
        qim_package* pkg = nullptr;
        qim_package_create(&pkg);
        rc |= qim_package_load(pkg, pkg_path.c_str());
        qim_package_free(pkg);
    });
    std::remove(part.c_str());
    std::remove(pkg_path.c_str());
    rmdir(dir.c_str());
    if (rc != ZEL_SUCCESS || file_crc == 0) {
        std::fprintf(stderr, "package load failed\n");
        return 1;
    }

    std::printf("32 MiB, median of %d runs; ratio = time / reference time (lower is faster)\n\n", runs);
    std::printf("| %-44s | %9s | %8s | %6s |\n", "what", "ms", "MiB/s", "ratio");
    std::printf("|%s|%s|%s|%s|\n", std::string(46, '-').c_str(), std::string(11, '-').c_str(),
                std::string(10, '-').c_str(), std::string(8, '-').c_str());
    row("zlib crc32, memory (reference)", ref_ms, ref_ms);
    row("crc32_update, memory", ours_ms, ref_ms);
    row("crc32_update table path (other CPUs), memory", tables_ms, ref_ms);
    row("zlib crc32 over the file, 4 KiB reads (ref.)", zfile_ms, zfile_ms);
    row("qim_package_load + validate the file", load_ms, zfile_ms);
    std::printf("\nresults identical to zlib: yes (%08x)\n", ref);
    std::printf("targets: crc32_update ratio <= 1.00: %s; load ratio <= 1.20: %s\n",
                ours_ms <= ref_ms ? "met" : "NOT met", load_ms <= 1.2 * zfile_ms ? "met" : "NOT met");
    return 0;
}
