#include "app/upgrade_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char* kLockFolder = "/run";
constexpr const char* kLockName = "brivlo.lock";

// Root's, or this process's user's (a board simulated for a user), and
// writable by nobody else.
bool ownedAlone(const struct stat& st) {
    return (st.st_uid == 0 || st.st_uid == ::geteuid()) && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The lock file, open, or an invalid descriptor when there is no safe one.
zel::UniqueFd openLockFile() {
    const zel::UniqueFd folder(::open(kLockFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st;
    if (!folder.valid() || ::fstat(folder.get(), &st) != 0 || !ownedAlone(st)) {
        return zel::UniqueFd();
    }
    // Not inherited by anything the upgrade might start: the lock ends with
    // this process. O_NONBLOCK: whatever stands at the name, the open never
    // waits.
    zel::UniqueFd file(::openat(folder.get(), kLockName,
                                O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) || !ownedAlone(st)) {
        return zel::UniqueFd();
    }
    // A file left readable by an older version, or by hand, is closed to
    // others from now on.
    if ((st.st_mode & 07777) != 0600 && ::fchmod(file.get(), 0600) != 0) {
        return zel::UniqueFd();
    }
    return file;
}

}  // namespace

UpgradeLock::State UpgradeLock::acquire() {
    zel::UniqueFd file = openLockFile();
    if (!file.valid()) {
        return State::kUnavailable;
    }
    int rc;
    do {
        rc = ::flock(file.get(), LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return errno == EWOULDBLOCK ? State::kBusy : State::kUnavailable;
    }
    file_ = std::move(file);
    return State::kHeld;
}
