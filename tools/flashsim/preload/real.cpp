#include "tools/flashsim/preload/real.h"

#include <dlfcn.h>
#include <pthread.h>

namespace flashsim {
namespace {

RealFunctions g_real;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

template <typename F>
void resolve(F& slot, const char* name) {
    slot = reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

void resolveAll() {
    RealFunctions& r = g_real;
    resolve(r.open, "open");
    resolve(r.open64, "open64");
    resolve(r.openat, "openat");
    resolve(r.openat64, "openat64");
    resolve(r.open_2, "__open_2");
    resolve(r.open64_2, "__open64_2");
    resolve(r.openat_2, "__openat_2");
    resolve(r.openat64_2, "__openat64_2");
    resolve(r.creat, "creat");
    resolve(r.creat64, "creat64");
    resolve(r.fopen, "fopen");
    resolve(r.fopen64, "fopen64");
    resolve(r.freopen, "freopen");
    resolve(r.freopen64, "freopen64");
    resolve(r.fdopen, "fdopen");
    resolve(r.fwrite, "fwrite");
    resolve(r.fclose, "fclose");
    resolve(r.rename, "rename");
    resolve(r.renameat, "renameat");
    resolve(r.renameat2, "renameat2");
    resolve(r.remove, "remove");
    resolve(r.unlink, "unlink");
    resolve(r.unlinkat, "unlinkat");
    resolve(r.rmdir, "rmdir");
    resolve(r.stat, "stat");
    resolve(r.lstat, "lstat");
    resolve(r.stat64, "stat64");
    resolve(r.lstat64, "lstat64");
    resolve(r.fstatat, "fstatat");
    resolve(r.fstatat64, "fstatat64");
    resolve(r.xstat, "__xstat");
    resolve(r.lxstat, "__lxstat");
    resolve(r.xstat64, "__xstat64");
    resolve(r.lxstat64, "__lxstat64");
    resolve(r.fxstatat, "__fxstatat");
    resolve(r.fxstatat64, "__fxstatat64");
    resolve(r.statx, "statx");
    resolve(r.access, "access");
    resolve(r.faccessat, "faccessat");
    resolve(r.truncate, "truncate");
    resolve(r.truncate64, "truncate64");
    resolve(r.write, "write");
    resolve(r.pwrite, "pwrite");
    resolve(r.pwrite64, "pwrite64");
    resolve(r.writev, "writev");
    resolve(r.lseek, "lseek");
    resolve(r.lseek64, "lseek64");
    resolve(r.close, "close");
    resolve(r.ioctl, "ioctl");
    resolve(r.ioctl_time64, "__ioctl_time64");
    resolve(r.link, "link");
    resolve(r.linkat, "linkat");
    resolve(r.symlink, "symlink");
    resolve(r.symlinkat, "symlinkat");
    resolve(r.mkdir, "mkdir");
    resolve(r.mkdirat, "mkdirat");
    resolve(r.mkostemps, "mkostemps");
    resolve(r.mkostemps64, "mkostemps64");
    resolve(r.mkdtemp, "mkdtemp");
    resolve(r.tmpfile, "tmpfile");
    resolve(r.tmpfile64, "tmpfile64");
}

}  // namespace

const RealFunctions& real() {
    pthread_once(&g_once, resolveAll);
    return g_real;
}

}  // namespace flashsim
