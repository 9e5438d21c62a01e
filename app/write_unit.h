// The write unit of a flash partition (MEMGETINFO's writesize): NAND pages
// and some NOR parts take only whole units, so the last, partial unit of an
// image is padded with 0xFF (what erased flash holds) and written whole.
#pragma once

#include <cstdint>

#include <mtd/mtd-user.h>

namespace write_unit {

// Whether every image that fits the partition can be written in whole
// units: the unit is not 0 and divides both the erase block (the writers
// write erase-block-sized chunks) and the partition, so a padded tail never
// runs past the partition's end. Checked before anything is erased.
inline bool fits(const mtd_info_user& info) {
    return info.writesize != 0 && info.erasesize % info.writesize == 0 && info.size % info.writesize == 0;
}

// `length` rounded up to whole units; a unit of 0 or 1 changes nothing.
inline uint32_t padded(uint32_t length, uint32_t writesize) {
    if (writesize <= 1 || length % writesize == 0) {
        return length;
    }
    return length - length % writesize + writesize;
}

}  // namespace write_unit
