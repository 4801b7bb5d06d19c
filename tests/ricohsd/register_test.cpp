// SPDX-License-Identifier: MIT
//
// The Ricoh SD back-end's queries: registers and their copies, size, status and
// write protection.
#include "tests/ricohsd/ricohsd_fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kGetCsd[] = "ioctl(/dev/sdcarda, 0x400178ff) = 0";
constexpr char kGetCid[] = "ioctl(/dev/sdcarda, 0x400178fe) = 0";
constexpr char kGetStatus[] = "ioctl(/dev/sdcarda, 0x400178f4) = 0";

using Bytes = std::vector<uint8_t>;

template <typename Record>
Bytes BytesOf(const Record& record)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(bytes, bytes + sizeof record);
}

template <typename Record>
void Mark(Record& record)
{
    memset(&record, 0xE1, sizeof record);
}

uintptr_t AddressOf(const void* object)
{
    return reinterpret_cast<uintptr_t>(object);
}

// Registers in which every byte is another one.
class RicohSdQuery : public RicohSd {
protected:
    RicohSdQuery()
    {
        for (size_t i = 0; i < 64; i++) {
            model().sd_status[i] = static_cast<uint8_t>(0x40 + i);
        }
        for (size_t i = 0; i < 16; i++) {
            model().cid[i] = static_cast<uint8_t>(0xA0 + i);
            model().csd[i] = static_cast<uint8_t>(0xC0 + i);
        }
    }

    Bytes Registers()
    {
        Bytes bytes(model().cid, model().cid + 16);
        bytes.insert(bytes.end(), model().csd, model().csd + 16);
        return bytes;
    }

    Bytes SdStatus() { return Bytes(model().sd_status, model().sd_status + 64); }

    // The card is exchanged for another.
    void ChangeRegisters()
    {
        memset(model().cid, 0x11, sizeof model().cid);
        memset(model().csd, 0x22, sizeof model().csd);
        memset(model().sd_status, 0x33, sizeof model().sd_status);
    }

    CardInfo info;
    CardSpeedInfo speed;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
};

// --- CARD_Getinfo ---------------------------------------------------------------------

class RicohSdInfo : public RicohSdQuery {
protected:
    RicohSdInfo() { Mark(info); }
};

TEST_F(RicohSdInfo, AsksForTheCsdFirstAndOneByteAhead)
{
    Open();
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  errno = EXFULL;
                  EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
    const std::vector<Call> calls = kernel.Calls();
    EXPECT_EQ(AddressOf(&info) + 15, calls.at(0).argument);
    EXPECT_EQ(AddressOf(&info), calls.at(1).argument);
    EXPECT_EQ(dev.blk_fd, calls.at(0).fd);
    EXPECT_EQ(dev.blk_fd, calls.at(1).fd);
    EXPECT_EQ(Registers(), BytesOf(info));
    ASSERT_NE(nullptr, dev.reg_buf);
    EXPECT_EQ(Registers(), BytesOf(*dev.reg_buf));
    EXPECT_EQ(nullptr, dev.secure_buf);
    EXPECT_EQ(1u, kernel.LiveBlocks());
}

TEST_F(RicohSdInfo, AnswersFromItsCopyFromThenOn)
{
    Open();
    ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
    const Bytes first = BytesOf(info);
    kernel.ClearCalls();
    ChangeRegisters();
    Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
    Fail(CallKind::Malloc, ENOMEM, 1, Fault::kForEver);
    for (int round = 0; round < 3; round++) {
        Mark(info);
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_Getinfo(&handle, &info)); }));
        EXPECT_EQ(first, BytesOf(info));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdInfo, AsksAgainAfterReopening)
{
    Open();
    ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
    ASSERT_EQ(0, ricoh_sd_ops.Exit(&handle));
    ChangeRegisters();
    Open();
    ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
}

