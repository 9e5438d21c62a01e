// A private simulated board for one test, and the ways tests drive it: the
// flashsim command, and the test client run on the board.
#pragma once

#include "common/process.h"
#include "common/tempdir.h"

#include <string>
#include <vector>

namespace flashsimtest {

class SimBoard {
public:
    // Makes a board with `flashsim init DIR <options>`; fails the test when
    // init fails.
    explicit SimBoard(const std::vector<std::string>& initOptions = {});

    const std::string& dir() const { return dir_; }
    std::string file(const std::string& name) const { return dir_ + "/" + name; }

    // flashsim COMMAND DIR ARGS...
    testutil::ProcessResult flashsim(const std::string& command, const std::vector<std::string>& args = {}) const;
    // The test client on this board: one output line per operation.
    std::vector<std::string> client(const std::vector<std::string>& operations) const;
    testutil::ProcessResult clientRun(const std::vector<std::string>& operations,
                                      const std::vector<std::string>& env = {}) const;

    // Raw partition content, through `flashsim dump`.
    std::vector<unsigned char> dump(const std::string& partition) const;
    // The operation log, one entry per line.
    std::vector<std::string> log() const;
    // The log lines that start with `prefix`.
    std::vector<std::string> logLines(const std::string& prefix) const;
    // The "counters" line of `flashsim show DIR PARTITION`.
    std::string counters(const std::string& partition) const;

private:
    testutil::TempDir temp_;
    std::string dir_;
};

std::vector<std::string> splitLines(const std::string& text);

// Log text with descriptor numbers replaced by "FD" ("open kernel mode=rdwr
// result=FD", "close kernel fd=FD ..."): they depend on what the test runner
// leaves open.
std::string maskFds(const std::string& text);

}  // namespace flashsimtest
