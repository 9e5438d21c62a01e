// Package path of the upgrade. Placeholder until the package flasher lands:
// every package is refused as not supported, without output.
#include "app/flash_upgrader.h"

int FlashUpgrader::flashQimFile(const char* /*path*/) {
    return ZEL_NOTSUPPORTED;
}

int FlashUpgrader::loadAndCheckQimFile(const char* /*path*/, qim_package* /*package*/) {
    return ZEL_NOTSUPPORTED;
}

int FlashUpgrader::writeQimToFlash(qim_package* /*package*/) {
    return ZEL_NOTSUPPORTED;
}
