// Opening the firmware file that is about to be flashed, for the raw path
// and the package path alike.
//
// The download path "/tmp/flashit" is a file brivlo has just created at a
// fixed name in /tmp: it is opened only when it is still a regular file of
// brivlo's user, reached without following a link (tmp_file rules), so
// anything swapped in since fails like a file that cannot be read. Any other
// path is the operator's choice and is followed as given.
//
// Either way the open never waits (a FIFO would block it for good, and a
// restarted open ignores SIGINT and SIGTERM) and only a regular file is
// kept: a FIFO, a device or a directory is refused at once.
//
// Under -K the bytes flashed must be the bytes verified, whoever owns the
// file: it must also be a file nobody but root and brivlo's user can write
// (support/tmp_file.h), or its owner could rewrite it between the check and
// the flash.
#pragma once

#include <string>

#include "support/unique_handles.h"

namespace firmware_file {

enum class Opened {
    kOk,          // *fd holds the file
    kUnreadable,  // missing, not readable, or not a regular file
    kUnguarded,   // -K: others may change it; *why says how
};

// Opens `path` for reading. `guarded`: the -K rule above.
Opened open(const std::string& path, bool guarded, zel::UniqueFd* fd, std::string* why);

}  // namespace firmware_file
