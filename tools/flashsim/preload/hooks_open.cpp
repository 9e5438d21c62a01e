// Replacements of the functions that open files: open/openat and their 64-bit
// and fortified variants, creat, fopen, freopen. Board paths are redirected;
// a partition opens the simulated device.
#include "tools/flashsim/preload/flash_ops.h"
#include "tools/flashsim/preload/hooks.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/tmp_ops.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>

using namespace flashsim;

namespace {

bool takesMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

// `call(path)` performs the C library's open on the path to use.
template <typename Call>
int openVia(const char* path, int flags, Call call) {
    ResolvedPath r;
    resolvePath(opaque(path), r);
    switch (r.kind) {
        case PathKind::Mapped: return call(r.path);
        case PathKind::Partition: return openPartition(r.part, flags);
        case PathKind::MissingPartition: errno = ENOENT; return -1;
        case PathKind::Refused: refuseTmpPath(path); return -1;
        case PathKind::Other: break;
    }
    return call(path);
}

// The mode for fdopen()/freopen() of a partition's backing file: MTD devices
// have no truncation and no append, so "w" and "a" must not bring them.
void streamMode(const char* mode, bool forReopen, char* out) {
    const bool plus = std::strchr(mode, '+') != nullptr;
    size_t n = 0;
    if (mode[0] == 'r' && !plus) {
        out[n++] = 'r';
    } else if (forReopen || plus) {
        out[n++] = 'r';
        out[n++] = '+';
    } else {
        out[n++] = 'w';
    }
    if (std::strchr(mode, 'e') != nullptr) out[n++] = 'e';
    out[n] = '\0';
}

FILE* openPartitionStream(int part, const char* mode) {
    if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w' && mode[0] != 'a')) {
        errno = EINVAL;
        return nullptr;
    }
    const int saved = errno;
    int accessMode = 0;
    if (!beginPartitionStream(part, mode, &accessMode)) return nullptr;
    char path[PATH_MAX];
    backingPath(part, path);
    const int fd = real().openat(AT_FDCWD, path, (accessMode == O_RDONLY ? O_RDONLY : O_RDWR) | O_CLOEXEC);
    FILE* stream = nullptr;
    if (fd >= 0) {
        char m[8];
        streamMode(mode, false, m);
        stream = real().fdopen(fd, m);
        if (stream == nullptr) {
            const int error = errno;
            real().close(fd);
            errno = error;
        }
    }
    const int error = errno;
    endPartitionStream(part, stream != nullptr ? fd : -1, accessMode, error);
    errno = stream != nullptr ? saved : error;
    return stream;
}

template <typename Call>
FILE* fopenVia(const char* path, const char* mode, Call call) {
    ResolvedPath r;
    resolvePath(opaque(path), r);
    switch (r.kind) {
        case PathKind::Mapped: return call(r.path);
        case PathKind::Partition: return openPartitionStream(r.part, mode);
        case PathKind::MissingPartition: errno = ENOENT; return nullptr;
        case PathKind::Refused: refuseTmpPath(path); return nullptr;
        case PathKind::Other: break;
    }
    return call(path);
}

template <typename Real>
FILE* freopenVia(const char* path, const char* mode, FILE* stream, Real realFn) {
    ResolvedPath r;
    resolvePath(opaque(path), r);
    switch (r.kind) {
        case PathKind::Mapped: return realFn(r.path, mode, stream);
        case PathKind::MissingPartition: errno = ENOENT; return nullptr;
        case PathKind::Refused: refuseTmpPath(path); return nullptr;
        case PathKind::Other: return realFn(path, mode, stream);
        case PathKind::Partition: break;
    }
    if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w' && mode[0] != 'a')) {
        errno = EINVAL;
        return nullptr;
    }
    const int saved = errno;
    int accessMode = 0;
    if (!beginPartitionStream(r.part, mode, &accessMode)) return nullptr;
    char m[8];
    streamMode(mode, true, m);
    FILE* result = realFn(r.path, m, stream);
    const int error = errno;
    endPartitionStream(r.part, result != nullptr ? fileno(result) : -1, accessMode, error);
    errno = result != nullptr ? saved : error;
    return result;
}

}  // namespace

#define FLASHSIM_MODE_ARG(flags)                       \
    mode_t mode = 0;                                   \
    if (takesMode(flags)) {                            \
        va_list ap;                                    \
        va_start(ap, flags);                           \
        mode = static_cast<mode_t>(va_arg(ap, int));   \
        va_end(ap);                                    \
    }

FLASHSIM_EXPORT int open(const char* path, int flags, ...) {
    FLASHSIM_MODE_ARG(flags)
    return openVia(path, flags, [&](const char* p) { return real().open(p, flags, mode); });
}

FLASHSIM_EXPORT int open64(const char* path, int flags, ...) {
    FLASHSIM_MODE_ARG(flags)
    return openVia(path, flags, [&](const char* p) { return real().open64(p, flags, mode); });
}

FLASHSIM_EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    FLASHSIM_MODE_ARG(flags)
    return openVia(path, flags, [&](const char* p) { return real().openat(dirfd, p, flags, mode); });
}

FLASHSIM_EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    FLASHSIM_MODE_ARG(flags)
    return openVia(path, flags, [&](const char* p) { return real().openat64(dirfd, p, flags, mode); });
}

// The fortified variants (-D_FORTIFY_SOURCE) that programs call when the
// compiler can tell no mode is passed.
FLASHSIM_EXPORT int __open_2(const char* path, int flags) {
    return openVia(path, flags, [&](const char* p) { return real().open_2(p, flags); });
}

FLASHSIM_EXPORT int __open64_2(const char* path, int flags) {
    return openVia(path, flags, [&](const char* p) { return real().open64_2(p, flags); });
}

FLASHSIM_EXPORT int __openat_2(int dirfd, const char* path, int flags) {
    return openVia(path, flags, [&](const char* p) { return real().openat_2(dirfd, p, flags); });
}

FLASHSIM_EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
    return openVia(path, flags, [&](const char* p) { return real().openat64_2(dirfd, p, flags); });
}

FLASHSIM_EXPORT int creat(const char* path, mode_t mode) {
    return openVia(path, O_CREAT | O_WRONLY | O_TRUNC, [&](const char* p) { return real().creat(p, mode); });
}

FLASHSIM_EXPORT int creat64(const char* path, mode_t mode) {
    return openVia(path, O_CREAT | O_WRONLY | O_TRUNC, [&](const char* p) { return real().creat64(p, mode); });
}

FLASHSIM_EXPORT FILE* fopen(const char* path, const char* mode) {
    return fopenVia(path, mode, [&](const char* p) { return real().fopen(p, mode); });
}

FLASHSIM_EXPORT FILE* fopen64(const char* path, const char* mode) {
    return fopenVia(path, mode, [&](const char* p) { return real().fopen64(p, mode); });
}

FLASHSIM_EXPORT FILE* freopen(const char* path, const char* mode, FILE* stream) {
    return freopenVia(path, mode, stream, real().freopen);
}

FLASHSIM_EXPORT FILE* freopen64(const char* path, const char* mode, FILE* stream) {
    return freopenVia(path, mode, stream, real().freopen64);
}
