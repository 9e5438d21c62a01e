// Runs one command as its child and reports the child's wall time, CPU time
// and peak resident set on descriptor 3 as one line:
//   "<wait status> <wall s> <user s> <sys s> <max RSS KiB> <timed out 0|1>"
//
//   bench_launch TIMEOUT_SECONDS COMMAND [ARG...]
//
// Why a separate process: the peak resident set that wait4 reports for a
// child includes the memory of the process it was forked or vforked from, up
// to its exec. The benchmark process holds 32 MiB buffers; this launcher is
// small, so the figure it reports is the command's own. Standard streams and
// the working directory are the ones the launcher was given.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kResultFd = 3;

void onAlarm(int) {}

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const unsigned timeout = static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10));
    // The command must not inherit the result descriptor.
    if (::fcntl(kResultFd, F_SETFD, FD_CLOEXEC) != 0) return 2;

    struct sigaction action {};
    action.sa_handler = onAlarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);  // no SA_RESTART: wait4 returns EINTR

    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = ::fork();
    if (pid < 0) return 1;
    if (pid == 0) {
        ::execvp(argv[2], argv + 2);
        _exit(127);
    }
    ::alarm(timeout);
    int status = 0;
    int timedOut = 0;
    rusage usage{};
    pid_t got;
    while ((got = ::wait4(pid, &status, 0, &usage)) < 0 && errno == EINTR) {
        timedOut = 1;
        ::kill(pid, SIGKILL);
    }
    const auto end = std::chrono::steady_clock::now();
    if (got != pid) return 1;
    const double wall = std::chrono::duration<double>(end - start).count();
    dprintf(kResultFd, "%d %.6f %.6f %.6f %ld %d\n", status, wall, seconds(usage.ru_utime), seconds(usage.ru_stime),
            usage.ru_maxrss, timedOut);
    return 0;
}
