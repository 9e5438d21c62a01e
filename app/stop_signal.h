// Signals during an upgrade. A flash that has started must never be cut
// short by the console going away, and a stop asked for with SIGINT or
// SIGTERM is honoured only where it leaves no partition half written:
//
//   - SIGHUP and SIGPIPE are ignored: a closed console makes output fail
//     (the streams ignore that) and the upgrade goes on.
//   - SIGINT and SIGTERM are only recorded by the handler. The upgrade looks
//     at the record at safe points: after every turn of the download's event
//     loop and before a raw image or a package part is started. A partition
//     whose first block has been erased is always completed (erased, written,
//     locked again); the run then ends with exit status 128 + the signal.
#pragma once

namespace stop_signal {

// Sets the dispositions above for the rest of the process. The download's
// select() returns early on a recorded signal (select is never restarted),
// which is what ends a download within a turn of its loop.
void install();

// SIGINT or SIGTERM if one has arrived since install(), else 0 (the first
// one counts).
int pending();

// The exit status of a run stopped by `signal`.
inline int exitStatus(int signal) { return 128 + signal; }

}  // namespace stop_signal
