// The system calls behind zel_random_init, replaceable so that tests can play
// an early-boot kernel (short reads, interruptions) without waiting. Product
// code never changes them.
#pragma once

#include <cstddef>
#include <sys/types.h>

struct zel_random_system {
    ssize_t (*getrandom)(void* buf, std::size_t len, unsigned flags);
    unsigned (*sleep)(unsigned seconds);
};

// The calls in use; initially getrandom(2) and sleep(3).
extern zel_random_system zel_random_system_calls;
