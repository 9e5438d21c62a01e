#include "app/flash_upgrader.h"

#include <gtest/gtest.h>

#include <string>

#include "net/env.h"
#include "net/tftp_client.h"

namespace {

qim_id bytes(uint8_t first, uint8_t last) {
    qim_id id = {{first, 1, 2, 3, 4, 5, 6, last}};
    return id;
}

TEST(FlashUpgrader, FreshObjectHasWildcardsAndNoClient) {
    FlashUpgrader upgrader(nullptr);
    const qim_id model = upgrader.getModelId();
    const qim_id mfgc = upgrader.getMfgcId();
    EXPECT_TRUE(qim_id_equal(&model, &QIM_MODEL_ID_ANY));
    EXPECT_TRUE(qim_id_equal(&mfgc, &QIM_MFGC_ID_ANY));
    EXPECT_EQ(upgrader.getTftpClient(), nullptr);
}

TEST(FlashUpgrader, SettersChangeOnlyTheirOwnIdentifier) {
    FlashUpgrader upgrader(nullptr);
    const qim_id model = bytes(0xAA, 0x77);
    upgrader.setModelId(model);
    qim_id got = upgrader.getModelId();
    EXPECT_TRUE(qim_id_equal(&got, &model));
    got = upgrader.getMfgcId();
    EXPECT_TRUE(qim_id_equal(&got, &QIM_MFGC_ID_ANY));

    const qim_id mfgc = bytes(0x11, 0x99);
    upgrader.setMfgcId(mfgc);
    got = upgrader.getMfgcId();
    EXPECT_TRUE(qim_id_equal(&got, &mfgc));
    got = upgrader.getModelId();
    EXPECT_TRUE(qim_id_equal(&got, &model));
}

TEST(FlashUpgrader, InitWithoutEventLoopReportsOutOfMemory) {
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new_flags(0, &env), ZEL_SUCCESS);
    {
        FlashUpgrader upgrader(env);
        // initTftpClient rather than init: init would also read the device's
        // capability record under /dev.
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(upgrader.initTftpClient(), ZEL_NOMEMORY);
        const std::string err = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, "Error creating client: out of memory: (0x0006=NOMEMORY)\n");
        EXPECT_EQ(upgrader.getTftpClient(), nullptr);
    }  // destroying it releases nothing and must not fail
    zel_env_destroy(env);
}

TEST(FlashUpgrader, InitRegistersItselfAsTheClientsContext) {
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new_flags(ZEL_ENV_FLAG_OWNS_LOG | ZEL_ENV_FLAG_OWNS_LOOP, &env), ZEL_SUCCESS);
    {
        FlashUpgrader upgrader(env);
        EXPECT_EQ(upgrader.initTftpClient(), ZEL_SUCCESS);
        ASSERT_NE(upgrader.getTftpClient(), nullptr);
        EXPECT_EQ(zel_tftp_client__context(upgrader.getTftpClient()), &upgrader);
    }
    zel_env_destroy(env);
}

}  // namespace
