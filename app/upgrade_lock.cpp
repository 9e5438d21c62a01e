#include "app/upgrade_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <utility>

namespace {
constexpr const char* kLockedFolder = "/dev/flash";
}  // namespace

UpgradeLock::State UpgradeLock::acquire() {
    // Not inherited by anything the upgrade might start: the lock ends with
    // this process.
    zel::UniqueFd folder(::open(kLockedFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) {
        return State::kUnavailable;
    }
    int rc;
    do {
        rc = ::flock(folder.get(), LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        return errno == EWOULDBLOCK ? State::kBusy : State::kUnavailable;
    }
    folder_ = std::move(folder);
    return State::kHeld;
}
