// SPDX-License-Identifier: MIT
//
// The Zel back-end's registers, SD status, speed record and size: what the driver
// is asked, where its answer goes, and the copies.
#include "sim/contents.h"
#include "tests/support/sizings.h"
#include "tests/zel/fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kGetParams[] = "ioctl(/dev/spda, 0x20007005) = 0";
constexpr char kGetStatus[] = "ioctl(/dev/spdra, 0x20007001) = 0";
constexpr char kGetSize[] = "ioctl(/dev/spda, 0x20001260) = 0";

template <typename Record>
void Mark(Record& record)
{
    memset(&record, 0xE1, sizeof record);
}

// One request for card data, as the driver saw it.
struct Asked {
    uint32_t item;
    uint32_t buffer;
};

// Registers in which every byte is another one.
class ZelQuery : public Zel {
protected:
    ZelQuery()
    {
        for (size_t i = 0; i < 64; i++) {
            model().sd_status[i] = static_cast<uint8_t>(0x40 + i);
        }
        for (size_t i = 0; i < 16; i++) {
            model().cid[i] = static_cast<uint8_t>(0xA0 + i);
            model().csd[i] = static_cast<uint8_t>(0xC0 + i);
        }
        Mark(info);
        Mark(speed);
        Mark(sd_status);
    }

    // The record that the registers make: the CID stands one byte in, and the CSD
    // takes the place of its last byte.
    Bytes Registers()
    {
        Bytes bytes = {0};
        bytes.insert(bytes.end(), model().cid, model().cid + 15);
        bytes.insert(bytes.end(), model().csd, model().csd + 16);
        return bytes;
    }

    Bytes SdStatus() { return BytesOf(model().sd_status); }

    Bytes Speed()
    {
        Bytes bytes(32, 0);
        bytes[0] = 0x48;
        bytes[1] = 0x49;
        bytes[2] = 0x4C;
        bytes[3] = 0x4D;
        bytes[4] = 0x04;
        return bytes;
    }

    // The card is exchanged for another.
    void ChangeRegisters()
    {
        memset(model().cid, 0x11, sizeof model().cid);
        memset(model().csd, 0x22, sizeof model().csd);
        memset(model().sd_status, 0x33, sizeof model().sd_status);
    }

    // Keep what is asked from here on.
    void Listen()
    {
        During(ZEL_GET_CARD_PARAMS, [this](const Call& call) {
            EXPECT_EQ(dev->dev_fd, call.fd);
            const std::vector<uint32_t> words = WordsAt(call.argument, 2);
            asked.push_back({words[0], words[1]});
        });
    }

    // The driver's answers count their own bytes from 0 on.
    void AnswerWithPositions()
    {
        During(ZEL_GET_CARD_PARAMS, [](const Call& call) {
            const uintptr_t buffer = WordsAt(call.argument, 2)[1];
            for (size_t i = 0; i < 536; i++) {
                reinterpret_cast<uint8_t*>(buffer)[i] = static_cast<uint8_t>(i);
            }
        });
    }

    Outcome GetInfo()
    {
        return OutcomeOf([&] { return CARD_Getinfo(&handle, &info); });
    }
    Outcome GetSpeed()
    {
        return OutcomeOf([&] { return CARD_GetSpeedInfo(&handle, &speed); });
    }
    Outcome GetSdStatus()
    {
        return OutcomeOf([&] { return CARD_SecureGetinfo(&handle, sd_status); });
    }
    Outcome GetSize()
    {
        return OutcomeOf([&] { return zel_ops.CardGetSize(&handle); });
    }

    CardInfo info;
    CardSpeedInfo speed;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
    std::vector<Asked> asked;
};

const char* const kInfoLine = "[zel:Zel_CardGetInfo(#)](E)Cannot get card params!\n";
const char* const kSecureLine = "[zel:Zel_CardSecureGetInfo(#)](E)Cannot get card params!\n";
const char* const kSpeedLine = "[zel:Zel_CardGetSpeedInfo(#)](E)Cannot get card params!\n";

