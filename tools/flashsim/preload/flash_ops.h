// The simulated flash chip: what a partition descriptor does on open, write,
// ioctl and close.
//
// A program's partition descriptor is read-only underneath: every write is
// carried out here through a private descriptor, with the NOR rules applied.
// A write that slips past the replacements (stdio's internal buffering, a
// dup'd descriptor, mmap) therefore fails with EBADF instead of silently
// bypassing the flash rules.
#pragma once

#include "tools/flashsim/preload/sim.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace flashsim {

// Opens partition `part` as the program asked (`flags` of open()); returns
// the descriptor (tracked) or -1 with errno. Counts and logs the open.
int openPartition(int part, int flags);

// Opening a partition as a stdio stream (fopen, freopen) happens in three
// steps, because the stream has to be made by the C library in between:
// beginPartitionStream counts the open and applies faults (false: refused,
// errno set, logged); the caller makes the stream on the backing file,
// opened read-write when the mode writes; endPartitionStream logs the result
// (fd < 0: failed with `error`) and turns the descriptor into a tracked,
// read-only-underneath partition descriptor.
bool beginPartitionStream(int part, const char* mode, int* accessMode);
void endPartitionStream(int part, int fd, int accessMode, int error);

// Makes sure the partition's backing file exists (stat() on a partition).
bool ensurePartitionBacking(int part);

// write()/pwrite(): `at` is null for a write at the descriptor's position
// (which then advances), else the explicit offset.
ssize_t writePartition(const TrackedFd& t, const void* data, size_t length, const int64_t* at);

// lseek() on a partition: the MTD rule (the result must lie in 0..size).
int64_t seekPartition(const TrackedFd& t, int64_t offset, int whence);

// ioctl() on a partition descriptor.
int ioctlPartition(const TrackedFd& t, uint32_t request, void* arg);

// Closes the program's descriptor with `closer` (close or fclose done by the
// caller) and logs it. `result` is the closer's result.
void logClose(int part, int fd, int result, int error);

}  // namespace flashsim
