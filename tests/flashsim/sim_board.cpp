#include "sim_board.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace flashsimtest {

namespace {

Lines splitLines(const std::string& text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

std::string maskFds(const std::string& text) {
    static const std::regex fd("(\n(open [^ ]+ mode=[a-z]+ result|close [^ ]+ fd)=)[0-9]+");
    return std::regex_replace(text, fd, "$1FD");
}

SimBoard::SimBoard(const Lines& initOptions) : temp_("flashsim-test"), dir_(temp_.file("board")) {
    Lines argv = {FLASHSIM_BIN, "init", dir_};
    argv.insert(argv.end(), initOptions.begin(), initOptions.end());
    const testutil::ProcessResult r = testutil::runProcess(argv);
    EXPECT_EQ(r.status, 0) << "flashsim init failed: " << r.err;
}

testutil::ProcessResult SimBoard::flashsim(const std::string& command, const Lines& args) const {
    Lines argv = {FLASHSIM_BIN, command, dir_};
    argv.insert(argv.end(), args.begin(), args.end());
    return testutil::runProcess(argv);
}

Lines SimBoard::client(const Lines& operations) const {
    Lines argv = {"--", FLASHSIM_TESTCLIENT};
    argv.insert(argv.end(), operations.begin(), operations.end());
    const testutil::ProcessResult r = flashsim("run", argv);
    EXPECT_EQ(r.status, 0) << r.err;
    // The library must never write on the program's own streams.
    EXPECT_EQ(r.err, "");
    return splitLines(r.out);
}

std::vector<unsigned char> SimBoard::dump(const std::string& partition) const {
    const testutil::ProcessResult r = flashsim("dump", {partition});
    EXPECT_EQ(r.status, 0) << r.err;
    return std::vector<unsigned char>(r.out.begin(), r.out.end());
}

Lines SimBoard::logLines(const std::string& prefix) const {
    Lines out;
    for (const std::string& line : splitLines(testutil::readFile(file("log")))) {
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    }
    return out;
}

}  // namespace flashsimtest
