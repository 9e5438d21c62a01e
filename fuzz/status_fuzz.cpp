// The status file as `brivlo -S` and the flash writers read it: any bytes as
// the file's content. The value parser is held against std::stoi (the
// conversion the file's values are defined by, with a damaged value counting
// as absent), the query against the file, and the progress update against
// its line rules.
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

#include "app/status_file.h"
#include "fuzz_util.h"

namespace {

using fuzzutil::require;

// std::stoi in base 10; false where it throws.
bool stoiReference(const std::string& text, int* out) {
    try {
        *out = std::stoi(text, nullptr, 10);
        return true;
    } catch (const std::invalid_argument&) {
        return false;
    } catch (const std::out_of_range&) {
        return false;
    }
}

// The query's record computed line by line with the reference conversion.
status_file::Record referenceRecord(const std::string& content) {
    status_file::Record r;
    std::istringstream lines(content);
    std::string line;
    while (std::getline(lines, line)) {
        int* field = line.rfind("status=", 0) == 0    ? &r.status
                     : line.rfind("total=", 0) == 0   ? &r.total
                     : line.rfind("current=", 0) == 0 ? &r.current
                                                      : nullptr;
        int value = 0;
        if (field != nullptr && stoiReference(line.substr(line.find('=') + 1), &value)) *field = value;
    }
    return r;
}

std::string readBack(const std::string& path) {
    std::string out;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return out;
    char buf[4096];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    std::fclose(f);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string content(reinterpret_cast<const char*>(data), size);

    // The value parser alone, on the whole input.
    int mine = 0x5A5A5A5A, reference = 0;
    const bool ok = status_file::parseDecimal(content, &mine);
    require(ok == stoiReference(content, &reference));
    require(ok ? mine == reference : mine == 0x5A5A5A5A);

    const status_file::Record record = status_file::parseRecord(content);
    const status_file::Record expected = referenceRecord(content);
    require(record.status == expected.status && record.total == expected.total &&
            record.current == expected.current);

    const int64_t answer = status_file::queryAnswer(record);
    if (record.status == status_file::kPhasePackage && record.total != 0 && record.current != 0) {
        require(answer == 200 + (int64_t{50} * record.current) / record.total);
    } else if (record.status == status_file::kPhasePackage) {
        require(answer == 0);
    } else {
        require(answer == record.status);
    }
    const int exitStatus = status_file::answerToExitStatus(answer);
    require(exitStatus >= 0 && exitStatus <= 255);
    require(status_file::lastCurrent(content) == record.current);

    // The same through a file, and the progress update on it.
    const std::string path = fuzzutil::Scratch::instance().file("status");
    const std::string temp = fuzzutil::Scratch::instance().file("status.tmp");
    fuzzutil::writeWhole(path, data, size);
    require(status_file::queryFile(path.c_str()) == answer);
    require(status_file::readStartCount(path.c_str()) == record.current);

    status_file::replaceCurrent(path.c_str(), temp.c_str(), 4096);
    const std::string updated = readBack(path);
    // Every line before the first "current=" line is kept (with a line feed);
    // that line becomes "current=4096" and ends the file.
    std::istringstream lines(content);
    std::string line, kept;
    bool replaced = false;
    while (std::getline(lines, line)) {
        if (line.rfind("current=", 0) == 0) {
            kept += "current=4096";
            replaced = true;
            break;
        }
        kept += line + "\n";
    }
    require(updated == kept);
    require(status_file::readStartCount(path.c_str()) == (replaced ? 4096 : 0));
    return 0;
}
