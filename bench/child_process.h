// Runs one program the way the benchmarks measure it: through the small
// launcher bench_launch (launch.cpp), which forks it, waits for it with wait4
// and reports its wall time, its own CPU time and its peak resident set. The
// launcher keeps the 32 MiB buffers of the benchmark process out of the
// figures: a child's peak resident set includes the process it was forked
// from, up to its exec.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct ChildOptions {
    std::string cwd;          // empty: the benchmark's own
    std::string stdoutPath;   // empty: /dev/null
    std::string stderrPath;   // empty: /dev/null
    double timeoutSeconds = 120;  // then the child is killed and the run fails
};

struct ChildRun {
    bool started = false;
    bool timedOut = false;
    int waitStatus = 0;    // as wait4 reports it
    double wallSeconds = 0;  // fork to reaped
    double userSeconds = 0;
    double sysSeconds = 0;
    long maxRssKiB = 0;    // ru_maxrss of the child (across its exec chain)

    bool exitedWith(int code) const;
    double cpuSeconds() const { return userSeconds + sysSeconds; }
};

// argv[0] is looked up in PATH when it has no slash. A command that cannot
// be run exits with 127.
ChildRun runChild(const std::vector<std::string>& argv, const ChildOptions& options = {});

// "a b c" for messages.
std::string commandText(const std::vector<std::string>& argv);

}  // namespace bench
