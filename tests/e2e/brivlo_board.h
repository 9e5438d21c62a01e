// A private simulated board for one end-to-end test, and the real brivlo run
// on it.
#pragma once

#include "common/flashsim_board.h"

#include <memory>
#include <string>
#include <vector>

namespace e2e {

class Board : public testutil::FlashsimBoard {
public:
    using FlashsimBoard::FlashsimBoard;

    // flashsim run DIR -- brivlo ARGS...
    testutil::ProcessResult brivlo(const std::vector<std::string>& args, double timeoutSeconds = 60) const;
    // The same, left running in the background.
    std::unique_ptr<testutil::BackgroundProcess> startBrivlo(const std::vector<std::string>& args,
                                                             double timeoutSeconds = 60) const;

    // The board's status file as brivlo sees "/tmp/brivlo_status".
    std::string statusPath() const { return file("tmp/brivlo_status"); }
    // The board's "/tmp/flashit".
    std::string downloadPath() const { return file("tmp/flashit"); }
    void writeStatus(const std::string& content) const;
    bool statusExists() const;
    // "yes" or "no" from `flashsim show`.
    std::string lockedState(const std::string& name) const;
};

using testutil::randomBytes;
// The text of `count` dots.
std::string dots(std::size_t count);

}  // namespace e2e
