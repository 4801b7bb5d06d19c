// SPDX-License-Identifier: MIT
//
// The life of a device from end to end, through nothing but the public API. It is
// built against the static and against the shared library: both must reach the
// stand-in for the kernel.
#include <algorithm>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "sim/ricoh_driver.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/trace.h"

namespace {

// The shared library allocates beside the stand-in; leave allocations out.
Trace SystemCalls(const cardsim::Kernel& kernel)
{
    Trace trace = TraceOf(kernel);
    trace.erase(std::remove_if(trace.begin(), trace.end(),
                               [](const std::string& call) {
                                   return call.rfind("malloc(", 0) == 0 || call == "free() = 0";
                               }),
                trace.end());
    return trace;
}

TEST(EndToEnd, ServesACardFromDetectionToExit)
{
    cardsim::Kernel kernel;
    const std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(2048);
    AddRicohCard(kernel, card);

    DrvInfo handle = HandleFor("/dev/sdcarda");
    std::vector<uint8_t> written(1024);
    for (size_t i = 0; i < written.size(); i++) {
        written[i] = static_cast<uint8_t>(i * 11);
    }
    std::vector<uint8_t> back(1024);
    CardInfo info = {};
    CardInfo again = {};
    uint16_t status = 0;
    CardIoResult wrote = {0, 0, 0};
    CardIoResult got = {0, 0, 0};
    uint32_t sectors = 0;
    EXPECT_EQ(
        "Wrapper low-level driver for SD card-CardBus adaptor ver.0.10\n"
        "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
        "[zel:RicohSD_Read(#)](E)lseek failed : Invalid argument\n"
        "[drv:CARD_GetCardSize(#)](E)Invalid wrapper low-level driver info!\n",
        Printed([&] {
            EXPECT_EQ(0, DevDetect(&handle));
            EXPECT_EQ(DEV_TYPE_RICOH_SD, handle.dev_type);
            EXPECT_EQ(&ricoh_sd_ops, handle.ops);
            EXPECT_EQ(0, DevInit(&handle));
            EXPECT_EQ(0, CARD_Init(&handle, 0, nullptr));
            EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
            EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
            EXPECT_EQ(0, CARD_Getinfo(&handle, &again));
            sectors = CARD_GetCardSize(&handle);
            EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
            EXPECT_EQ(0, CARD_Write(&handle, written.data(), 2, 2046, 0, &wrote));
            EXPECT_EQ(0, CARD_Read(&handle, back.data(), 2, 2046, 0, &got));
            EXPECT_EQ(-22, DevDrctRead(&handle, 0, 512, nullptr));
            EXPECT_EQ(0, CARD_Read(&handle, back.data(), 1, 2049, 0, &got));
            DevExit(&handle);
            EXPECT_EQ(10u, CARD_GetCardSize(&handle));
        }));
    EXPECT_EQ((Trace{
                  "stat64(/dev/sdcarda) = 0",
                  "open64(/dev/sdcarda, O_RDWR|O_SYNC)",
                  "ioctl(/dev/sdcarda, 0x400178ff) = 0",
                  "ioctl(/dev/sdcarda, 0x400178fe) = 0",
                  "ioctl(/dev/sdcarda, 0x400478fc) = 0",
                  "lseek64(/dev/sdcarda, 1047552, SEEK_SET) = 1047552",
                  "write(/dev/sdcarda, 1024) = 1024",
                  "lseek64(/dev/sdcarda, 1047552, SEEK_SET) = 1047552",
                  "read(/dev/sdcarda, 1024) = 1024",
                  "lseek64(/dev/sdcarda, 1049088, SEEK_SET) = -1 EINVAL",
                  "close(/dev/sdcarda) = 0",
              }),
              SystemCalls(kernel));
    EXPECT_EQ(0x8000, status);
    EXPECT_EQ(0, memcmp(info.cid, card->model().cid, sizeof info.cid));
    EXPECT_EQ(0, memcmp(info.csd, card->model().csd, sizeof info.csd));
    EXPECT_EQ(0, memcmp(&info, &again, sizeof info));
    EXPECT_EQ(2048u, sectors);
    EXPECT_EQ(0, wrote.error);
    EXPECT_EQ(1024, wrote.length);
    EXPECT_EQ(10, got.error);
    EXPECT_EQ(1024, got.length);
    EXPECT_EQ(written, back);
    EXPECT_EQ(0u, kernel.OpenFiles());
    EXPECT_EQ(0u, kernel.LiveBlocks());
    const DrvInfo zeroed = {};
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));
}

}  // namespace
