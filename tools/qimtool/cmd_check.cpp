// "check": whether a package fits a described device, and the names its
// embedded capability records give.
#include <cstdio>
#include <string>

#include "qim/compat_query.h"
#include "qim/names.h"
#include "tools/qimtool/package_file.h"
#include "tools/qimtool/qimtool.h"

namespace {

const char kHelp[] =
    "Usage: qimtool check FILE [--device-code N] [--mfgc ID] [--model ID]\n"
    "Tells whether package FILE fits a device with the given facts (IDs as 16\n"
    "hexadecimal digits; a fact not given is not compared) and prints the\n"
    "manufacturer and model names found in the package's capability records.\n"
    "Exit status: 0 when the package fits, 1 when it does not or cannot be\n"
    "loaded, 2 for usage errors.\n";

// "matched", "mismatched" or "not given" for one fact.
const char* verdict(const qim_device_info& d, const qim_compat_info& r, uint32_t bit) {
    if ((d.flags & bit) == 0) return "not given";
    if (r.mismatched & bit) return (r.known & bit) ? "mismatched" : "mismatched (not in the package)";
    return (r.matched & bit) ? "matched" : "not compared";
}

}  // namespace

int cmd_check(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kHelp, stdout);
        return QIMTOOL_OK;
    }
    const char* sub = "check";
    std::string file, value;
    qim_device_info device{};
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--device-code" || a == "--mfgc" || a == "--model") {
            if (!qimtool::take_value(args, &i, &value)) return qimtool::usage_error(sub, a + " needs a value");
            bool ok = a == "--device-code" ? qimtool::parse_device_code(value, &device.device_code)
                      : a == "--mfgc"      ? qimtool::parse_id(value, &device.mfgc_id)
                                           : qimtool::parse_id(value, &device.model_id);
            if (!ok) {
                std::string message = "bad value '";
                message.append(value).append("' for ").append(a);
                return qimtool::usage_error(sub, message);
            }
            device.flags |= a == "--device-code" ? QIM_CHECK_DEVICE_CODE
                            : a == "--mfgc"      ? QIM_CHECK_MFGC_ID
                                                 : QIM_CHECK_MODEL_ID;
        } else if (!a.empty() && a[0] == '-') {
            return qimtool::usage_error(sub, "unknown option " + a);
        } else if (file.empty()) {
            file = a;
        } else {
            return qimtool::usage_error(sub, "more than one FILE given");
        }
    }
    if (file.empty()) return qimtool::usage_error(sub, "no FILE given");
    qimtool::PackagePtr pkg = qimtool::load_package(sub, file);
    if (!pkg) return QIMTOOL_FAILED;

    qim_compat_info r{};
    const zel_error_t rc = qim_package_check_device(pkg.get(), &device, &r);
    const qim_header* h = pkg->header;
    std::printf("package: device code %u (%s), manufacturer %s\n", h->device_code,
                qim_device_code_name(h->device_code), qimtool::hex_id(h->mfgc_id).c_str());
    const bool fits = rc == ZEL_SUCCESS && r.mismatched == 0;
    std::printf("result: %s\n", fits ? "fits" : "does not fit");
    if (rc != ZEL_SUCCESS) {
        // The query stops at the first fact that rules the package out.
        const char* why = (device.flags & QIM_CHECK_DEVICE_CODE) && device.device_code != h->device_code
                              ? "device code differs"
                          : r.known == 0 ? "manufacturer differs"
                                         : "no model entry or part is for this model";
        std::printf("reason: %s\n", why);
    } else {
        std::printf("device code: %s\n", verdict(device, r, QIM_CHECK_DEVICE_CODE));
        std::printf("manufacturer: %s\n", verdict(device, r, QIM_CHECK_MFGC_ID));
        std::printf("model: %s\n", verdict(device, r, QIM_CHECK_MODEL_ID));
    }
    std::printf("manufacturer name: %s\n", r.mfgc_name[0] ? r.mfgc_name : "(none found)");
    for (const qim_compat_model* m = r.models; m != nullptr; m = m->next) {
        std::printf("model %s: %s\n", qimtool::hex_id(m->model_id).c_str(),
                    m->model_name[0] ? m->model_name : "(no name found)");
    }
    qim_compat_info_free_models(&r);
    return fits ? QIMTOOL_OK : QIMTOOL_FAILED;
}
