// Opening the files brivlo keeps at fixed names in /tmp.
//
// /tmp is writable by every user, and brivlo runs as root: another user can
// plant a symbolic link at one of the fixed names (/tmp/flashit ->
// /etc/shadow) before brivlo gets there, and a plain fopen would then truncate
// or write the link's target. These opens never follow a link at the last
// component of the path (O_NOFOLLOW): the open fails with ELOOP instead, and
// the caller treats that like any other failure to open. rename() and
// remove() act on a link itself, never on its target, so they need no care.
//
// Every function returns a stdio stream owned by the caller, or null with
// errno telling why (untouched by the cleanup after a failed step).
#pragma once

#include <cstdio>
#include <memory>
#include <sys/types.h>

namespace tmp_file {

// The firmware file a tftp:// download is written into.
constexpr const char* kDownloadPath = "/tmp/flashit";

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// The fopen modes these files are used with, binary throughout.
enum class Access {
    kRead,       // "rb"
    kTruncate,   // "wb": created with `createMode` or emptied
    kAppend,     // "ab": created with `createMode`, written at the end
    kReadWrite,  // "w+b": created with `createMode` or emptied, readable too
};

// Opens `path` like fopen with the mode of `access`, refusing a symbolic link
// at `path` (ELOOP). `createMode` (before the umask) applies to a file that
// did not exist.
UniqueFile open(const char* path, Access access, mode_t createMode = 0644);

// fopen(path, "rb") for a file brivlo flashes. At kDownloadPath a symbolic
// link is refused: the file there is one brivlo has just written, so a link
// can only have been swapped in since. Any other path is the operator's
// choice and is followed as given.
UniqueFile openImage(const char* path);

}  // namespace tmp_file
