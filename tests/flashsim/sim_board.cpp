#include "sim_board.h"

#include <gtest/gtest.h>

#include <regex>

namespace flashsimtest {

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string maskFds(const std::string& text) {
    static const std::regex openResult("(^|\n)(open [^ ]+ mode=[a-z]+ result=)[0-9]+");
    static const std::regex closeFd("(^|\n)(close [^ ]+ fd=)[0-9]+");
    return std::regex_replace(std::regex_replace(text, openResult, "$1$2FD"), closeFd, "$1$2FD");
}

SimBoard::SimBoard(const std::vector<std::string>& initOptions) : temp_("flashsim-test"), dir_(temp_.file("board")) {
    std::vector<std::string> argv = {FLASHSIM_BIN, "init", dir_};
    argv.insert(argv.end(), initOptions.begin(), initOptions.end());
    const testutil::ProcessResult r = testutil::runProcess(argv);
    EXPECT_EQ(r.status, 0) << "flashsim init failed: " << r.err;
}

testutil::ProcessResult SimBoard::flashsim(const std::string& command, const std::vector<std::string>& args) const {
    std::vector<std::string> argv = {FLASHSIM_BIN, command, dir_};
    argv.insert(argv.end(), args.begin(), args.end());
    return testutil::runProcess(argv);
}

testutil::ProcessResult SimBoard::clientRun(const std::vector<std::string>& operations,
                                            const std::vector<std::string>& env) const {
    std::vector<std::string> argv = {FLASHSIM_BIN, "run", dir_, "--", FLASHSIM_TESTCLIENT};
    argv.insert(argv.end(), operations.begin(), operations.end());
    testutil::ProcessOptions options;
    options.env = env;
    return testutil::runProcess(argv, options);
}

std::vector<std::string> SimBoard::client(const std::vector<std::string>& operations) const {
    const testutil::ProcessResult r = clientRun(operations);
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

std::vector<std::string> SimBoard::log() const { return splitLines(testutil::readFile(file("log"))); }

std::vector<std::string> SimBoard::logLines(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& line : log()) {
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    }
    return out;
}

std::string SimBoard::counters(const std::string& partition) const {
    const testutil::ProcessResult r = flashsim("show", {partition});
    EXPECT_EQ(r.status, 0) << r.err;
    for (const std::string& line : splitLines(r.out)) {
        if (line.compare(0, 11, "  counters ") == 0) return line.substr(11);
    }
    ADD_FAILURE() << "no counters line in: " << r.out;
    return "";
}

}  // namespace flashsimtest
