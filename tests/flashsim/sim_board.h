// A private simulated board for one test, and the ways tests drive it: the
// flashsim command, and the test client run on the board.
#pragma once

#include "common/process.h"
#include "common/tempdir.h"

#include <string>
#include <vector>

namespace flashsimtest {

using Lines = std::vector<std::string>;

class SimBoard {
public:
    // Makes a board with `flashsim init DIR <options>`; fails the test when
    // init fails.
    explicit SimBoard(const Lines& initOptions = {});

    const std::string& dir() const { return dir_; }
    std::string file(const std::string& name) const { return dir_ + "/" + name; }

    // flashsim COMMAND DIR ARGS...
    testutil::ProcessResult flashsim(const std::string& command, const Lines& args = {}) const;
    // The test client on this board: one output line per operation.
    Lines client(const Lines& operations) const;
    // Raw partition content, through `flashsim dump`.
    std::vector<unsigned char> dump(const std::string& partition) const;
    // The log lines that start with `prefix`.
    Lines logLines(const std::string& prefix) const;

private:
    testutil::TempDir temp_;
    std::string dir_;
};

// Text with descriptor numbers replaced by "FD" ("result=FD", "fd=FD"): they
// depend on what the test runner leaves open.
std::string maskFds(const std::string& text);

}  // namespace flashsimtest
