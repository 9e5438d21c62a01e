#include "qim/file_identity.h"

#include <sys/stat.h>

zel_error_t qim_file_identity_of(int fd, qim_file_identity* out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    struct stat st;
    if (fstat(fd, &st) != 0) return ZEL_SYSTEM;
    // Widened to fixed 64-bit fields: dev_t, ino_t, off_t and time_t differ
    // in width between the host and the 32-bit target.
    out->device = static_cast<uint64_t>(st.st_dev);
    out->inode = static_cast<uint64_t>(st.st_ino);
    out->size = static_cast<uint64_t>(st.st_size);
    out->mtime_sec = static_cast<int64_t>(st.st_mtim.tv_sec);
    out->mtime_nsec = static_cast<int64_t>(st.st_mtim.tv_nsec);
    out->ctime_sec = static_cast<int64_t>(st.st_ctim.tv_sec);
    out->ctime_nsec = static_cast<int64_t>(st.st_ctim.tv_nsec);
    return ZEL_SUCCESS;
}

bool qim_file_identity_equal(const qim_file_identity* a, const qim_file_identity* b) {
    return a != nullptr && b != nullptr && a->device == b->device && a->inode == b->inode &&
           a->size == b->size && a->mtime_sec == b->mtime_sec && a->mtime_nsec == b->mtime_nsec &&
           a->ctime_sec == b->ctime_sec && a->ctime_nsec == b->ctime_nsec;
}
