// The board's /tmp (DIR/tmp): its size limit, the log lines of status file
// renames and removals, and of paths refused there.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace flashsim {

// How many of `length` bytes a write to `fd` at `position` may store before
// the board's /tmp is full (its tmpSize), or `length` when there is no limit
// or fd is not a file in DIR/tmp. `position` -1: the descriptor's own offset
// (or the end, for O_APPEND).
size_t tmpRoom(int fd, size_t length, long long position);

// Log lines for the board's fixed /tmp files (`name` without "/tmp/"):
//   rename NAME from=FROM result=R content=TEXT   (what the rename put in place)
//   remove NAME result=R
// `content` is read from the file about to be renamed, before the rename.
struct TmpContent {
    char text[256];
    size_t length;
    bool known;
};
void readTmpContent(const char* mappedPath, TmpContent& out);
void logTmpRename(const char* name, const char* from, int result, int error, const TmpContent& content);
void logTmpRemove(const char* name, int result, int error);

// The fixed /tmp name a program path names ("brivlo_status" for
// "/tmp/brivlo_status"), or null for any other path.
const char* tmpName(const char* path);

// A path that reaches /tmp but cannot be mapped into the board (PathKind::
// Refused): logs `refuse tmp path=PATH result=-1 errno=EPERM` and sets errno
// to EPERM, so nothing a program does there can reach the machine's /tmp.
void refuseTmpPath(const char* path);

}  // namespace flashsim
