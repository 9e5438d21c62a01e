#include "bench/table.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace bench {

namespace {

constexpr std::size_t kColumns = 7;
using Cells = std::array<std::string, kColumns>;

std::string verdictText(const Row& row) {
    switch (row.verdict) {
    case Verdict::kMet: return row.target + ": met";
    case Verdict::kMissed: return row.target + ": MISSED";
    case Verdict::kReported: break;
    }
    return row.target.empty() ? "reported" : row.target;
}

Cells cellsOf(const Row& row) {
    char ratio[32] = "-";
    if (!std::isnan(row.ratio)) std::snprintf(ratio, sizeof ratio, "%.2f", row.ratio);
    return {row.benchmark, row.subject, row.result, row.reference, row.referenceResult, ratio, verdictText(row)};
}

void printLine(const Cells& cells, const std::array<std::size_t, kColumns>& widths) {
    std::printf("|");
    for (std::size_t i = 0; i < kColumns; ++i) std::printf(" %-*s |", static_cast<int>(widths[i]), cells[i].c_str());
    std::printf("\n");
}

}  // namespace

int Table::print() const {
    const Cells header = {"benchmark", "measured", "median", "reference (same run)", "median", "ratio", "target"};
    std::vector<Cells> body;
    for (const Row& row : rows_) body.push_back(cellsOf(row));
    std::array<std::size_t, kColumns> widths{};
    for (std::size_t i = 0; i < kColumns; ++i) {
        widths[i] = header[i].size();
        for (const Cells& c : body) widths[i] = std::max(widths[i], c[i].size());
    }
    printLine(header, widths);
    std::printf("|");
    for (std::size_t w : widths) std::printf("%s|", std::string(w + 2, '-').c_str());
    std::printf("\n");
    for (const Cells& c : body) printLine(c, widths);
    if (!notes_.empty()) std::printf("\n");
    for (const std::string& n : notes_) std::printf("- %s\n", n.c_str());

    return static_cast<int>(std::count_if(rows_.begin(), rows_.end(),
                                          [](const Row& r) { return r.verdict == Verdict::kMissed; }));
}

}  // namespace bench
