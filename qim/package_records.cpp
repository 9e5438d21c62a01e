// Allocation and list handling of the package's records.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "qim/byte_sum.h"
#include "qim/crc32.h"
#include "qim/package_format.h"
#include "qim/package_internal.h"

namespace qim_internal {

bool seek_to(FILE* f, uint64_t position) {
    if (position > static_cast<uint64_t>(INT64_MAX)) {
        return false;
    }
    return fseeko(f, static_cast<off_t>(position), SEEK_SET) == 0;
}

qim_part* new_part(uint32_t part_id, uint32_t release_version, const char* path, uint32_t offset,
                   uint32_t data_start, uint32_t size) {
    char* copy = nullptr;
    if (path != nullptr) {
        copy = strdup(path);
        if (copy == nullptr) return nullptr;
    }
    qim_part* part = new (std::nothrow) qim_part{};
    if (part == nullptr) {
        std::free(copy);
        return nullptr;
    }
    part->part_id = part_id;
    part->release_version = release_version;
    part->path = copy;
    part->offset = offset;
    part->data_start = data_start;
    part->size = size;
    return part;
}

void free_part(qim_part* part) {
    if (part == nullptr) return;
    std::free(part->path);
    delete part;
}

void append_part(qim_package* pkg, qim_part* part) {
    int32_t seq = 0;
    qim_part** link = &pkg->parts;
    while (*link != nullptr) {
        link = &(*link)->next;
        ++seq;
    }
    part->part_seq_num = seq;
    part->next = nullptr;
    *link = part;
}

qim_model* new_model(const qim_id* model_id, uint32_t part_mask) {
    qim_model* model = new (std::nothrow) qim_model{};
    if (model == nullptr) return nullptr;
    model->model_id = *model_id;
    model->part_mask = part_mask;
    return model;
}

void append_model(qim_package* pkg, qim_model* model) {
    qim_model** link = &pkg->models;
    while (*link != nullptr) link = &(*link)->next;
    model->next = nullptr;
    *link = model;
}

zel_error_t copy_part_data(const qim_part* part, FILE* out, uint32_t* crc, uint32_t* sum) {
    if (part->path == nullptr) {
        std::fprintf(stderr, "error: part %d has no file to read its data from\n",
                     static_cast<int>(part->part_seq_num));
        return ZEL_INVALIDPARAMETER;
    }
    UniqueFile in(std::fopen(part->path, "rb"));
    const uint64_t position = static_cast<uint64_t>(part->data_start) + part->offset;
    if (!in || !seek_to(in.get(), position)) {
        std::fprintf(stderr, "error: cannot read part data from %s: %s\n", part->path,
                     std::strerror(errno));
        return ZEL_INVALIDPARAMETER;
    }
    unsigned char buf[qimfmt::kChunk];
    uint32_t left = part->size;
    while (left > 0) {
        std::size_t want = left < sizeof buf ? left : sizeof buf;
        std::size_t got = std::fread(buf, 1, want, in.get());
        if (got != want) {
            if (std::ferror(in.get())) {
                std::fprintf(stderr, "error: cannot read part data from %s: %s\n", part->path,
                             std::strerror(errno));
                return ZEL_SYSTEM;
            }
            std::fprintf(stderr, "error: %s ends %lu bytes before the part's data does\n",
                         part->path, static_cast<unsigned long>(left - got));
            return ZEL_TRUNCATED;
        }
        if (std::fwrite(buf, 1, got, out) != got) {
            std::fprintf(stderr, "error: cannot write part data: %s\n", std::strerror(errno));
            return ZEL_SYSTEM;
        }
        if (crc != nullptr) *crc = crc32_update(*crc, buf, got);
        if (sum != nullptr) *sum = qim_byte_sum_update(*sum, buf, got);
        left -= static_cast<uint32_t>(got);
    }
    return ZEL_SUCCESS;
}

}  // namespace qim_internal
