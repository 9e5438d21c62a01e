// "extract": one part's data into a file.
#include <cstdio>
#include <string>

#include "tools/qimtool/package_file.h"
#include "tools/qimtool/qimtool.h"

namespace {

const char kHelp[] =
    "Usage: qimtool extract FILE SEQ -o OUT\n"
    "Writes the data of the part with sequence number SEQ of package FILE to OUT\n"
    "('-' for standard output).\n"
    "Exit status: 0 on success, 1 on failure, 2 for usage errors.\n";

}  // namespace

int cmd_extract(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kHelp, stdout);
        return QIMTOOL_OK;
    }
    const char* sub = "extract";
    std::string out, value;
    std::vector<std::string> positional;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "-o") {
            if (!qimtool::take_value(args, &i, &out)) return qimtool::usage_error(sub, "-o needs a value");
        } else if (args[i].size() > 1 && args[i][0] == '-') {
            return qimtool::usage_error(sub, "unknown option " + args[i]);
        } else {
            positional.push_back(args[i]);
        }
    }
    uint32_t seq = 0;
    if (positional.size() != 2 || out.empty()) return qimtool::usage_error(sub, "expected FILE SEQ -o OUT");
    if (!qimtool::parse_u32(positional[1], &seq) || seq > INT32_MAX) {
        return qimtool::usage_error(sub, "bad sequence number '" + positional[1] + "'");
    }
    qimtool::PackagePtr pkg = qimtool::load_package(sub, positional[0]);
    if (!pkg) return QIMTOOL_FAILED;
    if (seq >= static_cast<uint32_t>(qim_package_get_num_parts(pkg.get()))) {
        return qimtool::failure(sub, "the package has no part " + positional[1]);
    }
    const bool to_stdout = out == "-";
    FILE* f = to_stdout ? stdout : std::fopen(out.c_str(), "wb");
    if (f == nullptr) return qimtool::failure(sub, "cannot create " + out);
    zel_error_t rc = qim_package_extract_part(pkg.get(), static_cast<int>(seq), f);
    if (to_stdout ? std::fflush(f) != 0 : std::fclose(f) != 0) rc = rc ? rc : ZEL_SYSTEM;
    if (rc != ZEL_SUCCESS) {
        if (!to_stdout) std::remove(out.c_str());
        char text[ZEL_ERROR_TEXT_SIZE];
        return qimtool::failure(sub, "cannot extract part " + positional[1] + ": " + zel_error_text(rc, text));
    }
    return QIMTOOL_OK;
}
