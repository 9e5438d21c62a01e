// The detached signature beside a package ("<file>.minisig", as minisign and
// signify write it): what `info` shows of it and what `verify --key` checks.
#pragma once

#include <string>

#include "qim/signature_file.h"
#include "tools/qimtool/json_writer.h"

namespace qimtool {

// The line `info` prints after the report: "Signature: <file>.minisig,
// <kind>, key number <hex>", "Signature: none (no <file>.minisig)", or
// "Signature: <file>.minisig unusable: <reason>".
std::string signature_summary(const std::string& file);

// The same facts as the JSON value of "signature": null when there is none.
void signature_json(const std::string& file, JsonWriter* j);

// Checks "<file>.minisig" with the public key file `key_path` over `file`.
// Prints "<file>: signature ok: ..." and returns true, or prints
// "qimtool verify: <file>: <reason>" on stderr and returns false.
bool verify_signature(const std::string& file, const std::string& key_path);

}  // namespace qimtool
