// The subcommands that look at or change a board from outside the program
// under test: dump, load, fill, lock, unlock, fault. None of them is logged:
// the log records what the program did.
#include "tools/flashsim/cli/board_dir.h"
#include "tools/flashsim/cli/commands.h"
#include "tools/flashsim/cli/parse.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace flashsim {

int commandDump(const Args& args) {
    OptionReader in(args, 0);
    std::vector<std::string> plain;
    std::string output;
    std::string name;
    while (!in.done()) {
        if (in.peek() == "-o") {
            in.positional();
            output = in.positional();
        } else if (in.nextOption(name)) {
            if (name != "--output") throw UsageError("unknown option " + name + " for dump");
            output = in.value();
        } else {
            plain.push_back(in.positional());
        }
    }
    if (plain.size() != 2) throw UsageError("dump wants DIR PARTITION [-o FILE]");
    BoardDir board(plain[0]);
    const std::vector<uint8_t> bytes = board.content(board.part(plain[1]));
    if (output.empty()) {
        if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size() || std::fflush(stdout) != 0) {
            throw std::runtime_error("cannot write to standard output");
        }
        return 0;
    }
    std::ofstream out(output, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + output);
    return 0;
}

int commandLoad(const Args& args) {
    OptionReader in(args, 0);
    std::vector<std::string> plain;
    uint64_t offset = 0;
    std::string name;
    while (!in.done()) {
        if (in.nextOption(name)) {
            if (name != "--offset") throw UsageError("unknown option " + name + " for load");
            offset = parseNumber(in.value(), "offset", UINT32_MAX, true);
        } else {
            plain.push_back(in.positional());
        }
    }
    if (plain.size() != 3) throw UsageError("load wants DIR PARTITION FILE [--offset N]");
    BoardDir board(plain[0]);
    const int part = board.part(plain[1]);
    std::ifstream file(plain[2], std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + plain[2]);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    board.store(part, offset, bytes);
    return 0;
}

int commandFill(const Args& args) {
    if (args.size() != 3) throw UsageError("fill wants DIR PARTITION BYTE");
    BoardDir board(args[0]);
    const int part = board.part(args[1]);
    const uint8_t value = static_cast<uint8_t>(parseNumber(args[2], "byte", 255));
    board.store(part, 0, std::vector<uint8_t>(board.record().parts[part].size, value));
    return 0;
}

int commandLock(const Args& args, bool lock) {
    if (args.size() != 2) throw UsageError(std::string(lock ? "lock" : "unlock") + " wants DIR PARTITION");
    BoardDir board(args[0]);
    board.record().parts[board.part(args[1])].locked = lock ? 1 : 0;
    return 0;
}

int commandFault(const Args& args) {
    if (args.size() != 3 && args.size() != 4) throw UsageError("fault wants DIR PARTITION KIND [ARG]");
    BoardDir board(args[0]);
    PartRecord& p = board.record().parts[board.part(args[1])];
    // Checked on a copy, so a bad argument changes nothing.
    PartRecord changed = p;
    applyFault(changed, args[2], args.size() == 4 ? args[3] : std::string(), args.size() == 4);
    p.faults = changed.faults;
    p.eraseFailBlock = changed.eraseFailBlock;
    p.eraseDelayMs = changed.eraseDelayMs;
    p.shortWriteAt = changed.shortWriteAt;
    p.failWriteAt = changed.failWriteAt;
    p.dropWriteAt = changed.dropWriteAt;
    p.wornEraseBlock = changed.wornEraseBlock;
    p.powerCutAt = changed.powerCutAt;
    return 0;
}

}  // namespace flashsim
