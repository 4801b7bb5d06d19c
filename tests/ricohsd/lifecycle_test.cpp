// SPDX-License-Identifier: MIT
//
// The Ricoh SD back-end: its table, opening and closing, and the operations that
// ask nothing of the driver.
#include <climits>

#include <fcntl.h>
#include <unistd.h>

#include "tests/ricohsd/ricohsd_fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kBanner[] = "Wrapper low-level driver for SD card-CardBus adaptor ver.0.10\n";

// --- table -------------------------------------------------------------------------

TEST(RicohSdTable, FillsTheFirstFourteenSlots)
{
    const DrvOps& ops = ricoh_sd_ops;
    EXPECT_EQ(&RicohSD_Init, ops.Init);
    EXPECT_EQ(&RicohSD_Exit, ops.Exit);
    EXPECT_EQ(&RicohSD_Read, ops.Read);
    EXPECT_EQ(&RicohSD_Write, ops.Write);
    EXPECT_EQ(&RicohSD_Ioctl, ops.Ioctl);
    EXPECT_EQ(&RicohSD_CardIoctl, ops.CardIoctl);
    EXPECT_EQ(&RicohSD_CardInit, ops.CardInit);
    EXPECT_EQ(&RicohSD_CardGetStatus, ops.CardGetStatus);
    EXPECT_EQ(&RicohSD_CardGetR1Status, ops.CardGetR1Status);
    EXPECT_EQ(&RicohSD_CardGetInfo, ops.CardGetInfo);
    EXPECT_EQ(&RicohSD_CardGetSpeedInfo, ops.CardGetSpeedInfo);
    EXPECT_EQ(&RicohSD_CardSecureGetInfo, ops.CardSecureGetInfo);
    EXPECT_EQ(&RicohSD_CardGetSize, ops.CardGetSize);
    EXPECT_EQ(&RicohSD_CardGetWriteProtect, ops.CardGetWriteProtect);
    EXPECT_EQ(nullptr, ops.DrctRead);
    EXPECT_EQ(nullptr, ops.DrctWrite);
    EXPECT_EQ(nullptr, ops.DrctRMW);
    EXPECT_EQ(nullptr, ops.FatWrite);
    EXPECT_EQ(nullptr, ops.SdCmdWrite);
    EXPECT_EQ(nullptr, ops.CheckRt);
    EXPECT_EQ(nullptr, ops.CheckDelay);
    EXPECT_EQ(nullptr, ops.RTOn4Wait);
    EXPECT_EQ(nullptr, ops.LockRTOn);
    EXPECT_EQ(nullptr, ops.UnlockRTOn);
}

class RicohSdApi : public RicohSd {};

TEST_F(RicohSdApi, IsAnsweredByTheFrameWhereItOffersNothing)
{
    Open();
    MemoryArray list = {};
    list.count = 1;
    BlockList blocks = {};
    uint32_t retried = 9;
    EXPECT_EQ(
        "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
        "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n"
        "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
        "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n"
        "[drv:DevDrctRMW(#)](W)\nNOT supported DrctRMW method!\n"
        "[drv:DevFatWrite(#)](W)\nNOT supported FatWrite method!\n"
        "[drv:DevSdCmdWrite(#)](W)\nNOT supported SdCmdWrite method!\n",
        Printed([&] {
            EXPECT_EQ(-22, DevDrctRead(&handle, 0, 512, nullptr));
            EXPECT_EQ(-22, DevDrctWrite(&handle, 0, 512, nullptr, 0, &retried));
            EXPECT_EQ(-22, DevDrctReadArray(&handle, 0, 512, &list));
            EXPECT_EQ(-22, DevDrctWriteArray(&handle, 0, 512, &list, 0, &retried));
            EXPECT_EQ(0, DevDrctRMW(&handle, &blocks));
            EXPECT_EQ(0, DevFatWrite(&handle, &blocks));
            EXPECT_EQ(0, DevSdCmdWrite(&handle, "", 1, 2, 3, 4));
            EXPECT_EQ(1, DevCheckRt(&handle));
            EXPECT_EQ(1, DevCheckDelay(&handle));
            EXPECT_EQ(0, DevRTOn4Wait(&handle));
            DevLockRTOn(&handle);
            DevUnlockRTOn(&handle);
        }));
    EXPECT_EQ(9u, retried);
    EXPECT_EQ((Trace{"malloc(12)", "free() = 0", "malloc(12)", "free() = 0"}), TraceOf(kernel));
}

