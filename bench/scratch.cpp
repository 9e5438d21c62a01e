#include "bench/scratch.h"

#include <cstdio>
#include <cstdlib>
#include <ftw.h>
#include <memory>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

#include "support/unique_handles.h"

namespace bench {

namespace {

int removeEntry(const char* path, const struct stat*, int, FTW*) { return ::remove(path); }

using zel::UniqueFile;

}  // namespace

ScratchDir::ScratchDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("cannot make a directory like " + pattern);
    // The TFTP server drops to its user after changing root into a subdirectory.
    ::chmod(pattern.c_str(), 0755);
    path_ = pattern;
}

ScratchDir::~ScratchDir() { nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS); }

std::string ScratchDir::subdir(const std::string& name) const {
    const std::string dir = file(name);
    ::mkdir(dir.c_str(), 0755);
    return dir;
}

std::vector<uint8_t> patternBytes(std::size_t size, uint32_t seed) {
    std::vector<uint8_t> data(size);
    uint32_t x = seed;
    for (auto& b : data) {
        x = x * 1103515245u + 12345u;
        b = static_cast<uint8_t>(x >> 16);
    }
    return data;
}

void writeBytes(const std::string& path, const uint8_t* data, std::size_t size) {
    UniqueFile f(std::fopen(path.c_str(), "wb"));
    if (!f || (size != 0 && std::fwrite(data, 1, size, f.get()) != size)) {
        throw std::runtime_error("cannot write " + path);
    }
    if (std::fclose(f.release()) != 0) throw std::runtime_error("cannot write " + path);
    ::chmod(path.c_str(), 0644);
}

std::vector<uint8_t> readBytes(const std::string& path) {
    UniqueFile f(std::fopen(path.c_str(), "rb"));
    if (!f) throw std::runtime_error("cannot open " + path);
    std::vector<uint8_t> data;
    uint8_t buf[65536];
    std::size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, f.get())) > 0) data.insert(data.end(), buf, buf + got);
    if (std::ferror(f.get())) throw std::runtime_error("cannot read " + path);
    return data;
}

bool sameContent(const std::string& path, const std::vector<uint8_t>& expected) {
    try {
        return readBytes(path) == expected;
    } catch (const std::runtime_error&) {
        return false;
    }
}

}  // namespace bench
