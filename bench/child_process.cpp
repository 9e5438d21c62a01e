#include "bench/child_process.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace bench {

namespace {

// posix_spawn's file-action object, destroyed on every path.
struct SpawnActions {
    posix_spawn_file_actions_t actions;
    SpawnActions() { posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

struct Fd {
    int fd = -1;
    Fd() = default;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset() {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

}  // namespace

bool ChildRun::exitedWith(int code) const {
    return started && !timedOut && WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == code;
}

std::string commandText(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& a : argv) {
        if (!text.empty()) text += ' ';
        text += a;
    }
    return text;
}

ChildRun runChild(const std::vector<std::string>& argv, const ChildOptions& options) {
    ChildRun run;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return run;
    Fd readEnd, writeEnd;
    readEnd.fd = ends[0];
    writeEnd.fd = ends[1];

    SpawnActions setup;
    const char* out = options.stdoutPath.empty() ? "/dev/null" : options.stdoutPath.c_str();
    const char* err = options.stderrPath.empty() ? "/dev/null" : options.stderrPath.c_str();
    posix_spawn_file_actions_addopen(&setup.actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&setup.actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&setup.actions, 2, err, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&setup.actions, writeEnd.fd, 3);
    if (!options.cwd.empty()) posix_spawn_file_actions_addchdir_np(&setup.actions, options.cwd.c_str());

    const std::string timeout = std::to_string(static_cast<unsigned>(options.timeoutSeconds));
    std::vector<char*> args = {const_cast<char*>(BENCH_LAUNCH_BIN), const_cast<char*>(timeout.c_str())};
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = -1;
    if (posix_spawn(&pid, args[0], &setup.actions, nullptr, args.data(), environ) != 0) return run;
    writeEnd.reset();  // so the read below ends when the launcher does
    std::string line;
    char buf[256];
    ssize_t n;
    while ((n = ::read(readEnd.fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) line.append(buf, static_cast<std::size_t>(n));
    }
    int launcherStatus = 0;
    while (::waitpid(pid, &launcherStatus, 0) < 0 && errno == EINTR) {
    }
    int timedOut = 0;
    if (std::sscanf(line.c_str(), "%d %lf %lf %lf %ld %d", &run.waitStatus, &run.wallSeconds, &run.userSeconds,
                    &run.sysSeconds, &run.maxRssKiB, &timedOut) != 6) {
        return run;  // the command could not be started
    }
    run.started = true;
    run.timedOut = timedOut != 0;
    return run;
}

}  // namespace bench
