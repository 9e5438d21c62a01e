#include "common/tempdir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <ftw.h>
#include <iterator>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace testutil {

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    ::remove(path);
    return 0;
}

}  // namespace

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed for " << templ;
        return;
    }
    path_ = buf.data();
}

TempDir::~TempDir() {
    if (!path_.empty()) ::nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path;
        return {};
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<unsigned char> readBytes(const std::string& path) {
    const std::string s = readFile(path);
    return std::vector<unsigned char>(s.begin(), s.end());
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out) ADD_FAILURE() << "cannot write " << path;
}

void writeBytes(const std::string& path, const std::vector<unsigned char>& content) {
    writeFile(path, std::string(content.begin(), content.end()));
}

bool fileExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::string randomBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(generator() & 0xFF);
    return bytes;
}

std::vector<unsigned char> randomByteVector(std::size_t size, unsigned seed) {
    const std::string bytes = randomBytes(size, seed);
    return {bytes.begin(), bytes.end()};
}

}  // namespace testutil