// --- CARD_Getinfo ---------------------------------------------------------------------

class ZelInfo : public ZelQuery {};

TEST_F(ZelInfo, AsksForTheCidThenForTheCsd)
{
    OpenWithoutCopies();
    Listen();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Trace{kGetParams, kGetParams, "malloc(32)"}), TraceOf(kernel));
    ASSERT_EQ(2u, asked.size());
    EXPECT_EQ(48u, asked[0].item);
    EXPECT_EQ(52u, asked[1].item);
    EXPECT_EQ(asked[0].buffer, asked[1].buffer);
    EXPECT_EQ(Registers(), BytesOf(info));
    ASSERT_NE(nullptr, dev->reg_buf);
    EXPECT_EQ(Registers(), BytesOf(*dev->reg_buf));
    EXPECT_EQ(nullptr, dev->secure_buf);
    EXPECT_EQ(nullptr, dev->speed_buf);
}

TEST_F(ZelInfo, PlacesTheCidOneByteIn)
{
    OpenWithoutCopies();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Bytes{0x00, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9,
                     0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5,
                     0xC6, 0xC7, 0xC8, 0xC9, 0xCA, 0xCB, 0xCC, 0xCD, 0xCE, 0xCF}),
              BytesOf(info));
}

TEST_F(ZelInfo, TakesBothRegistersFromByte24OfTheAnswer)
{
    OpenWithoutCopies();
    AnswerWithPositions();
    EXPECT_EQ((Outcome{0}), GetInfo());
    Bytes expected = {0};
    for (uint8_t i = 24; i < 39; i++) {
        expected.push_back(i);
    }
    for (uint8_t i = 24; i < 40; i++) {
        expected.push_back(i);
    }
    EXPECT_EQ(expected, BytesOf(info));
}

TEST_F(ZelInfo, ClearsTheRecordBeforeItAsks)
{
    OpenWithoutCopies();
    Bytes seen;
    During(ZEL_GET_CARD_PARAMS, [&](const Call&) {
        if (seen.empty()) {
            seen = BytesOf(info);
        }
    });
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(Bytes(32, 0), seen);
}

TEST_F(ZelInfo, AnswersFromItsCopyFromThenOn)
{
    OpenWithoutCopies();
    const Bytes first = Registers();
    EXPECT_EQ((Outcome{0}), GetInfo());
    kernel.ClearCalls();
    ChangeRegisters();
    Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
    Fail(CallKind::Malloc, ENOMEM, 1, Fault::kForEver);
    for (int round = 0; round < 3; round++) {
        Mark(info);
        EXPECT_EQ((Outcome{0}), GetInfo());
        EXPECT_EQ(first, BytesOf(info));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelInfo, AsksAgainAfterReopening)
{
    OpenWithoutCopies();
    EXPECT_EQ((Outcome{0}), GetInfo());
    ASSERT_EQ(0, zel_ops.Exit(&handle));
    ChangeRegisters();
    OpenWithoutCopies();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

// What is then there stays: the CID's answer stands where the CSD's should.
TEST_F(ZelInfo, GoesOnWhereTheCsdCannotBeRead)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO, 2);
    EXPECT_EQ((Outcome{0, kInfoLine, EIO}), GetInfo());
    EXPECT_EQ((Trace{kGetParams, "ioctl(/dev/spda, 0x20007005) = -1 EIO", "malloc(32)"}),
              TraceOf(kernel));
    Bytes expected = {0};
    expected.insert(expected.end(), model().cid, model().cid + 15);
    expected.insert(expected.end(), model().cid, model().cid + 16);
    EXPECT_EQ(expected, BytesOf(info));
    ASSERT_NE(nullptr, dev->reg_buf);
    EXPECT_EQ(expected, BytesOf(*dev->reg_buf));
}