// --- operations without a request -----------------------------------------------------

class RicohSdStateless : public RicohSd {};

TEST_F(RicohSdStateless, KnowsNoGenericRequest)
{
    Open();
    uint8_t record[64];
    memset(record, 0xE1, sizeof record);
    EXPECT_EQ("", Printed([&] {
                  for (const uint32_t request :
                       {DEV_IOCTL_RT_40, DEV_IOCTL_RT_41, DEV_IOCTL_RT_42, DEV_IOCTL_DEVICE_PARAMS,
                        DEV_IOCTL_RT_45, 0u, 0x400478FCu, 0xFFFFFFFFu}) {
                      EXPECT_EQ(-25, DevIoctl(&handle, request, record)) << request;
                      EXPECT_EQ(-25, DevIoctl(&handle, request, nullptr)) << request;
                      EXPECT_EQ(-25, ricoh_sd_ops.Ioctl(nullptr, request, nullptr)) << request;
                  }
              }));
    EXPECT_TRUE(std::all_of(std::begin(record), std::end(record),
                            [](uint8_t byte) { return byte == 0xE1; }));
    EXPECT_TRUE(kernel.Calls().empty());
}

int ejects = 0;

TEST_F(RicohSdStateless, TakesCommandsAndCallbacksAndDoesNothing)
{
    Open();
    const RicohSdDev before = dev;
    EXPECT_EQ("", Printed([&] {
                  for (const int32_t command : {-1, 0, 1, 2, 3, 4, INT_MAX}) {
                      EXPECT_EQ(0, CARD_Ioctl(&handle, command, command)) << command;
                      EXPECT_EQ(0, ricoh_sd_ops.CardIoctl(nullptr, command, 1)) << command;
                  }
                  EXPECT_EQ(0, CARD_Init(&handle, 0xFEDCBA98, [] { ejects++; }));
                  EXPECT_EQ(0, CARD_Init(&handle, 0, nullptr));
                  EXPECT_EQ(0, ricoh_sd_ops.CardInit(nullptr, 1, [] { ejects++; }));
                  EXPECT_EQ(0, CARD_GetR1Status(&handle));
                  EXPECT_EQ(0, ricoh_sd_ops.CardGetR1Status(nullptr));
              }));
    EXPECT_EQ(0, memcmp(&before, &dev, sizeof dev));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
}

// --- Init -----------------------------------------------------------------------------

class RicohSdInit : public RicohSd {};

