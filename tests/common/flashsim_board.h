// A private simulated board (tools/flashsim) for one test: its partitions in
// DIR/flash, its /tmp in DIR/tmp, so tests never touch the machine's /tmp or
// /dev. The board goes with the test's temporary directory.
#pragma once

#include "common/process.h"
#include "common/tempdir.h"

#include <string>
#include <vector>

namespace testutil {

class FlashsimBoard {
public:
    // `flashsim init DIR <initOptions>`; fails the test when init fails.
    explicit FlashsimBoard(const std::vector<std::string>& initOptions = {});

    const std::string& dir() const { return dir_; }
    // A path on the board ("tmp/flashit", "log").
    std::string file(const std::string& name) const { return dir_ + "/" + name; }
    // A path in the test's private directory, outside the board (image files).
    std::string scratch(const std::string& name) const { return temp_.file(name); }

    // flashsim COMMAND DIR ARGS...
    ProcessResult flashsim(const std::string& command, const std::vector<std::string>& args = {}) const;
    // Partition content (flashsim dump).
    std::string partition(const std::string& name) const;
    // Operation log lines that start with `prefix` (e.g. "erase fpga ").
    std::vector<std::string> logLines(const std::string& prefix) const;

private:
    TempDir temp_{"brivlo-board"};
    std::string dir_;
};

}  // namespace testutil
