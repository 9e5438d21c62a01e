// Release keys and detached signatures made by Debian's real minisign and
// signify-openbsd, in a board's scratch directory.
#pragma once

#include <string>

#include "brivlo_board.h"

namespace e2e {

enum class Tool { kMinisign, kMinisignLegacy, kSignify };

// A key pair of one tool: <name>.pub, <name>.sec.
struct KeyPair {
    Tool tool;
    std::string pub;
    std::string sec;
};

// Fails the test when the tool fails.
KeyPair makeKeys(const Board& board, Tool tool, const std::string& name);

// Signs `file` into `file`.minisig (or `out`); minisign with the trusted
// comment "release 1.2".
void sign(const KeyPair& k, const std::string& file, std::string out = "");

}  // namespace e2e
