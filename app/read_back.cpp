#include "app/read_back.h"

#include <cstring>

namespace read_back {

uint32_t firstDifference(const uint8_t* flash, uint32_t length, const uint8_t* image, uint32_t imageBytes) {
    const uint32_t compared = imageBytes < length ? imageBytes : length;
    // memcmp first: the common case is equal, and it is much faster than a
    // byte loop; the loop only finds where a known difference starts.
    if (std::memcmp(flash, image, compared) != 0) {
        for (uint32_t i = 0; i < compared; ++i) {
            if (flash[i] != image[i]) {
                return i;
            }
        }
    }
    for (uint32_t i = compared; i < length; ++i) {
        if (flash[i] != 0xFF) {
            return i;
        }
    }
    return kSame;
}

}  // namespace read_back
