// flashsim show DIR [PARTITION]: the board's state for people and tests.
#include "tools/flashsim/cli/board_dir.h"
#include "tools/flashsim/cli/commands.h"
#include "tools/flashsim/cli/parse.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>

namespace flashsim {
namespace {

// Content extents at erase-block granularity (64 KiB when the erase size is
// 0): a block that reads all 0xFF is "erased", any other "written".
void printExtents(const BoardDir& board, int part) {
    const PartRecord& p = board.record().parts[part];
    const std::vector<uint8_t> bytes = board.content(part);
    const size_t unit = p.erasesize != 0 ? p.erasesize : 65536;
    size_t start = 0;
    int kind = -1;  // 0 erased, 1 written
    auto flush = [&](size_t end) {
        if (kind >= 0 && end > start) {
            std::printf("  extent %zu %zu %s\n", start, end - start, kind == 1 ? "written" : "erased");
        }
    };
    for (size_t at = 0; at < bytes.size(); at += unit) {
        const size_t end = std::min(bytes.size(), at + unit);
        int k = 0;
        for (size_t i = at; i < end; ++i) {
            if (bytes[i] != 0xFF) {
                k = 1;
                break;
            }
        }
        if (k != kind) {
            flush(at);
            start = at;
            kind = k;
        }
    }
    flush(bytes.size());
}

void printPartition(const BoardDir& board, int part) {
    const PartRecord& p = board.record().parts[part];
    const Counters& c = p.count;
    // The write unit is shown only where it is not the NOR default of 1.
    const std::string unit = p.writesize == 1 ? std::string() : " writesize=" + std::to_string(p.writesize);
    std::printf("partition %s size=%" PRIu32 " erasesize=%" PRIu32 "%s locked=%s%s\n", p.name, p.size, p.erasesize,
                unit.c_str(), p.locked ? "yes" : "no", p.type == kChipNand ? " nand" : "");
    if (p.type == kChipNand) {
        std::string bad;
        for (uint32_t i = 0; i < p.badCount && i < kMaxBadBlocks; ++i) bad += " " + std::to_string(p.badBlocks[i]);
        std::printf("  bad%s\n", bad.empty() ? " none" : bad.c_str());
    }
    std::printf("  counters opens=%" PRIu64 " closes=%" PRIu64 " getinfo=%" PRIu64 " erases=%" PRIu64 " erased=%" PRIu64
                " writes=%" PRIu64 " bytes=%" PRIu64 " corrupt=%" PRIu64 " locks=%" PRIu64 " unlocks=%" PRIu64
                " errors=%" PRIu64 "\n",
                c.opens, c.closes, c.getinfo, c.erases, c.erased, c.writes, c.bytes, c.corrupt, c.locks, c.unlocks,
                c.errors);
    std::printf("  faults %s\n", describeFaults(p).c_str());
    printExtents(board, part);
}

// The log, or only the lines about one partition (second field).
void printLog(const BoardDir& board, const char* only) {
    std::printf("log\n");
    std::ifstream in(board.logPath());
    std::string line;
    while (std::getline(in, line)) {
        if (only != nullptr) {
            const size_t a = line.find(' ');
            const size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
            if (a == std::string::npos || line.compare(a + 1, b == std::string::npos ? std::string::npos : b - a - 1, only) != 0) {
                continue;
            }
        }
        std::printf("%s\n", line.c_str());
    }
}

}  // namespace

int commandShow(const Args& args) {
    if (args.empty() || args.size() > 2) throw UsageError("show wants DIR [PARTITION]");
    BoardDir board(args[0]);
    const BoardRecord& b = board.record();
    if (args.size() == 2) {
        const int part = board.part(args[1]);
        printPartition(board, part);
        printLog(board, b.parts[part].name);
        return 0;
    }
    std::printf("board %s\n", board.dir().c_str());
    if (b.phyAnswers) {
        std::printf("phy 0x%04" PRIx32 "\n", b.phyId & 0xFFFFu);
    } else {
        std::printf("phy none\n");
    }
    std::printf("phy-requests %" PRIu64 "\n", b.phyRequests);
    for (uint32_t i = 0; i < b.partCount; ++i) printPartition(board, static_cast<int>(i));
    printLog(board, nullptr);
    return 0;
}

}  // namespace flashsim
