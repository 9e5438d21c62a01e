// The numbers the driver's methods return and brivlo exits with. Most are
// fixed by the command-line contract rather than by meaning, so they are
// named here for what they report; a zel_error_t name that merely has the
// same number (ZEL_ACCES for a local file that cannot be created, ZEL_TRUNCATED
// for a foreign device code) would say something else.
#pragma once

#include "support/errors.h"

namespace exit_status {

// main
constexpr int kDownloadFailed = 2;
// The model identifier in place of the partition name does not yield eight
// hexadecimal bytes (what qim_id_from_hex answers for such a text).
constexpr int kBadModelArgument = ZEL_INVALIDDATA;
constexpr int kUsage = 5;
constexpr int kNotPartitionOrPackage = 6;
constexpr int kAlreadyInProgress = ZEL_ALREADY;  // another upgrade holds the lock
constexpr int kSignatureRefused = ZEL_POLICY;    // -K: key or signature refused

// downloadFile
constexpr int kDownloadOpenFailed = 18;   // "/tmp/flashit" cannot be created
constexpr int kDownloadStartFailed = 3;   // the read request cannot be started
constexpr int kDownloadEventsFailed = 6;  // the event loop failed

// The package flasher
constexpr int kPackageOpenFailed = 6;       // as the reader answers a file it cannot open
constexpr int kDeviceCodeMismatch = 8;      // "device type mismatch"
constexpr int kManufacturerMismatch = 15;   // no part written
constexpr int kNoPartWritten = 15;          // "No matching partitions to flash"
constexpr int kPartReadFailed = ZEL_INVALIDDATA;  // a part's bytes cannot be read

}  // namespace exit_status
