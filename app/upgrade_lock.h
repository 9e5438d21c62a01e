// One upgrade at a time. An upgrade holds an exclusive flock() on the lock
// file /run/brivlo.lock; the kernel drops it when the process ends, however
// it ends (SIGKILL included), so a stale lock can never block the next
// upgrade, and there is no PID file to clean up.
//
// Only root can take it: the file is created with mode 0600, without
// following a link, in a folder only root may write (/run), and a file found
// there is used only when it is a regular file of root (or of brivlo's user)
// that nobody else may open. Any user can open a folder or a world-readable
// file and flock() it; nobody but root can open this one.
//
// A board without /run (or whose /run is not root's alone) has no place for
// a lock that only root can take: the upgrade then runs unlocked, as it did
// before there was a lock, rather than not at all.
#pragma once

#include "support/unique_handles.h"

class UpgradeLock {
public:
    enum class State {
        kHeld,         // this process holds the lock until it ends
        kBusy,         // another process holds it
        kUnavailable,  // no safe place for the lock file: runs unlocked
    };

    // Tries once, without waiting.
    State acquire();

private:
    zel::UniqueFd file_;
};
