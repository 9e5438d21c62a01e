// The benchmarks that bench/run puts into one table. Each measures its
// subject and its reference in the same run, interleaved where both are
// processes, so that a change in the machine's load hits both alike.
#pragma once

#include <string>

#include "bench/table.h"

namespace bench {

struct Config {
    int runs = 9;          // in-process timings, flash writes
    int tftpRuns = 9;      // 32 MB downloads per client
    int spawnRuns = 300;   // status queries and /bin/true starts
    int memoryRuns = 3;    // package upgrades for the peak memory
    std::string brivlo;    // paths of the programs under test
    std::string flashsim;
    std::string qimtool;
    std::string mtdFloor;
};

// CRC-32 against zlib's crc32 in memory, and the loading of a 32 MiB package
// against zlib's crc32 over the same file.
void crcBenchmarks(const Config& config, Table& table);
// A 32 MB TFTP download from a local in.tftpd: brivlo, tftp-hpa's tftp, curl.
void tftpBenchmarks(const Config& config, Table& table);
// brivlo -F from in.tftpd, atftpd and dnsmasq, on loopback and through a
// relay of 0.5 ms each way, against curl, atftp and brivlo without -F.
void tftpOptionBenchmarks(const Config& config, Table& table);
// brivlo -S against /bin/true.
void statusQueryBenchmarks(const Config& config, Table& table);
// A 32 MiB raw upgrade through flashsim against dd into the same backing
// file, and the peak memory of that upgrade.
void flashPathBenchmarks(const Config& config, Table& table);
// The peak memory of a package upgrade against its largest part.
void packageMemoryBenchmarks(const Config& config, Table& table);
// The signature check of a 32 MiB minisign-signed package against b2sum.
void signatureBenchmarks(const Config& config, Table& table);

}  // namespace bench