TEST_F(ZelInfo, GoesOnWhereTheCidCannotBeRead)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO, 1, 1, true);
    EXPECT_EQ((Outcome{0, kInfoLine, EIO}), GetInfo());
    EXPECT_EQ((Trace{"ioctl(/dev/spda, 0x20007005) = -1 EIO", kGetParams, "malloc(32)"}),
              TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
}

// Reported as success, remembered, and shown in the lines alone.
TEST_F(ZelInfo, GoesOnWhereNothingCanBeRead)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO, 1, Fault::kForEver);
    EXPECT_EQ((Outcome{0, std::string(kInfoLine) + kInfoLine, EIO}), GetInfo());
    EXPECT_EQ((Trace{"ioctl(/dev/spda, 0x20007005) = -1 EIO",
                     "ioctl(/dev/spda, 0x20007005) = -1 EIO", "malloc(32)"}),
              TraceOf(kernel));
    EXPECT_EQ(0, info.cid[0]);
    cardsim::HasValue(&info, sizeof info);  // of bytes that nobody wrote
    const Bytes first = BytesOf(info);
    ASSERT_NE(nullptr, dev->reg_buf);
    cardsim::HasValue(dev->reg_buf, sizeof *dev->reg_buf);
    EXPECT_EQ(first, BytesOf(*dev->reg_buf));
    kernel.ClearFaults();
    kernel.ClearCalls();
    Mark(info);
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(first, BytesOf(info));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelInfo, TakesAPositiveAnswerForAFailure)
{
    OpenWithoutCopies();
    Answer(ZEL_GET_CARD_PARAMS, 1, true, 2);
    EXPECT_EQ((Outcome{0, std::string(kInfoLine) + kInfoLine}), GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

TEST_F(ZelInfo, FillsTheRecordEvenWithoutMemoryForACopy)
{
    OpenWithoutCopies();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[zel:Zel_CardGetInfo(#)](E)Malloc register buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetInfo());
    EXPECT_EQ((Trace{kGetParams, kGetParams, "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ(nullptr, dev->reg_buf);

    kernel.ClearCalls();
    Mark(info);
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Trace{kGetParams, kGetParams, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
}

// --- CARD_SecureGetinfo -----------------------------------------------------------------

class ZelSecure : public ZelQuery {};

TEST_F(ZelSecure, AsksForTheSdStatus)
{
    OpenWithoutCopies();
    Listen();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetParams, "malloc(64)"}), TraceOf(kernel));
    ASSERT_EQ(1u, asked.size());
    EXPECT_EQ(60u, asked[0].item);
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    ASSERT_NE(nullptr, dev->secure_buf);
    EXPECT_EQ(SdStatus(), BytesAt(AddressOf(dev->secure_buf), 64));
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(nullptr, dev->speed_buf);
}

TEST_F(ZelSecure, TakesTheBytesFrom24To87OfTheAnswer)
{
    OpenWithoutCopies();
    AnswerWithPositions();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    Bytes expected;
    for (uint8_t i = 24; i < 88; i++) {
        expected.push_back(i);
    }
    EXPECT_EQ(expected, BytesOf(sd_status));
}

TEST_F(ZelSecure, AnswersFromItsCopyFromThenOn)
{
    OpenWithoutCopies();
    const Bytes first = SdStatus();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    kernel.ClearCalls();
    ChangeRegisters();
    Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
    Fail(CallKind::Malloc, ENOMEM, 1, Fault::kForEver);
    for (int round = 0; round < 3; round++) {
        Mark(sd_status);
        EXPECT_EQ((Outcome{0}), GetSdStatus());
        EXPECT_EQ(first, BytesOf(sd_status));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelSecure, StopsWhereTheStatusCannotBeRead)
{
    OpenWithoutCopies();
    for (const int error : {EIO, ENODEV, EBUSY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(ZEL_GET_CARD_PARAMS, error, 1, 1, true);
        EXPECT_EQ((Outcome{10, kSecureLine, error}), GetSdStatus());
        EXPECT_EQ(Trace{std::string("ioctl(/dev/spda, 0x20007005) = -1 ") + strerrorname_np(error)},
                  TraceOf(kernel));
        EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
        EXPECT_EQ(nullptr, dev->secure_buf);
    }
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetParams, "malloc(64)"}), TraceOf(kernel));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
}

TEST_F(ZelSecure, TakesAPositiveAnswerForAFailure)
{
    OpenWithoutCopies();
    Answer(ZEL_GET_CARD_PARAMS, 1);
    EXPECT_EQ((Outcome{10, kSecureLine}), GetSdStatus());
    EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
    EXPECT_EQ(nullptr, dev->secure_buf);
}

TEST_F(ZelSecure, FillsTheRecordEvenWithoutMemoryForACopy)
{
    OpenWithoutCopies();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[zel:Zel_CardSecureGetInfo(#)](E)Malloc secure buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSdStatus());
    EXPECT_EQ((Trace{kGetParams, "malloc(64) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    EXPECT_EQ(nullptr, dev->secure_buf);

    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetParams, "malloc(64)"}), TraceOf(kernel));
}

// --- CARD_GetSpeedInfo ------------------------------------------------------------------

class ZelSpeed : public ZelQuery {};

TEST_F(ZelSpeed, AsksForTheSpeedValues)
{
    OpenWithoutCopies();
    Listen();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, "malloc(32)"}), TraceOf(kernel));
    ASSERT_EQ(1u, asked.size());
    EXPECT_EQ(33u, asked[0].item);
    EXPECT_EQ(Speed(), BytesOf(speed));
    ASSERT_NE(nullptr, dev->speed_buf);
    EXPECT_EQ(Speed(), BytesOf(*dev->speed_buf));
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(nullptr, dev->secure_buf);
}

TEST_F(ZelSpeed, TakesFiveBytesOfTheAnswer)
{
    OpenWithoutCopies();
    AnswerWithPositions();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    Bytes expected = {148, 152, 157, 158, 163};
    expected.resize(32, 0);
    EXPECT_EQ(expected, BytesOf(speed));
}

TEST_F(ZelSpeed, ClearsTheRecordBeforeItAsks)
{
    OpenWithoutCopies();
    Bytes seen;
    During(ZEL_GET_CARD_PARAMS, [&](const Call&) { seen = BytesOf(speed); });
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ(Bytes(32, 0), seen);
}

TEST_F(ZelSpeed, AnswersFromItsCopyFromThenOn)
{
    OpenWithoutCopies();
    const Bytes first = Speed();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    kernel.ClearCalls();
    ChangeRegisters();
    Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
    Fail(CallKind::Malloc, ENOMEM, 1, Fault::kForEver);
    for (int round = 0; round < 3; round++) {
        Mark(speed);
        EXPECT_EQ((Outcome{0}), GetSpeed());
        EXPECT_EQ(first, BytesOf(speed));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelSpeed, GoesOnWhereNothingCanBeRead)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO, 1, 1, true);
    EXPECT_EQ((Outcome{0, kSpeedLine, EIO}), GetSpeed());
    EXPECT_EQ((Trace{"ioctl(/dev/spda, 0x20007005) = -1 EIO", "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Speed(), BytesOf(speed));
    ASSERT_NE(nullptr, dev->speed_buf);
    EXPECT_EQ(Speed(), BytesOf(*dev->speed_buf));
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelSpeed, LeavesTheRestZeroWhereNothingCanBeRead)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO);
    EXPECT_EQ((Outcome{0, kSpeedLine, EIO}), GetSpeed());
    EXPECT_EQ(Bytes(27, 0), Bytes(speed.bytes + 5, speed.bytes + 32));
    cardsim::HasValue(&speed, 5);  // of bytes that nobody wrote
    cardsim::HasValue(dev->speed_buf, 5);
    EXPECT_EQ(BytesOf(speed), BytesOf(*dev->speed_buf));
}

TEST_F(ZelSpeed, TakesAPositiveAnswerForAFailure)
{
    OpenWithoutCopies();
    Answer(ZEL_GET_CARD_PARAMS, 1);
    EXPECT_EQ((Outcome{0, kSpeedLine}), GetSpeed());
    EXPECT_EQ(Speed(), BytesOf(speed));
}

TEST_F(ZelSpeed, FillsTheRecordEvenWithoutMemoryForACopy)
{
    OpenWithoutCopies();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[zel:Zel_CardGetSpeedInfo(#)](E)Malloc speed info buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSpeed());
    EXPECT_EQ((Trace{kGetParams, "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(Speed(), BytesOf(speed));
    EXPECT_EQ(nullptr, dev->speed_buf);

    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, "malloc(32)"}), TraceOf(kernel));
}

// --- CARD_GetCardSize --------------------------------------------------------------------

class ZelSize : public ZelQuery {};

TEST_F(ZelSize, AsksForTheSectorsThenForTheRegisters)
{
    OpenWithoutCopies();
    Listen();
    EXPECT_EQ(EXFULL, GetSize().error);
    EXPECT_EQ((Trace{kGetSize, kGetParams, "malloc(64)", kGetParams, kGetParams, "malloc(32)"}),
              TraceOf(kernel));
    EXPECT_EQ(dev->blk_fd, kernel.Calls().at(0).fd);
    ASSERT_EQ(3u, asked.size());
    EXPECT_EQ(60u, asked[0].item);
    EXPECT_EQ(48u, asked[1].item);
    EXPECT_EQ(52u, asked[2].item);
}

TEST_F(ZelSize, AsksForNothingButTheSectorsFromThenOn)
{
    Open();
    for (int round = 0; round < 3; round++) {
        kernel.ClearCalls();
        EXPECT_EQ("", GetSize().printed);
        EXPECT_EQ(Trace{kGetSize}, TraceOf(kernel));
    }
}

class ZelSizing : public ZelSize {
protected:
    uint32_t SizeOf(uint32_t sectors, const Bytes& csd, uint32_t protected_bytes, uint8_t others)
    {
        model().sectors = sectors;
        std::copy(csd.begin(), csd.end(), model().csd);
        memset(model().sd_status, others, sizeof model().sd_status);
        for (int i = 0; i < 4; i++) {
            model().sd_status[4 + i] = static_cast<uint8_t>(protected_bytes >> (24 - 8 * i));
        }
        OpenWithoutCopies();
        uint32_t size = 0;
        EXPECT_EQ("", Printed([&] { size = CARD_GetCardSize(&handle); }));
        zel_ops.Exit(&handle);
        return size;
    }
};

TEST_F(ZelSizing, ReadsALargeCardsRegisters)
{
    for (const Sizing& sizing : kLargeSizings) {
        for (const uint8_t others : {uint8_t{0}, uint8_t{0xFF}}) {
            SCOPED_TRACE(testing::Message() << sizing.what << ", others " << int{others});
            EXPECT_EQ(sizing.size, SizeOf(sizing.sectors, HighCapacityCsd(sizing, others),
                                          sizing.protected_bytes, others));
        }
    }
}

TEST_F(ZelSizing, ReadsASmallerCardsRegisters)
{
    for (const Sizing& sizing : kSmallSizings) {
        for (const uint8_t others : {uint8_t{0}, uint8_t{0xFF}}) {
            SCOPED_TRACE(testing::Message() << sizing.what << ", others " << int{others});
            EXPECT_EQ(sizing.size, SizeOf(sizing.sectors, StandardCsd(sizing, others),
                                          sizing.protected_bytes, others));
        }
    }
}

// Which way the registers are read is the node's choice, not the CSD's.
TEST_F(ZelSizing, ChoosesByTheNodesSectorsAlone)
{
    Bytes csd(16, 0);
    csd[5] = 0x09;
    csd[6] = 0x01;
    csd[8] = 0x40;
    csd[9] = 0x02;
    csd[10] = 0x80;
    for (const uint8_t structure : {uint8_t{0x00}, uint8_t{0x40}, uint8_t{0x80}}) {
        SCOPED_TRACE(testing::Message() << "structure " << int{structure});
        csd[0] = structure;
        EXPECT_EQ((0x401u + 1) << 7, SizeOf(0x3FFFFF, csd, 0, 0));
        EXPECT_EQ((0x4002u + 1) << 10, SizeOf(0x400000, csd, 0, 0));
    }
}

TEST_F(ZelSize, NeedsTheNodesSectors)
{
    OpenWithoutCopies();
    for (const int error : {EIO, ENOTTY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(ZEL_BLKGETSIZE, error);
        EXPECT_EQ((Outcome{10,
                           std::string("[zel:Zel_CardGetSize(#)](E)ioctl(BLKGETSIZE) failed : ") +
                               strerror(error) + "\n",
                           error}),
                  GetSize());
        EXPECT_EQ(Trace{std::string("ioctl(/dev/spda, 0x20001260) = -1 ") + strerrorname_np(error)},
                  TraceOf(kernel));
    }
    FailRequest(ZEL_BLKGETSIZE, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_GetCardSize(&handle); }));
}

TEST_F(ZelSize, TakesAPositiveAnswerForSuccess)
{
    Open();
    const Outcome usual = GetSize();
    Answer(ZEL_BLKGETSIZE, 1);
    EXPECT_EQ(usual, GetSize());
    EXPECT_NE(10, usual.result);
}

TEST_F(ZelSize, NeedsTheSdStatus)
{
    OpenWithoutCopies();
    FailRequest(ZEL_GET_CARD_PARAMS, EIO);
    EXPECT_EQ((Outcome{10, kSecureLine, EIO}), GetSize());
    // The registers are fetched all the same, and a copy of them stays.
    EXPECT_EQ((Trace{kGetSize, "ioctl(/dev/spda, 0x20007005) = -1 EIO", kGetParams, kGetParams,
                     "malloc(32)"}),
              TraceOf(kernel));
    kernel.ClearCalls();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[zel:Zel_CardSecureGetInfo(#)](E)Malloc secure buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSize());
    EXPECT_EQ((Trace{kGetSize, kGetParams, "malloc(64) = -1 ENOMEM"}), TraceOf(kernel));
}

TEST_F(ZelSize, NeedsTheRegistersCopy)
{
    OpenWithoutCopies();
    Fail(CallKind::Malloc, ENOMEM, 2);
    EXPECT_EQ((Outcome{10,
                       "[zel:Zel_CardGetInfo(#)](E)Malloc register buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSize());
    EXPECT_EQ((Trace{kGetSize, kGetParams, "malloc(64)", kGetParams, kGetParams,
                     "malloc(32) = -1 ENOMEM"}),
              TraceOf(kernel));
}

// Registers that could not be read count all the same, and give some size.
TEST_F(ZelSize, GoesOnWithRegistersThatCouldNotBeRead)
{
    OpenWithoutCopies();
    model().sectors = 0x400000;
    memset(model().cid, 0, sizeof model().cid);
    FailRequest(ZEL_GET_CARD_PARAMS, EIO, 3);
    const uint32_t protected_sectors = 0x44454647 >> 9;
    EXPECT_EQ((Outcome{1024 + protected_sectors, kInfoLine, EIO}), GetSize());
}

// --- what comes before ---------------------------------------------------------------------

// The four queries, with the record that each one fills.
struct Query {
    const char* name;
    const char* no_memory;  // null for the one that has no copy of its own
    int64_t gone;
    std::function<int64_t(DrvInfo*)> run;
    std::function<int64_t(DrvInfo*)> without_record;  // empty for the one that has none
};

class ZelQueries : public ZelQuery {
protected:
    std::vector<Query> Queries()
    {
        return {
            {"Zel_CardGetInfo", "Malloc register buffer failed : ", 65531,
             [this](DrvInfo* h) { return zel_ops.CardGetInfo(h, &info); },
             [](DrvInfo* h) { return zel_ops.CardGetInfo(h, nullptr); }},
            {"Zel_CardSecureGetInfo", "Malloc secure buffer failed : ", 65531,
             [this](DrvInfo* h) { return zel_ops.CardSecureGetInfo(h, sd_status); },
             [](DrvInfo* h) { return zel_ops.CardSecureGetInfo(h, nullptr); }},
            {"Zel_CardGetSpeedInfo", "Malloc speed info buffer failed : ", 65531,
             [this](DrvInfo* h) { return zel_ops.CardGetSpeedInfo(h, &speed); },
             [](DrvInfo* h) { return zel_ops.CardGetSpeedInfo(h, nullptr); }},
            {"Zel_CardGetSize",
             nullptr,
             0xFFFFFFFB,
             [](DrvInfo* h) { return zel_ops.CardGetSize(h); },
             {}},
        };
    }

    // Nothing was written since the test began.
    void ExpectMarked()
    {
        EXPECT_EQ(Bytes(32, 0xE1), BytesOf(info));
        EXPECT_EQ(Bytes(32, 0xE1), BytesOf(speed));
        EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
    }

    static std::string Line(const Query& query, const std::string& text)
    {
        return std::string("[zel:") + query.name + "(#)](E)" + text + "\n";
    }
};

TEST_F(ZelQueries, RefuseANullRecordWithoutAWord)
{
    for (const Query& query : Queries()) {
        if (query.without_record) {
            SCOPED_TRACE(query.name);
            EXPECT_EQ((Outcome{10}), OutcomeOf([&] { return query.without_record(&handle); }));
            EXPECT_EQ((Outcome{10}), OutcomeOf([&] { return query.without_record(nullptr); }));
        }
    }
    Open();
    WatchForEject();
    slots->Eject(0);
    for (const Query& query : Queries()) {
        if (query.without_record) {
            SCOPED_TRACE(query.name);
            EXPECT_EQ((Outcome{10}), OutcomeOf([&] { return query.without_record(&handle); }));
        }
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelQueries, NeedAnOpenDevice)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    const int fd = dev->blk_fd;
    dev->blk_fd = 0;
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        EXPECT_EQ((Outcome{10, Line(query, "Invalid blk_fd!")}),
                  OutcomeOf([&] { return query.run(&handle); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    ExpectMarked();
    dev->blk_fd = fd;
}

// A copy does not help once the card has gone.
TEST_F(ZelQueries, RefuseACardThatHasGone)
{
    Open();
    for (const Query& query : Queries()) {
        EXPECT_NE(query.gone, query.run(&handle));
    }
    Mark(info);
    Mark(speed);
    Mark(sd_status);
    WatchForEject();
    slots->Eject(0);
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        kernel.ClearCalls();
        ejects = 0;
        EXPECT_EQ((Outcome{query.gone}), OutcomeOf([&] { return query.run(&handle); }));
        EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
        EXPECT_EQ(1, ejects);
    }
    EXPECT_FALSE(eject_saw_lock);
    EXPECT_EQ(1, dev->ejected);
    ExpectMarked();
}

TEST_F(ZelQueries, RefuseACardThatWasFoundGoneBefore)
{
    Open();
    dev->ejected = 1;
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        EXPECT_EQ((Outcome{query.gone}), OutcomeOf([&] { return query.run(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    ExpectMarked();
}

TEST_F(ZelQueries, LookForTheCardFirstWhenThereIsACallback)
{
    OpenWithoutCopies();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetStatus, kGetParams, "malloc(64)", kGetStatus, kGetParams, kGetParams,
                     "malloc(32)", kGetStatus, kGetParams, "malloc(32)"}),
              TraceOf(kernel));
    // The size looks for itself, and so do the two that it asks.
    kernel.ClearCalls();
    EXPECT_EQ("", GetSize().printed);
    EXPECT_EQ((Trace{kGetStatus, kGetSize, kGetStatus, kGetStatus}), TraceOf(kernel));
    EXPECT_EQ(0, ejects);
}

// What cannot be found out is no eject.
TEST_F(ZelQueries, GoOnWhereTheCardCannotBeLookedFor)
{
    Open();
    WatchForEject();
    FailRequest(ZEL_GET_CARD_STATUS, ENODEV);
    EXPECT_EQ((Outcome{0,
                       "[zel:__Zel_CheckEject(#)](E)ioctl(ZEL_GET_CARD_STATUS) is failed(retry=0) "
                       ": No such device\n",
                       ENODEV}),
              GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

TEST_F(ZelSize, GivesTenWhereTheCardGoesMeanwhile)
{
    Open();
    WatchForEject();
    During(ZEL_BLKGETSIZE, [&](const Call&) { slots->Eject(0); });
    EXPECT_EQ((Outcome{10}), GetSize());
    EXPECT_EQ((Trace{kGetStatus, kGetSize, kGetStatus, kGetStatus}), TraceOf(kernel));
    EXPECT_EQ(2, ejects);  // once for each record that is fetched
}

class ZelQueriesOnUnit : public OnUnit<ZelQueries> {};

INSTANTIATE_TEST_SUITE_P(Units, ZelQueriesOnUnit, kUnits);

TEST_P(ZelQueriesOnUnit, HoldTheLockForTheStatusAlone)
{
    OpenWithoutCopies();
    WatchForEject();
    std::vector<std::pair<uint32_t, bool>> seen;
    for (const uint32_t request : {ZEL_GET_CARD_STATUS, ZEL_GET_CARD_PARAMS, ZEL_BLKGETSIZE}) {
        During(request, [&](const Call& call) { seen.emplace_back(call.request, IsLocked()); });
    }
    for (const Query& query : Queries()) {
        query.run(&handle);
    }
    EXPECT_EQ(6u + 4u + 1u, seen.size());
    for (const auto& [request, locked] : seen) {
        EXPECT_EQ(request == ZEL_GET_CARD_STATUS, locked) << std::hex << request;
    }
    EXPECT_FALSE(IsLocked());
    for (const MutexCall& call : MutexCalls()) {
        EXPECT_EQ(MutexCallKind::Lock, call.kind);
        EXPECT_EQ(&dev->lock, call.mutex);
    }
}

TEST_F(ZelQueries, TakeNoLockWithoutACallback)
{
    OpenWithoutCopies();
    for (const Query& query : Queries()) {
        query.run(&handle);
    }
    EXPECT_TRUE(MutexCalls().empty());
}

TEST_F(ZelQueries, KeepTheErrnoWhereTheirLinesDoNotGetOut)
{
    OpenWithoutCopies();
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        if (query.no_memory != nullptr) {
            FailRequest(ZEL_GET_CARD_PARAMS, EIO);
            Fail(CallKind::Malloc, ENOMEM);
            const int left = ErrnoAfter(EXFULL, [&] { query.run(&handle); });
            EXPECT_EQ(query.name == std::string("Zel_CardSecureGetInfo") ? EIO : ENOMEM, left);
            kernel.ClearFaults();
            Fail(CallKind::Malloc, ENOMEM);
            EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
            kernel.ClearFaults();
        }
    }
}

TEST_F(ZelQueries, TellTheErrnoOfAMissingCopy)
{
    OpenWithoutCopies();
    for (const Query& query : Queries()) {
        if (query.no_memory != nullptr) {
            SCOPED_TRACE(query.name);
            Fail(CallKind::Malloc, EAGAIN);
            EXPECT_EQ((Outcome{10,
                               Line(query, query.no_memory +
                                               std::string("Resource temporarily unavailable")),
                               EAGAIN}),
                      OutcomeOf([&] { return query.run(&handle); }));
            kernel.ClearFaults();
        }
    }
}

}  // namespace
