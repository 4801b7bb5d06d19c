// SPDX-License-Identifier: MIT
//
// The Mivo back-end's registers, SD status, speed record and size: what the driver
// is asked, where its answer goes, and the copies.
#include <climits>

#include "tests/mivosdif/fixture.h"
#include "tests/support/sizings.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kGetStatus[] = "ioctl(/dev/mivosdif0, 0x4006d300) = 0";
constexpr char kGetParams[] = "ioctl(/dev/mivosdif0, 0x4030d30f) = 0";
constexpr char kGetCid[] = "ioctl(/dev/mivosdif0, 0x4001d314) = 0";
constexpr char kGetCsd[] = "ioctl(/dev/mivosdif0, 0x4001d315) = 0";
constexpr char kGetScr[] = "ioctl(/dev/mivosdif0, 0x4001d316) = 0";
constexpr char kGetSdStatus[] = "ioctl(/dev/mivosdif0, 0x4001d317) = 0";

template <typename Record>
void Mark(Record& record)
{
    memset(&record, 0xE1, sizeof record);
}

// The same call, failed.
std::string Failed(const std::string& call, int error)
{
    return call.substr(0, call.rfind('0')) + "-1 " + strerrorname_np(error);
}

// The driver's 48 bytes, in the processor's own order; what is not of use is filled
// with `others`.
class Params {
public:
    explicit Params(uint8_t others = 0xFF)
    {
        memset(bytes_, others, sizeof bytes_);
        AllocationUnits(0, 0, 0).Word(32, 0).Half(38, 0).Half(40, 0).Word(44, 0);
    }

    Params& Word(size_t at, uint32_t value)
    {
        memcpy(bytes_ + at, &value, sizeof value);
        return *this;
    }
    Params& Half(size_t at, uint16_t value)
    {
        memcpy(bytes_ + at, &value, sizeof value);
        return *this;
    }
    Params& AllocationUnits(uint32_t first, uint32_t second, uint32_t third)
    {
        return Word(28, first).Word(24, second).Word(20, third);
    }

    void CopyTo(uintptr_t address) const
    {
        memcpy(reinterpret_cast<void*>(address), bytes_, sizeof bytes_);
    }

private:
    uint8_t bytes_[48];
};

// Registers in which every byte is another one.
class MivoQuery : public Mivo {
protected:
    MivoQuery()
    {
        for (size_t i = 0; i < 64; i++) {
            model().sd_status[i] = static_cast<uint8_t>(0x40 + i);
        }
        for (size_t i = 0; i < 16; i++) {
            model().cid[i] = static_cast<uint8_t>(0xA0 + i);
            model().csd[i] = static_cast<uint8_t>(0xC0 + i);
        }
        for (size_t i = 0; i < 8; i++) {
            model().scr[i] = static_cast<uint8_t>(0x90 + i);
        }
        // An allocation unit of 4 MiB for video.
        model().sd_status[16] = 0;
        model().sd_status[17] = 4;
        Mark(info);
        Mark(speed);
        Mark(sd_status);
    }

    // The record that the registers make.
    Bytes Registers()
    {
        Bytes bytes(model().cid, model().cid + 16);
        bytes.insert(bytes.end(), model().csd, model().csd + 16);
        return bytes;
    }

    Bytes SdStatus() { return BytesOf(model().sd_status); }

    Bytes Speed() { return SpeedRecord({0x4F, 0x93, 0x48, 0x4E, 9}); }

    static Bytes SpeedRecord(Bytes bytes)
    {
        bytes.resize(32, 0);
        return bytes;
    }

    // The card is exchanged for another.
    void ChangeRegisters()
    {
        memset(model().cid, 0x11, sizeof model().cid);
        memset(model().csd, 0x22, sizeof model().csd);
        memset(model().scr, 0x33, sizeof model().scr);
        memset(model().sd_status, 0x44, sizeof model().sd_status);
    }

    // From here on the driver tells these parameters.
    void AnswerWith(const Params& told)
    {
        During(MIVOSDIF_IOC_GET_CARD_PARAMS,
               [told](const Call& call) { told.CopyTo(call.argument); });
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
        return OutcomeOf([&] { return CARD_GetCardSize(&handle); });
    }

    CardInfo info;
    CardSpeedInfo speed;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
};

const char* const kCidLine = "[mivosdif:Mivo_CardGetInfo(#)](E)Cannot get cid!\n";
const char* const kCsdLine = "[mivosdif:Mivo_CardGetInfo(#)](E)Cannot get csd!\n";
const char* const kSecureLine = "[mivosdif:Mivo_CardSecureGetInfo(#)](E)Cannot sd status!\n";
const char* const kScrLine = "[mivosdif:Mivo_CardGetSpeedInfo(#)](E)Cannot sd scr!\n";

std::string ParamsLine(const std::string& function, int error)
{
    return "[mivosdif:" + function +
           "(#)](E)MIVOSDIF_IOC_GET_CARD_PARAMS failed : " + strerror(error) + "\n";
}

