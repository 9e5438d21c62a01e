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

#include <cstddef>
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

// Something another user left at a fixed name that even root cannot remove
// (a directory with files in it) would keep brivlo from ever creating its
// file there. It is renamed aside instead, to a fresh name in the same
// directory: `path`, a dot and six random letters or digits, taken only if
// nothing stands there (RENAME_NOREPLACE). Root may rename another user's
// entry even in sticky /tmp. 0 with the new name in `aside`; SYSTEM with
// errno when nothing could be moved (ENOENT when nothing is at `path`).
enum : std::size_t { ZEL_TMP_ASIDE_SIZE = 4096 };
zel_error_t zel_tmp_file_move_aside(const char* path, char aside[ZEL_TMP_ASIDE_SIZE]);

// Opens `path` for reading without following a symbolic link and without
// waiting (a FIFO opens at once), and keeps it only when it is a regular
// file owned by root or by the effective user of this process. Anything
// else fails (ELOOP for a link, EPERM for another kind of file or another
// owner), as if nothing were there.
zel_error_t zel_tmp_file_open_trusted(const char* path, int* fd);

// Files whose content decides what is flashed (the release key, a firmware
// file checked against its signature) are trusted only when nobody but root
// and this process's effective user can change them: a regular file owned by
// one of them, with no group or other write permission. Checked on the open
// descriptor, so the file checked is the file read.
enum : std::size_t { ZEL_FILE_GUARD_TEXT_SIZE = 96 };

// 0 when the file open on `fd` is such a file; 14 (POLICY) with `why` set to
// "not a regular file", "owned by user N" or "writable by group or others
// (mode 0NNN)"; 2 (SYSTEM, errno set) when fstat fails; 3 for a null `why`.
zel_error_t zel_file_check_guarded(int fd, char why[ZEL_FILE_GUARD_TEXT_SIZE]);
