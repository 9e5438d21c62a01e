// Helpers of the package end-to-end tests: packages built by `qimtool create`,
// the exact console text of a part write, the status file's history from
// the board's log, a run of brivlo whose sockets fail, and the flash contents
// of a board.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "brivlo_board.h"

namespace e2e {

constexpr uint32_t kEraseSize = 65536;
constexpr const char* kLocalDeviceCode = "40";

struct PartSpec {
    std::string kind;     // a part kind name or number, as qimtool takes it
    std::string release;  // a.b.c.d
    std::string data;
};

struct PackageSpec {
    std::string deviceCode = kLocalDeviceCode;
    std::string mfgc;  // 16 hex digits; empty: any manufacturer
    std::vector<PartSpec> parts;
    std::vector<std::string> models;  // "ID:SEQ,SEQ"; none: every part for any model
    bool v2 = false;
};

// Writes the part files next to the board and runs `qimtool create`; returns
// the package path (fails the test when qimtool fails).
std::string buildPackage(const Board& board, const PackageSpec& plan, const std::string& name = "fw.qim");
// The package report, as `qimtool info` prints it (without its signature line).
std::string report(const std::string& packagePath);

// Standard output of one part written into a partition of 64 KiB erase
// blocks: the partition line, erase dots, write dots, completion.
std::string partOutput(const std::string& partition, uint32_t size);
// The text brivlo ends a successful run with.
extern const char* const kDone;
// The last line of every failed package run.
extern const char* const kFailed;

// A combined Linux image: one erase block, a U-Boot header and data made by
// mkimage, the rest of the kernel portion, then `rootfsSize` bytes.
struct CombinedImage {
    std::string bytes;
    uint32_t kernelLength;
};
CombinedImage makeCombinedImage(const Board& board, uint32_t dataSize, uint32_t rootfsSize);

// The states a run gave the status file, in order, from the flashsim log:
// the content of each rename into place, and "<removed>" for each removal
// that found a file.
std::vector<std::string> statusHistory(const Board& board);
constexpr const char* kRemoved = "<removed>";

// `flashsim run DIR -- brivlo ARGS` with every socket() call failing with
// ENOSYS (through ptrace; x86-64 only, the caller skips elsewhere).
testutil::ProcessResult runWithoutSockets(const Board& board, const std::vector<std::string>& args);
// Whether runWithoutSockets works on this machine (x86-64, and children can
// be traced: not under qemu-user).
bool canFailSockets();

// Content of every partition file the board has (a partition gets one when
// first opened), by name.
std::map<std::string, std::string> flashFiles(const Board& board);

// A 16-digit identifier in hex from text (up to 8 characters, zero padded).
std::string textId(const std::string& text);

}  // namespace e2e
