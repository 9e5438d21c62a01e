// Identity of an open file: which file it is (device and inode) and what its
// last change left behind (size, modification and status-change times with
// nanoseconds). Two identities of the same file differ once it was written,
// truncated, extended or had its times set (the status-change time cannot be
// set back); a file put in its place under the same name is another inode.
//
// Limit: the times come from the kernel's file-system clock. On a kernel that
// stamps changes with a coarse clock, a same-size rewrite within one tick of
// the change the identity saw can leave all fields equal.
#pragma once

#include <cstdint>

#include "support/errors.h"

struct qim_file_identity {
    uint64_t device;
    uint64_t inode;
    uint64_t size;
    int64_t mtime_sec;
    int64_t mtime_nsec;
    int64_t ctime_sec;
    int64_t ctime_nsec;
};

// The identity of the file open on `fd`: 0; 3 for a null `out`; 2 (SYSTEM,
// errno set) when fstat fails. `out` is untouched on failure.
zel_error_t qim_file_identity_of(int fd, qim_file_identity* out);

// True when every field agrees (false when either is null).
bool qim_file_identity_equal(const qim_file_identity* a, const qim_file_identity* b);
