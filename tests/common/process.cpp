#include "common/process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace testutil {

namespace {

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int decodeStatus(int raw) {
    if (WIFEXITED(raw)) return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
    return -1;
}

// Forks and execs argv with pipes on 0/1/2; returns the pid or -1.
pid_t spawn(const std::vector<std::string>& argv, const ProcessOptions& options, int* inFd, int* outFd,
            int* errFd) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe failed";
        return -1;
    }
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) envStrings.emplace_back(*e);
    for (const std::string& extra : options.env) {
        const std::string key = extra.substr(0, extra.find('=') + 1);
        for (auto it = envStrings.begin(); it != envStrings.end();) {
            it = it->compare(0, key.size(), key) == 0 ? envStrings.erase(it) : it + 1;
        }
        envStrings.push_back(extra);
    }
    std::vector<char*> envp, args;
    for (std::string& s : envStrings) envp.push_back(&s[0]);
    envp.push_back(nullptr);
    std::vector<std::string> argvCopy = argv;
    for (std::string& s : argvCopy) args.push_back(&s[0]);
    args.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        if (!options.cwd.empty() && ::chdir(options.cwd.c_str()) != 0) _exit(126);
        ::execve(args[0], args.data(), envp.data());
        if (std::strchr(args[0], '/') == nullptr) ::execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    *inFd = in[1];
    *outFd = out[0];
    *errFd = err[0];
    return pid;
}

void feedInput(int inFd, const std::string& input) {
    size_t done = 0;
    while (done < input.size()) {
        const ssize_t n = ::write(inFd, input.data() + done, input.size() - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(inFd);
}

// Reads both pipes until they close or the deadline passes; true when closed.
bool drain(int& outFd, int& errFd, std::string& out, std::string& err, double deadline) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    outFd = errFd = -1;  // the pipes are closed here, whatever happens
    struct Closer {
        pollfd* fds;
        ~Closer() {
            for (int i = 0; i < 2; ++i)
                if (fds[i].fd >= 0) ::close(fds[i].fd);
        }
    } closer{fds};
    int open = (fds[0].fd >= 0 ? 1 : 0) + (fds[1].fd >= 0 ? 1 : 0);
    char buf[65536];
    while (open > 0) {
        const double left = deadline - now();
        if (left <= 0) return false;
        const int r = ::poll(fds, 2, static_cast<int>(left * 1000) + 1);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return false;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? out : err).append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    return true;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
    BackgroundProcess child(argv, options);
    return child.wait();
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv, const ProcessOptions& options)
    : timeoutSeconds_(options.timeoutSeconds), startTime_(now()) {
    int inFd = -1;
    pid_ = spawn(argv, options, &inFd, &outFd_, &errFd_);
    if (pid_ > 0) feedInput(inFd, options.input);
}

BackgroundProcess::~BackgroundProcess() {
    if (pid_ > 0 && !reaped_) {
        ::kill(pid_, SIGKILL);
        int raw = 0;
        ::waitpid(pid_, &raw, 0);
    }
    if (outFd_ >= 0) ::close(outFd_);
    if (errFd_ >= 0) ::close(errFd_);
}

bool BackgroundProcess::running() {
    if (pid_ <= 0 || reaped_) return false;
    int raw = 0;
    const pid_t r = ::waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
        reaped_ = true;
        status_ = decodeStatus(raw);
        signaled_ = WIFSIGNALED(raw);
        return false;
    }
    return true;
}

void BackgroundProcess::kill(int signal) {
    if (pid_ > 0 && !reaped_) ::kill(pid_, signal);
}

void BackgroundProcess::closeOutput() {
    if (outFd_ >= 0) ::close(outFd_);
    outFd_ = -1;
}

ProcessResult BackgroundProcess::wait() {
    ProcessResult result;
    if (pid_ <= 0) return result;
    const double deadline = startTime_ + timeoutSeconds_;
    if (!drain(outFd_, errFd_, result.out, result.err, deadline)) {
        result.timedOut = true;
        ::kill(pid_, SIGKILL);
    }
    if (!reaped_) {
        int raw = 0;
        ::waitpid(pid_, &raw, 0);
        reaped_ = true;
        status_ = decodeStatus(raw);
        signaled_ = WIFSIGNALED(raw);
    }
    result.status = status_;
    result.signaled = signaled_;
    result.seconds = now() - startTime_;
    return result;
}

}  // namespace testutil
