// Replacements of the C library's temporary-file makers: the mkstemp family,
// mkdtemp and tmpfile. Each opens its file through the C library's internal
// calls, which the open replacements never see, so a template in /tmp would
// reach the machine's /tmp: here it is made in the board's instead, and the
// generated characters are copied back into the program's template.
#include "tools/flashsim/preload/hooks.h"
#include "tools/flashsim/preload/real.h"
#include "tools/flashsim/preload/tmp_ops.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

using namespace flashsim;

namespace {

// The characters mkstemp replaces: the six before the suffix.
constexpr int kGenerated = 6;

// `call(path)` makes the file or folder from the template `path` and returns
// true when it did.
template <typename Call>
bool makeVia(char* templ, int suffixLength, Call call) {
    ResolvedPath r;
    resolvePath(opaque(templ), r);
    switch (r.kind) {
        case PathKind::Mapped: break;
        case PathKind::Refused: refuseTmpPath(templ); return false;
        case PathKind::Partition:
        case PathKind::MissingPartition: errno = EPERM; return false;
        case PathKind::Other: return call(templ);
    }
    if (!call(r.path)) return false;
    const size_t tail = static_cast<size_t>(suffixLength) + kGenerated;
    const size_t mine = std::strlen(templ);
    const size_t board = std::strlen(r.path);
    if (mine >= tail && board >= tail) std::memcpy(templ + mine - tail, r.path + board - tail, kGenerated);
    return true;
}

int makeFile(char* templ, int suffixLength, int flags, bool large) {
    int fd = -1;
    const auto call = [&](char* path) {
        if (real().mkostemps == nullptr || real().mkostemps64 == nullptr) {
            errno = ENOSYS;
            return false;
        }
        fd = large ? real().mkostemps64(path, suffixLength, flags) : real().mkostemps(path, suffixLength, flags);
        return fd >= 0;
    };
    return makeVia(templ, suffixLength, call) ? fd : -1;
}

// An unnamed file in the board's /tmp, as the C library's tmpfile makes one
// in /tmp: O_TMPFILE where the file system has it, else a named file removed
// at once.
FILE* boardTmpfile() {
    char folder[] = "/tmp";
    ResolvedPath r;
    resolvePath(folder, r);
    if (r.kind != PathKind::Mapped) {
        refuseTmpPath(folder);
        return nullptr;
    }
    int fd = real().openat(AT_FDCWD, r.path, O_TMPFILE | O_RDWR, 0600);
    if (fd < 0) {
        char templ[] = "/tmp/tmpfXXXXXX";
        fd = makeFile(templ, 0, 0, true);
        if (fd < 0) return nullptr;
        ResolvedPath made;
        resolvePath(templ, made);
        real().unlinkat(AT_FDCWD, made.path, 0);
    }
    FILE* stream = real().fdopen(fd, "w+");
    if (stream == nullptr) {
        const int error = errno;
        real().close(fd);
        errno = error;
    }
    return stream;
}

}  // namespace

FLASHSIM_EXPORT int mkstemp(char* templ) { return makeFile(templ, 0, 0, false); }
FLASHSIM_EXPORT int mkstemp64(char* templ) { return makeFile(templ, 0, 0, true); }
FLASHSIM_EXPORT int mkostemp(char* templ, int flags) { return makeFile(templ, 0, flags, false); }
FLASHSIM_EXPORT int mkostemp64(char* templ, int flags) { return makeFile(templ, 0, flags, true); }
FLASHSIM_EXPORT int mkstemps(char* templ, int suffix) { return makeFile(templ, suffix, 0, false); }
FLASHSIM_EXPORT int mkstemps64(char* templ, int suffix) { return makeFile(templ, suffix, 0, true); }
FLASHSIM_EXPORT int mkostemps(char* templ, int suffix, int flags) { return makeFile(templ, suffix, flags, false); }
FLASHSIM_EXPORT int mkostemps64(char* templ, int suffix, int flags) { return makeFile(templ, suffix, flags, true); }

FLASHSIM_EXPORT char* mkdtemp(char* templ) {
    const auto call = [](char* path) { return real().mkdtemp != nullptr && real().mkdtemp(path) != nullptr; };
    return makeVia(templ, 0, call) ? templ : nullptr;
}

FLASHSIM_EXPORT FILE* tmpfile() {
    if (sim() == nullptr) return real().tmpfile != nullptr ? real().tmpfile() : nullptr;
    return boardTmpfile();
}

FLASHSIM_EXPORT FILE* tmpfile64() {
    if (sim() == nullptr) return real().tmpfile64 != nullptr ? real().tmpfile64() : nullptr;
    return boardTmpfile();
}
