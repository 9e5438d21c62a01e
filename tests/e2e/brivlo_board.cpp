#include "brivlo_board.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

namespace e2e {

namespace {

// BRIVLO_TEST_WRAPPER, a command prefix of words separated by blanks (for
// example "valgrind --error-exitcode=99 --log-file=DIR/vg.%p"), runs brivlo
// under it, on the board: scripts/memcheck.sh runs flows of this suite so.
std::vector<std::string> onBoard(const std::string& dir, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {FLASHSIM_BIN, "run", dir, "--"};
    const char* prefix = std::getenv("BRIVLO_TEST_WRAPPER");
    std::istringstream wrapper(prefix != nullptr ? prefix : "");
    for (std::string word; wrapper >> word;) argv.push_back(word);
    argv.push_back(BRIVLO_BIN);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

testutil::ProcessOptions withTimeout(double seconds) {
    testutil::ProcessOptions options;
    options.timeoutSeconds = seconds;
    return options;
}

}  // namespace

testutil::ProcessResult Board::brivlo(const std::vector<std::string>& args, double timeoutSeconds) const {
    testutil::ProcessResult r = testutil::runProcess(onBoard(dir(), args), withTimeout(timeoutSeconds));
    EXPECT_FALSE(r.timedOut) << "brivlo did not end";
    return r;
}

std::unique_ptr<testutil::BackgroundProcess> Board::startBrivlo(const std::vector<std::string>& args,
                                                                double timeoutSeconds) const {
    return std::make_unique<testutil::BackgroundProcess>(onBoard(dir(), args), withTimeout(timeoutSeconds));
}

void Board::writeStatus(const std::string& content) const {
    testutil::writeFile(statusPath(), content);
}

bool Board::statusExists() const {
    return testutil::fileExists(statusPath());
}

std::string Board::lockedState(const std::string& name) const {
    const testutil::ProcessResult r = flashsim("show", {name});
    const std::string key = "locked=";
    const std::size_t at = r.out.find(key);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no lock state for " << name << ": " << r.out << r.err;
        return "";
    }
    return r.out.substr(at + key.size(), r.out.find_first_of(" \n", at) - at - key.size());
}

std::string dots(std::size_t count) {
    return std::string(count, '.');
}

namespace {

std::string eraseOut(uint32_t size, uint32_t eraseSize, const std::string& writingLine) {
    const uint32_t blocks = (size + eraseSize - 1) / eraseSize;
    // The estimate: 220000 bytes erased per second, the product in 32 bits.
    return "Erasing Flash (wait " + std::to_string(blocks * eraseSize / 220000) + "s)\n" + dots(blocks + 1) + "\n" +
           writingLine + "\n";
}

const char* const kComplete = "\nFlash write complete.\n";

}  // namespace

std::string partitionEraseOut(const std::string& name, uint32_t size, uint32_t eraseSize) {
    return eraseOut(size, eraseSize, "Writing file to flash partition '" + name + "'");
}

std::string partitionWriteOut(const std::string& name, uint32_t size, uint32_t eraseSize) {
    return partitionEraseOut(name, size, eraseSize) + dots(size / eraseSize) + "\n" + kComplete;
}

std::string halfWriteOut(const std::string& half, uint32_t size) {
    return eraseOut(size, 65536, "Writing file to " + half + " flash partition") + dots(size / 65536) + "\n";
}

std::string splitWriteOut(uint32_t kernelSize, uint32_t rootfsSize) {
    return halfWriteOut("kernel", kernelSize) + halfWriteOut("rootfs", rootfsSize) + kComplete;
}

}  // namespace e2e
