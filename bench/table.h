// The one result table that bench/run prints: every row sets a measured
// subject against a reference measured in the same run, with the ratio
// between them and, where there is one, the target and whether it was met.
#pragma once

#include <cmath>
#include <string>
#include <vector>

namespace bench {

enum class Verdict { kReported, kMet, kMissed };

struct Row {
    std::string benchmark;        // what is measured
    std::string subject;          // the measured program or function
    std::string result;           // its median, with the unit
    std::string reference;        // what it is compared with
    std::string referenceResult;  // the reference's median, with the unit
    double ratio = std::nan("");  // subject / reference; NaN when there is none
    std::string target;           // e.g. "ratio <= 1.00"; empty when only reported
    Verdict verdict = Verdict::kReported;
};

// Met when `ok`, else missed; for rows that have a target.
inline Verdict verdictOf(bool ok) { return ok ? Verdict::kMet : Verdict::kMissed; }

class Table {
public:
    void add(Row row) { rows_.push_back(std::move(row)); }
    // A line printed under the table (how something was measured).
    void note(std::string text) { notes_.push_back(std::move(text)); }
    // Markdown table, then the notes; returns the number of missed targets.
    int print() const;

private:
    std::vector<Row> rows_;
    std::vector<std::string> notes_;
};

}  // namespace bench
