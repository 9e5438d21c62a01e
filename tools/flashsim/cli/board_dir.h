// The flashsim command's view of a board directory: creating one, mapping its
// board record, and reading and writing partition contents directly (without
// the flash rules and without logging: that is the job of the preload
// library, for the program under test).
#pragma once

#include "tools/flashsim/board_layout.h"

#include <cstdint>
#include <string>
#include <vector>

namespace flashsim {

class BoardDir {
public:
    // Opens an existing board; throws std::runtime_error with a message
    // ("DIR: not a simulated board ...") when it is not one.
    explicit BoardDir(const std::string& dir);
    ~BoardDir();
    BoardDir(const BoardDir&) = delete;
    BoardDir& operator=(const BoardDir&) = delete;

    // Makes the directory layout and writes `record` as the board file.
    // Fails (throws) when `dir` already holds a board.
    static void create(const std::string& dir, const BoardRecord& record);

    const std::string& dir() const { return dir_; }
    BoardRecord& record() { return *record_; }
    const BoardRecord& record() const { return *record_; }

    // Index of a partition, or throws ("no partition NAME on this board").
    int part(const std::string& name) const;
    std::string backingPath(int part) const;
    std::string logPath() const { return dir_ + "/" + kLogFile; }

    // Whether the backing file exists yet (until the first use the partition
    // is erased and has no file).
    bool materialised(int part) const;
    // Creates the backing file filled with 0xFF if it does not exist.
    void materialise(int part) const;
    // The whole content (0xFF for a partition without a backing file).
    std::vector<uint8_t> content(int part) const;
    // Stores bytes at `offset` as they are (no NOR rule); throws when they do
    // not fit.
    void store(int part, uint64_t offset, const std::vector<uint8_t>& bytes) const;

private:
    std::string dir_;
    BoardRecord* record_ = nullptr;
};

}  // namespace flashsim
