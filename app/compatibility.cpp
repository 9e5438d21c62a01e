// Device compatibility: the identity read from the capability record, and the
// rule that a package whose Linux image is too old for the board's Ethernet
// PHY (or switch) chip must not be written, since the board would come up
// without a working network.
#include "app/flash_upgrader.h"

#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/mtd_device.h"
#include "qim/byte_order.h"
#include "qim/capability.h"
#include "qim/package.h"

namespace {

constexpr const char* kCapabilityPath = "/dev/flash/capability";
constexpr const char* kPhyInterface = "eth0";
// The Ethernet driver's private request that answers the PHY identity.
constexpr unsigned long kPhyIdRequest = SIOCDEVPRIVATE + 5;
constexpr uint32_t kPartKindImage = 1;

// A release at or below `bound` lacks the driver for `chip`.
struct PhyRule {
    uint16_t phyId;
    uint32_t bound;
    const char* message;
};

const PhyRule kPhyRules[] = {
    {0x0770, 0x040205FF,
     " Current Net deivce is VSC8541. Can`t apply the given QIM file include linux ver 0x"},
    {0x2610, 0x040206FF,
     " Current Net deivce is MV88E6361. Can`t apply the given QIM file include linux ver 0x"},
    {0x1640, 0x040207FF,
     " Current Net deivce is KSZ9131. Can`t apply the given QIM file include linux ver 0x"},
    {0x9897, 0x040300FF,
     " Current Net deivce is KSZ9897. Can`t apply the given QIM file include linux ver 0x"},
};

// Seeks to `offset` from the start and reads exactly `length` bytes.
bool readAt(FILE* f, long offset, uint8_t* dst, std::size_t length) {
    return std::fseek(f, offset, SEEK_SET) == 0 && std::fread(dst, 1, length, f) == length;
}

// Versions print in upper-case hexadecimal without leading zeros.
void printHexVersion(uint32_t version) {
    std::cerr << std::hex << std::uppercase << version << std::dec << std::nouppercase << std::endl;
}

}  // namespace

void FlashUpgrader::parseCapabilityForIds() {
    FILE* opened = nullptr;
    uint8_t header[CAP_HEADER_SIZE];
    if (cap_open(&opened, header, kCapabilityPath) != ZEL_SUCCESS) {
        std::cerr << "parseCapabilityForIds: Warning - cannot open capability file" << std::endl;
        return;
    }
    zel::UniqueFile file(opened);

    uint8_t app[CAP_APP_SECTION_SIZE];
    if (!readAt(file.get(), qim_get_be16(header + CAP_OFF_APP_LINK), app, sizeof app)) {
        std::cerr << "parseCapabilityForIds: Warning - cannot read app section" << std::endl;
        return;
    }
    // Records before version 12 carry no manf link in their app section.
    if (header[CAP_OFF_VERSION] < CAP_MANF_LINK_VERSION) {
        return;
    }
    const uint16_t manfLink = qim_get_be16(app + CAP_APP_OFF_MANF_LINK);
    if (manfLink == 0) {
        return;
    }
    uint8_t manf[CAP_MANF_SECTION_SIZE];
    if (!readAt(file.get(), manfLink, manf, sizeof manf)) {
        std::cerr << "parseCapabilityForIds: Warning - cannot read manf section" << std::endl;
        return;
    }
    std::memcpy(mfgcId.bytes, manf + CAP_MANF_OFF_MFGC_ID, sizeof mfgcId.bytes);
    std::memcpy(modelId.bytes, manf + CAP_MANF_OFF_MODEL_ID, sizeof modelId.bytes);
}

uint32_t FlashUpgrader::extractLinuxVerFromQim(qim_package* package) {
    uint32_t version = 0;
    const int parts = qim_package_get_num_parts(package);
    for (int seq = 0; seq < parts; ++seq) {
        uint32_t kind = 0;
        uint32_t release = 0;
        if (qim_package_get_part_info(package, seq, &kind, nullptr, nullptr, nullptr, &release) !=
            ZEL_SUCCESS) {
            continue;
        }
        if (kind == kPartKindImage) {
            // The last Linux image of the package decides.
            version = release;
            std::cerr << "extractLinuxVerFromQim Found Linux partition and version - 0x";
            printHexVersion(version);
        }
    }
    return version;
}

int FlashUpgrader::getEthernetPhyId(uint16_t* phyId) {
    uint16_t identity = 0;
    UniqueFd control(::socket(AF_INET, SOCK_DGRAM, 0));
    if (!control.valid()) {
        std::perror("Cannot get control socket");
    } else {
        ifreq request;
        std::memset(&request, 0, sizeof request);
        std::strncpy(request.ifr_name, kPhyInterface, IFNAMSIZ - 1);
        request.ifr_data = reinterpret_cast<char*>(&identity);
        // The result is deliberately not tested: a board without the driver
        // (or without eth0) leaves the identity at 0, which imposes no bound.
        (void)::ioctl(control.get(), kPhyIdRequest, &request);
    }
    *phyId = identity;
    return ZEL_SUCCESS;
}

int FlashUpgrader::validateFirmwareSupport(qim_package* package) {
    const uint32_t version = extractLinuxVerFromQim(package);
    if (version == 0) {
        // No Linux image (or a format without releases): nothing to check,
        // and the PHY is not even asked.
        return ZEL_SUCCESS;
    }
    uint16_t phyId = 0;
    getEthernetPhyId(&phyId);
    for (const PhyRule& rule : kPhyRules) {
        if (rule.phyId == phyId && version <= rule.bound) {
            std::cerr << "validateFirmwareSupport" << rule.message;
            printHexVersion(version);
            return ZEL_NOTSUPPORTED;
        }
    }
    return ZEL_SUCCESS;
}
