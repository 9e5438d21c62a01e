// Pure pieces of the command line that brivloMain (app/main_flow.h) builds on:
// the source URL in the first argument, the package file test, and the usage
// text. Nothing here touches files or ends the process.
#pragma once

#include <string>

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

// Prints "Brivlo " on standard output and the usage lines on standard error,
// with `programName` in the examples.
void printUsage(const std::string& programName);

}  // namespace command_line