TEST_F(RicohSdInfo, StopsAtAFailedCsd)
{
    Open();
    for (const int error : {EIO, ENOTTY, ENOMEDIUM}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        FailRequest(SDCARD_GET_CSD, error);
        Mark(info);
        int left = 0;
        EXPECT_EQ(std::string("[zel:RicohSD_CardGetInfo(#)](E)SDCARD_GET_CSD failed : ") +
                      strerror(error) + "\n",
                  Printed([&] {
                      EXPECT_EQ(10, CARD_Getinfo(&handle, &info));
                      left = errno;
                  }));
        EXPECT_EQ(error, left);
        EXPECT_EQ(
            Trace{std::string("ioctl(/dev/sdcarda, 0x400178ff) = -1 ") + strerrorname_np(error)},
            TraceOf(kernel));
        EXPECT_EQ(Bytes(32, 0), BytesOf(info));
        EXPECT_EQ(nullptr, dev.reg_buf);
    }
    kernel.ClearCalls();
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
}

// What a driver wrote before it failed stays in the record.
TEST_F(RicohSdInfo, KeepsWhatAFailingCsdRequestWrote)
{
    Open();
    FailRequest(SDCARD_GET_CSD, EIO, true);
    Printed([&] { EXPECT_EQ(10, CARD_Getinfo(&handle, &info)); });
    Bytes expected(32, 0);
    expected[15] = 0x3F;
    std::copy(model().csd, model().csd + 16, expected.begin() + 16);
    EXPECT_EQ(expected, BytesOf(info));
}

TEST_F(RicohSdInfo, KeepsTheCsdWhereTheCidFails)
{
    Open();
    FailRequest(SDCARD_GET_CID, EIO);
    int left = 0;
    EXPECT_EQ("[zel:RicohSD_CardGetInfo(#)](E)SDCARD_GET_CID failed : Input/output error\n",
              Printed([&] {
                  EXPECT_EQ(10, CARD_Getinfo(&handle, &info));
                  left = errno;
              }));
    EXPECT_EQ(EIO, left);
    EXPECT_EQ((Trace{kGetCsd, "ioctl(/dev/sdcarda, 0x400178fe) = -1 EIO"}), TraceOf(kernel));
    Bytes expected(32, 0);
    expected[15] = 0x3F;
    std::copy(model().csd, model().csd + 16, expected.begin() + 16);
    EXPECT_EQ(expected, BytesOf(info));
    EXPECT_EQ(nullptr, dev.reg_buf);
    EXPECT_EQ(0u, kernel.LiveBlocks());

    kernel.ClearCalls();
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
}

TEST_F(RicohSdInfo, FillsTheRecordEvenWithoutMemoryForACopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM);
    int left = 0;
    EXPECT_EQ(
        "[zel:RicohSD_CardGetInfo(#)](E)Malloc register buffer failed : "
        "Cannot allocate memory\n",
        Printed([&] {
            EXPECT_EQ(10, CARD_Getinfo(&handle, &info));
            left = errno;
        }));
    EXPECT_EQ(ENOMEM, left);
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ(nullptr, dev.reg_buf);

    kernel.ClearCalls();
    Mark(info);
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_Getinfo(&handle, &info)); }));
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ(1u, kernel.LiveBlocks());
}

// Drivers answer with a positive number, too.
TEST_F(RicohSdInfo, TakesAPositiveAnswerForSuccess)
{
    Open();
    Fault positive;
    positive.kind = CallKind::Ioctl;
    positive.times = Fault::kForEver;
    positive.result = 17;
    positive.reach_driver = true;
    kernel.Inject(positive);
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
                  EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
                  EXPECT_EQ(kSectors, CARD_GetCardSize(&handle));
              }));
    EXPECT_EQ(Registers(), BytesOf(info));
}

TEST_F(RicohSdInfo, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    Open();
    FailRequest(SDCARD_GET_CSD, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_Getinfo(&handle, &info); }));
    FailRequest(SDCARD_GET_CID, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_Getinfo(&handle, &info); }));
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { CARD_Getinfo(&handle, &info); }));
    FailRequest(SDCARD_GET_SD_STATUS, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_SecureGetinfo(&handle, sd_status); }));
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { CARD_SecureGetinfo(&handle, sd_status); }));
    FailRequest(RICOHSD_BLKGETSIZE, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_GetCardSize(&handle); }));
}

