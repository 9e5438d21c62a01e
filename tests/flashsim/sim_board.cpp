#include "sim_board.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace flashsimtest {

std::string maskFds(const std::string& text) {
    static const std::regex fd("(\n(open [^ ]+ mode=[a-z]+ result|close [^ ]+ fd)=)[0-9]+");
    return std::regex_replace(text, fd, "$1FD");
}

Lines SimBoard::client(const Lines& operations) const {
    Lines argv = {"--", FLASHSIM_TESTCLIENT};
    argv.insert(argv.end(), operations.begin(), operations.end());
    const testutil::ProcessResult r = flashsim("run", argv);
    EXPECT_EQ(r.status, 0) << r.err;
    // The library must never write on the program's own streams.
    EXPECT_EQ(r.err, "");
    Lines lines;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace flashsimtest
