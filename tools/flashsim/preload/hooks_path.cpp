// Replacements of the functions that name files without opening them:
// rename, remove/unlink, link, symlink, mkdir, the stat and access families,
// truncate. Paths in /tmp are redirected into the board's /tmp (or refused);
// a partition can be looked at (stat, access) but not renamed, removed,
// linked or truncated.
#include "tools/flashsim/preload/flash_ops.h"
#include "tools/flashsim/preload/hooks.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/tmp_ops.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace flashsim {

const char* mapPath(const char* path, ResolvedPath& resolved, bool partitionOk) {
    resolvePath(opaque(path), resolved);
    switch (resolved.kind) {
        case PathKind::Other: return path;
        case PathKind::Mapped: return resolved.path;
        case PathKind::MissingPartition: errno = ENOENT; return nullptr;
        case PathKind::Refused: refuseTmpPath(path); return nullptr;
        case PathKind::Partition:
            if (!partitionOk) {
                errno = EPERM;
                return nullptr;
            }
            if (!ensurePartitionBacking(resolved.part)) {
                errno = EIO;
                return nullptr;
            }
            return resolved.path;
    }
    return path;
}

}  // namespace flashsim

using namespace flashsim;

// One path argument: `call(mapped)` runs the C library's function.
#define FLASHSIM_ONE_PATH(path, partitionOk, failure, call) \
    ResolvedPath resolved;                                  \
    const char* mapped = mapPath(path, resolved, partitionOk); \
    if (mapped == nullptr && opaque(path) != nullptr) return failure; \
    return call;

namespace {

// Renames and removals of the board's fixed /tmp files are logged, a rename
// with the content it puts in place, so a test sees every state of the
// status file without stopping the program.
template <typename Call>
int renameVia(const char* from, const char* to, Call call) {
    ResolvedPath a, b;
    const char* mappedFrom = mapPath(from, a, false);
    if (mappedFrom == nullptr && opaque(from) != nullptr) return -1;
    const char* mappedTo = mapPath(to, b, false);
    if (mappedTo == nullptr && opaque(to) != nullptr) return -1;
    const char* name = tmpName(opaque(to));
    if (name == nullptr) return call(mappedFrom, mappedTo);
    TmpContent content;
    readTmpContent(mappedFrom, content);
    const int result = call(mappedFrom, mappedTo);
    const int error = errno;
    const char* fromName = tmpName(from);
    logTmpRename(name, fromName != nullptr ? fromName : from, result, error, content);
    errno = error;
    return result;
}

template <typename Call>
int removeVia(const char* path, Call call) {
    ResolvedPath resolved;
    const char* mapped = mapPath(path, resolved, false);
    if (mapped == nullptr && opaque(path) != nullptr) return -1;
    const char* name = tmpName(opaque(path));
    const int result = call(mapped);
    if (name != nullptr) {
        const int error = errno;
        logTmpRemove(name, result, error);
        errno = error;
    }
    return result;
}

}  // namespace

FLASHSIM_EXPORT int rename(const char* from, const char* to) noexcept {
    return renameVia(from, to, [](const char* f, const char* t) { return real().rename(f, t); });
}

FLASHSIM_EXPORT int renameat(int fromDir, const char* from, int toDir, const char* to) noexcept {
    return renameVia(from, to, [&](const char* f, const char* t) { return real().renameat(fromDir, f, toDir, t); });
}

FLASHSIM_EXPORT int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned int flags) noexcept {
    return renameVia(from, to,
                     [&](const char* f, const char* t) { return real().renameat2(fromDir, f, toDir, t, flags); });
}

FLASHSIM_EXPORT int remove(const char* path) noexcept {
    return removeVia(path, [](const char* p) { return real().remove(p); });
}

FLASHSIM_EXPORT int unlink(const char* path) noexcept {
    return removeVia(path, [](const char* p) { return real().unlink(p); });
}

FLASHSIM_EXPORT int unlinkat(int dir, const char* path, int flags) noexcept {
    return removeVia(path, [&](const char* p) { return real().unlinkat(dir, p, flags); });
}