TEST_F(RicohSdInfo, NeedsARecordThenAHandleThenAnOpenDevice)
{
    const char* const no_info = "[zel:RicohSD_CardGetInfo(#)](E)Cannot get driver info!\n";
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetInfo(nullptr, nullptr));
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetInfo(&handle, nullptr));
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetSpeedInfo(nullptr, nullptr));
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetSpeedInfo(&handle, nullptr));
              }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(10, ricoh_sd_ops.CardGetInfo(nullptr, &info)); }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(10, CARD_Getinfo(&handle, &info)); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { CARD_Getinfo(&handle, &info); }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(10, CARD_GetSpeedInfo(&handle, &speed)); }));
    handle.priv = &dev;
    const char* const no_fd = "[zel:RicohSD_CardGetInfo(#)](E)Invalid blk_fd!\n";
    EXPECT_EQ(no_fd, Printed([&] { EXPECT_EQ(10, CARD_Getinfo(&handle, &info)); }));
    EXPECT_EQ(no_fd, Printed([&] { EXPECT_EQ(10, CARD_GetSpeedInfo(&handle, &speed)); }));
    EXPECT_EQ(Bytes(32, 0xE1), BytesOf(info));
    EXPECT_TRUE(kernel.Calls().empty());
}

// The device is looked at before the copy.
TEST_F(RicohSdInfo, AnswersFromItsCopyOnlyWhileTheDeviceIsOpen)
{
    Open();
    ASSERT_EQ(0, CARD_Getinfo(&handle, &info));
    ASSERT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
    const int fd = dev.blk_fd;
    dev.blk_fd = 0;
    EXPECT_EQ(
        "[zel:RicohSD_CardGetInfo(#)](E)Invalid blk_fd!\n"
        "[zel:RicohSD_CardSecureGetInfo(#)](E)Invalid blk_fd!\n",
        Printed([&] {
            EXPECT_EQ(10, CARD_Getinfo(&handle, &info));
            EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status));
        }));
    dev.blk_fd = fd;
}

// --- CARD_GetSpeedInfo ------------------------------------------------------------------

class RicohSdSpeed : public RicohSdQuery {
protected:
    RicohSdSpeed()
    {
        Mark(info);
        Mark(speed);
    }
};

TEST_F(RicohSdSpeed, AnswersWithTheRegisters)
{
    Open();
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_GetSpeedInfo(&handle, &speed)); }));
    EXPECT_EQ((Trace{kGetCsd, kGetCid, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(AddressOf(&speed) + 15, kernel.Calls().at(0).argument);
    EXPECT_EQ(AddressOf(&speed), kernel.Calls().at(1).argument);
    EXPECT_EQ(Registers(), BytesOf(speed));
}

TEST_F(RicohSdSpeed, SharesTheCopyWithTheRegisters)
{
    Open();
    ASSERT_EQ(0, CARD_GetSpeedInfo(&handle, &speed));
    const Bytes first = BytesOf(speed);
    kernel.ClearCalls();
    ChangeRegisters();
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(first, BytesOf(info));
    Mark(speed);
    EXPECT_EQ(0, CARD_GetSpeedInfo(&handle, &speed));
    EXPECT_EQ(first, BytesOf(speed));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdSpeed, FailsAsTheRegistersDo)
{
    Open();
    FailRequest(SDCARD_GET_CSD, EIO);
    EXPECT_EQ("[zel:RicohSD_CardGetInfo(#)](E)SDCARD_GET_CSD failed : Input/output error\n",
              Printed([&] { EXPECT_EQ(10, CARD_GetSpeedInfo(&handle, &speed)); }));
    EXPECT_EQ(Bytes(32, 0), BytesOf(speed));
}

// --- CARD_SecureGetinfo -----------------------------------------------------------------

class RicohSdStatus : public RicohSdQuery {
protected:
    RicohSdStatus() { Mark(sd_status); }
};

TEST_F(RicohSdStatus, AsksOnceIntoTheCallersBuffer)
{
    Open();
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  errno = EXFULL;
                  EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ((Trace{kGetStatus, "malloc(64)"}), TraceOf(kernel));
    EXPECT_EQ(AddressOf(sd_status), kernel.Calls().at(0).argument);
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    ASSERT_NE(nullptr, dev.secure_buf);
    EXPECT_EQ(SdStatus(), Bytes(dev.secure_buf, dev.secure_buf + 64));
    EXPECT_EQ(nullptr, dev.reg_buf);

    const Bytes first = BytesOf(sd_status);
    kernel.ClearCalls();
    ChangeRegisters();
    Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
    for (int round = 0; round < 3; round++) {
        Mark(sd_status);
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status)); }));
        EXPECT_EQ(first, BytesOf(sd_status));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdStatus, AsksAgainAfterReopening)
{
    Open();
    ASSERT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
    ASSERT_EQ(0, ricoh_sd_ops.Exit(&handle));
    ChangeRegisters();
    Open();
    ASSERT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
}

