// SPDX-License-Identifier: MIT
//
// The life of a device whose back-end offers nothing: what a program sees of
// one that is still to be written, and what the frame answers on its own.
#include <gtest/gtest.h>

#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/trace.h"

namespace {

constexpr DrvOps kNothing = {};

class EmptyTable : public testing::Test {
protected:
    EmptyTable() { handle.ops = &kNothing; }
    // The frame asks nothing of the system on its own.
    ~EmptyTable() override
    {
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, kernel.LiveBlocks());
    }

    cardsim::Kernel kernel;
    DrvInfo handle = HandleFor("/dev/card");
};

TEST_F(EmptyTable, HasALife)
{
    EXPECT_EQ(
        "[drv:DevInit(#)](W)\nNOT supported Init method!\n"
        "[drv:CARD_Init(#)](W)\nNOT supported CardInit method!\n"
        "[drv:DevExit(#)](W)\nNOT supported Exit method!\n"
        "[drv:DevInit(#)](E)Invalid wrapper low-level driver info!\n",
        Printed([&] {
            EXPECT_EQ(0, DevInit(&handle));
            EXPECT_EQ(0, CARD_Init(&handle, 1, nullptr));
            DevExit(&handle);
            EXPECT_EQ(-22, DevInit(&handle));
        }));
    const DrvInfo zeroed = {};
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));
}

TEST_F(EmptyTable, FailsPlainTransfersSilently)
{
    uint8_t sector[512] = {7};
    CardIoResult result = {1, 2, 3};
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_Read(&handle, sector, 1, 0, 0, &result)); }));
    EXPECT_EQ(1, result.reserved);
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(3, result.length);
    EXPECT_EQ(7, sector[0]);
    result.error = 0;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_Write(&handle, sector, 1, 0, 0, &result)); }));
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(3, result.length);
}

TEST_F(EmptyTable, AnswersQueriesWithNothing)
{
    uint16_t status = 1;
    CardInfo info = {};
    CardSpeedInfo speed = {};
    uint8_t sd_status[CARD_SD_STATUS_SIZE] = {};
    EXPECT_EQ(
        "[drv:CARD_Getstatus(#)](W)\nNOT supported CardGetStatus method!\n"
        "[drv:CARD_GetR1Status(#)](W)\nNOT supported CardGetR1Status method!\n"
        "[drv:CARD_Getinfo(#)](W)\nNOT supported CardGetInfo method!\n"
        "[drv:CARD_GetSpeedInfo(#)](W)\nNOT supported CardGetSpeedInfo method!\n"
        "[drv:CARD_SecureGetinfo(#)](W)\nNOT supported CardSecureGetInfo method!\n"
        "[drv:CARD_GetCardSize(#)](W)\nNOT supported CardGetSize method!\n"
        "[drv:CARD_GetWriteProtect(#)](W)\nNOT supported CardGetWriteProtect method!\n"
        "[drv:CARD_Ioctl(#)](W)\nNOT supported CardIoctl method!\n"
        "[drv:DevIoctl(#)](W)\nNOT supported Ioctl method!\n",
        Printed([&] {
            EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
            EXPECT_EQ(0, CARD_GetR1Status(&handle));
            EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
            EXPECT_EQ(0, CARD_GetSpeedInfo(&handle, &speed));
            EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
            EXPECT_EQ(0u, CARD_GetCardSize(&handle));
            EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
            EXPECT_EQ(0, CARD_Ioctl(&handle, 2, 0));
            EXPECT_EQ(0, DevIoctl(&handle, DEV_IOCTL_DEVICE_PARAMS, sd_status));
        }));
    EXPECT_EQ(1, status);
}

TEST_F(EmptyTable, FailsDirectTransfersButNotTheOtherWrites)
{
    BlockList list = {};
    uint32_t retried = 9;
    EXPECT_EQ(
        "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
        "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n"
        "[drv:DevDrctRMW(#)](W)\nNOT supported DrctRMW method!\n"
        "[drv:DevFatWrite(#)](W)\nNOT supported FatWrite method!\n"
        "[drv:DevSdCmdWrite(#)](W)\nNOT supported SdCmdWrite method!\n",
        Printed([&] {
            EXPECT_EQ(-22, DevDrctRead(&handle, 0, 512, nullptr));
            EXPECT_EQ(-22, DevDrctWrite(&handle, 0, 512, nullptr, 0, &retried));
            EXPECT_EQ(0, DevDrctRMW(&handle, &list));
            EXPECT_EQ(0, DevFatWrite(&handle, &list));
            EXPECT_EQ(0, DevSdCmdWrite(&handle, "", 0, 0, 0, 0));
        }));
    EXPECT_EQ(9u, retried);
}

TEST_F(EmptyTable, FailsDirectTransfersOfArrays)
{
    MemoryArray list = {};
    list.count = 1;
    uint32_t retried = 9;
    EXPECT_EQ(
        "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
        "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n",
        Printed([&] {
            EXPECT_EQ(-22, DevDrctReadArray(&handle, 0, 512, &list));
            EXPECT_EQ(-22, DevDrctWriteArray(&handle, 0, 512, &list, 0, &retried));
        }));
    EXPECT_EQ((Trace{"malloc(12)", "free() = 0", "malloc(12)", "free() = 0"}), TraceOf(kernel));
    kernel.ClearCalls();
}

TEST_F(EmptyTable, AnswersRealTimeChecksWithoutAWord)
{
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(1, DevCheckRt(&handle));
                  EXPECT_EQ(1, DevCheckDelay(&handle));
                  EXPECT_EQ(0, DevRTOn4Wait(&handle));
                  DevLockRTOn(&handle);
                  DevUnlockRTOn(&handle);
              }));
}

}  // namespace
