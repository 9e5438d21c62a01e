#include "qim/bitset.h"

#include <cstdio>
#include <cstring>

char* qim_bitset_to_string(const uint32_t* set, char* dst, std::size_t size) {
    // "[" goes in unconditionally: the caller guarantees two bytes.
    dst[0] = '[';
    dst[1] = '\0';
    std::size_t used = 1;
    const uint32_t bits = set[0];
    for (uint32_t i = 0; i < bits && used < size; ++i) {
        if ((set[1 + i / 32] >> (i % 32) & 1u) == 0) {
            continue;
        }
        int n = std::snprintf(dst + used, size - used, " %u", static_cast<unsigned>(i));
        if (n < 0 || static_cast<std::size_t>(n) >= size - used) {
            return dst;  // cut short: nothing more, not even the bracket
        }
        used += static_cast<std::size_t>(n);
    }
    if (used + 1 < size) {
        dst[used] = ']';
        dst[used + 1] = '\0';
    }
    return dst;
}

void qim_bitset_get_members(const qim_bitset_group* group, unsigned which, uint32_t* count_inout,
                            uint32_t* members) {
    if (count_inout == nullptr) {
        return;
    }
    if (group == nullptr || which > 2) {
        *count_inout = 0;
        return;
    }
    const uint32_t room = *count_inout;
    const uint32_t bits = group->count < QIM_BITSET_GROUP_BITS ? group->count : QIM_BITSET_GROUP_BITS;
    uint32_t found = 0;
    for (uint32_t i = 0; i < bits; ++i) {
        if ((group->sets[which][i / 32] >> (i % 32) & 1u) == 0) {
            continue;
        }
        if (members != nullptr && found < room) {
            members[found] = i;
        }
        ++found;
    }
    *count_inout = found;
}
