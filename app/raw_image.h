// The raw path of an upgrade: one image file written into one partition.
#pragma once

#include <string>

class FlashUpgrader;

namespace raw_image {

// Opens `path` (firmware_file rules), reads it whole, checks it under -K in
// the buffer the writer then takes, and writes it into `partition`. Failures
// of reading and writing are reported ("Error reading from file ...", "Error
// writing to flash") and end nothing: the run goes on to "Brivlo done". A
// stop signal that arrived while the image was read leaves the partition
// untouched. 0, or result_code::kSignatureRefused after the refusal line.
int flash(FlashUpgrader& upgrader, const std::string& path, const std::string& partition);

}  // namespace raw_image
