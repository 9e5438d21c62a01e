// Signed upgrades (-K): the release key, the detached signature that came
// with the firmware file, and the check of the bytes about to be flashed.
//
// Without -K nothing here runs. With it, the key file is read before any
// download, the signature ("<file>.minisig": beside a local file, or fetched
// from the same TFTP server after the firmware) before any flash step, and
// the check runs on the exact bytes the writers then take: the raw image's
// buffer, or the validated package file through one descriptor. Every refusal
// is one line on standard error naming the file and the reason, and ends the
// run with result_code::kSignatureRefused; nothing is erased.
#pragma once

#include <string>

#include "app/result_code.h"
#include "qim/signature_file.h"
#include "qim/signature_key.h"
#include "support/errors.h"

namespace release_signature {

// The extension of a detached signature file.
constexpr const char* kSignatureExtension = QIM_SIGNATURE_EXTENSION;

// What -K asks of the run.
struct Release {
    std::string fileName;  // the firmware file as named on the command line
    qim_signature_key key;
    qim_signature signature;
};

// Reads the public key file named after -K into `key`. 0, or
// result_code::kSignatureRefused after printing why the key cannot be used.
// The key decides what is flashed, so it is used only when nobody but root
// and brivlo's user can have written it (support/tmp_file.h): a key file
// that another user owns or may write is refused like a malformed one.
int loadKey(const std::string& keyPath, qim_signature_key* key);

// Reads "<fileName>.minisig" beside a local firmware file. 0, or
// result_code::kSignatureRefused after printing why.
int loadLocalSignature(const std::string& fileName, qim_signature* signature);

// Parses a signature fetched into memory (`remoteName` for the message). 0,
// or result_code::kSignatureRefused after printing why.
int parseFetchedSignature(const std::string& remoteName, const std::string& text,
                          qim_signature* signature);

// Prints the refusal line for `fileName`: "Signature check failed for
// <fileName>: <reason>".
void printRefusal(const std::string& fileName, const std::string& reason);

}  // namespace release_signature