// Unlike the registers' record, the buffer is not cleared first.
TEST_F(RicohSdStatus, LeavesTheBufferWhereTheRequestFails)
{
    Open();
    FailRequest(SDCARD_GET_SD_STATUS, EIO);
    int left = 0;
    EXPECT_EQ(
        "[zel:RicohSD_CardSecureGetInfo(#)](E)SDCARD_GET_SD_STATUS failed : "
        "Input/output error\n",
        Printed([&] {
            EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status));
            left = errno;
        }));
    EXPECT_EQ(EIO, left);
    EXPECT_EQ(Trace{"ioctl(/dev/sdcarda, 0x400178f4) = -1 EIO"}, TraceOf(kernel));
    EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
    EXPECT_EQ(nullptr, dev.secure_buf);

    kernel.ClearCalls();
    EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
    EXPECT_EQ((Trace{kGetStatus, "malloc(64)"}), TraceOf(kernel));
}

TEST_F(RicohSdStatus, FillsTheBufferEvenWithoutMemoryForACopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM);
    int left = 0;
    EXPECT_EQ(
        "[zel:RicohSD_CardSecureGetInfo(#)](E)Malloc register buffer failed : "
        "Cannot allocate memory\n",
        Printed([&] {
            EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status));
            left = errno;
        }));
    EXPECT_EQ(ENOMEM, left);
    EXPECT_EQ((Trace{kGetStatus, "malloc(64) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    EXPECT_EQ(nullptr, dev.secure_buf);

    kernel.ClearCalls();
    EXPECT_EQ(0, CARD_SecureGetinfo(&handle, sd_status));
    EXPECT_EQ((Trace{kGetStatus, "malloc(64)"}), TraceOf(kernel));
}

TEST_F(RicohSdStatus, NeedsABufferThenAHandleThenAnOpenDevice)
{
    const char* const no_info = "[zel:RicohSD_CardSecureGetInfo(#)](E)Cannot get driver info!\n";
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(10, ricoh_sd_ops.CardSecureGetInfo(nullptr, nullptr));
                  EXPECT_EQ(10, ricoh_sd_ops.CardSecureGetInfo(&handle, nullptr));
              }));
    EXPECT_EQ(no_info,
              Printed([&] { EXPECT_EQ(10, ricoh_sd_ops.CardSecureGetInfo(nullptr, sd_status)); }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status)); }));
    handle.priv = &dev;
    EXPECT_EQ("[zel:RicohSD_CardSecureGetInfo(#)](E)Invalid blk_fd!\n",
              Printed([&] { EXPECT_EQ(10, CARD_SecureGetinfo(&handle, sd_status)); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { CARD_SecureGetinfo(&handle, sd_status); }));
    EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- CARD_GetCardSize -------------------------------------------------------------------

class RicohSdSize : public RicohSdQuery {};

TEST_F(RicohSdSize, AsksTheHostEachTime)
{
    Open();
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  errno = EXFULL;
                  for (const uint32_t sectors : {64u, 0x00800000u, 0xFFFFFFFFu, 10u, 0u}) {
                      model().sectors = sectors;
                      EXPECT_EQ(sectors, CARD_GetCardSize(&handle));
                  }
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ(Trace(5, "ioctl(/dev/sdcarda, 0x400478fc) = 0"), TraceOf(kernel));
}

TEST_F(RicohSdSize, IsNothingWhereTheRequestFails)
{
    Open();
    for (const bool reach_driver : {false, true}) {
        FailRequest(RICOHSD_BLKGETSIZE, ENOTTY, reach_driver);
        uint32_t size = 1;
        int left = 0;
        EXPECT_EQ(
            "[zel:RicohSD_CardGetSize(#)](E)BLKGETSIZE failed : "
            "Inappropriate ioctl for device\n",
            Printed([&] {
                size = CARD_GetCardSize(&handle);
                left = errno;
            }));
        EXPECT_EQ(0u, size);
        EXPECT_EQ(ENOTTY, left);
    }
    EXPECT_EQ(kSectors, CARD_GetCardSize(&handle));
}

TEST_F(RicohSdSize, IsNothingWhereTheDriverWroteNothing)
{
    Open();
    cardsim::Fault fault;
    fault.request = RICOHSD_BLKGETSIZE;
    fault.result = 0;
    kernel.Inject(fault);
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0u, CARD_GetCardSize(&handle)); }));
}