TEST_F(RicohSdInit, OpensTheNodeForSynchronousWrites)
{
    memset(ricoh_sd_dev, 0xE1, sizeof ricoh_sd_dev);
    const DrvInfo before = handle;
    int error = 0;
    EXPECT_EQ(kBanner, Printed([&] {
                  errno = EXFULL;
                  EXPECT_EQ(0, ricoh_sd_ops.Init(&handle));
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ(Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC)"}, TraceOf(kernel));
    const Call open = kernel.Calls().at(0);
    EXPECT_EQ(O_RDWR | O_SYNC, open.flags);
    EXPECT_EQ(0x1002, open.flags & 0x1FFF);

    EXPECT_EQ(&dev, handle.priv);
    EXPECT_EQ(0, dev.index);
    EXPECT_EQ(0, dev.read_only);
    EXPECT_EQ(open.fd, dev.blk_fd);
    EXPECT_LT(0, dev.blk_fd);
    EXPECT_EQ(nullptr, dev.secure_buf);
    EXPECT_EQ(nullptr, dev.reg_buf);
    EXPECT_EQ(1u, kernel.OpenFiles());

    handle.priv = before.priv;
    EXPECT_EQ(0, memcmp(&before, &handle, sizeof handle));
    handle.priv = &dev;
}

// The node is the unit's, whatever path the handle was detected by.
TEST_F(RicohSdInit, MakesUpTheNodesName)
{
    handle = HandleFor("/dev/another/name");
    EXPECT_EQ(kBanner, Printed([&] { EXPECT_EQ(0, ricoh_sd_ops.Init(&handle)); }));
    EXPECT_EQ(Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC)"}, TraceOf(kernel));
}

TEST_F(RicohSdInit, FallsBackToReadingForAProtectedCard)
{
    model().write_protected = true;
    EXPECT_EQ(kBanner, Printed([&] { EXPECT_EQ(0, ricoh_sd_ops.Init(&handle)); }));
    EXPECT_EQ(
        (Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC) = -1 EROFS", "open64(/dev/sdcarda, O_RDONLY)"}),
        TraceOf(kernel));
    EXPECT_EQ(0, kernel.Calls().at(1).flags);
    EXPECT_EQ(1, dev.read_only);
    EXPECT_EQ(kernel.Calls().at(1).fd, dev.blk_fd);
    EXPECT_EQ(&dev, handle.priv);
    EXPECT_EQ(1u, kernel.OpenFiles());
}

// In a program without a standard input the node's descriptor is 0.
TEST_F(RicohSdInit, TakesDescriptor0ForOpenWhateverErrnoWasBefore)
{
    Printed([&] {
        const int standard_input = dup(STDIN_FILENO);
        close(STDIN_FILENO);
        errno = EROFS;
        EXPECT_EQ(0, ricoh_sd_ops.Init(&handle));
        EXPECT_EQ(0, dev.blk_fd);
        EXPECT_EQ(0, dev.read_only);
        EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
        dup2(standard_input, STDIN_FILENO);
        close(standard_input);
    });
    EXPECT_EQ((Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC)", "close(/dev/sdcarda) = 0"}),
              TraceOf(kernel));
}

TEST_F(RicohSdInit, FallsBackForNoOtherError)
{
    for (const int error : {ENOENT, ENXIO, ENODEV, EACCES, EPERM, EBUSY, EIO, EINTR, EMFILE}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        Fail(CallKind::Open, error);
        memset(ricoh_sd_dev, 0xE1, sizeof ricoh_sd_dev);
        handle.priv = nullptr;
        int left = 0;
        EXPECT_EQ(std::string("[zel:RicohSD_Init(#)](E)open[/dev/sdcarda] failed : ") +
                      strerror(error) + "\n",
                  Printed([&] {
                      EXPECT_EQ(-1, ricoh_sd_ops.Init(&handle));
                      left = errno;
                  }));
        EXPECT_EQ(error, left);
        EXPECT_EQ(Trace{std::string("open64(/dev/sdcarda, O_RDWR|O_SYNC) = -1 ") +
                        strerrorname_np(error)},
                  TraceOf(kernel));
        EXPECT_EQ(&dev, handle.priv);
        EXPECT_EQ(0, dev.index);
        EXPECT_EQ(0, dev.read_only);
        EXPECT_EQ(-1, dev.blk_fd);
        EXPECT_EQ(nullptr, dev.secure_buf);
        EXPECT_EQ(nullptr, dev.reg_buf);
    }
}

// The text is the second failure's; that reading was tried stays on record.
TEST_F(RicohSdInit, FailsWhereReadingFailsToo)
{
    for (const int error : {EBUSY, ENXIO, EROFS}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        Fail(CallKind::Open, EROFS);
        Fail(CallKind::Open, error, 2);
        int left = 0;
        EXPECT_EQ(std::string("[zel:RicohSD_Init(#)](E)open[/dev/sdcarda] failed : ") +
                      strerror(error) + "\n",
                  Printed([&] {
                      EXPECT_EQ(-1, ricoh_sd_ops.Init(&handle));
                      left = errno;
                  }));
        EXPECT_EQ(error, left);
        EXPECT_EQ(
            (Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC) = -1 EROFS",
                   std::string("open64(/dev/sdcarda, O_RDONLY) = -1 ") + strerrorname_np(error)}),
            TraceOf(kernel));
        EXPECT_EQ(&dev, handle.priv);
        EXPECT_EQ(1, dev.read_only);
        EXPECT_EQ(-1, dev.blk_fd);
        kernel.ClearFaults();
    }
}

TEST_F(RicohSdInit, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    Fail(CallKind::Open, ENXIO);
    EXPECT_EQ(ENXIO, ErrnoAfter(EXFULL, [&] { ricoh_sd_ops.Init(&handle); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { ricoh_sd_ops.Init(&handle); }));
}

TEST_F(RicohSdInit, RefusesAUnitThatThereIsNot)
{
    for (const int32_t index : {-1, 1, 2, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(index);
        memset(ricoh_sd_dev, 0xE1, sizeof ricoh_sd_dev);
        const RicohSdDev before = dev;
        handle.dev_index = index;
        handle.priv = &handle;
        const DrvInfo handle_before = handle;
        int32_t result = 0;
        EXPECT_EQ("[zel:RicohSD_Init(#)](E)Invalid dev_index(" + std::to_string(index) + ")!\n",
                  Printed([&] { result = ricoh_sd_ops.Init(&handle); }));
        EXPECT_EQ(-1, result);
        EXPECT_EQ(0, memcmp(&before, &dev, sizeof dev));
        EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { ricoh_sd_ops.Init(&handle); }));
    }
    memset(ricoh_sd_dev, 0, sizeof ricoh_sd_dev);
}

TEST_F(RicohSdInit, RefusesANullHandleWithoutAWord)
{
    EXPECT_EQ("", Printed([] { EXPECT_EQ(-22, ricoh_sd_ops.Init(nullptr)); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// Nothing is freed or closed: what was open before is lost.
TEST_F(RicohSdInit, StartsAfreshOnADeviceThatIsOpen)
{
    Open();
    CardInfo info = {};
    ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
    CardInfo* const lost_cache = dev.reg_buf;
    const int lost_fd = dev.blk_fd;
    kernel.ClearCalls();
    EXPECT_EQ(kBanner, Printed([&] { EXPECT_EQ(0, ricoh_sd_ops.Init(&handle)); }));
    EXPECT_EQ(Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC)"}, TraceOf(kernel));
    EXPECT_NE(lost_fd, dev.blk_fd);
    EXPECT_EQ(nullptr, dev.reg_buf);
    EXPECT_EQ(2u, kernel.OpenFiles());
    EXPECT_EQ(1u, kernel.LiveBlocks());
    free(lost_cache);
    close(lost_fd);
}

// A program that has closed its standard input is given descriptor 0.
TEST_F(RicohSdInit, TakesDescriptorZeroForNotOpen)
{
    const int input = dup(0);
    ASSERT_LT(0, input);
    EXPECT_EQ(kBanner, Printed([&] {
                  ASSERT_EQ(0, close(0));
                  EXPECT_EQ(0, ricoh_sd_ops.Init(&handle));
              }));
    EXPECT_EQ(0, dev.blk_fd);
    EXPECT_EQ("[zel:RicohSD_CardGetSize(#)](E)Invalid blk_fd!\n",
              Printed([&] { EXPECT_EQ(0u, CARD_GetCardSize(&handle)); }));
    EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
    EXPECT_EQ((Trace{"open64(/dev/sdcarda, O_RDWR|O_SYNC)", "close(/dev/sdcarda) = 0"}),
              TraceOf(kernel));
    ASSERT_EQ(0, dup2(input, 0));
    close(input);
}

// --- a device whose opening failed -------------------------------------------------------

class RicohSdNegative : public RicohSd {};

TEST_F(RicohSdNegative, CountsAsOpenAndItsCallsFail)
{
    FailToOpen();
    uint8_t sector[512];
    CardIoResult result = {1, 2, 3};
    CardInfo info;
    CardSpeedInfo speed;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
    uint16_t status = 1;
    EXPECT_EQ(
        "[zel:RicohSD_Read(#)](E)lseek failed : Bad file descriptor\n"
        "[zel:RicohSD_Write(#)](E)lseek failed : Bad file descriptor\n"
        "[zel:RicohSD_Read(#)](E)lseek failed : Bad file descriptor\n"
        "[zel:RicohSD_CardGetInfo(#)](E)SDCARD_GET_CSD failed : Bad file descriptor\n"
        "[zel:RicohSD_CardGetInfo(#)](E)SDCARD_GET_CSD failed : Bad file descriptor\n"
        "[zel:RicohSD_CardSecureGetInfo(#)](E)SDCARD_GET_SD_STATUS failed : Bad file descriptor\n"
        "[zel:RicohSD_CardGetSize(#)](E)BLKGETSIZE failed : Bad file descriptor\n",
        Printed([&] {
            EXPECT_EQ(-22, ricoh_sd_ops.Read(&handle, sector, 1, 2, 0));
            EXPECT_EQ(-22, ricoh_sd_ops.Write(&handle, sector, 1, 2, 0));
            EXPECT_EQ(0, CARD_Read(&handle, sector, 1, 2, 0, &result));
            EXPECT_EQ(10, CARD_Getinfo(&handle, &info));
            EXPECT_EQ(10, CARD_GetSpeedInfo(&handle, &speed));
            EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status));
            EXPECT_EQ(0u, CARD_GetCardSize(&handle));
            EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
            EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
        }));
    EXPECT_EQ(10, result.error);
    EXPECT_EQ(3, result.length);
    EXPECT_EQ(0x8000, status);
    EXPECT_EQ((Trace{"lseek64(, 1024, SEEK_SET) = -1 EBADF", "lseek64(, 1024, SEEK_SET) = -1 EBADF",
                     "lseek64(, 1024, SEEK_SET) = -1 EBADF", "ioctl(, 0x400178ff) = -1 EBADF",
                     "ioctl(, 0x400178ff) = -1 EBADF", "ioctl(, 0x400178f4) = -1 EBADF",
                     "ioctl(, 0x400478fc) = -1 EBADF"}),
              TraceOf(kernel));
    for (const Call& call : kernel.Calls()) {
        EXPECT_EQ(-1, call.fd);
    }
}

TEST_F(RicohSdNegative, TellsThatReadingWasTried)
{
    Fail(CallKind::Open, EROFS);
    Fail(CallKind::Open, EIO, 2);
    Printed([&] { EXPECT_EQ(-1, DevInit(&handle)); });
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(1, CARD_GetWriteProtect(&handle)); }));
}

