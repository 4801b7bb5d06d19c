// SPDX-License-Identifier: MIT
//
// What a caller may rely on whichever back-end serves a device, for one that is not in the
// library: only the public calls are used.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "sim/kernel.h"
#include "sim/low_memory.h"
#include "sim/ricoh_driver.h"
#include "tests/fourth/ramdisk.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"

namespace {

using Bytes = std::vector<uint8_t>;

class Fourth : public testing::Test {
protected:
    Fourth()
    {
        for (unsigned unit = 0; unit < 3; unit++) {
            kernel.AddNode("/dev/ramcard" + std::to_string(unit),
                           {S_IFBLK, RAMDISK_MAJOR, unit, std::make_shared<cardsim::Driver>()});
        }
    }

    ~Fourth() override
    {
        DevExit(&handle);
        EXPECT_EQ(0u, kernel.LiveBlocks());
    }

    void Open()
    {
        handle = HandleFor("/dev/ramcard1");
        EXPECT_EQ("", Printed([&] {
                      ASSERT_EQ(0, DevDetect(&handle));
                      ASSERT_EQ(0, DevInit(&handle));
                  }));
    }

    cardsim::Kernel kernel;
    DrvInfo handle = HandleFor("/dev/ramcard1");
    cardsim::LowBuffer memory{65536};
    std::mt19937 random{20240229};
};

TEST_F(Fourth, IsFoundByTheNode)
{
    ASSERT_EQ(0, DevDetect(&handle));
    EXPECT_EQ(RAMDISK_TYPE, handle.dev_type);
    EXPECT_EQ(1, handle.dev_index);
    EXPECT_EQ(&ramdisk_ops, handle.ops);
    EXPECT_EQ(nullptr, handle.priv);
}

TEST_F(Fourth, LeavesTheOthersToTheLibrary)
{
    AddRicohCard(kernel, cardsim::Card::InMemory(64));
    handle = HandleFor("/dev/sdcarda");
    EXPECT_EQ(0, DevDetect(&handle));
    EXPECT_EQ(&ricoh_sd_ops, handle.ops);
    kernel.AddNode("/dev/unknown",
                   {S_IFCHR, RAMDISK_MAJOR, 0, std::make_shared<cardsim::Driver>()});
    DrvInfo other = HandleFor("/dev/unknown");
    EXPECT_EQ("[drv:DevDetect(#)](E)Unknown device number(251:0)!\n",
              Printed([&] { EXPECT_EQ(-19, DevDetect(&other)); }));
    EXPECT_EQ("[drv:DevDetect(#)](E)info is null\n",
              Printed([&] { EXPECT_EQ(-22, DevDetect(nullptr)); }));
    handle.ops = &ramdisk_ops;
}

TEST_F(Fourth, RefusesAUnitThatIsNotThere)
{
    DrvInfo third = HandleFor("/dev/ramcard2");
    ASSERT_EQ(0, DevDetect(&third));
    EXPECT_EQ(-1, DevInit(&third));
}

TEST_F(Fourth, AnswersQueries)
{
    Open();
    EXPECT_EQ("", Printed([&] {
                  uint16_t status = 0;
                  EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
                  EXPECT_EQ(CARD_STATUS_READY, status);
                  EXPECT_EQ(0, CARD_GetR1Status(&handle));
                  EXPECT_EQ(RAMDISK_SECTORS, CARD_GetCardSize(&handle));
              }));
}

// Each empty slot is answered by the frame.
TEST_F(Fourth, NeedNotOfferEverything)
{
    Open();
    CardInfo info;
    uint32_t retried = 5;
    BlockList list = {0, nullptr};
    EXPECT_EQ(
        "[drv:CARD_Init(#)](W)\nNOT supported CardInit method!\n"
        "[drv:CARD_Getinfo(#)](W)\nNOT supported CardGetInfo method!\n"
        "[drv:CARD_GetWriteProtect(#)](W)\nNOT supported CardGetWriteProtect method!\n"
        "[drv:DevIoctl(#)](W)\nNOT supported Ioctl method!\n"
        "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n"
        "[drv:DevDrctRMW(#)](W)\nNOT supported DrctRMW method!\n",
        Printed([&] {
            EXPECT_EQ(0, CARD_Init(&handle, 0, nullptr));
            EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
            EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
            EXPECT_EQ(0, DevIoctl(&handle, DEV_IOCTL_RT_45, nullptr));
            EXPECT_EQ(-22, DevDrctWrite(&handle, 0, 0, nullptr, 0, &retried));
            EXPECT_EQ(0, DevDrctRMW(&handle, &list));
            EXPECT_EQ(1, DevCheckRt(&handle));
            EXPECT_EQ(0, DevRTOn4Wait(&handle));
            DevLockRTOn(&handle);
        }));
    EXPECT_EQ(5u, retried);
}

TEST_F(Fourth, KeepsWhatIsWrittenPlainly)
{
    Open();
    Bytes shadow(RAMDISK_SECTORS * 512);
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Write(&handle, shadow.data(), RAMDISK_SECTORS, 0, 0, &result));
    for (int step = 0; step < 80 && !HasFailure(); step++) {
        const auto sectors = static_cast<uint32_t>(1 + random() % 100);
        const auto first = static_cast<uint32_t>(random() % (RAMDISK_SECTORS - sectors + 1));
        Bytes moved(sectors * 512);
        result = {0x5A, 0x6B, 0};
        if (step % 2 == 0) {
            std::generate(moved.begin(), moved.end(),
                          [&] { return static_cast<uint8_t>(random()); });
            EXPECT_EQ(0, CARD_Write(&handle, moved.data(), sectors, first, 1, &result));
            std::copy(moved.begin(), moved.end(), &shadow[first * 512]);
        } else {
            EXPECT_EQ(0, CARD_Read(&handle, moved.data(), sectors, first, 1, &result));
            EXPECT_EQ(0, memcmp(&shadow[first * 512], moved.data(), moved.size()));
        }
        EXPECT_EQ(0x6B, result.error);
        EXPECT_EQ(static_cast<int32_t>(moved.size()), result.length);
    }
}

