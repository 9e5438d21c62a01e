// The C library's own versions of every function the preload library
// replaces. Inside the library nothing may call open(), write(), close() ...
// by name: the name resolves to the library's own replacement and would
// recurse. Everything goes through these pointers, resolved once with
// dlsym(RTLD_NEXT) (under AddressSanitizer that is the sanitizer's wrapper,
// which then reaches the C library).
#pragma once

#include <cstdio>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace flashsim {

struct RealFunctions {
    int (*open)(const char*, int, ...);
    int (*open64)(const char*, int, ...);
    int (*openat)(int, const char*, int, ...);
    int (*openat64)(int, const char*, int, ...);
    int (*open_2)(const char*, int);
    int (*open64_2)(const char*, int);
    int (*openat_2)(int, const char*, int);
    int (*openat64_2)(int, const char*, int);
    int (*creat)(const char*, mode_t);
    int (*creat64)(const char*, mode_t);
    FILE* (*fopen)(const char*, const char*);
    FILE* (*fopen64)(const char*, const char*);
    FILE* (*freopen)(const char*, const char*, FILE*);
    FILE* (*freopen64)(const char*, const char*, FILE*);
    FILE* (*fdopen)(int, const char*);
    int (*fclose)(FILE*);
    size_t (*fwrite)(const void*, size_t, size_t, FILE*);
    int (*rename)(const char*, const char*);
    int (*renameat)(int, const char*, int, const char*);
    int (*renameat2)(int, const char*, int, const char*, unsigned int);
    int (*remove)(const char*);
    int (*unlink)(const char*);
    int (*unlinkat)(int, const char*, int);
    int (*rmdir)(const char*);
    int (*stat)(const char*, struct stat*);
    int (*lstat)(const char*, struct stat*);
    int (*stat64)(const char*, struct stat64*);
    int (*lstat64)(const char*, struct stat64*);
    int (*fstatat)(int, const char*, struct stat*, int);
    int (*fstatat64)(int, const char*, struct stat64*, int);
    int (*xstat)(int, const char*, struct stat*);
    int (*lxstat)(int, const char*, struct stat*);
    int (*xstat64)(int, const char*, struct stat64*);
    int (*lxstat64)(int, const char*, struct stat64*);
    int (*fxstatat)(int, int, const char*, struct stat*, int);
    int (*fxstatat64)(int, int, const char*, struct stat64*, int);
    int (*statx)(int, const char*, int, unsigned int, struct statx*);
    int (*access)(const char*, int);
    int (*faccessat)(int, const char*, int, int);
    int (*truncate)(const char*, off_t);
    int (*truncate64)(const char*, off64_t);
    ssize_t (*write)(int, const void*, size_t);
    ssize_t (*pwrite)(int, const void*, size_t, off_t);
    ssize_t (*pwrite64)(int, const void*, size_t, off64_t);
    ssize_t (*writev)(int, const struct iovec*, int);
    off_t (*lseek)(int, off_t, int);
    off64_t (*lseek64)(int, off64_t, int);
    int (*close)(int);
    int (*ioctl)(int, unsigned long, ...);
    // 32-bit programs built with a 64-bit time_t call this one instead of
    // ioctl; absent from 64-bit C libraries.
    int (*ioctl_time64)(int, unsigned long, ...);
    // Calls that make names: every one of them may name the board's /tmp.
    int (*link)(const char*, const char*);
    int (*linkat)(int, const char*, int, const char*, int);
    int (*symlink)(const char*, const char*);
    int (*symlinkat)(const char*, int, const char*);
    int (*mkdir)(const char*, mode_t);
    int (*mkdirat)(int, const char*, mode_t);
    int (*mkostemps)(char*, int, int);
    int (*mkostemps64)(char*, int, int);
    char* (*mkdtemp)(char*);
    FILE* (*tmpfile)();
    FILE* (*tmpfile64)();
};

// Resolved before the first replacement runs (an unresolved entry is null;
// replacements fail with ENOSYS then).
const RealFunctions& real();

}  // namespace flashsim