// --- CARD_Getinfo ---------------------------------------------------------------------

class MivoInfo : public MivoQuery {};

TEST_F(MivoInfo, AsksForTheCidThenForTheCsd)
{
    Open();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Trace{kGetCid, kGetCsd, "malloc(32)"}), TraceOf(kernel));
    // Each goes straight to its place in the record.
    EXPECT_EQ(AddressOf(&info), kernel.Calls().at(0).argument);
    EXPECT_EQ(AddressOf(&info) + 16, kernel.Calls().at(1).argument);
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(1).fd);
    EXPECT_EQ(Registers(), BytesOf(info));
    ASSERT_NE(nullptr, dev->reg_buf);
    EXPECT_EQ(Registers(), BytesOf(*dev->reg_buf));
    EXPECT_EQ(nullptr, dev->secure_buf);
    EXPECT_EQ(nullptr, dev->speed_buf);
}

TEST_F(MivoInfo, PlacesBothRegistersWhole)
{
    Open();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Bytes{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA,
                     0xAB, 0xAC, 0xAD, 0xAE, 0xAF, 0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5,
                     0xC6, 0xC7, 0xC8, 0xC9, 0xCA, 0xCB, 0xCC, 0xCD, 0xCE, 0xCF}),
              BytesOf(info));
}

TEST_F(MivoInfo, ClearsTheRecordBeforeItAsks)
{
    Open();
    Fault first;
    first.request = MIVOSDIF_IOC_GET_CID;
    first.result = 0;  // the driver writes nothing
    Bytes seen;
    first.then = [&] { seen = BytesOf(info); };
    kernel.Inject(first);
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(Bytes(32, 0), seen);
}