TEST_F(RicohSdNegative, IsClosedAllTheSame)
{
    FailToOpen();
    dev.read_only = 1;
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(-1, ricoh_sd_ops.Exit(&handle));
                  error = errno;
              }));
    EXPECT_EQ(EBADF, error);
    EXPECT_EQ(Trace{"close() = -1 EBADF"}, TraceOf(kernel));
    EXPECT_EQ(-1, kernel.Calls().at(0).fd);
    ExpectBlank(dev);
}

TEST_F(RicohSdNegative, CanBeOpenedAfterwards)
{
    FailToOpen();
    EXPECT_EQ(kBanner, Printed([&] { EXPECT_EQ(0, ricoh_sd_ops.Init(&handle)); }));
    EXPECT_EQ(kSectors, CARD_GetCardSize(&handle));
}

// --- Exit -------------------------------------------------------------------------------

class RicohSdExit : public RicohSd {
protected:
    void FillCaches(bool registers, bool secure)
    {
        CardInfo info;
        uint8_t sd_status[CARD_SD_STATUS_SIZE];
        if (registers) {
            ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
        }
        if (secure) {
            ASSERT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
        }
        kernel.ClearCalls();
    }
};

TEST_F(RicohSdExit, FreesTheCopiesThenClosesThenClears)
{
    Open();
    FillCaches(true, true);
    EXPECT_EQ(2u, kernel.LiveBlocks());
    const RicohSdDev before = dev;
    const DrvInfo handle_before = handle;
    dev.index = 7;
    dev.read_only = 8;
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  errno = EXFULL;
                  EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ((Trace{"free() = 0", "free() = 0", "close(/dev/sdcarda) = 0"}), TraceOf(kernel));
    const std::vector<Call> calls = kernel.Calls();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(before.secure_buf), calls.at(0).argument);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(before.reg_buf), calls.at(1).argument);
    EXPECT_EQ(before.blk_fd, calls.at(2).fd);
    ExpectBlank(dev);
    EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
    EXPECT_EQ(0u, kernel.OpenFiles());
    EXPECT_EQ(0u, kernel.LiveBlocks());
}

