// The latency of a status query, `brivlo -S`, against the cheapest possible
// process start, /bin/true: a supervisor polls with one process start per
// query, so the query should cost little more than starting a process.
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "bench/child_process.h"
#include "bench/scratch.h"
#include "bench/stats.h"

namespace bench {

namespace {

struct Pair {
    std::vector<double> subject, reference;        // wall
    std::vector<double> subjectCpu, referenceCpu;  // user+sys
};

// Alternates the two commands `runs` times; checks each exit status.
Pair alternate(int runs, const std::vector<std::string>& subject, int subjectStatus,
               const std::vector<std::string>& reference) {
    Pair p;
    for (int i = 0; i < runs; ++i) {
        // Every other round the reference goes first, so neither always
        // starts right after the other.
        ChildRun s, r;
        if (i % 2 == 1) r = runChild(reference);
        s = runChild(subject);
        if (i % 2 == 0) r = runChild(reference);
        if (subjectStatus >= 0 && !s.exitedWith(subjectStatus)) {
            throw std::runtime_error("unexpected exit status: " + commandText(subject));
        }
        if (!r.exitedWith(0)) throw std::runtime_error("failed: " + commandText(reference));
        p.subject.push_back(s.wallSeconds);
        p.reference.push_back(r.wallSeconds);
        p.subjectCpu.push_back(s.cpuSeconds());
        p.referenceCpu.push_back(r.cpuSeconds());
    }
    return p;
}

std::string ms(double s) { return format("%.3f ms", s * 1000.0); }

}  // namespace

void statusQueryBenchmarks(const Config& config, Table& table) {
    // No upgrade running on this machine: the query finds no status file
    // ("/tmp/brivlo_status" is only looked at, never written) and answers 0;
    // whatever it answers, the work is the same start-up and one open.
    const Pair plain = alternate(config.spawnRuns, {config.brivlo, "-S"}, -1, {"/bin/true"});
    const double s = median(plain.subject), r = median(plain.reference);
    table.add({"status query latency", "brivlo -S", ms(s), "/bin/true", ms(r), s / r, "ratio <= 2.00",
               verdictOf(s <= 2.0 * r)});
    // CPU time depends less on the machine's load than the wall time does.
    const double sc = median(plain.subjectCpu), rc = median(plain.referenceCpu);
    table.add({"status query, CPU user+sys", "brivlo -S", ms(sc), "/bin/true", ms(rc), sc / rc, "",
               Verdict::kReported});

    // On a board whose status file shows a package half written: the file is
    // read and parsed, and both programs start under the simulator.
    ScratchDir dir("brivlo-bench-status");
    const std::string board = dir.file("board");
    if (!runChild({config.flashsim, "init", board}).exitedWith(0)) throw std::runtime_error("flashsim init failed");
    const std::string status = "status=2\ntotal=1000\ncurrent=500";
    writeBytes(board + "/tmp/brivlo_status", reinterpret_cast<const uint8_t*>(status.data()), status.size());
    const Pair onBoard = alternate(config.spawnRuns, {config.flashsim, "run", board, "--", config.brivlo, "-S"}, 225,
                                   {config.flashsim, "run", board, "--", "/bin/true"});
    const double bs = median(onBoard.subject), br = median(onBoard.reference);
    table.add({"status query latency, flashsim board, file at 50%", "brivlo -S (answers 225)", ms(bs), "/bin/true",
               ms(br), bs / br, "", Verdict::kReported});
    table.note("Status query: " + std::to_string(config.spawnRuns) +
               " alternating starts of each, timed from fork to wait4.");
}

}  // namespace bench