TEST_F(Fourth, EndsATransferWithTheCard)
{
    Open();
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 5, RAMDISK_SECTORS - 2, 0, &result));
    EXPECT_EQ(0, result.error);
    EXPECT_EQ(1024, result.length);
    EXPECT_EQ(0, CARD_Write(&handle, memory.data(), 5, RAMDISK_SECTORS - 2, 0, &result));
    EXPECT_EQ(1024, result.length);
    result.length = 77;
    EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, RAMDISK_SECTORS + 1, 0, &result));
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(77, result.length);
}

TEST_F(Fourth, MovesScatteredSectors)
{
    Open();
    Bytes written(1024);
    std::generate(written.begin(), written.end(), [&] { return static_cast<uint8_t>(random()); });
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Write(&handle, written.data(), 2, 50, 0, &result));
    MemoryArray array = {};
    array.count = 2;
    array.addr[0] = memory.address() + 2000;
    array.len[0] = 1000;
    array.addr[1] = memory.address() + 5;
    array.len[1] = 24;
    EXPECT_EQ(1024, DevDrctReadArray(&handle, 50, 1024, &array));
    EXPECT_EQ(0, memcmp(written.data(), memory.data() + 2000, 1000));
    EXPECT_EQ(0, memcmp(written.data() + 1000, memory.data() + 5, 24));
    EXPECT_EQ(-5, DevDrctReadArray(&handle, RAMDISK_SECTORS - 1, 1024, &array));
}

TEST_F(Fourth, ServesAgainAfterExit)
{
    Open();
    memset(memory.data(), 0x5C, 512);
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Write(&handle, memory.data(), 1, 7, 0, &result));
    EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
    const DrvInfo zeroed = {};
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));
    Printed([&] { EXPECT_EQ(10u, CARD_GetCardSize(&handle)); });

    Open();
    Bytes back(512);
    EXPECT_EQ(0, CARD_Read(&handle, back.data(), 1, 7, 0, &result));
    EXPECT_EQ(Bytes(512, 0x5C), back);
}

}  // namespace
