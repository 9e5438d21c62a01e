// The signature check of a signed upgrade (-K) on a 32 MiB package signed by
// minisign (prehashed: BLAKE2b-512 of the file, then Ed25519), against
// coreutils' b2sum hashing the same file, I/O included, interleaved; and
// libsodium's hash alone in memory, to tell the library's cost from ours.
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"
#include "qim/signature_file.h"
#include "qim/signature_key.h"
#include "qim/signature_verify.h"

namespace bench {

namespace {

constexpr std::size_t kPackageSize = 32u << 20;
constexpr std::size_t kHeaderSize = 96;  // of a one-part package, one model

void mustRun(const std::vector<std::string>& argv) {
    if (!runChild(argv).exitedWith(0)) throw std::runtime_error("failed: " + commandText(argv));
}

// One check as brivlo makes it: open, verify through the descriptor.
double verifyMs(const qim_signature_key& key, const qim_signature& sig, const std::string& path) {
    const auto t0 = std::chrono::steady_clock::now();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    qim_signature_verdict verdict = QIM_SIGNATURE_UNREADABLE;
    const zel_error_t rc = fd >= 0 ? qim_signature_verify_fd(&key, &sig, fd, &verdict) : ZEL_SYSTEM;
    if (fd >= 0) ::close(fd);
    const auto t1 = std::chrono::steady_clock::now();
    if (rc != ZEL_SUCCESS) throw std::runtime_error("the benchmark package's signature does not verify");
    return std::chrono::duration<double, std::milli>(t1 - t0).count();
}

// libsodium's BLAKE2b-512 alone over the bytes in memory: the floor of the
// check, no I/O.
double hashInMemoryMs(const std::vector<uint8_t>& bytes) {
    uint8_t hash[crypto_generichash_BYTES_MAX];
    const auto t0 = std::chrono::steady_clock::now();
    crypto_generichash(hash, sizeof hash, bytes.data(), bytes.size(), nullptr, 0);
    const auto t1 = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::milli>(t1 - t0).count();
}

}  // namespace

void signatureBenchmarks(const Config& config, Table& table) {
    ScratchDir dir("brivlo-bench-signature");
    const std::string part = dir.file("part.bin");
    const std::vector<uint8_t> data = patternBytes(kPackageSize - kHeaderSize, 777);
    writeBytes(part, data.data(), data.size());
    const std::string pkg = dir.file("bench.qim");
    mustRun({config.qimtool, "create", "-o", pkg, "--device-code", "40", "--product-version", "1", "--part",
             "fpga:1.0.0.0:" + part});
    mustRun({"minisign", "-G", "-W", "-p", dir.file("k.pub"), "-s", dir.file("k.sec")});
    mustRun({"minisign", "-S", "-s", dir.file("k.sec"), "-m", pkg});

    qim_signature_key key;
    qim_signature sig;
    if (qim_signature_key_load(dir.file("k.pub").c_str(), &key) != ZEL_SUCCESS ||
        qim_signature_load((pkg + ".minisig").c_str(), &sig) != ZEL_SUCCESS ||
        sig.kind != QIM_SIGNATURE_PREHASHED) {
        throw std::runtime_error("minisign wrote no prehashed signature the library reads");
    }

    // Alternating order, so the page cache and the machine's load treat both alike.
    const std::vector<uint8_t> packageBytes = readBytes(pkg);
    std::vector<double> ours, b2sum, inMemory;
    const auto timeB2sum = [&] {
        const ChildRun run = runChild({"b2sum", pkg});
        if (!run.exitedWith(0)) throw std::runtime_error("b2sum failed");
        b2sum.push_back(run.wallSeconds * 1000.0);
    };
    for (int i = 0; i < config.runs; ++i) {
        if (i % 2 == 0) {
            timeB2sum();
            ours.push_back(verifyMs(key, sig, pkg));
        } else {
            ours.push_back(verifyMs(key, sig, pkg));
            timeB2sum();
        }
        inMemory.push_back(hashInMemoryMs(packageBytes));
    }
    const double oursMs = median(ours), refMs = median(b2sum);
    const auto rate = [](double ms) {
        return format("%.2f ms", ms) + format(" (%.0f MiB/s)", kPackageSize / kMiB / (ms / 1000.0));
    };
    table.add({"signature check, 32 MiB package (prehashed)", "qim_signature_verify_fd", rate(oursMs),
               "b2sum over the file", rate(refMs), oursMs / refMs, "ratio <= 1.20",
               verdictOf(oursMs <= 1.2 * refMs)});
    const double memoryMs = median(inMemory);
    table.add({"signature check, 32 MiB package (prehashed)", "libsodium BLAKE2b-512 alone, in memory",
               rate(memoryMs), "b2sum over the file", rate(refMs), memoryMs / refMs, "", Verdict::kReported});
}

}  // namespace bench
