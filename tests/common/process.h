// Runs real binaries from tests: captures standard output, standard error and
// the exit status, with a time limit so a hung child cannot hang the suite.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace testutil {

struct ProcessOptions {
    std::vector<std::string> env;  // extra KEY=VALUE entries added to the environment
    std::string cwd;               // working directory; empty = inherit
    std::string input;             // written to standard input, which is then closed
    double timeoutSeconds = 60.0;  // the child is killed (SIGKILL) after this
};

struct ProcessResult {
    int status = -1;        // exit status 0..255, or 128 + signal number
    bool signaled = false;  // ended by a signal rather than by exit
    bool timedOut = false;  // killed by the time limit
    std::string out;        // standard output
    std::string err;        // standard error
    double seconds = 0.0;   // wall time
};

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A child left running in the background (a server, or a brivlo being polled);
// killed with SIGKILL and reaped on destruction unless wait() was called.
class BackgroundProcess {
public:
    BackgroundProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    // Waits for the end (up to the options' time limit) and collects the output.
    ProcessResult wait();
    void kill(int signal);
    // Closes the test's end of the child's standard output: the child's
    // console is gone (its writes fail with EPIPE, or SIGPIPE).
    void closeOutput();

private:
    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    bool reaped_ = false;
    double timeoutSeconds_;
    double startTime_;
    int status_ = -1;
    bool signaled_ = false;
};

}  // namespace testutil
