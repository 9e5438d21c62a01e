// "capability": writes a capability record that a board's reader accepts.
#include <cstdio>
#include <memory>
#include <string>

#include "qim/capability.h"
#include "tools/qimtool/qimtool.h"

namespace {

const char kHelp[] =
    "Usage: qimtool capability -o OUT --mfgc ID --model ID [--version N]\n"
    "                          [--manufacturer-name TEXT] [--model-name TEXT]\n"
    "Writes a capability record holding the manufacturer and model IDs (16\n"
    "hexadecimal digits each). Version N defaults to 17; records of version 17\n"
    "and later carry a CRC and are 1024 bytes long, older ones 404 bytes.\n"
    "Names are at most 127 characters.\n"
    "Exit status: 0 on success, 1 when the file cannot be written, 2 for usage errors.\n";

}  // namespace

int cmd_capability(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kHelp, stdout);
        return QIMTOOL_OK;
    }
    const char* sub = "capability";
    std::string out, value, mfgc_name, model_name;
    cap_identity identity{};
    identity.version = CAP_CRC_VERSION;
    bool have_mfgc = false, have_model = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (!qimtool::take_value(args, &i, &value)) {
            return qimtool::usage_error(sub, a.empty() || a[0] != '-' ? "unexpected argument '" + a + "'"
                                                                     : a + " needs a value");
        }
        if (a == "-o") {
            out = value;
        } else if (a == "--mfgc") {
            have_mfgc = qimtool::parse_id(value, &identity.mfgc_id);
            if (!have_mfgc) return qimtool::usage_error(sub, "bad manufacturer ID '" + value + "'");
        } else if (a == "--model") {
            have_model = qimtool::parse_id(value, &identity.model_id);
            if (!have_model) return qimtool::usage_error(sub, "bad model ID '" + value + "'");
        } else if (a == "--version") {
            uint32_t v;
            if (!qimtool::parse_u32(value, &v) || v > 255) {
                return qimtool::usage_error(sub, "bad version '" + value + "' (0 to 255)");
            }
            identity.version = static_cast<uint8_t>(v);
        } else if (a == "--manufacturer-name" || a == "--model-name") {
            if (value.size() >= CAP_NAME_SIZE) return qimtool::usage_error(sub, a + " is longer than 127 characters");
            (a == "--model-name" ? model_name : mfgc_name) = value;
        } else {
            return qimtool::usage_error(sub, "unknown option " + a);
        }
    }
    if (out.empty() || !have_mfgc || !have_model) {
        return qimtool::usage_error(sub, "-o, --mfgc and --model are required");
    }
    identity.mfgc_name = mfgc_name.c_str();
    identity.model_name = model_name.c_str();
    auto rec = std::make_unique<cap_record>();
    cap_build_record(rec.get(), &identity);

    FILE* f = std::fopen(out.c_str(), "wb");
    if (f == nullptr) return qimtool::failure(sub, "cannot create " + out);
    zel_error_t rc = cap_write_record(rec.get(), f);
    if (std::fclose(f) != 0 && rc == ZEL_SUCCESS) rc = ZEL_SYSTEM;
    if (rc != ZEL_SUCCESS) {
        std::remove(out.c_str());
        char text[ZEL_ERROR_TEXT_SIZE];
        return qimtool::failure(sub, "cannot write " + out + ": " + zel_error_text(rc, text));
    }
    return QIMTOOL_OK;
}