TEST_F(RicohSdExit, FreesTheCopyThatThereIs)
{
    Open();
    FillCaches(true, false);
    EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
    EXPECT_EQ((Trace{"free() = 0", "close(/dev/sdcarda) = 0"}), TraceOf(kernel));
    EXPECT_EQ(0u, kernel.LiveBlocks());
    Open();
    FillCaches(false, true);
    EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
    EXPECT_EQ((Trace{"free() = 0", "close(/dev/sdcarda) = 0"}), TraceOf(kernel));
    EXPECT_EQ(0u, kernel.LiveBlocks());
    Open();
    EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
    EXPECT_EQ(Trace{"close(/dev/sdcarda) = 0"}, TraceOf(kernel));
}

TEST_F(RicohSdExit, PassesTheResultOfCloseOn)
{
    Open();
    FillCaches(true, true);
    Fault fault;
    fault.kind = CallKind::Close;
    fault.error = EIO;
    fault.reach_driver = true;
    kernel.Inject(fault);
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(-1, ricoh_sd_ops.Exit(&handle));
                  error = errno;
              }));
    EXPECT_EQ(EIO, error);
    ExpectBlank(dev);
    EXPECT_EQ(0u, kernel.LiveBlocks());
}

TEST_F(RicohSdExit, RefusesAHandleThatWasNeverInitialised)
{
    memset(ricoh_sd_dev, 0xE1, sizeof ricoh_sd_dev);
    const RicohSdDev before = dev;
    for (DrvInfo* const given : {&handle, static_cast<DrvInfo*>(nullptr)}) {
        int32_t result = 0;
        EXPECT_EQ("[zel:RicohSD_Exit(#)](E)Cannot get driver info!\n",
                  Printed([&] { result = ricoh_sd_ops.Exit(given); }));
        EXPECT_EQ(-19, result);
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { ricoh_sd_ops.Exit(given); }));
    }
    EXPECT_EQ(0, memcmp(&before, &dev, sizeof dev));
    EXPECT_TRUE(kernel.Calls().empty());
    memset(ricoh_sd_dev, 0, sizeof ricoh_sd_dev);
}

// Through the frame the handle is zeroed whatever the back-end made of it.
TEST_F(RicohSdExit, LeavesAZeroedHandleThroughTheFrame)
{
    EXPECT_EQ("[zel:RicohSD_Exit(#)](E)Cannot get driver info!\n",
              Printed([&] { DevExit(&handle); }));
    const DrvInfo zeroed = {};
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));

    handle.ops = &ricoh_sd_ops;
    Open();
    Fail(CallKind::Close, EIO);
    EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
    EXPECT_EQ(0, memcmp(&zeroed, &handle, sizeof handle));
    ExpectBlank(dev);
    // The descriptor that would not close.
    ASSERT_EQ(1u, kernel.OpenFiles());
    close(kernel.Calls().at(0).fd);
}

TEST_F(RicohSdExit, CanBeOpenedAgain)
{
    for (int round = 0; round < 3; round++) {
        Open();
        FillCaches(true, true);
        EXPECT_EQ(0, ricoh_sd_ops.Exit(&handle));
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, kernel.LiveBlocks());
    }
}

}  // namespace
