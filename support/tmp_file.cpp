#include "support/tmp_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Another process may put something back at the name between our removal
// and our exclusive create; a few rounds see off a racing writer without
// letting one keep us here for ever.
constexpr int kCreateAttempts = 4;

}  // namespace

zel_error_t zel_tmp_file_create(const char* path, mode_t mode, int* fd) {
    if (path == nullptr || fd == nullptr) return ZEL_INVALIDPARAMETER;
    for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
        // unlink refuses a directory (EISDIR on Linux, EPERM elsewhere): an
        // empty one goes with rmdir; one with files in it stays and fails
        // the create below.
        if (::unlink(path) != 0 && errno != ENOENT) {
            const int unlinkError = errno;
            if (::rmdir(path) != 0 && errno != ENOTEMPTY && errno != EEXIST) {
                errno = unlinkError;
                return ZEL_SYSTEM;
            }
        }
        const int opened = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (opened >= 0) {
            *fd = opened;
            return ZEL_SUCCESS;
        }
        if (errno != EEXIST) {
            return ZEL_SYSTEM;
        }
    }
    return ZEL_SYSTEM;  // errno is EEXIST
}

namespace {

// Six letters or digits nobody can guess in advance, so the name aside is
// not one another user could have prepared.
void randomSuffix(char out[7]) {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    unsigned char bytes[6];
    if (::getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        struct timespec now {};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        unsigned long mix = static_cast<unsigned long>(now.tv_nsec) ^ static_cast<unsigned long>(::getpid());
        for (unsigned char& b : bytes) {
            b = static_cast<unsigned char>(mix);
            mix = mix * 1103515245u + 12345u;
        }
    }
    for (std::size_t i = 0; i < sizeof bytes; ++i) out[i] = kLetters[bytes[i] % (sizeof kLetters - 1)];
    out[6] = '\0';
}

}  // namespace

zel_error_t zel_tmp_file_move_aside(const char* path, char aside[ZEL_TMP_ASIDE_SIZE]) {
    if (path == nullptr || aside == nullptr) return ZEL_INVALIDPARAMETER;
    const std::size_t length = std::strlen(path);
    if (length + 8 > ZEL_TMP_ASIDE_SIZE) {
        errno = ENAMETOOLONG;
        return ZEL_SYSTEM;
    }
    for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
        char name[ZEL_TMP_ASIDE_SIZE];
        std::memcpy(name, path, length);
        name[length] = '.';
        randomSuffix(name + length + 1);
        int rc = ::renameat2(AT_FDCWD, path, AT_FDCWD, name, RENAME_NOREPLACE);
        if (rc != 0 && (errno == EINVAL || errno == ENOSYS)) {
            // A file system without RENAME_NOREPLACE: the name is random, so
            // nothing is there unless it was just put there.
            struct stat st;
            if (::lstat(name, &st) == 0) continue;
            rc = ::rename(path, name);
        }
        if (rc == 0) {
            std::memcpy(aside, name, length + 8);
            return ZEL_SUCCESS;
        }
        if (errno != EEXIST) return ZEL_SYSTEM;
    }
    return ZEL_SYSTEM;  // errno is EEXIST
}

zel_error_t zel_tmp_file_open_trusted(const char* path, int* fd) {
    if (path == nullptr || fd == nullptr) return ZEL_INVALIDPARAMETER;
    const int opened = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (opened < 0) {
        return ZEL_SYSTEM;
    }
    struct stat st;
    const bool trusted = ::fstat(opened, &st) == 0 && S_ISREG(st.st_mode) &&
                         (st.st_uid == 0 || st.st_uid == ::geteuid());
    if (!trusted) {
        ::close(opened);
        errno = EPERM;
        return ZEL_SYSTEM;
    }
    *fd = opened;
    return ZEL_SUCCESS;
}

zel_error_t zel_file_check_guarded(int fd, char why[ZEL_FILE_GUARD_TEXT_SIZE]) {
    if (why == nullptr) return ZEL_INVALIDPARAMETER;
    struct stat st;
    if (::fstat(fd, &st) != 0) return ZEL_SYSTEM;
    if (!S_ISREG(st.st_mode)) {
        std::snprintf(why, ZEL_FILE_GUARD_TEXT_SIZE, "not a regular file");
    } else if (st.st_uid != 0 && st.st_uid != ::geteuid()) {
        std::snprintf(why, ZEL_FILE_GUARD_TEXT_SIZE, "owned by user %lu", static_cast<unsigned long>(st.st_uid));
    } else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        std::snprintf(why, ZEL_FILE_GUARD_TEXT_SIZE, "writable by group or others (mode 0%03o)",
                      static_cast<unsigned>(st.st_mode & 0777));
    } else {
        return ZEL_SUCCESS;
    }
    return ZEL_POLICY;
}
