// A private simulated board for one test, and the test client run on it.
#pragma once

#include "common/flashsim_board.h"

#include <string>
#include <vector>

namespace flashsimtest {

using Lines = std::vector<std::string>;

class SimBoard : public testutil::FlashsimBoard {
public:
    using FlashsimBoard::FlashsimBoard;

    // The test client on this board: one output line per operation.
    Lines client(const Lines& operations) const;
    std::vector<unsigned char> dump(const std::string& name) const {
        const std::string bytes = partition(name);
        return {bytes.begin(), bytes.end()};
    }
};

// Text with descriptor numbers replaced by "FD" ("result=FD", "fd=FD"): they
// depend on what the test runner leaves open.
std::string maskFds(const std::string& text);

}  // namespace flashsimtest
