// "create": builds a package of version 3 (default), 2 or 1 from part files.
#include <cstdio>
#include <string>
#include <vector>

#include "qim/package_builder.h"
#include "tools/qimtool/package_file.h"
#include "tools/qimtool/qimtool.h"

namespace {

const char kHelp[] =
    "Usage: qimtool create -o OUT --device-code N --product-version V [--mfgc ID]\n"
    "                      --part KIND:RELEASE:FILE ... [--model ID:SEQ,SEQ,...] ...\n"
    "                      [--v2 | --v1]\n"
    "Builds a package from part files, in the order given (sequence numbers from 0).\n"
    "  -o OUT                     the package file to write\n"
    "  --device-code N            device code, a number or its short name\n"
    "  --product-version V        product release number (decimal or 0x...)\n"
    "  --mfgc ID                  manufacturer ID, 16 hexadecimal digits (default: any)\n"
    "  --part KIND:RELEASE:FILE   a part: kind by number or name, release a.b.c.d, data file\n"
    "  --model ID:SEQ,...         a model entry selecting the listed parts; without any\n"
    "                             --model, one entry for any model selects every part\n"
    "  --v2                       write a version-2 package (byte-sum checksum, no\n"
    "                             manufacturer, releases or model table)\n"
    "  --v1                       write the legacy version-1 layout (no checksum)\n"
    "Exit status: 0 on success, 1 when the package cannot be written, 2 for usage errors.\n";

struct PartArg {
    uint32_t kind;
    uint32_t release;
    std::string file;
};

struct ModelArg {
    qim_id id;
    std::vector<int> seqs;
};

bool parse_part(const std::string& text, PartArg* out) {
    std::size_t a = text.find(':');
    std::size_t b = a == std::string::npos ? a : text.find(':', a + 1);
    if (b == std::string::npos || b + 1 >= text.size()) return false;
    out->file = text.substr(b + 1);
    return qimtool::parse_part_kind(text.substr(0, a), &out->kind) &&
           qimtool::parse_release(text.substr(a + 1, b - a - 1), &out->release);
}

bool parse_model(const std::string& text, ModelArg* out) {
    std::size_t colon = text.find(':');
    if (colon == std::string::npos || !qimtool::parse_id(text.substr(0, colon), &out->id)) return false;
    std::string rest = text.substr(colon + 1);
    std::size_t pos = 0;
    while (pos < rest.size()) {
        std::size_t comma = rest.find(',', pos);
        std::string piece = rest.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        uint32_t seq;
        if (!qimtool::parse_u32(piece, &seq) || seq > 31) return false;
        out->seqs.push_back(static_cast<int>(seq));
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    return true;
}

// What the command line asks for.
struct CreateRequest {
    std::string out;
    uint32_t device_code = 0, product_version = 0, version = 3;
    bool have_code = false, have_version = false, have_mfgc = false;
    qim_id mfgc = QIM_MFGC_ID_ANY;
    std::vector<PartArg> parts;
    std::vector<ModelArg> models;
};

constexpr const char* kSub = "create";

// Reads the options one by one; QIMTOOL_OK or the usage error's status.
int parse_create(const Args& args, CreateRequest* req) {
    std::string value;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        const bool takes_value = a == "-o" || a == "--device-code" || a == "--product-version" ||
                                 a == "--mfgc" || a == "--part" || a == "--model";
        if (takes_value && !qimtool::take_value(args, &i, &value)) {
            return qimtool::usage_error(kSub, a + " needs a value");
        }
        if (a == "-o") {
            req->out = value;
        } else if (a == "--device-code") {
            if (!qimtool::parse_device_code(value, &req->device_code)) {
                return qimtool::usage_error(kSub, "bad device code '" + value + "'");
            }
            req->have_code = true;
        } else if (a == "--product-version") {
            if (!qimtool::parse_u32(value, &req->product_version)) {
                return qimtool::usage_error(kSub, "bad product version '" + value + "'");
            }
            req->have_version = true;
        } else if (a == "--mfgc") {
            if (!qimtool::parse_id(value, &req->mfgc)) {
                return qimtool::usage_error(kSub, "bad manufacturer ID '" + value + "' (16 hex digits)");
            }
            req->have_mfgc = true;
        } else if (a == "--part") {
            PartArg p;
            if (!parse_part(value, &p)) {
                return qimtool::usage_error(kSub, "bad part '" + value + "' (KIND:a.b.c.d:FILE)");
            }
            req->parts.push_back(p);
        } else if (a == "--model") {
            ModelArg m;
            if (!parse_model(value, &m)) {
                return qimtool::usage_error(kSub, "bad model '" + value + "' (ID:SEQ,SEQ,...)");
            }
            req->models.push_back(m);
        } else if (a == "--v2") {
            req->version = 2;
        } else if (a == "--v1") {
            req->version = 1;
        } else {
            return qimtool::usage_error(kSub, "unexpected argument '" + a + "'");
        }
    }
    return QIMTOOL_OK;
}

// The checks across options; QIMTOOL_OK or the usage error's status.
int validate_create(const CreateRequest& req) {
    if (req.out.empty() || !req.have_code || !req.have_version) {
        return qimtool::usage_error(kSub, "-o, --device-code and --product-version are required");
    }
    if (req.parts.empty()) return qimtool::usage_error(kSub, "at least one --part is required");
    if (req.version < 3) {
        // Older layouts cannot carry these facts; refuse rather than drop them.
        if (req.have_mfgc || !req.models.empty()) {
            return qimtool::usage_error(kSub, "--mfgc and --model need a version-3 package");
        }
        for (const PartArg& p : req.parts) {
            if (p.release != 0) {
                return qimtool::usage_error(kSub, "release versions need a version-3 package");
            }
        }
    }
    for (const ModelArg& m : req.models) {
        for (int seq : m.seqs) {
            if (seq >= static_cast<int>(req.parts.size())) {
                return qimtool::usage_error(kSub, "model selects part " + std::to_string(seq) +
                                                      ", which does not exist");
            }
        }
    }
    return QIMTOOL_OK;
}

// Assembles the package in memory: header, parts (their files are read
// here), models. QIMTOOL_OK or the status of the message printed.
int build_package(const CreateRequest& req, qimtool::PackagePtr* pkg) {
    qim_package* raw = nullptr;
    if (qim_package_create(&raw) != ZEL_SUCCESS) return qimtool::failure(kSub, "out of memory");
    pkg->reset(raw);
    qim_package_init_header(raw, req.device_code, req.product_version, &req.mfgc);
    for (const PartArg& p : req.parts) {
        zel_error_t rc = qim_package_add_part_file(raw, p.kind, p.release, p.file.c_str(), nullptr);
        if (rc != ZEL_SUCCESS) {
            char text[ZEL_ERROR_TEXT_SIZE];
            return qimtool::failure(kSub, "cannot add part " + p.file + ": " + zel_error_text(rc, text));
        }
    }
    std::vector<ModelArg> models = req.models;
    if (models.empty() && req.version == 3) {
        models.push_back(ModelArg{QIM_MODEL_ID_ANY, {}});
        for (int i = 0; i < static_cast<int>(req.parts.size()) && i < 32; ++i) models.back().seqs.push_back(i);
    }
    for (const ModelArg& m : models) {
        if (qim_package_add_model(raw, &m.id) != ZEL_SUCCESS) {
            return qimtool::usage_error(kSub, "model " + qimtool::hex_id(m.id) + " given twice");
        }
        for (int seq : m.seqs) qim_package_set_model_part(raw, &m.id, seq);
    }
    return QIMTOOL_OK;
}

// Writes the package in the requested layout; a file that could not be
// written whole is removed. QIMTOOL_OK or QIMTOOL_FAILED.
int write_package(const CreateRequest& req, qim_package* pkg) {
    FILE* f = std::fopen(req.out.c_str(), "w+b");
    if (f == nullptr) return qimtool::failure(kSub, "cannot create " + req.out);
    zel_error_t rc = req.version == 3   ? qim_package_write(pkg, f)
                     : req.version == 2 ? qim_package_write_v2(pkg, f)
                                        : qim_package_write_v1(pkg, f);
    if (std::fclose(f) != 0 && rc == ZEL_SUCCESS) rc = ZEL_SYSTEM;
    if (rc != ZEL_SUCCESS) {
        std::remove(req.out.c_str());
        char text[ZEL_ERROR_TEXT_SIZE];
        return qimtool::failure(kSub, "cannot write " + req.out + ": " + zel_error_text(rc, text));
    }
    return QIMTOOL_OK;
}

}  // namespace

int cmd_create(const Args& args) {
    if (qimtool::wants_help(args)) {
        std::fputs(kHelp, stdout);
        return QIMTOOL_OK;
    }
    CreateRequest req;
    qimtool::PackagePtr pkg;
    int status = parse_create(args, &req);
    if (status == QIMTOOL_OK) status = validate_create(req);
    if (status == QIMTOOL_OK) status = build_package(req, &pkg);
    if (status == QIMTOOL_OK) status = write_package(req, pkg.get());
    if (status != QIMTOOL_OK) return status;
    std::printf("%s: version %u package, %zu parts, %d models, %llu bytes of part data\n", req.out.c_str(),
                req.version, req.parts.size(), qim_package_get_num_models(pkg.get()),
                static_cast<unsigned long long>(qim_package_get_total_size(pkg.get())));
    return QIMTOOL_OK;
}
