// Small bit-set formatting helpers used when listing model and part selections.
#pragma once

#include <cstddef>
#include <cstdint>

// A bit set is laid out as an unsigned 32-bit bit count followed by as many
// 32-bit words as the count needs: set[0] is the count, bit i is bit (i % 32)
// of set[1 + i / 32], bit 0 being the least significant.
//
// Writes "[", " %u" for each set bit in ascending order while the text is
// shorter than `size` (a piece cut short ends the list), then "]" when there is
// still room. {0, 3, 5} gives "[ 0 3 5]", the empty set "[]". `dst` must hold at
// least 2 bytes. Returns `dst`.
char* qim_bitset_to_string(const uint32_t* set, char* dst, std::size_t size);

enum : uint32_t { QIM_BITSET_GROUP_BITS = 1024 };

// Three bit sets of up to 1024 bits that share one count.
struct qim_bitset_group {
    uint32_t count;
    uint32_t sets[3][QIM_BITSET_GROUP_BITS / 32];
};

// Lists the set bits of set `which` (0, 1 or 2) among bits 0..count-1 (a count
// beyond 1024 is taken as 1024). At most *count_inout numbers are stored into
// `members` (when given); afterwards *count_inout holds the number of set bits,
// stored or not. Another set number gives 0; a null count pointer does nothing.
void qim_bitset_get_members(const qim_bitset_group* group, unsigned which, uint32_t* count_inout,
                            uint32_t* members);
