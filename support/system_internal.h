// The system call behind zel_read_at, replaceable so that tests can play a
// kernel that splits reads, interrupts them or fails half way. Product code
// never changes it.
#pragma once

#include <cstddef>
#include <sys/types.h>

struct zel_read_system {
    ssize_t (*pread)(int fd, void* buf, std::size_t count, off_t offset);
};

// The call in use; initially pread(2).
extern zel_read_system zel_read_system_calls;
