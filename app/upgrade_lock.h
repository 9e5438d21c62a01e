// One upgrade at a time. An upgrade holds an exclusive flock() on the flash
// device folder /dev/flash; the kernel drops it when the process ends, however
// it ends (SIGKILL included), so a stale lock can never block the next
// upgrade, and there is no PID file to clean up.
#pragma once

#include "support/unique_handles.h"

class UpgradeLock {
public:
    enum class State {
        kHeld,         // this process holds the lock until it ends
        kBusy,         // another process holds it
        kUnavailable,  // no device folder to lock (no flash to write either)
    };

    // Tries once, without waiting.
    State acquire();

private:
    zel::UniqueFd folder_;
};
