// Helpers shared by the fuzz targets: a private scratch directory for the
// readers that take file names, a sink stream for reports, and the checksum
// fix-ups that let mutated inputs get past the checksum tests to the code
// behind them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "qim/byte_order.h"
#include "qim/byte_sum.h"
#include "qim/crc32.h"

namespace fuzzutil {

// A broken promise of the code under test: abort, which libFuzzer reports
// as a finding with the input that caused it.
inline void require(bool condition) {
    if (!condition) std::abort();
}

// A directory under /dev/shm (else $TMPDIR or /tmp) of this process, removed at exit with
// the files the targets put into it. The product's fixed /tmp paths are never used.
class Scratch {
public:
    static Scratch& instance() {
        static Scratch scratch;
        return scratch;
    }
    std::string file(const char* name) const { return dir_ + "/" + name; }

private:
    Scratch() {
        std::string pattern = baseDir() + "/brivlo-fuzz-XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) std::abort();
        dir_ = pattern;
    }
    // Memory-backed when the machine has /dev/shm: on a disk file system,
    // replacing a file's content thousands of times a second waits for the
    // disk (ext4 flushes a truncated or renamed-over file).
    static std::string baseDir() {
        struct stat st;
        if (::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && ::access("/dev/shm", W_OK) == 0) {
            return "/dev/shm";
        }
        const char* tmp = std::getenv("TMPDIR");
        return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    }
    // Runs at exit (libFuzzer ends its runs with exit()).
    ~Scratch() {
        for (const char* name : {"input.bin", "status", "status.tmp"}) ::unlink(file(name).c_str());
        ::rmdir(dir_.c_str());
    }
    std::string dir_;
};

// Writes `size` bytes as the whole content of `path`; aborts when it cannot
// (a harness failure, not a finding in the product).
inline void writeWhole(const std::string& path, const uint8_t* data, std::size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) std::abort();
    if (size != 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    if (std::fclose(f) != 0) std::abort();
}

// A stream that swallows what the code under test prints.
inline FILE* sink() {
    static FILE* devnull = std::fopen("/dev/null", "w");
    if (devnull == nullptr) std::abort();
    return devnull;
}

// Standard error silenced for the life of the object, so that the readers'
// refusal messages do not flood the fuzzer's output.
class QuietStderr {
public:
    QuietStderr() {
        std::fflush(stderr);
        saved_ = ::dup(2);
        FILE* null = sink();
        ::dup2(fileno(null), 2);
    }
    ~QuietStderr() {
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int saved_ = -1;
};

// Package checksum fix-ups over a whole file image (`size` bytes at `file`).
// Each does nothing when the image is not of its version or too short.

// Version 3 with a non-zero minor version: the header CRC at 60 over the
// first header_length bytes (fields 24-27 and 60-63 counted as zero).
inline void fixPackageHeaderCrc(uint8_t* file, std::size_t size) {
    if (size < 64 || qim_get_be32(file + 8) != 3 || qim_get_be32(file + 12) == 0) return;
    const uint32_t headerLength = qim_get_be32(file + 4);
    if (headerLength < 64 || headerLength > size || headerLength > 512) return;
    uint8_t head[64];
    for (int i = 0; i < 64; ++i) head[i] = file[i];
    for (int i = 0; i < 4; ++i) head[24 + i] = head[60 + i] = 0;
    uint32_t crc = crc32_update(CRC32_INIT, head, sizeof head);
    crc = ~crc32_update(crc, file + 64, headerLength - 64);
    qim_put_be32(file + 60, crc);
}

// Version 3: the whole-file CRC at 24 (its own field counted as zero).
inline void fixPackageFileCrc(uint8_t* file, std::size_t size) {
    if (size < 64 || qim_get_be32(file + 8) != 3) return;
    qim_put_be32(file + 24, 0);
    qim_put_be32(file + 24, crc32_compute(file, size));
}

// Version 2: the folded byte sum at 20 of everything but that field.
inline void fixPackageByteSum(uint8_t* file, std::size_t size) {
    if (size < 28 || qim_get_be32(file + 8) != 2) return;
    qim_put_be32(file + 20, 0);
    qim_put_be32(file + 20, qim_byte_sum_fold(qim_byte_sum_update(0, file, size)));
}

}  // namespace fuzzutil
