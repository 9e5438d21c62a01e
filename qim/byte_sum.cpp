#include "qim/byte_sum.h"

uint32_t qim_byte_sum_update(uint32_t sum, const void* buf, std::size_t len) {
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    for (std::size_t i = 0; i < len; ++i) {
        sum += p[i];
    }
    return sum;
}

uint32_t qim_byte_sum_fold(uint32_t sum) { return (sum >> 16) + (sum & 0xffffu); }
