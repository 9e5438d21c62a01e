#include "app/status_file.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "app/flash_upgrader.h"
#include "app/tmp_file.h"

namespace status_file {

namespace {

bool startsWith(const std::string& line, const char* key) {
    return line.compare(0, std::char_traits<char>::length(key), key) == 0;
}

// The text after the first '=' of a line whose key has been matched.
std::string valueText(const std::string& line) {
    return line.substr(line.find('=') + 1);
}

// Created readable by all: the supervisor that polls with -S need not be root.
constexpr mode_t kFileMode = 0644;

// Only a regular file owned by root or by brivlo's user is read: a link, a
// FIFO or another user's file at the name counts as a missing file, so -S
// answers 0 and the writers count from 0.
bool readWholeFile(const char* path, std::string* content) {
    tmp_file::UniqueFile in = tmp_file::openTrusted(path);
    if (!in) {
        return false;
    }
    std::string text;
    char chunk[512];
    std::size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, in.get())) > 0) {
        text.append(chunk, got);
    }
    if (std::ferror(in.get())) {
        return false;
    }
    *content = text;
    return true;
}

// Writes `text` into a file created afresh at `tempPath` and renames it over
// `path`, so a reader sees the previous content or the new one whole, never
// an empty or half-written file. Nothing is renamed when the file could not
// be created or written completely: `path` keeps its previous content.
void replaceWith(const char* path, const char* tempPath, const std::string& text) {
    tmp_file::UniqueFile out = tmp_file::createFresh(tempPath, kFileMode);
    if (!out) {
        return;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), out.get()) == text.size();
    // Closed here so that a failed flush of the buffered text counts too.
    if (std::fclose(out.release()) == 0 && written) {
        tmp_file::renameInto(tempPath, path);
    }
}

}  // namespace

bool parseDecimal(const std::string& text, int* out) {
    std::size_t i = 0;
    // std::isspace in the "C" locale: the white space std::stoi skips.
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) {
        return false;
    }
    // Accumulate the magnitude; one past INT32_MAX is the most a negative
    // value may reach, so stop as soon as that is exceeded.
    const int64_t limit = negative ? int64_t{INT32_MAX} + 1 : int64_t{INT32_MAX};
    int64_t magnitude = 0;
    for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
        magnitude = magnitude * 10 + (text[i] - '0');
        if (magnitude > limit) {
            return false;
        }
    }
    *out = static_cast<int>(negative ? -magnitude : magnitude);
    return true;
}

Record parseRecord(const std::string& content) {
    Record record;
    std::istringstream lines(content);
    std::string line;
    while (std::getline(lines, line)) {
        // "status=" is tried first; the keys cannot overlap anyway.
        int* field = nullptr;
        if (startsWith(line, "status=")) {
            field = &record.status;
        } else if (startsWith(line, "total=")) {
            field = &record.total;
        } else if (startsWith(line, "current=")) {
            field = &record.current;
        }
        if (field != nullptr) {
            // A damaged value leaves the field as it was: the line counts as absent.
            parseDecimal(valueText(line), field);
        }
    }
    return record;
}

int64_t queryAnswer(const Record& record) {
    if (record.status != kPhasePackage) {
        return record.status;
    }
    if (record.total == 0 || record.current == 0) {
        return 0;
    }
    // 50 * current overflows 32 bits from 42,949,673 on; the division in
    // 64 bits truncates toward zero like the 32-bit one would.
    return 200 + (int64_t{50} * record.current) / record.total;
}

int answerToExitStatus(int64_t answer) {
    return static_cast<int>(static_cast<uint64_t>(answer) & 0xFFu);
}

int64_t queryFile(const char* path) {
    std::string content;
    if (!readWholeFile(path, &content)) {
        return 0;
    }
    return queryAnswer(parseRecord(content));
}

void queryStatus() {
    std::exit(answerToExitStatus(queryFile(kStatusPath)));
}

int lastCurrent(const std::string& content) {
    int current = 0;
    std::istringstream lines(content);
    std::string line;
    while (std::getline(lines, line)) {
        if (startsWith(line, "current=")) {
            parseDecimal(valueText(line), &current);
        }
    }
    return current;
}

int readStartCount(const char* path) {
    std::string content;
    if (!readWholeFile(path, &content)) {
        return 0;
    }
    return lastCurrent(content);
}

// The writers ignore every failure: progress reporting never stops an upgrade.
void writeDownloadPhase(const char* path, const char* tempPath) {
    replaceWith(path, tempPath, "status=" + std::to_string(kPhaseDownload));
}

void writePackagePhase(const char* path, const char* tempPath, int total) {
    std::string text = "status=" + std::to_string(kPhasePackage);
    if (total != 0) {
        text += "\ntotal=" + std::to_string(total) + "\ncurrent=" + std::to_string(0);
    }
    replaceWith(path, tempPath, text);
}

void replaceCurrent(const char* path, const char* tempPath, int current) {
    // A missing (or untrusted) status file reads as empty: the update then
    // leaves an empty status file.
    std::string content;
    const bool trusted = readWholeFile(path, &content);
    std::istringstream in(content);
    std::string updated;
    std::string line;
    while (std::getline(in, line)) {
        if (startsWith(line, "current=")) {
            // The replaced line ends the file: no line feed, nothing after it.
            updated += "current=" + std::to_string(current);
            break;
        }
        updated += line + '\n';
    }
    // A status file without a "current=" line (a raw image, written from a
    // local file or after a download) stays as it is after the first update.
    // It then already holds exactly what would be renamed over it: skipping
    // that saves a create, write and rename per erase block and per write
    // on the board's /tmp, and a reader sees the same text either way.
    if (trusted && updated == content) {
        return;
    }
    replaceWith(path, tempPath, updated);
}

}  // namespace status_file

void FlashUpgrader::updateStatusCurrent(int current) {
    status_file::replaceCurrent(status_file::kStatusPath, status_file::kTempPath, current);
}
