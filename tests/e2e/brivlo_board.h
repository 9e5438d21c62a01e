// A private simulated board (flashsim) for one end-to-end test, and the real
// brivlo run on it. The board's /tmp files live in DIR/tmp, its partitions in
// DIR/flash, so tests never touch the machine's /tmp or /dev.
#pragma once

#include "common/process.h"
#include "common/tempdir.h"

#include <memory>
#include <string>
#include <vector>

namespace e2e {

class Board {
public:
    // `flashsim init DIR <initOptions>`; fails the test when init fails.
    explicit Board(const std::vector<std::string>& initOptions = {});

    const std::string& dir() const { return dir_; }
    // A path in the test's private directory, outside the board (image files).
    std::string scratch(const std::string& name) const { return temp_.file(name); }

    // flashsim run DIR -- brivlo ARGS...
    testutil::ProcessResult brivlo(const std::vector<std::string>& args, double timeoutSeconds = 60) const;
    // The same, left running in the background.
    std::unique_ptr<testutil::BackgroundProcess> startBrivlo(const std::vector<std::string>& args,
                                                             double timeoutSeconds = 60) const;
    // flashsim COMMAND DIR ARGS...; fails the test unless it exits with 0.
    void flashsim(const std::string& command, const std::vector<std::string>& args = {}) const;

    // The board's status file as brivlo sees "/tmp/brivlo_status".
    std::string statusPath() const { return dir_ + "/tmp/brivlo_status"; }
    // The board's "/tmp/flashit".
    std::string downloadPath() const { return dir_ + "/tmp/flashit"; }
    void writeStatus(const std::string& content) const;
    bool statusExists() const;

    // Partition content (flashsim dump).
    std::string partition(const std::string& name) const;
    // Operation log lines that start with `prefix` (e.g. "erase fpga ").
    std::vector<std::string> logLines(const std::string& prefix) const;
    // "yes" or "no" from `flashsim show`.
    std::string lockedState(const std::string& name) const;

private:
    testutil::TempDir temp_{"brivlo-e2e"};
    std::string dir_;
};

using testutil::randomBytes;
// The text of `count` dots.
std::string dots(std::size_t count);
// Usage text exactly as brivlo prints it on standard error for `program`.
std::string usageText(const std::string& program);

}  // namespace e2e
