#include "app/tmp_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace tmp_file {

namespace {

struct AccessMode {
    int flags;
    const char* stdioMode;
};

AccessMode accessMode(Access access) {
    switch (access) {
    case Access::kTruncate:
        return {O_WRONLY | O_CREAT | O_TRUNC, "wb"};
    case Access::kAppend:
        return {O_WRONLY | O_CREAT | O_APPEND, "ab"};
    case Access::kReadWrite:
        return {O_RDWR | O_CREAT | O_TRUNC, "w+b"};
    case Access::kRead:
        break;
    }
    return {O_RDONLY, "rb"};
}

}  // namespace

UniqueFile open(const char* path, Access access, mode_t createMode) {
    const AccessMode mode = accessMode(access);
    // O_CLOEXEC: nothing brivlo might start should inherit these descriptors.
    const int fd = ::open(path, mode.flags | O_NOFOLLOW | O_CLOEXEC, createMode);
    if (fd < 0) {
        return nullptr;
    }
    // fdopen with "w" neither truncates nor creates again: open did both.
    UniqueFile file(::fdopen(fd, mode.stdioMode));
    if (!file) {
        const int error = errno;
        ::close(fd);
        errno = error;
    }
    return file;
}

UniqueFile openImage(const char* path) {
    if (std::strcmp(path, kDownloadPath) == 0) {
        return open(path, Access::kRead);
    }
    return UniqueFile(std::fopen(path, "rb"));
}

}  // namespace tmp_file
