#include "app/status_file.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "app/flash_upgrader.h"

namespace status_file {

namespace {

bool startsWith(const std::string& line, const char* key) {
    return line.compare(0, std::char_traits<char>::length(key), key) == 0;
}

// The text after the first '=' of a line whose key has been matched.
std::string valueText(const std::string& line) {
    return line.substr(line.find('=') + 1);
}

bool readWholeFile(const char* path, std::string* content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    *content = buffer.str();
    return true;
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

void writeDownloadPhase(const char* path) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << "status=" << kPhaseDownload;
}

void writePackagePhase(const char* path, int total) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << "status=" << kPhasePackage;
    }
    if (total != 0) {
        std::ofstream out(path, std::ios::binary | std::ios::app);
        out << "\ntotal=" << total << "\ncurrent=" << 0;
    }
}

void replaceCurrent(const char* path, const char* tempPath, int current) {
    {
        std::ifstream in(path, std::ios::binary);
        std::ofstream out(tempPath, std::ios::binary | std::ios::trunc);
        std::string line;
        while (in && std::getline(in, line)) {
            if (startsWith(line, "current=")) {
                // The replaced line ends the file: no line feed, nothing after it.
                out << "current=" << current;
                break;
            }
            out << line << '\n';
        }
    }
    // Both streams are closed before the rename so the new file is complete.
    std::rename(tempPath, path);
}

}  // namespace status_file

void FlashUpgrader::updateStatusCurrent(int current) {
    status_file::replaceCurrent(status_file::kStatusPath, status_file::kTempPath, current);
}
