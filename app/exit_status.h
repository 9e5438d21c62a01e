// What brivlo exits with, as a supervisor reads it. The numbers are fixed by
// the command-line contract; main chooses them, and the only method result
// that becomes an exit status as it stands is the package flasher's.
#pragma once

namespace exit_status {

constexpr int kDone = 0;                  // also a raw image whose read or write failed
constexpr int kDownloadFailed = 2;
constexpr int kBadModelArgument = 4;      // the model identifier in place of the partition
constexpr int kUsage = 5;                 // also a bad -O/-A/-K, environment or init failure
constexpr int kNotPartitionOrPackage = 6;
constexpr int kSignatureRefused = 14;     // -K: key, signature or file refused
constexpr int kAlreadyInProgress = 22;    // another upgrade holds the lock
// A run stopped by SIGINT or SIGTERM: stop_signal::exitStatus.

}  // namespace exit_status
