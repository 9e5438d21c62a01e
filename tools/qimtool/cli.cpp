// The command line: picks the subcommand and hands it the rest.
#include <cstdio>
#include <cstring>

#include "tools/qimtool/qimtool.h"

namespace {

struct Subcommand {
    const char* name;
    int (*run)(const Args&);
    const char* summary;
};

const Subcommand kSubcommands[] = {
    {"info", cmd_info, "print the report of a package (or --json)"},
    {"verify", cmd_verify, "check a package's header, tables and checksums"},
    {"create", cmd_create, "build a package from part files"},
    {"extract", cmd_extract, "write one part's data to a file"},
    {"check", cmd_check, "tell whether a package fits a device"},
    {"capability", cmd_capability, "write a capability record"},
};

void print_usage(FILE* out) {
    std::fprintf(out, "Usage: qimtool SUBCOMMAND [ARGS...]\n\nSubcommands:\n");
    for (const Subcommand& s : kSubcommands) std::fprintf(out, "  %-11s %s\n", s.name, s.summary);
    std::fprintf(out, "\nRun 'qimtool SUBCOMMAND --help' for its arguments, 'qimtool --version' for the version.\n");
}

}  // namespace

int qimtool_main(int argc, char** argv) {
    if (argc < 2) {
        print_usage(stderr);
        return QIMTOOL_USAGE;
    }
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        print_usage(stdout);
        return QIMTOOL_OK;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::printf("qimtool %s\n", BRIVLO_VERSION);
        return QIMTOOL_OK;
    }
    for (const Subcommand& s : kSubcommands) {
        if (std::strcmp(argv[1], s.name) == 0) {
            return s.run(Args(argv + 2, argv + argc));
        }
    }
    std::fprintf(stderr, "qimtool: unknown subcommand '%s'\n", argv[1]);
    print_usage(stderr);
    return QIMTOOL_USAGE;
}
