// The upgrade status file: a few "key=value" lines in /tmp through which a
// running upgrade tells other processes (brivlo -S) how far it has got.
//
// Lines are separated by a line feed; the last line has none. Values are
// signed 32-bit decimals. Every writer creates the temporary file in the
// same directory afresh, writes it and renames it over the status file, so a
// reader sees either the old or the new content whole, never an empty file.
// Every open, write and rename result is ignored: progress reporting never
// stops an upgrade.
//
// Both names lie in the world-writable /tmp. Whatever another user put at the
// temporary name (a link, a FIFO, a file of theirs) is removed and replaced,
// never written through (tmp_file::createFresh); at the status file's name it
// reads as a missing file (tmp_file::openTrusted) and is replaced by the next
// rename.
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

// The whole query on one file: 0 when it cannot be read or is not trusted
// (a link, a FIFO, another user's file).
int64_t queryFile(const char* path);

// `brivlo -S`: answers for kStatusPath and ends the process with exit().
[[noreturn]] void queryStatus();

// The last valid "current=" value in `content`, or 0 (a damaged line counts as
// absent, like in the query). The flash writers continue counting from it.
int lastCurrent(const std::string& content);
// lastCurrent of the file; 0 when it cannot be read or is not trusted.
int readStartCount(const char* path);

// "status=1": a download has started. Written into `tempPath`, then renamed
// over `path`.
void writeDownloadPhase(const char* path, const char* tempPath);
// "status=2", and when `total` is not 0 also "total=" `total` and "current=0"
// on the next lines: a package write has started. Renamed into place too.
void writePackagePhase(const char* path, const char* tempPath, int total);

// Copies `path` to `tempPath` line by line up to the first "current=" line,
// which is replaced by "current=" `current` (lines after it are dropped),
// then renames `tempPath` over `path`. A missing file leaves an empty one.
// When `tempPath` cannot be created or written completely nothing is renamed:
// `path` keeps its previous content. A trusted file that already holds the
// result (a raw image's file, which has no "current=" line) is left in place.
void replaceCurrent(const char* path, const char* tempPath, int current);

}  // namespace status_file
