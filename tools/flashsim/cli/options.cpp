#include "tools/flashsim/cli/commands.h"

namespace flashsim {

bool OptionReader::nextOption(std::string& name) {
    if (done() || args_[next_].compare(0, 2, "--") != 0 || args_[next_] == "--") return false;
    const std::string& arg = args_[next_++];
    const size_t eq = arg.find('=');
    hasInline_ = eq != std::string::npos;
    name = hasInline_ ? arg.substr(0, eq) : arg;
    inlineValue_ = hasInline_ ? arg.substr(eq + 1) : std::string();
    current_ = name;
    return true;
}

std::string OptionReader::value() {
    if (hasInline_) {
        hasInline_ = false;
        return inlineValue_;
    }
    if (done()) throw UsageError("option " + current_ + " needs a value");
    return args_[next_++];
}

std::string OptionReader::positional() {
    if (done()) throw UsageError("missing argument");
    return args_[next_++];
}

}  // namespace flashsim
