// A private simulated board for one end-to-end test, and the real brivlo run
// on it.
#pragma once

#include "common/flashsim_board.h"

#include <cstdint>
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

// brivlo's standard output while it writes `size` bytes into the partition
// `name` (blocks of `eraseSize`), up to and including the line that starts
// the writing: the estimate, a dot per erased block and one more.
std::string partitionEraseOut(const std::string& name, uint32_t size, uint32_t eraseSize = 65536);
// The whole write, through "Flash write complete.": a dot per whole block
// written after the erase.
std::string partitionWriteOut(const std::string& name, uint32_t size, uint32_t eraseSize = 65536);
// One half ("kernel" or "rootfs") of a combined Linux image, erased and
// written, and both halves through "Flash write complete.".
std::string halfWriteOut(const std::string& half, uint32_t size);
std::string splitWriteOut(uint32_t kernelSize, uint32_t rootfsSize);

}  // namespace e2e
