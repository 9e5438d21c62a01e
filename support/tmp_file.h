// Files at fixed names in a directory that every user may write (/tmp).
//
// Anyone can put something at such a name before we get there: a symbolic
// link to a file of ours, a FIFO that blocks whoever opens it, or a file of
// their own that they keep open and write into. So a file we write is always
// one we have just created, and a file we read is trusted only when it is a
// regular file that we (or root) own.
//
// Both functions set *fd (close-on-exec, owned by the caller) and return 0,
// or return SYSTEM with errno telling why and leave *fd untouched; 3
// (INVALIDPARAMETER) for a null argument.
#pragma once

#include <sys/types.h>

#include "support/errors.h"

// Removes whatever is at `path` (a link itself, never its target; an empty
// directory too) and creates a new, empty file there exclusively
// (O_CREAT|O_EXCL|O_NOFOLLOW), open for reading and writing, with `mode`
// before the umask. Nothing that stood at the name can be written through or
// block the open. What cannot be removed (a directory with files in it, or
// another user's file when we are not root: /tmp is sticky) fails with
// EEXIST or the removal's errno.
zel_error_t zel_tmp_file_create(const char* path, mode_t mode, int* fd);

// Opens `path` for reading without following a symbolic link and without
// waiting (a FIFO opens at once), and keeps it only when it is a regular
// file owned by root or by the effective user of this process. Anything
// else fails (ELOOP for a link, EPERM for another kind of file or another
// owner), as if nothing were there.
zel_error_t zel_tmp_file_open_trusted(const char* path, int* fd);
