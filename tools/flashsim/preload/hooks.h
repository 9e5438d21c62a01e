// Helpers shared by the replacement functions (hooks_*.cpp).
#pragma once

#include "tools/flashsim/preload/sim.h"

// Replacements are the only symbols the library exports.
#define FLASHSIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace flashsim {

// The C library declares path arguments non-null, which would let the
// compiler drop our null checks; a program may still pass null and must then
// get the C library's own answer (EFAULT), not a crash in here.
template <typename T>
T* opaque(T* p) {
    T* volatile v = p;
    return v;
}

// For operations that only need a path: the path to use, or null with errno
// set. A partition is acceptable only when `partitionOk` (stat, access);
// otherwise the device node cannot be renamed, removed or truncated (EPERM).
const char* mapPath(const char* path, ResolvedPath& resolved, bool partitionOk);

}  // namespace flashsim
