// "info" and "verify": what a package holds, and whether it is intact.
#include <cstdio>
#include <string>

#include "qim/names.h"
#include "qim/partition_map.h"
#include "qim/report.h"
#include "tools/qimtool/json_writer.h"
#include "tools/qimtool/package_file.h"
#include "tools/qimtool/qimtool.h"
#include "tools/qimtool/signature_check.h"

namespace {

const char kInfoHelp[] =
    "Usage: qimtool info FILE [--json]\n"
    "Loads the package FILE (all checks and checksums) and prints its report,\n"
    "then whether FILE.minisig is beside it and which key number signed it.\n"
    "  --json   print the same facts as one JSON document instead\n"
    "Exit status: 0 on success, 1 when the package cannot be loaded, 2 for usage errors.\n";

const char kVerifyHelp[] =
    "Usage: qimtool verify FILE [--key PUB]\n"
    "Loads the package FILE and checks its header, tables and checksums.\n"
    "  --key PUB  also check the signature FILE.minisig (minisign or signify)\n"
    "             with the public key file PUB\n"
    "Exit status: 0 when it is intact, 1 when it is not, 2 for usage errors.\n";

std::string hex32(uint32_t v) {
    char buf[11];
    std::snprintf(buf, sizeof buf, "0x%08x", v);
    return buf;
}

void print_json(const std::string& path, const qim_package* pkg) {
    const qim_header* h = pkg->header;
    JsonWriter j(stdout);
    j.begin_object();
    j.key("file").string(path);
    j.key("version_major").number(h->version_major);
    j.key("version_minor").number(h->version_minor);
    j.key("device_code").number(h->device_code);
    j.key("device_name").string(qim_device_code_name(h->device_code));
    j.key("device_friendly_name").string(qim_device_friendly_name(h->device_code));
    j.key("product_version").string(hex32(h->product_version));
    j.key("mfgc_id").string(qimtool::hex_id(h->mfgc_id));
    j.key("checksum").string(hex32(h->checksum));
    j.key("header_checksum").string(hex32(h->header_checksum));
    j.key("total_size").number(qim_package_get_total_size(pkg));
    j.key("parts").begin_array();
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        const char* partition = qim_part_partition_name(p->part_id);
        j.begin_object();
        j.key("seq").number(static_cast<uint64_t>(p->part_seq_num));
        j.key("part_id").number(p->part_id);
        j.key("kind").string(qim_part_id_name(p->part_id));
        j.key("partition");
        if (partition[0] != '\0') {
            j.string(partition);
        } else {
            j.null();
        }
        j.key("release_version").string(qimtool::release_text(p->release_version));
        j.key("offset").number(p->offset);
        j.key("position").number(static_cast<uint64_t>(p->data_start) + p->offset);
        j.key("size").number(p->size);
        j.end_object();
    }
    j.end_array();
    j.key("models").begin_array();
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next) {
        j.begin_object();
        j.key("model_id").string(qimtool::hex_id(m->model_id));
        j.key("part_mask").string(hex32(m->part_mask));
        j.key("parts").begin_array();
        for (int bit = 0; bit < 32; ++bit) {
            if (m->part_mask >> bit & 1u) j.number(static_cast<uint64_t>(bit));
        }
        j.end_array();
        j.end_object();
    }
    j.end_array();
    j.key("signature");
    qimtool::signature_json(path, &j);
    j.end_object();
    std::fputc('\n', stdout);
}

}  // namespace

int cmd_info(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kInfoHelp, stdout);
        return QIMTOOL_OK;
    }
    std::string file;
    bool json = false;
    for (const std::string& a : args) {
        if (a == "--json") {
            json = true;
        } else if (!a.empty() && a[0] == '-') {
            return qimtool::usage_error("info", "unknown option " + a);
        } else if (file.empty()) {
            file = a;
        } else {
            return qimtool::usage_error("info", "more than one FILE given");
        }
    }
    if (file.empty()) return qimtool::usage_error("info", "no FILE given");
    qimtool::PackagePtr pkg = qimtool::load_package("info", file);
    if (!pkg) return QIMTOOL_FAILED;
    if (json) {
        print_json(file, pkg.get());
    } else {
        qim_package_print(pkg.get());
        std::printf("%s\n", qimtool::signature_summary(file).c_str());
    }
    return std::fflush(stdout) == 0 ? QIMTOOL_OK : QIMTOOL_FAILED;
}

int cmd_verify(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kVerifyHelp, stdout);
        return QIMTOOL_OK;
    }
    std::string file;
    std::string key;
    bool withKey = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--key") {
            if (!qimtool::take_value(args, &i, &key)) return qimtool::usage_error("verify", "--key needs a file");
            withKey = true;
        } else if (args[i].empty() || args[i][0] == '-' || !file.empty()) {
            return qimtool::usage_error("verify", "expected exactly one FILE");
        } else {
            file = args[i];
        }
    }
    if (file.empty()) return qimtool::usage_error("verify", "expected exactly one FILE");
    qimtool::PackagePtr pkg = qimtool::load_package("verify", file);
    if (!pkg) return QIMTOOL_FAILED;
    const qim_header* h = pkg->header;
    std::printf("%s: ok: version %u.%u, device code %u, %d parts, %d models, checksum 0x%08x\n",
                file.c_str(), h->version_major, h->version_minor, h->device_code,
                qim_package_get_num_parts(pkg.get()), qim_package_get_num_models(pkg.get()),
                h->checksum);
    if (withKey && !qimtool::verify_signature(file, key)) return QIMTOOL_FAILED;
    return QIMTOOL_OK;
}
