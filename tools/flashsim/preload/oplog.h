// The board's operation log, DIR/log: one line per operation on a simulated
// partition or on the PHY, appended with O_APPEND so lines of several
// processes never mix. Format (stable, documented in the README):
//
//   <op> <target> key=value key=value ...
//
// Lines are built in a fixed buffer: no allocation, no stdio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace flashsim {

class LogLine {
public:
    LogLine(const char* op, const char* target);
    LogLine& text(const char* key, const char* value);
    LogLine& number(const char* key, uint64_t value);
    LogLine& hex(const char* key, uint32_t value, int digits);
    // `length` bytes of file content as one token: a line feed as the two
    // characters \n, a backslash as \\, anything not printable or a blank as ?.
    LogLine& escaped(const char* key, const char* data, size_t length);
    // "result=<r>", and " errno=<NAME>" when r is negative.
    LogLine& result(long long r, int error);
    // Appends the line to the board's log; keeps errno.
    void emit();

private:
    void put(const char* s);
    void putChar(char c);
    char buffer_[512];
    size_t length_ = 0;
};

// Symbolic name of an errno value ("EIO"), or "E<number>" for rare ones;
// the returned text lives in a static buffer for the unusual case.
const char* errnoName(int error);

}  // namespace flashsim
