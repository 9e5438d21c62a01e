// Move-only owners of the C handles the libraries, the driver and the tools
// open: a file descriptor and a stdio stream. Each closes what it holds
// exactly once, on every return, so no early exit leaks or double-closes.
#pragma once

#include <cerrno>
#include <cstdio>
#include <memory>

#include <unistd.h>

namespace zel {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Gives up ownership without closing; the object then holds -1.
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Closes the held descriptor (if any) and takes `fd`. The close keeps
    // errno, so a caller can still report the failure that made it return.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

struct FileCloser {
    void operator()(FILE* file) const {
        if (file != nullptr) std::fclose(file);
    }
};
// A stdio stream closed exactly once.
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

}  // namespace zel
