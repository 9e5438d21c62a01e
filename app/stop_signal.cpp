#include "app/stop_signal.h"

#include <csignal>

namespace stop_signal {

namespace {

volatile std::sig_atomic_t recorded = 0;

extern "C" void recordSignal(int signal) {
    if (recorded == 0) {
        recorded = signal;
    }
}

}  // namespace

void install() {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGHUP, &ignore, nullptr);
    sigaction(SIGPIPE, &ignore, nullptr);

    // SA_RESTART keeps console writes and file reads from failing with
    // EINTR. select() is never restarted whatever the flag says, so the
    // download's wait still ends at once and its loop sees the record.
    struct sigaction record {};
    record.sa_handler = recordSignal;
    record.sa_flags = SA_RESTART;
    sigfillset(&record.sa_mask);
    sigaction(SIGINT, &record, nullptr);
    sigaction(SIGTERM, &record, nullptr);
}

int pending() {
    return recorded;
}

}  // namespace stop_signal
