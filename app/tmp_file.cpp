#include "app/tmp_file.h"

#include <cerrno>
#include <cstring>
#include <iostream>
#include <sys/stat.h>
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

// Moves aside whatever stands at `path`, saying so. False with errno kept
// when there is nothing to move or it cannot be moved.
bool moveAside(const char* path) {
    const int error = errno;
    char aside[ZEL_TMP_ASIDE_SIZE];
    // The rename itself finds out whether anything stands there.
    if (zel_tmp_file_move_aside(path, aside) != ZEL_SUCCESS) {
        errno = error;
        return false;
    }
    std::cerr << "main: " << path << " could not be removed; moved aside to " << aside << std::endl;
    return true;
}

}  // namespace

UniqueFile createFresh(const char* path, mode_t mode) {
    int fd = -1;
    if (zel_tmp_file_create(path, mode, &fd) != ZEL_SUCCESS &&
        (!moveAside(path) || zel_tmp_file_create(path, mode, &fd) != ZEL_SUCCESS)) {
        return nullptr;
    }
    // fdopen with "w" neither truncates nor creates again: the file is new.
    return streamOf(fd, "w+b");
}

int renameInto(const char* from, const char* to) {
    if (std::rename(from, to) == 0) {
        return 0;
    }
    // Only a directory stands in the way of a rename by root.
    if ((errno != EISDIR && errno != ENOTEMPTY && errno != EEXIST) || !moveAside(to)) {
        return -1;
    }
    return std::rename(from, to);
}

UniqueFile openTrusted(const char* path) {
    int fd = -1;
    if (zel_tmp_file_open_trusted(path, &fd) != ZEL_SUCCESS) {
        return nullptr;
    }
    return streamOf(fd, "rb");
}

}  // namespace tmp_file