FLASHSIM_EXPORT int rmdir(const char* path) noexcept {
    return removeVia(path, [](const char* p) { return real().rmdir(p); });
}

// Hard links: both names are mapped, so a file made with O_TMPFILE in the
// board's /tmp gets its name there too (linkat with AT_EMPTY_PATH names it
// by descriptor: the empty old path is left as it is).
FLASHSIM_EXPORT int link(const char* from, const char* to) noexcept {
    ResolvedPath a;
    const char* mappedFrom = mapPath(from, a, false);
    if (mappedFrom == nullptr && opaque(from) != nullptr) return -1;
    FLASHSIM_ONE_PATH(to, false, -1, real().link(mappedFrom, mapped))
}

FLASHSIM_EXPORT int linkat(int fromDir, const char* from, int toDir, const char* to, int flags) noexcept {
    ResolvedPath a;
    const char* mappedFrom = mapPath(from, a, false);
    if (mappedFrom == nullptr && opaque(from) != nullptr) return -1;
    FLASHSIM_ONE_PATH(to, false, -1, real().linkat(fromDir, mappedFrom, toDir, mapped, flags))
}

// The link's own name is mapped; its target is text, read by the kernel when
// the link is followed.
FLASHSIM_EXPORT int symlink(const char* target, const char* path) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().symlink(target, mapped))
}

FLASHSIM_EXPORT int symlinkat(const char* target, int dir, const char* path) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().symlinkat(target, dir, mapped))
}

FLASHSIM_EXPORT int mkdir(const char* path, mode_t mode) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().mkdir(mapped, mode))
}

FLASHSIM_EXPORT int mkdirat(int dir, const char* path, mode_t mode) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().mkdirat(dir, mapped, mode))
}

FLASHSIM_EXPORT int truncate(const char* path, off_t length) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().truncate(mapped, length))
}

FLASHSIM_EXPORT int truncate64(const char* path, off64_t length) noexcept {
    FLASHSIM_ONE_PATH(path, false, -1, real().truncate64(mapped, length))
}

FLASHSIM_EXPORT int access(const char* path, int mode) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().access(mapped, mode))
}

FLASHSIM_EXPORT int faccessat(int dir, const char* path, int mode, int flags) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().faccessat(dir, mapped, mode, flags))
}

FLASHSIM_EXPORT int stat(const char* path, struct stat* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().stat(mapped, out))
}

FLASHSIM_EXPORT int lstat(const char* path, struct stat* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().lstat(mapped, out))
}

FLASHSIM_EXPORT int stat64(const char* path, struct stat64* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().stat64(mapped, out))
}

FLASHSIM_EXPORT int lstat64(const char* path, struct stat64* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().lstat64(mapped, out))
}

FLASHSIM_EXPORT int fstatat(int dir, const char* path, struct stat* out, int flags) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().fstatat(dir, mapped, out, flags))
}

FLASHSIM_EXPORT int fstatat64(int dir, const char* path, struct stat64* out, int flags) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().fstatat64(dir, mapped, out, flags))
}

FLASHSIM_EXPORT int statx(int dir, const char* path, int flags, unsigned int mask, struct statx* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().statx(dir, mapped, flags, mask, out))
}

// Programs built against a C library older than 2.33 call these instead of
// stat() and friends.
FLASHSIM_EXPORT int __xstat(int version, const char* path, struct stat* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().xstat(version, mapped, out))
}

FLASHSIM_EXPORT int __lxstat(int version, const char* path, struct stat* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().lxstat(version, mapped, out))
}

FLASHSIM_EXPORT int __xstat64(int version, const char* path, struct stat64* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().xstat64(version, mapped, out))
}

FLASHSIM_EXPORT int __lxstat64(int version, const char* path, struct stat64* out) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().lxstat64(version, mapped, out))
}

FLASHSIM_EXPORT int __fxstatat(int version, int dir, const char* path, struct stat* out, int flags) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().fxstatat(version, dir, mapped, out, flags))
}

FLASHSIM_EXPORT int __fxstatat64(int version, int dir, const char* path, struct stat64* out, int flags) noexcept {
    FLASHSIM_ONE_PATH(path, true, -1, real().fxstatat64(version, dir, mapped, out, flags))
}