TEST_F(RicohSdSize, NeedsAHandleThenAnOpenDevice)
{
    const char* const no_info = "[zel:RicohSD_CardGetSize(#)](E)Cannot get driver info!\n";
    EXPECT_EQ(no_info, Printed([] { EXPECT_EQ(0u, ricoh_sd_ops.CardGetSize(nullptr)); }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(0u, CARD_GetCardSize(&handle)); }));
    handle.priv = &dev;
    EXPECT_EQ("[zel:RicohSD_CardGetSize(#)](E)Invalid blk_fd!\n",
              Printed([&] { EXPECT_EQ(0u, CARD_GetCardSize(&handle)); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- CARD_Getstatus ---------------------------------------------------------------------

class RicohSdPresence : public RicohSdQuery {};

TEST_F(RicohSdPresence, TakesAnOpenDeviceForACard)
{
    Open();
    kernel.RemoveNode(cardsim::kRicohNode);
    uint16_t status = 0xABCD;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_Getstatus(&handle, &status)); }));
    EXPECT_EQ(0x8000, status);
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdPresence, ClearsTheWordWhereTheDeviceIsNotOpen)
{
    uint16_t status = 0xABCD;
    EXPECT_EQ("[zel:RicohSD_CardGetStatus(#)](E)Cannot get driver info!\n",
              Printed([&] { EXPECT_EQ(65517, CARD_Getstatus(&handle, &status)); }));
    EXPECT_EQ(0, status);
    status = 0xABCD;
    EXPECT_EQ("[zel:RicohSD_CardGetStatus(#)](E)Cannot get driver info!\n",
              Printed([&] { EXPECT_EQ(65517, ricoh_sd_ops.CardGetStatus(nullptr, &status)); }));
    EXPECT_EQ(0, status);
    handle.priv = &dev;
    status = 0xABCD;
    EXPECT_EQ("[zel:RicohSD_CardGetStatus(#)](E)Invalid blk_fd!\n",
              Printed([&] { EXPECT_EQ(65517, CARD_Getstatus(&handle, &status)); }));
    EXPECT_EQ(0, status);
}

TEST_F(RicohSdPresence, NeedsAWordBeforeAHandle)
{
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetStatus(nullptr, nullptr));
                  EXPECT_EQ(10, ricoh_sd_ops.CardGetStatus(&handle, nullptr));
              }));
}

// --- CARD_GetWriteProtect ---------------------------------------------------------------

class RicohSdProtection : public RicohSdQuery {};

TEST_F(RicohSdProtection, TellsHowTheNodeWasOpened)
{
    Open();
    // Asked of nobody: a switch that is moved later is not noticed.
    model().write_protected = true;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, CARD_GetWriteProtect(&handle)); }));
    ASSERT_EQ(0, ricoh_sd_ops.Exit(&handle));
    Open();
    model().write_protected = false;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(1, CARD_GetWriteProtect(&handle)); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdProtection, NeedsAHandleThenAnOpenDevice)
{
    const char* const no_info = "[zel:RicohSD_CardGetWriteProtect(#)](E)Cannot get driver info!\n";
    EXPECT_EQ(no_info, Printed([] { EXPECT_EQ(10, ricoh_sd_ops.CardGetWriteProtect(nullptr)); }));
    EXPECT_EQ(no_info, Printed([&] { EXPECT_EQ(10, CARD_GetWriteProtect(&handle)); }));
    handle.priv = &dev;
    EXPECT_EQ("[zel:RicohSD_CardGetWriteProtect(#)](E)Invalid blk_fd!\n",
              Printed([&] { EXPECT_EQ(10, CARD_GetWriteProtect(&handle)); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

}  // namespace
