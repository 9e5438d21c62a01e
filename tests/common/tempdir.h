// Private temporary directories and whole-file helpers for tests.
#pragma once

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

}  // namespace testutil
