// Parsing of the flashsim command's arguments. Every parser throws
// UsageError (commands.h) with a message naming the bad text.
#pragma once

#include "qim/qim_id.h"
#include "tools/flashsim/board_layout.h"

#include <cstdint>
#include <string>

namespace flashsim {

// A decimal or 0x-hexadecimal number. With `sizeSuffix`, a K, M or G suffix
// multiplies by 1024, 1024^2 or 1024^3. Must fit in `max`.
uint64_t parseNumber(const std::string& text, const std::string& what, uint64_t max, bool sizeSuffix = false);

// 16 hexadecimal digits (an optional 0x before them), or "text:ABC" for the
// bytes of a text of at most 8 characters followed by zero bytes.
qim_id parseId(const std::string& text, const std::string& what);

// Applies `flashsim fault` KIND [ARG] to a partition. Kinds: open, getinfo,
// erase BLOCK, unlock, lock, short-write N, fail-write N, clear. N counts the
// partition's writes from now on (1 = the next write).
void applyFault(PartRecord& part, const std::string& kind, const std::string& arg, bool hasArg);

// The faults in force, as "open erase=3 short-write@5"; "none" when there are none.
std::string describeFaults(const PartRecord& part);

}  // namespace flashsim
