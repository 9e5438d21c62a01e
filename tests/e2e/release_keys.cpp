#include "release_keys.h"

#include <gtest/gtest.h>

#include <vector>

#include "common/process.h"

namespace e2e {

namespace {

void run(const std::vector<std::string>& argv) {
    const testutil::ProcessResult r = testutil::runProcess(argv);
    ASSERT_EQ(r.status, 0) << argv[0] << ": " << r.err << r.out;
}

}  // namespace

KeyPair makeKeys(const Board& board, Tool tool, const std::string& name) {
    KeyPair k{tool, board.scratch(name + ".pub"), board.scratch(name + ".sec")};
    if (tool == Tool::kSignify) {
        run({"/usr/bin/signify-openbsd", "-G", "-n", "-p", k.pub, "-s", k.sec});
    } else {
        run({"/usr/bin/minisign", "-G", "-W", "-p", k.pub, "-s", k.sec});
    }
    return k;
}

void sign(const KeyPair& k, const std::string& file, std::string out) {
    if (out.empty()) out = file + ".minisig";
    switch (k.tool) {
    case Tool::kSignify:
        run({"/usr/bin/signify-openbsd", "-S", "-s", k.sec, "-m", file, "-x", out});
        break;
    case Tool::kMinisignLegacy:
        run({"/usr/bin/minisign", "-S", "-l", "-s", k.sec, "-m", file, "-x", out});
        break;
    case Tool::kMinisign:
        run({"/usr/bin/minisign", "-S", "-s", k.sec, "-m", file, "-x", out, "-t", "release 1.2"});
        break;
    }
}

}  // namespace e2e
