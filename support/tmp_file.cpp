#include "support/tmp_file.h"

#include <cerrno>
#include <fcntl.h>
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
