#include "common/flashsim_board.h"

#include <gtest/gtest.h>

#include <sstream>

namespace testutil {

FlashsimBoard::FlashsimBoard(const std::vector<std::string>& initOptions) : dir_(temp_.file("board")) {
    const ProcessResult r = flashsim("init", initOptions);
    EXPECT_EQ(r.status, 0) << "flashsim init failed: " << r.err;
}

ProcessResult FlashsimBoard::flashsim(const std::string& command, const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {FLASHSIM_BIN, command, dir_};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProcess(argv);
}

std::string FlashsimBoard::partition(const std::string& name) const {
    const ProcessResult r = flashsim("dump", {name});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

std::vector<std::string> FlashsimBoard::logLines(const std::string& prefix) const {
    std::vector<std::string> lines;
    if (!fileExists(file("log"))) return lines;
    std::istringstream in(readFile(file("log")));
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) lines.push_back(line);
    }
    return lines;
}

}  // namespace testutil
