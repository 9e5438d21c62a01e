#include "app/tmp_file.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "support/tmp_file.h"

namespace tmp_file {

namespace {

UniqueFile streamOf(int fd, const char* mode) {
    UniqueFile file(::fdopen(fd, mode));
    if (!file) {
        const int error = errno;
        ::close(fd);
        errno = error;
    }
    return file;
}

}  // namespace

UniqueFile createFresh(const char* path, mode_t mode) {
    int fd = -1;
    if (zel_tmp_file_create(path, mode, &fd) != ZEL_SUCCESS) {
        return nullptr;
    }
    // fdopen with "w" neither truncates nor creates again: the file is new.
    return streamOf(fd, "w+b");
}

UniqueFile openTrusted(const char* path) {
    int fd = -1;
    if (zel_tmp_file_open_trusted(path, &fd) != ZEL_SUCCESS) {
        return nullptr;
    }
    return streamOf(fd, "rb");
}

UniqueFile openImage(const char* path) {
    if (std::strcmp(path, kDownloadPath) == 0) {
        return openTrusted(path);
    }
    return UniqueFile(std::fopen(path, "rb"));
}

}  // namespace tmp_file
