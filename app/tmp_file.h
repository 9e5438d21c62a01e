// The files brivlo keeps at fixed names in /tmp, as stdio streams.
//
// /tmp is writable by every user and brivlo runs as root, so whatever stands
// at one of the fixed names may have been put there by someone else: a
// symbolic link to a system file, a FIFO that would block the open, a file of
// another user who keeps it open and writes into it. brivlo therefore never
// writes into a file it did not just create (createFresh) and never reads a
// file it cannot trust (openTrusted); the rules live in support/tmp_file.h.
//
// Both return a stream owned by the caller, or null with errno telling why.
#pragma once

#include <cstdio>
#include <memory>
#include <sys/types.h>

#include "support/unique_handles.h"

namespace tmp_file {

// The firmware file a tftp:// download is written into.
constexpr const char* kDownloadPath = "/tmp/flashit";

using zel::UniqueFile;

// A new empty file at `path`, open for reading and writing ("w+b"), created
// with `mode` (before the umask) after whatever was at the name is removed.
// What cannot be removed (another user's directory with files in it) is
// moved aside to a fresh name beside it, with one line on standard error.
UniqueFile createFresh(const char* path, mode_t mode);

// rename(from, to), moving aside what cannot be replaced at `to` (a
// directory) the same way. 0, or -1 with errno.
int renameInto(const char* from, const char* to);

// `path` open for reading ("rb") when it is a regular file owned by root or
// by brivlo's user, reached without following a link and without blocking;
// null for anything else, as for a missing file.
UniqueFile openTrusted(const char* path);

}  // namespace tmp_file
