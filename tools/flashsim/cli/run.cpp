// flashsim run DIR [--] COMMAND [ARG...]: runs a program with the board
// underneath. The program replaces this process (exec), so its output, exit
// status and signals are its own.
#include "tools/flashsim/cli/board_dir.h"
#include "tools/flashsim/cli/commands.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <unistd.h>

#ifndef FLASHSIM_PRELOAD_NAME
#error "FLASHSIM_PRELOAD_NAME (the preload library's file name) must be defined by the build"
#endif

namespace flashsim {
namespace {

std::string directoryOfExecutable() {
    char path[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return std::string();
    path[n] = '\0';
    std::string s(path);
    const size_t slash = s.rfind('/');
    return slash == std::string::npos ? std::string() : s.substr(0, slash);
}

bool readable(const std::string& path) { return !path.empty() && ::access(path.c_str(), R_OK) == 0; }

// The preload library: $FLASHSIM_PRELOAD when set; next to this executable
// (the build tree); the private library directory relative to it (an
// installation, also one unpacked anywhere).
std::string findPreload() {
    if (const char* given = std::getenv("FLASHSIM_PRELOAD")) {
        if (!readable(given)) throw std::runtime_error(std::string("FLASHSIM_PRELOAD=") + given + ": cannot read the library");
        return given;
    }
    const std::string here = directoryOfExecutable();
    std::vector<std::string> candidates;
    if (!here.empty()) {
        candidates.push_back(here + "/" FLASHSIM_PRELOAD_NAME);
#ifdef FLASHSIM_RELATIVE_LIBDIR
        candidates.push_back(here + "/" FLASHSIM_RELATIVE_LIBDIR "/" FLASHSIM_PRELOAD_NAME);
#endif
    }
    for (const std::string& c : candidates) {
        if (readable(c)) return c;
    }
    throw std::runtime_error("cannot find the preload library " FLASHSIM_PRELOAD_NAME " (set FLASHSIM_PRELOAD)");
}

std::string absolute(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved) == nullptr) throw std::runtime_error(path + ": " + std::strerror(errno));
    return resolved;
}

// Appends to a colon- or space-separated environment list.
void appendTo(const char* name, const std::string& item, char separator) {
    const char* old = std::getenv(name);
    std::string value = old != nullptr && old[0] != '\0' ? std::string(old) + separator + item : item;
    ::setenv(name, value.c_str(), 1);
}

}  // namespace

int commandRun(const Args& args) {
    if (args.empty()) throw UsageError("run needs a board directory and a command");
    const std::string dir = absolute(args[0]);
    { BoardDir check(dir); }  // refuses anything that is not a board
    size_t first = 1;
    if (first < args.size() && args[first] == "--") ++first;
    if (first >= args.size()) throw UsageError("run needs a command to run");

    ::setenv(kBoardEnv, dir.c_str(), 1);
    // After anything already preloaded: a sanitizer runtime preloaded by the
    // caller must stay first.
    appendTo("LD_PRELOAD", absolute(findPreload()), ':');
    // A sanitized program would refuse to start with its runtime not first in
    // the library list; the preload library does not need that order.
    appendTo("ASAN_OPTIONS", "verify_asan_link_order=0", ':');

    std::vector<char*> argv;
    for (size_t i = first; i < args.size(); ++i) argv.push_back(const_cast<char*>(args[i].c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    const int error = errno;
    std::fprintf(stderr, "flashsim: cannot run %s: %s\n", argv[0], std::strerror(error));
    return error == ENOENT ? 127 : 126;
}

}  // namespace flashsim
