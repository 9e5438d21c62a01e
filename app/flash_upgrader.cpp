#include "app/flash_upgrader.h"

#include <cstring>
#include <iostream>

#include "net/env.h"
#include "net/tftp_client.h"

FlashUpgrader::FlashUpgrader(zel_env* environment)
    : env(environment),
      modelId(QIM_MODEL_ID_ANY),
      mfgcId(QIM_MFGC_ID_ANY),
      errorText{},
      tftpClient(nullptr),
      activeRequest(nullptr) {}

FlashUpgrader::~FlashUpgrader() {
    zel_tftp_client__release(tftpClient);
}

int FlashUpgrader::init() {
    // The capability record is optional: its absence only leaves the
    // wildcard identifiers in place.
    parseCapabilityForIds();
    return initTftpClient();
}

int FlashUpgrader::initTftpClient() {
    zel_tftp_client* client = zel_tftp_client__create(env);
    if (client == nullptr) {
        // Creation needs the environment's event loop and memory; both
        // failures read as out of memory.
        std::cerr << "Error creating client: " << zel_error_text(ZEL_NOMEMORY, errorText) << std::endl;
        return ZEL_NOMEMORY;
    }
    tftpClient = client;
    zel_tftp_client__set_context(tftpClient, this);
    zel_tftp_client__set_callback(tftpClient, &FlashUpgrader::tftpRequestCallback);
    return ZEL_SUCCESS;
}

void FlashUpgrader::setModelId(const qim_id& id) {
    modelId = id;
}

void FlashUpgrader::setMfgcId(const qim_id& id) {
    mfgcId = id;
}

qim_id FlashUpgrader::getModelId() const {
    return modelId;
}

qim_id FlashUpgrader::getMfgcId() const {
    return mfgcId;
}
