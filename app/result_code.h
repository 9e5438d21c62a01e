// The numbers the driver's methods return where no zel_error_t name says
// what they report. They are fixed by the command-line contract rather than
// by meaning (ZEL_ACCES for a local file that cannot be created, ZEL_TRUNCATED
// for a foreign device code would say something else), so they are named here.
// What brivlo exits with is app/exit_status.h: main decides that.
#pragma once

namespace result_code {

// downloadFile
constexpr int kDownloadOpenFailed = 18;   // "/tmp/flashit" cannot be created
constexpr int kDownloadStartFailed = 3;   // the read request cannot be started
constexpr int kDownloadEventsFailed = 6;  // the event loop failed

// The package flasher
constexpr int kPackageOpenFailed = 6;      // as the reader answers a file it cannot open
constexpr int kDeviceCodeMismatch = 8;     // "device type mismatch"
constexpr int kManufacturerMismatch = 15;  // no part written
constexpr int kNoPartWritten = 15;         // "No matching partitions to flash"
constexpr int kPartReadFailed = 4;         // a part's bytes cannot be read

// -K: the key, the signature or the file to be flashed refused.
constexpr int kSignatureRefused = 14;

}  // namespace result_code
