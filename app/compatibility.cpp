// Device compatibility checks. Placeholder until the capability record and the
// PHY rule land: the identity stays the wildcards and every package passes.
#include "app/flash_upgrader.h"

void FlashUpgrader::parseCapabilityForIds() {}

uint32_t FlashUpgrader::extractLinuxVerFromQim(qim_package* /*package*/) {
    return 0;
}

int FlashUpgrader::getEthernetPhyId(uint16_t* phyId) {
    *phyId = 0;
    return ZEL_SUCCESS;
}

int FlashUpgrader::validateFirmwareSupport(qim_package* /*package*/) {
    return ZEL_SUCCESS;
}
