// The flashsim subcommands. Each takes the arguments after its own name and
// returns the process exit status; a problem is thrown as UsageError (bad
// command line, status 2) or std::runtime_error (status 1) and printed by main.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace flashsim {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Args = std::vector<std::string>;

int commandInit(const Args& args);
int commandRun(const Args& args);
int commandShow(const Args& args);
int commandDump(const Args& args);
int commandLoad(const Args& args);
int commandFill(const Args& args);
int commandLock(const Args& args, bool lock);
int commandFault(const Args& args);

// The usage text printed by `flashsim help`.
extern const char* const kUsage;

// Walks options of the form "--name value" or "--name=value".
class OptionReader {
public:
    OptionReader(const Args& args, size_t first) : args_(args), next_(first) {}
    bool done() const { return next_ >= args_.size(); }
    // The next argument; when it is an option, its name ("--part") in `name`.
    const std::string& peek() const { return args_[next_]; }
    bool nextOption(std::string& name);
    // The value of the option just read (inline after '=' or the next argument).
    std::string value();
    // The next plain argument.
    std::string positional();

private:
    const Args& args_;
    size_t next_;
    std::string inlineValue_;
    bool hasInline_ = false;
    std::string current_;
};

}  // namespace flashsim
