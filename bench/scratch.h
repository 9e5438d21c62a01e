// A private working directory for one benchmark (boards, images, served
// files), removed with its contents at the end, and the file helpers the
// benchmarks share. Nothing here touches the product's fixed /tmp paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

class ScratchDir {
public:
    explicit ScratchDir(const std::string& prefix);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // A subdirectory, made if missing.
    std::string subdir(const std::string& name) const;

private:
    std::string path_;
};

// Deterministic pseudo-random bytes: the same content in every run, and no
// long runs that a file system or a checksum could treat specially.
std::vector<uint8_t> patternBytes(std::size_t size, uint32_t seed);

// Whole-file helpers; they throw std::runtime_error on I/O errors.
void writeBytes(const std::string& path, const uint8_t* data, std::size_t size);
std::vector<uint8_t> readBytes(const std::string& path);
bool sameContent(const std::string& path, const std::vector<uint8_t>& expected);

}  // namespace bench
