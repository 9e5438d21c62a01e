#include "qim/report.h"

#include "qim/names.h"

namespace {

// "<16 hex digits> ('<8 printable characters>')"
void print_id(FILE* out, const qim_id* id) {
    char hex[QIM_ID_HEX_SIZE];
    char text[9];
    std::fprintf(out, "%s ('%s')\n", qim_id_to_hex(id, hex), qim_id_to_printable(id, text, sizeof text));
}

const qim_part* part_at(const qim_package* pkg, int seq) {
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) {
        if (p->part_seq_num == seq) return p;
    }
    return nullptr;
}

void print_header(FILE* out, const qim_header* h) {
    std::fprintf(out, "device_code: %s (0x%x)\n", qim_device_code_name(h->device_code), h->device_code);
    std::fprintf(out, "product_version: 0x%08x\n", h->product_version);
    std::fprintf(out, "mfgc_id: ");
    print_id(out, &h->mfgc_id);
    std::fprintf(out, "\n");
    std::fprintf(out, "qim file version: %d.%d\n", static_cast<int>(h->version_major),
                 static_cast<int>(h->version_minor));
    std::fprintf(out, "checksum: 0x%x\n", h->checksum);
    std::fprintf(out, "header_checksum: 0x%x\n\n", h->header_checksum);
}

void print_part(FILE* out, const qim_part* p) {
    std::fprintf(out, "part_id: %s (0x%x)\n", qim_part_id_name(p->part_id), p->part_id);
    std::fprintf(out, "release_version: %u.%u.%u.%u\n", p->release_version >> 24,
                 (p->release_version >> 16) & 0xffu, (p->release_version >> 8) & 0xffu,
                 p->release_version & 0xffu);
    std::fprintf(out, "part_seq_num: %d\n", static_cast<int>(p->part_seq_num));
    std::fprintf(out, "offset: %d\n", static_cast<int>(p->offset));
    std::fprintf(out, "size: %d\n\n", static_cast<int>(p->size));
}

void print_model(FILE* out, const qim_package* pkg, const qim_model* m) {
    std::fprintf(out, "model_id: ");
    print_id(out, &m->model_id);
    std::fprintf(out, "part_mask: 0x%x", m->part_mask);
    if (m->part_mask != 0) {
        const char* sep = " (";
        for (int bit = 0; bit < 32; ++bit) {
            if ((m->part_mask >> bit & 1u) == 0) continue;
            // A bit beyond the parts names the "unknown" kind.
            const qim_part* p = part_at(pkg, bit);
            std::fprintf(out, "%s%d/%s", sep, bit,
                         qim_part_id_name(p != nullptr ? p->part_id : QIM_PART_ID_UNKNOWN));
            sep = ", ";
        }
        std::fprintf(out, ")");
    }
    std::fprintf(out, "\n\n");
}

}  // namespace

void qim_package_fprint(const qim_package* pkg, FILE* out) {
    if (pkg == nullptr || out == nullptr) return;
    std::fprintf(out, "num parts %d\n", qim_package_get_num_parts(pkg));
    std::fprintf(out, "num models %d\n", qim_package_get_num_models(pkg));
    if (pkg->header != nullptr) print_header(out, pkg->header);
    for (const qim_part* p = pkg->parts; p != nullptr; p = p->next) print_part(out, p);
    for (const qim_model* m = pkg->models; m != nullptr; m = m->next) print_model(out, pkg, m);
}

void qim_package_print(const qim_package* pkg) { qim_package_fprint(pkg, stdout); }
