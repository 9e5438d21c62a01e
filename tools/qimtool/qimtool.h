// qimtool: one command, several subcommands. Each subcommand takes the
// arguments after its name and returns the process exit status.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qim/qim_id.h"

// Exit statuses shared by all subcommands.
enum : int {
    QIMTOOL_OK = 0,
    QIMTOOL_FAILED = 1,  // the operation failed (message on stderr)
    QIMTOOL_USAGE = 2,   // bad command line (message on stderr)
};

using Args = std::vector<std::string>;

int qimtool_main(int argc, char** argv);

int cmd_info(const Args& args);
int cmd_verify(const Args& args);
int cmd_create(const Args& args);
int cmd_extract(const Args& args);
int cmd_check(const Args& args);
int cmd_capability(const Args& args);

// Helpers shared by the subcommands (args.cpp).
namespace qimtool {

// Prints "qimtool <sub>: <message>" on stderr and returns QIMTOOL_USAGE.
int usage_error(const char* sub, const std::string& message);
// Prints "qimtool <sub>: <message>" on stderr and returns QIMTOOL_FAILED.
int failure(const char* sub, const std::string& message);

// Unsigned 32-bit number in decimal or with a 0x prefix.
bool parse_u32(const std::string& text, uint32_t* out);
// Exactly 16 hexadecimal digits.
bool parse_id(const std::string& text, qim_id* out);
// a.b.c.d with each number 0..255, most significant first.
bool parse_release(const std::string& text, uint32_t* out);
// A part kind by number or by its name.
bool parse_part_kind(const std::string& text, uint32_t* out);
// A device code by number or by its short name.
bool parse_device_code(const std::string& text, uint32_t* out);

// Takes the value of option args[*i] (advancing *i); false when missing.
bool take_value(const Args& args, std::size_t* i, std::string* value);
bool wants_help(const Args& args);

std::string hex_id(const qim_id& id);
std::string release_text(uint32_t release);

}  // namespace qimtool