TEST_F(MivoInfo, AnswersFromItsCopyFromThenOn)
{
    Open();
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

TEST_F(MivoInfo, AsksAgainAfterReopening)
{
    Open();
    EXPECT_EQ((Outcome{0}), GetInfo());
    ASSERT_EQ(0, mivo_ops.Exit(&handle));
    ChangeRegisters();
    Open();
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

// Reported as success, remembered as zeros, and shown in the lines alone.
TEST_F(MivoInfo, RemembersRegistersThatCannotBeReadAsZeros)
{
    for (const bool no_cid : {true, false}) {
        for (const bool no_csd : {true, false}) {
            SCOPED_TRACE(testing::Message() << no_cid << no_csd);
            Open();
            std::string lines;
            Trace trace = {kGetCid, kGetCsd, "malloc(32)"};
            Bytes expected = Registers();
            if (no_cid) {
                FailRequest(MIVOSDIF_IOC_GET_CID, EIO);
                lines += kCidLine;
                trace[0] = Failed(kGetCid, EIO);
                std::fill_n(expected.begin(), 16, uint8_t{0});
            }
            if (no_csd) {
                FailRequest(MIVOSDIF_IOC_GET_CSD, EIO);
                lines += kCsdLine;
                trace[1] = Failed(kGetCsd, EIO);
                std::fill_n(expected.begin() + 16, 16, uint8_t{0});
            }
            Mark(info);
            EXPECT_EQ((Outcome{0, lines, no_cid || no_csd ? EIO : EXFULL}), GetInfo());
            EXPECT_EQ(trace, TraceOf(kernel));
            EXPECT_EQ(expected, BytesOf(info));
            ASSERT_NE(nullptr, dev->reg_buf);
            EXPECT_EQ(expected, BytesOf(*dev->reg_buf));
            // The driver would know by now, and is not asked.
            kernel.ClearFaults();
            kernel.ClearCalls();
            for (int round = 0; round < 2; round++) {
                Mark(info);
                EXPECT_EQ((Outcome{0}), GetInfo());
                EXPECT_EQ(expected, BytesOf(info));
            }
            EXPECT_TRUE(kernel.Calls().empty());
            mivo_ops.Exit(&handle);
        }
    }
}

TEST_F(MivoInfo, TakesAPositiveAnswerForAFailure)
{
    Open();
    Answer(MIVOSDIF_IOC_GET_CID, 1);
    Answer(MIVOSDIF_IOC_GET_CSD, 16);
    EXPECT_EQ((Outcome{0, std::string(kCidLine) + kCsdLine}), GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

TEST_F(MivoInfo, FillsTheRecordEvenWithoutMemoryForACopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[mivosdif:Mivo_CardGetInfo(#)](E)Malloc register buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetInfo());
    EXPECT_EQ((Trace{kGetCid, kGetCsd, "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ(nullptr, dev->reg_buf);

    kernel.ClearCalls();
    Mark(info);
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Trace{kGetCid, kGetCsd, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
}

// --- CARD_SecureGetinfo -----------------------------------------------------------------

class MivoSecure : public MivoQuery {};

TEST_F(MivoSecure, AsksForTheSdStatus)
{
    Open();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetSdStatus, "malloc(64)"}), TraceOf(kernel));
    EXPECT_EQ(AddressOf(sd_status), kernel.Calls().at(0).argument);
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    ASSERT_NE(nullptr, dev->secure_buf);
    EXPECT_EQ(SdStatus(), BytesAt(AddressOf(dev->secure_buf), 64));
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(nullptr, dev->speed_buf);
}

TEST_F(MivoSecure, AnswersFromItsCopyFromThenOn)
{
    Open();
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

TEST_F(MivoSecure, StopsWhereTheStatusCannotBeRead)
{
    Open();
    for (const int error : {EIO, ENODEV, EBUSY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(MIVOSDIF_IOC_GET_SD_STATUS, error);
        EXPECT_EQ((Outcome{10, kSecureLine, error}), GetSdStatus());
        EXPECT_EQ(Trace{Failed(kGetSdStatus, error)}, TraceOf(kernel));
        // The buffer is the driver's alone to write.
        EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
        EXPECT_EQ(nullptr, dev->secure_buf);
    }
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetSdStatus, "malloc(64)"}), TraceOf(kernel));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
}

TEST_F(MivoSecure, TakesAPositiveAnswerForAFailure)
{
    Open();
    Answer(MIVOSDIF_IOC_GET_SD_STATUS, 1);
    EXPECT_EQ((Outcome{10, kSecureLine}), GetSdStatus());
    EXPECT_EQ(nullptr, dev->secure_buf);
    EXPECT_EQ(Trace{"ioctl(/dev/mivosdif0, 0x4001d317) = 1"}, TraceOf(kernel));
}

TEST_F(MivoSecure, FillsTheRecordEvenWithoutMemoryForACopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[mivosdif:Mivo_CardSecureGetInfo(#)](E)Malloc secure buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSdStatus());
    EXPECT_EQ((Trace{kGetSdStatus, "malloc(64) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(SdStatus(), BytesOf(sd_status));
    EXPECT_EQ(nullptr, dev->secure_buf);

    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Trace{kGetSdStatus, "malloc(64)"}), TraceOf(kernel));
}

// --- CARD_GetSpeedInfo ------------------------------------------------------------------

class MivoSpeed : public MivoQuery {
protected:
    // The record that these parameters make, on a device of its own.
    Bytes SpeedOf(const Params& params)
    {
        kernel.ClearFaults();
        AnswerWith(params);
        Open();
        Mark(speed);
        EXPECT_EQ((Outcome{0}), GetSpeed());
        mivo_ops.Exit(&handle);
        return BytesOf(speed);
    }

    uint8_t CodeOf(const Params& params) { return SpeedOf(params)[4]; }
};

TEST_F(MivoSpeed, AsksForTheParametersThenForTheScr)
{
    Open();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, kGetScr, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(1).fd);
    EXPECT_EQ(Speed(), BytesOf(speed));
    ASSERT_NE(nullptr, dev->speed_buf);
    EXPECT_EQ(Speed(), BytesOf(*dev->speed_buf));
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(nullptr, dev->secure_buf);
}

TEST_F(MivoSpeed, TakesTheLowBytesOfTheirFields)
{
    for (const uint8_t others : {uint8_t{0}, uint8_t{0xFF}}) {
        SCOPED_TRACE(int{others});
        Params params(others);
        params.Word(44, 0x12345678).Half(38, 0x9ABC).Half(40, 0xDEF0);
        EXPECT_EQ(SpeedRecord({0x78, 0x93, 0xBC, 0xF0, 0}), SpeedOf(params));
    }
    EXPECT_EQ(SpeedRecord({0, 0x93, 0, 0, 0}),
              SpeedOf(Params().Word(44, 0xFFFFFF00).Half(38, 0xFF00).Half(40, 0xFF00)));
}

TEST_F(MivoSpeed, TakesByte3OfTheScr)
{
    for (size_t i = 0; i < 8; i++) {
        model().scr[i] = i == 3 ? 0x07 : 0xFF;
    }
    EXPECT_EQ(SpeedRecord({0, 0x07, 0, 0, 0}), SpeedOf(Params()));
}

TEST_F(MivoSpeed, HasACodeForEachAllocationUnit)
{
    const std::pair<uint32_t, uint8_t> units_and_codes[] = {
        {32, 1},      {64, 2},      {128, 3},     {256, 4},    {512, 5},    {1024, 6},
        {2048, 7},    {4096, 8},    {8192, 9},    {16384, 10}, {24576, 11}, {32768, 12},
        {49152, 13},  {65536, 14},  {131072, 15}, {0, 0},      {1, 0},      {16, 0},
        {31, 0},      {33, 0},      {3000, 0},    {24575, 0},  {24577, 0},  {98304, 0},
        {131071, 0},  {131073, 0},  {262144, 0},  {15, 0},     {11, 0},     {0x20000000, 0},
        {0x10020, 0}, {UINT_MAX, 0}};
    for (const auto& [sectors, code] : units_and_codes) {
        SCOPED_TRACE(sectors);
        EXPECT_EQ(code, CodeOf(Params().AllocationUnits(sectors, 64, 128).Word(44, 1)));
        EXPECT_EQ(code, CodeOf(Params().AllocationUnits(64, sectors, 128).Half(40, 4)));
        EXPECT_EQ(code, CodeOf(Params().AllocationUnits(64, 128, sectors)));
    }
}

// Codes 2, 3 and 4 tell the first, the second and the third choice.
TEST_F(MivoSpeed, ChoosesTheAllocationUnit)
{
    const auto code = [&](uint32_t video_class, uint16_t grades) {
        return CodeOf(Params()
                          .AllocationUnits(64, 128, 256)
                          .Word(44, video_class)
                          .Half(38, 0xFFFF)
                          .Half(40, grades));
    };
    for (const uint32_t video_class : {1u, 6u, 0x100u, 0x01000000u, 0x80000000u, UINT_MAX}) {
        for (const int grades : {0, 0x04, 0xFFFF}) {
            EXPECT_EQ(2, code(video_class, static_cast<uint16_t>(grades))) << video_class;
        }
    }
    for (const int grades : {0x04, 0x08, 0x10, 0x20, 0x3C, 0xFF, 0xFF04}) {
        EXPECT_EQ(3, code(0, static_cast<uint16_t>(grades))) << grades;
    }
    for (const int grades : {0, 1, 2, 3, 0x40, 0x80, 0xC3, 0x0400, 0x3C00, 0xFF00, 0xFFC3}) {
        EXPECT_EQ(4, code(0, static_cast<uint16_t>(grades))) << grades;
    }
}

TEST_F(MivoSpeed, ClearsTheRecordBeforeItAsks)
{
    Open();
    Bytes seen;
    During(MIVOSDIF_IOC_GET_CARD_PARAMS, [&](const Call&) { seen = BytesOf(speed); });
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ(Bytes(32, 0), seen);
}

TEST_F(MivoSpeed, AnswersFromItsCopyFromThenOn)
{
    Open();
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

TEST_F(MivoSpeed, NeedsTheParameters)
{
    Open();
    for (const int error : {EIO, ENODEV, EBUSY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        Mark(speed);
        FailRequest(MIVOSDIF_IOC_GET_CARD_PARAMS, error);
        EXPECT_EQ((Outcome{10, ParamsLine("Mivo_CardGetSpeedInfo", error), error}), GetSpeed());
        EXPECT_EQ(Trace{Failed(kGetParams, error)}, TraceOf(kernel));
        EXPECT_EQ(Bytes(32, 0), BytesOf(speed));
        EXPECT_EQ(nullptr, dev->speed_buf);
    }
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, kGetScr, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Speed(), BytesOf(speed));
}

// Byte 0 has been written by then, and nothing is remembered.
TEST_F(MivoSpeed, NeedsTheScr)
{
    Open();
    for (const int error : {EIO, ENODEV, EBUSY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        Mark(speed);
        FailRequest(MIVOSDIF_IOC_GET_SCR, error);
        EXPECT_EQ((Outcome{10, kScrLine, error}), GetSpeed());
        EXPECT_EQ((Trace{kGetParams, Failed(kGetScr, error)}), TraceOf(kernel));
        EXPECT_EQ(SpeedRecord({0x4F}), BytesOf(speed));
        EXPECT_EQ(nullptr, dev->speed_buf);
    }
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, kGetScr, "malloc(32)"}), TraceOf(kernel));
    EXPECT_EQ(Speed(), BytesOf(speed));
}

// ... from the parameters and for success, from the SCR and for a failure.
TEST_F(MivoSpeed, TakesAPositiveAnswer)
{
    Open();
    Answer(MIVOSDIF_IOC_GET_SCR, 1);
    EXPECT_EQ((Outcome{10, kScrLine}), GetSpeed());
    EXPECT_EQ(SpeedRecord({0x4F}), BytesOf(speed));
    EXPECT_EQ(nullptr, dev->speed_buf);
    kernel.ClearFaults();
    Answer(MIVOSDIF_IOC_GET_CARD_PARAMS, 48);
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ(Speed(), BytesOf(speed));
}

TEST_F(MivoSpeed, FillsTheRecordEvenWithoutMemoryForACopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[mivosdif:Mivo_CardGetSpeedInfo(#)](E)Malloc speed info buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSpeed());
    EXPECT_EQ((Trace{kGetParams, kGetScr, "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_EQ(Speed(), BytesOf(speed));
    EXPECT_EQ(nullptr, dev->speed_buf);

    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetParams, kGetScr, "malloc(32)"}), TraceOf(kernel));
}

// --- CARD_GetCardSize --------------------------------------------------------------------

class MivoSize : public MivoQuery {};

TEST_F(MivoSize, AsksForTheParametersThenForTheRegisters)
{
    Open();
    const Outcome outcome = GetSize();
    EXPECT_EQ("", outcome.printed);
    EXPECT_EQ(EXFULL, outcome.error);
    EXPECT_EQ((Trace{kGetParams, kGetSdStatus, "malloc(64)", kGetCid, kGetCsd, "malloc(32)"}),
              TraceOf(kernel));
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    ASSERT_NE(nullptr, dev->secure_buf);
    EXPECT_EQ(SdStatus(), BytesAt(AddressOf(dev->secure_buf), 64));
    ASSERT_NE(nullptr, dev->reg_buf);
    EXPECT_EQ(Registers(), BytesOf(*dev->reg_buf));
    EXPECT_EQ(nullptr, dev->speed_buf);
}

// The parameters are asked for every time.
TEST_F(MivoSize, TakesTheRegistersFromTheCopies)
{
    Open();
    const Outcome first = GetSize();
    memset(model().csd, 0, sizeof model().csd);
    memset(model().sd_status, 0, sizeof model().sd_status);
    for (int round = 0; round < 3; round++) {
        kernel.ClearCalls();
        EXPECT_EQ(first, GetSize());
        EXPECT_EQ(Trace{kGetParams}, TraceOf(kernel));
    }
}

class MivoSizing : public MivoSize {
protected:
    uint32_t SizeOf(uint32_t sectors, const Bytes& csd, uint32_t protected_bytes, uint8_t others)
    {
        std::copy(csd.begin(), csd.end(), model().csd);
        memset(model().sd_status, others, sizeof model().sd_status);
        for (int i = 0; i < 4; i++) {
            model().sd_status[4 + i] = static_cast<uint8_t>(protected_bytes >> (24 - 8 * i));
        }
        kernel.ClearFaults();
        AnswerWith(Params(others).Word(32, sectors));
        Open();
        uint32_t size = 0;
        EXPECT_EQ("", Printed([&] { size = CARD_GetCardSize(&handle); }));
        mivo_ops.Exit(&handle);
        return size;
    }
};

TEST_F(MivoSizing, ReadsALargeCardsRegisters)
{
    for (const Sizing& sizing : kLargeSizings) {
        for (const uint8_t others : {uint8_t{0}, uint8_t{0xFF}}) {
            SCOPED_TRACE(testing::Message() << sizing.what << ", others " << int{others});
            EXPECT_EQ(sizing.size, SizeOf(sizing.sectors, HighCapacityCsd(sizing, others),
                                          sizing.protected_bytes, others));
        }
    }
}

TEST_F(MivoSizing, ReadsASmallerCardsRegisters)
{
    for (const Sizing& sizing : kSmallSizings) {
        for (const uint8_t others : {uint8_t{0}, uint8_t{0xFF}}) {
            SCOPED_TRACE(testing::Message() << sizing.what << ", others " << int{others});
            EXPECT_EQ(sizing.size, SizeOf(sizing.sectors, StandardCsd(sizing, others),
                                          sizing.protected_bytes, others));
        }
    }
}

TEST_F(MivoSizing, AddsTheProtectedAreaToALargeCard)
{
    const Sizing large = {"", 0x400000, 15159, 0, 0, 102400, 0};
    EXPECT_EQ(15523840u + 200, SizeOf(0x400000, HighCapacityCsd(large, 0), 102400, 0));
    const Sizing small = {"", 0x3FFFFF, 4095, 7, 9, 0, 0};
    EXPECT_EQ(2097152u, SizeOf(0x3FFFFF, StandardCsd(small, 0), 0, 0));
}

// Which way the registers are read is the capacity's choice, not the CSD's.
TEST_F(MivoSizing, ChoosesByTheDriversCapacityAlone)
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
        EXPECT_EQ((0x401u + 1) << 7, SizeOf(0, csd, 0, 0));
        EXPECT_EQ((0x401u + 1) << 7, SizeOf(0x3FFFFF, csd, 0, 0));
        EXPECT_EQ((0x4002u + 1) << 10, SizeOf(0x400000, csd, 0, 0));
        EXPECT_EQ((0x4002u + 1) << 10, SizeOf(0x80000000, csd, 0, 0));
    }
}

TEST_F(MivoSize, MeasuresOrdinaryCards)
{
    for (const uint32_t sectors : {16384u, 3896320u, 15523840u, 1073741824u}) {
        SCOPED_TRACE(sectors);
        sim_card_describe(&model(), sectors);
        memset(model().sd_status + 4, 0, 4);
        Open();
        EXPECT_EQ((Outcome{sectors}), GetSize());
        mivo_ops.Exit(&handle);
    }
}

TEST_F(MivoSize, NeedsTheParameters)
{
    Open();
    for (const int error : {EIO, ENOTTY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(MIVOSDIF_IOC_GET_CARD_PARAMS, error);
        EXPECT_EQ((Outcome{10, ParamsLine("Mivo_CardGetSize", error), error}), GetSize());
        EXPECT_EQ(Trace{Failed(kGetParams, error)}, TraceOf(kernel));
    }
    FailRequest(MIVOSDIF_IOC_GET_CARD_PARAMS, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_GetCardSize(&handle); }));
}

TEST_F(MivoSize, TakesAPositiveAnswerForSuccess)
{
    Open();
    const Outcome usual = GetSize();
    EXPECT_NE(10, usual.result);
    Answer(MIVOSDIF_IOC_GET_CARD_PARAMS, 1);
    EXPECT_EQ(usual, GetSize());
}

TEST_F(MivoSize, NeedsTheSdStatus)
{
    Open();
    FailRequest(MIVOSDIF_IOC_GET_SD_STATUS, EIO);
    EXPECT_EQ((Outcome{10, kSecureLine, EIO}), GetSize());
    // The registers are fetched all the same, and a copy of them stays.
    EXPECT_EQ((Trace{kGetParams, Failed(kGetSdStatus, EIO), kGetCid, kGetCsd, "malloc(32)"}),
              TraceOf(kernel));
    kernel.ClearCalls();
    Fail(CallKind::Malloc, ENOMEM);
    EXPECT_EQ((Outcome{10,
                       "[mivosdif:Mivo_CardSecureGetInfo(#)](E)Malloc secure buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSize());
    EXPECT_EQ((Trace{kGetParams, kGetSdStatus, "malloc(64) = -1 ENOMEM"}), TraceOf(kernel));
}

TEST_F(MivoSize, NeedsTheRegistersCopy)
{
    Open();
    Fail(CallKind::Malloc, ENOMEM, 2);
    EXPECT_EQ((Outcome{10,
                       "[mivosdif:Mivo_CardGetInfo(#)](E)Malloc register buffer failed : "
                       "Cannot allocate memory\n",
                       ENOMEM}),
              GetSize());
    EXPECT_EQ(
        (Trace{kGetParams, kGetSdStatus, "malloc(64)", kGetCid, kGetCsd, "malloc(32) = -1 ENOMEM"}),
        TraceOf(kernel));
}

// A CSD that could not be read is zeros, and gives some size.
TEST_F(MivoSize, GoesOnWithRegistersThatCouldNotBeRead)
{
    Open();
    model().sectors = 0x400000;
    FailRequest(MIVOSDIF_IOC_GET_CSD, EIO);
    const uint32_t protected_sectors = 0x44454647 >> 9;
    EXPECT_EQ((Outcome{1024 + protected_sectors, kCsdLine, EIO}), GetSize());
    EXPECT_EQ((Outcome{1024 + protected_sectors}), GetSize());
}

TEST_F(MivoSize, GivesTenWhereTheCardGoesMeanwhile)
{
    Open();
    WatchForEject();
    During(MIVOSDIF_IOC_GET_CARD_PARAMS, [&](const Call&) { units->Eject(0); });
    EXPECT_EQ((Outcome{10}), GetSize());
    EXPECT_EQ((Trace{kGetStatus, kGetParams, kGetStatus, kGetStatus}), TraceOf(kernel));
    EXPECT_EQ(2, ejects);  // once for each record that is fetched
}

// --- what comes before ---------------------------------------------------------------------

// The four queries, with the record that each one fills.
struct Query {
    const char* name;
    const char* no_memory;  // null for the one that has no copy of its own
    int64_t gone;
    std::function<int64_t(DrvInfo*)> run;
    std::function<int64_t(DrvInfo*)> without_record;  // empty for the one that has none
    bool record_first;                                // a null record comes before the eject check
};

class MivoQueries : public MivoQuery {
protected:
    std::vector<Query> Queries()
    {
        return {
            {"Mivo_CardGetInfo", "Malloc register buffer failed : ", 65531,
             [this](DrvInfo* h) { return mivo_ops.CardGetInfo(h, &info); },
             [](DrvInfo* h) { return mivo_ops.CardGetInfo(h, nullptr); }, false},
            {"Mivo_CardSecureGetInfo", "Malloc secure buffer failed : ", 65531,
             [this](DrvInfo* h) { return mivo_ops.CardSecureGetInfo(h, sd_status); },
             [](DrvInfo* h) { return mivo_ops.CardSecureGetInfo(h, nullptr); }, true},
            {"Mivo_CardGetSpeedInfo", "Malloc speed info buffer failed : ", 65531,
             [this](DrvInfo* h) { return mivo_ops.CardGetSpeedInfo(h, &speed); },
             [](DrvInfo* h) { return mivo_ops.CardGetSpeedInfo(h, nullptr); }, false},
            {"Mivo_CardGetSize",
             nullptr,
             0xFFFFFFFB,
             [](DrvInfo* h) { return mivo_ops.CardGetSize(h); },
             {},
             false},
        };
    }

    // Nothing was written since the test began.
    void ExpectMarked()
    {
        EXPECT_EQ(Bytes(32, 0xE1), BytesOf(info));
        EXPECT_EQ(Bytes(32, 0xE1), BytesOf(speed));
        EXPECT_EQ(Bytes(64, 0xE1), BytesOf(sd_status));
    }

    static std::string Line(const std::string& function, const std::string& text)
    {
        return "[mivosdif:" + function + "(#)](E)" + text + "\n";
    }
};

// The eject check comes first and speaks for itself; the SD status does not even
// look for the card.
TEST_F(MivoQueries, RefuseANullRecordWithoutAWordOfTheirOwn)
{
    const std::string no_device = Line("Mivo_CheckEject", "Cannot get driver info!");
    const std::string no_fd = Line("__Mivo_CheckEject", "Invalid chr_fd!");
    for (const Query& query : Queries()) {
        if (!query.without_record) {
            continue;
        }
        SCOPED_TRACE(query.name);
        const auto refused = [&](DrvInfo* h, int64_t result, const std::string& lines) {
            EXPECT_EQ((Outcome{result, query.record_first ? "" : lines}),
                      OutcomeOf([&] { return query.without_record(h); }));
        };
        handle.priv = nullptr;
        refused(nullptr, 10, no_device);
        refused(&handle, 10, no_device);
        handle.priv = dev;
        refused(&handle, 10, "");
        dev->eject_cb = &OnEject;
        refused(&handle, 10, no_fd);
        EXPECT_TRUE(kernel.Calls().empty());

        Open();
        refused(&handle, 10, "");
        EXPECT_TRUE(kernel.Calls().empty());
        WatchForEject();
        refused(&handle, 10, "");
        EXPECT_EQ(query.record_first ? Trace{} : Trace{kGetStatus}, TraceOf(kernel));
        units->Eject(0);
        kernel.ClearCalls();
        ejects = 0;
        refused(&handle, query.record_first ? 10 : 65531, "");
        EXPECT_EQ(query.record_first ? Trace{} : Trace{kGetStatus}, TraceOf(kernel));
        EXPECT_EQ(query.record_first ? 0 : 1, ejects);
        mivo_ops.Exit(&handle);
        units->Insert(0, card);
        kernel.ClearCalls();
    }
}

TEST_F(MivoQueries, NeedAnOpenDevice)
{
    handle.priv = dev;
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        dev->eject_cb = nullptr;
        EXPECT_EQ((Outcome{10, Line(query.name, "Invalid chr_fd!")}),
                  OutcomeOf([&] { return query.run(&handle); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
        // The check needs one, too.
        dev->eject_cb = &OnEject;
        EXPECT_EQ((Outcome{10, Line("__Mivo_CheckEject", "Invalid chr_fd!") +
                                   Line(query.name, "Invalid chr_fd!")}),
                  OutcomeOf([&] { return query.run(&handle); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
    ExpectMarked();
}

// `ejected` comes before the descriptor.
TEST_F(MivoQueries, RefuseACardThatHadGoneOnAClosedDevice)
{
    handle.priv = dev;
    dev->ejected = 1;
    for (const Query& query : Queries()) {
        EXPECT_EQ((Outcome{query.gone}), OutcomeOf([&] { return query.run(&handle); }))
            << query.name;
    }
    ExpectMarked();
}

// A copy does not help once the card has gone.
TEST_F(MivoQueries, RefuseACardThatHasGone)
{
    Open();
    for (const Query& query : Queries()) {
        EXPECT_NE(query.gone, query.run(&handle));
    }
    Mark(info);
    Mark(speed);
    Mark(sd_status);
    WatchForEject();
    units->Eject(0);
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

TEST_F(MivoQueries, RefuseACardThatWasFoundGoneBefore)
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

TEST_F(MivoQueries, LookForTheCardFirstWhenThereIsACallback)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), GetSdStatus());
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ((Outcome{0}), GetSpeed());
    EXPECT_EQ((Trace{kGetStatus, kGetSdStatus, "malloc(64)", kGetStatus, kGetCid, kGetCsd,
                     "malloc(32)", kGetStatus, kGetParams, kGetScr, "malloc(32)"}),
              TraceOf(kernel));
    // The size looks for itself, and so do the two that it asks.
    kernel.ClearCalls();
    EXPECT_EQ("", GetSize().printed);
    EXPECT_EQ((Trace{kGetStatus, kGetParams, kGetStatus, kGetStatus}), TraceOf(kernel));
    EXPECT_EQ(0, ejects);
}

// What cannot be found out is no eject.
TEST_F(MivoQueries, GoOnWhereTheCardCannotBeLookedFor)
{
    Open();
    WatchForEject();
    FailRequest(MIVOSDIF_IOC_GET_CARD_STATUS, EBUSY);
    EXPECT_EQ((Outcome{0,
                       "[mivosdif:__Mivo_CheckEject(#)](E)ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is "
                       "failed : Device or resource busy\n",
                       EBUSY}),
              GetInfo());
    EXPECT_EQ(Registers(), BytesOf(info));
}

// With the callback away, the driver is asked although there is no card.
TEST_F(MivoQueries, AskTheDriverOfAnEmptyUnitWithoutACallback)
{
    Open();
    units->Eject(0);
    EXPECT_EQ((Outcome{10, kSecureLine, ENODEV}), GetSdStatus());
    EXPECT_EQ((Outcome{0, std::string(kCidLine) + kCsdLine, ENODEV}), GetInfo());
    EXPECT_EQ((Outcome{10, ParamsLine("Mivo_CardGetSpeedInfo", ENODEV), ENODEV}), GetSpeed());
    EXPECT_EQ((Outcome{10, ParamsLine("Mivo_CardGetSize", ENODEV), ENODEV}), GetSize());
    EXPECT_EQ((Trace{Failed(kGetSdStatus, ENODEV), Failed(kGetCid, ENODEV), Failed(kGetCsd, ENODEV),
                     "malloc(32)", Failed(kGetParams, ENODEV), Failed(kGetParams, ENODEV)}),
              TraceOf(kernel));
    EXPECT_EQ(0, dev->ejected);
}

TEST_F(MivoQueries, AskTheSecondUnitByItsOwnNode)
{
    Use(1);
    Open();
    WatchForEject();
    units->Eject(0);
    EXPECT_EQ((Outcome{0}), GetInfo());
    EXPECT_EQ(
        (Trace{"ioctl(/dev/mivosdif1, 0x4006d300) = 0", "ioctl(/dev/mivosdif1, 0x4001d314) = 0",
               "ioctl(/dev/mivosdif1, 0x4001d315) = 0", "malloc(32)"}),
        TraceOf(kernel));
    EXPECT_EQ(Registers(), BytesOf(info));
    EXPECT_EQ(nullptr, mivo_dev[0].reg_buf);
    units->Eject(1);
    EXPECT_EQ((Outcome{65531}), GetInfo());
    EXPECT_EQ(0, mivo_dev[0].ejected);
    EXPECT_EQ(1, mivo_dev[1].ejected);
}

class MivoQueriesOnUnit : public OnUnit<MivoQueries> {};

INSTANTIATE_TEST_SUITE_P(Units, MivoQueriesOnUnit, kUnits);

TEST_P(MivoQueriesOnUnit, HoldTheLockForTheStatusAlone)
{
    Open();
    WatchForEject();
    std::vector<std::pair<uint32_t, bool>> seen;
    for (const uint32_t request :
         {MIVOSDIF_IOC_GET_CARD_STATUS, MIVOSDIF_IOC_GET_CARD_PARAMS, MIVOSDIF_IOC_GET_CID,
          MIVOSDIF_IOC_GET_CSD, MIVOSDIF_IOC_GET_SCR, MIVOSDIF_IOC_GET_SD_STATUS}) {
        During(request, [&](const Call& call) { seen.emplace_back(call.request, IsLocked()); });
    }
    for (const Query& query : Queries()) {
        query.run(&handle);
    }
    EXPECT_EQ(6u + 6u, seen.size());
    for (const auto& [request, locked] : seen) {
        EXPECT_EQ(request == MIVOSDIF_IOC_GET_CARD_STATUS, locked) << std::hex << request;
    }
    EXPECT_FALSE(IsLocked());
    for (const MutexCall& call : MutexCalls()) {
        EXPECT_EQ(MutexCallKind::Lock, call.kind);
        EXPECT_EQ(&dev->lock, call.mutex);
    }
}

TEST_F(MivoQueries, TakeNoLockWithoutACallback)
{
    Open();
    for (const Query& query : Queries()) {
        query.run(&handle);
    }
    EXPECT_TRUE(MutexCalls().empty());
}

TEST_F(MivoQueries, KeepTheErrnoWhereTheirLinesDoNotGetOut)
{
    Open();
    for (const Query& query : Queries()) {
        SCOPED_TRACE(query.name);
        kernel.ClearFaults();
        if (query.no_memory != nullptr) {
            Fail(CallKind::Malloc, ENOMEM);
            EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
        }
        Fail(CallKind::Ioctl, EIO, 1, Fault::kForEver);
        EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { query.run(&handle); }));
    }
    kernel.ClearFaults();
    FailRequest(MIVOSDIF_IOC_GET_SCR, ENXIO);
    EXPECT_EQ(ENXIO, ErrnoAfter(EXFULL, [&] { CARD_GetSpeedInfo(&handle, &speed); }));
}

TEST_F(MivoQueries, TellTheErrnoOfAMissingCopy)
{
    Open();
    for (const Query& query : Queries()) {
        if (query.no_memory != nullptr) {
            SCOPED_TRACE(query.name);
            Fail(CallKind::Malloc, EAGAIN);
            EXPECT_EQ(
                (Outcome{10,
                         Line(query.name, query.no_memory + std::string("Resource temporarily "
                                                                        "unavailable")),
                         EAGAIN}),
                OutcomeOf([&] { return query.run(&handle); }));
            kernel.ClearFaults();
        }
    }
}

}  // namespace
