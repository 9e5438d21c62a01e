// The upgrade status file: a few "key=value" lines in /tmp through which a
// running upgrade tells other processes (brivlo -S) how far it has got.
//
// Lines are separated by a line feed; the last line has none. Values are
// signed 32-bit decimals. The phase writers truncate the file in place; the
// progress update goes through a temporary file in the same directory and a
// rename, so a reader sees either the old or the new content whole. Every
// open, write and rename result is ignored: progress reporting never stops an
// upgrade.
//
// Both names lie in the world-writable /tmp, so neither is ever opened
// through a symbolic link (tmp_file::open): a link planted at the status
// file's name reads as a missing file and is not written through, one at the
// temporary name makes the progress update fail.
//
// The functions take the paths as arguments so they can be exercised on
// private files; the program always passes the two fixed paths below.
#pragma once

#include <cstdint>
#include <string>

namespace status_file {

constexpr const char* kStatusPath = "/tmp/brivlo_status";
constexpr const char* kTempPath = "/tmp/temp_brivlo_status";

// Phase values of the "status=" line.
enum : int { kPhaseDownload = 1, kPhasePackage = 2 };

// Reads a decimal int the way std::stoi(text, nullptr, 10) does (leading
// white space and a sign accepted, trailing characters ignored), without
// throwing: false, and `*out` untouched, when no digit follows or the value
// does not fit in 32 bits.
bool parseDecimal(const std::string& text, int* out);

// The values a status query takes from the file. A key whose line is missing
// or damaged (not a decimal, or out of the 32-bit range) keeps the value of
// an earlier line of the same key, or 0.
struct Record {
    int status = 0;
    int total = 0;
    int current = 0;
};
Record parseRecord(const std::string& content);

// The query's answer for a record: the status when it is not 2; 0 when total
// or current is 0; else 200 + 50 * current / total (64-bit product, division
// truncating toward zero). Not reduced to an exit status.
int64_t queryAnswer(const Record& record);

// The exit status a shell sees for an answer: its low 8 bits, as exit() keeps.
int answerToExitStatus(int64_t answer);

// The whole query on one file: 0 when it cannot be read or is a symbolic link.
int64_t queryFile(const char* path);

// `brivlo -S`: answers for kStatusPath and ends the process with exit().
[[noreturn]] void queryStatus();

// The last valid "current=" value in `content`, or 0 (a damaged line counts as
// absent, like in the query). The flash writers continue counting from it.
int lastCurrent(const std::string& content);
// lastCurrent of the file; 0 when it cannot be read or is a symbolic link.
int readStartCount(const char* path);

// "status=1": a download has started. Truncates the file in place.
void writeDownloadPhase(const char* path);
// "status=2", and when `total` is not 0 also "total=" `total` and "current=0"
// on the next lines: a package write has started.
void writePackagePhase(const char* path, int total);

// Copies `path` to `tempPath` line by line up to the first "current=" line,
// which is replaced by "current=" `current` (lines after it are dropped),
// then renames `tempPath` over `path`. A missing file leaves an empty one.
// When `tempPath` cannot be created or written completely nothing is renamed:
// `path` keeps its previous content.
void replaceCurrent(const char* path, const char* tempPath, int current);

}  // namespace status_file
