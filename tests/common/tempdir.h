// Private temporary directories and whole-file helpers for tests.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace testutil {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when the
// object goes out of scope. Tests never use the fixed paths of the product.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "brivlo-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name
    std::string file(const std::string& name) const;

private:
    std::string path_;
};

// Whole-file helpers; they fail the current test (ADD_FAILURE) on I/O errors.
std::string readFile(const std::string& path);
std::vector<unsigned char> readBytes(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
void writeBytes(const std::string& path, const std::vector<unsigned char>& content);
bool fileExists(const std::string& path);

// Deterministic pseudo-random contents for test files: the same for a seed on
// every run and platform, distinct between seeds, without a short period.
std::string randomBytes(std::size_t size, unsigned seed);
std::vector<unsigned char> randomByteVector(std::size_t size, unsigned seed);

}  // namespace testutil
