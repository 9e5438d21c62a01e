// The brivlo command line as a value: `parse` turns the argument words into
// what to do (print the usage, answer a status query, or run one upgrade),
// and `chooseTarget` decides from that value whether the upgrade writes a raw
// image or a package and with which identities. Neither prints, touches a
// file or ends the process: app/main_flow.cpp acts on what they return.
#pragma once

#include <string>
#include <vector>

#include "qim/qim_id.h"

namespace command_line {

// Where the firmware file comes from, as the first argument says.
struct Source {
    bool download = false;  // fetch by TFTP before flashing
    std::string host;
    std::string port;  // empty: the TFTP default port
};

// Reads `<protocol>://<host>[:<port>]`. Protocol "tftp" downloads; "local"
// parses nothing; any other protocol parses host and port but reads the file
// locally. The host starts two characters after the first '/' (with no '/'
// that is position 1, the arithmetic wrapping as unsigned); the port is
// everything after the first ':' at or after that position.
Source parseSource(const std::string& url);

// True when the text after the last '.' of `fileName` (all of it without a
// '.') is exactly "qim".
bool hasQimExtension(const std::string& fileName);

// An identifier to set (-O model, -A manufacturer, or a positional one).
// Given without an identifier it is the all-zero wildcard ("any").
struct Override {
    bool given = false;
    qim_id id{};
};

// What one upgrade run was asked for. Positional arguments come from the
// fixed positions 1, 2, 3 (and 4), whatever words they hold.
struct Invocation {
    Source source;
    std::string fileName;       // position 2: remote name or local path
    std::string partitionName;  // position 3: a partition, "qim" or a model identifier
    // Position 4: a manufacturer identifier in the package form with
    // identifiers; absent when there are only three positions.
    bool hasPositionalMfgc = false;
    std::string positionalMfgc;
    Override model;  // -O
    Override mfgc;   // -A
    // -K <public key file>: flash only a file whose signature this key accepts.
    bool keyGiven = false;
    std::string keyPath;
    // -D: erase and write only the blocks whose content changes.
    bool onlyChangedBlocks = false;
    // -F: ask the TFTP server for the transfer options.
    bool tftpOptions = false;
};

enum class Action {
    kUsage,             // -? or --help: usage, exit 5, the status file stays
    kRefused,           // a bad option: usage, exit 5, the status file stays
    kStatusQuery,       // -S: the status query ends the process
    kTooFewArguments,   // usage, exit 5, the status file is removed
    kUpgrade,           // run `invocation`
};

struct Command {
    Action action = Action::kUpgrade;
    // Lines for standard error in the order the option scan met them,
    // printed before the action is taken ("main: Model ID override valid",
    // and for kRefused last of all why).
    std::vector<std::string> messages;
    Invocation invocation;  // complete for kUpgrade only
};

// The option scan over `args` (program name first) and, when it lets the run
// go on, the positional arguments. Options are recognised at any position
// from 1 in order, the first of -?/--help, -S or a refused option decides.
Command parse(const std::vector<std::string>& args);

// Raw image or package, decided from the invocation alone.
struct Target {
    enum class Kind {
        kRaw,
        kPackage,
        kNotPartitionOrPackage,  // neither a partition nor a "*.qim" file
        kBadModelArgument,       // the model identifier in place of the partition does not parse
    };
    Kind kind = Kind::kRaw;
    // kPackage: the identities to set on the upgrade context, in this order,
    // over those read from the device. -O and -A win over positional ones.
    Override model;
    Override mfgc;
};
Target chooseTarget(const Invocation& run);

// Prints "Brivlo " on standard output and the usage lines on standard error,
// with `programName` in the examples.
void printUsage(const std::string& programName);

}  // namespace command_line
