// SPDX-License-Identifier: MIT
//
// The CARD_* calls: checks in their order, one slot each, and what an empty slot
// answers.
#include <sys/resource.h>

#include "tests/drv/frame_call.h"

namespace {

using recording::Arrival;
using recording::Word;

uint8_t buffer[512];
uint16_t status;
CardInfo info;
CardSpeedInfo speed;
uint8_t sd_status[CARD_SD_STATUS_SIZE];

void OnEject() {}

std::vector<FrameCall> SignedCalls()
{
    return {
        {"CARD_Init",
         6,
         [](DrvInfo* handle) { return CARD_Init(handle, 0xFEDCBA98, OnEject); },
         {0xFEDCBA98, Word(&OnEject)},
         10,
         "[drv:CARD_Init(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_Init(#)](W)\nNOT supported CardInit method!\n"},
        {"CARD_Getstatus",
         7,
         [](DrvInfo* handle) { return CARD_Getstatus(handle, &status); },
         {Word(&status)},
         10,
         "[drv:CARD_Getstatus(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_Getstatus(#)](W)\nNOT supported CardGetStatus method!\n"},
        {"CARD_Getinfo",
         9,
         [](DrvInfo* handle) { return CARD_Getinfo(handle, &info); },
         {Word(&info)},
         10,
         "[drv:CARD_Getinfo(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_Getinfo(#)](W)\nNOT supported CardGetInfo method!\n"},
        {"CARD_GetSpeedInfo",
         10,
         [](DrvInfo* handle) { return CARD_GetSpeedInfo(handle, &speed); },
         {Word(&speed)},
         10,
         "[drv:CARD_GetSpeedInfo(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_GetSpeedInfo(#)](W)\nNOT supported CardGetSpeedInfo method!\n"},
        {"CARD_SecureGetinfo",
         11,
         [](DrvInfo* handle) { return CARD_SecureGetinfo(handle, sd_status); },
         {Word(&sd_status[0])},
         10,
         "[drv:CARD_SecureGetinfo(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_SecureGetinfo(#)](W)\nNOT supported CardSecureGetInfo method!\n"},
        {"CARD_GetWriteProtect",
         13,
         [](DrvInfo* handle) { return CARD_GetWriteProtect(handle); },
         {},
         10,
         "[drv:CARD_GetWriteProtect(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_GetWriteProtect(#)](W)\nNOT supported CardGetWriteProtect method!\n"},
        {"CARD_Ioctl",
         5,
         [](DrvInfo* handle) { return CARD_Ioctl(handle, -2, -0x12345678); },
         {0xFFFFFFFE, 0xEDCBA988},
         10,
         "[drv:CARD_Ioctl(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:CARD_Ioctl(#)](W)\nNOT supported CardIoctl method!\n"},
    };
}

// The one result that is unsigned.
FrameCall GetCardSize()
{
    return {"CARD_GetCardSize",
            12,
            [](DrvInfo* handle) { return int64_t{CARD_GetCardSize(handle)}; },
            {},
            10,
            "[drv:CARD_GetCardSize(#)](E)Invalid wrapper low-level driver info!\n",
            0,
            "[drv:CARD_GetCardSize(#)](W)\nNOT supported CardGetSize method!\n"};
}

// Not among the rows above: its presence is judged by another slot.
FrameCall GetR1Status()
{
    return {"CARD_GetR1Status",
            8,
            [](DrvInfo* handle) { return CARD_GetR1Status(handle); },
            {},
            10,
            "[drv:CARD_GetR1Status(#)](E)Invalid wrapper low-level driver info!\n",
            0,
            "[drv:CARD_GetR1Status(#)](W)\nNOT supported CardGetR1Status method!\n"};
}

TEST(CardCalls, RefuseAHandleThatIsBoundToNothing)
{
    for (const FrameCall& row : SignedCalls()) {
        ExpectRefusesAnUnboundHandle(row);
    }
    ExpectRefusesAnUnboundHandle(GetCardSize());
    ExpectRefusesAnUnboundHandle(GetR1Status());
}

TEST(CardCalls, ForwardOnceAndUnchanged)
{
    for (const FrameCall& row : SignedCalls()) {
        ExpectForwards(row, AsItStands);
    }
    ExpectForwards(GetCardSize(), [](int32_t answer) { return static_cast<uint32_t>(answer); });
    ExpectForwards(GetR1Status(), AsItStands);
}

TEST(CardCalls, AnswerForAnEmptySlot)
{
    for (const FrameCall& row : SignedCalls()) {
        ExpectAnswersForAnEmptySlot(row);
    }
    ExpectAnswersForAnEmptySlot(GetCardSize());
}

TEST(CardCalls, LeaveTheCallersMemoryAloneForAnEmptySlot)
{
    const DrvOps none = {};
    DrvInfo handle = MarkedHandle(&none);
    uint16_t word = 0xABCD;
    CardInfo registers;
    CardSpeedInfo speeds;
    uint8_t bytes[CARD_SD_STATUS_SIZE];
    memset(&registers, 0xE1, sizeof registers);
    memset(&speeds, 0xE1, sizeof speeds);
    memset(bytes, 0xE1, sizeof bytes);
    Printed([&] {
        EXPECT_EQ(0, CARD_Getstatus(&handle, &word));
        EXPECT_EQ(0, CARD_Getinfo(&handle, &registers));
        EXPECT_EQ(0, CARD_GetSpeedInfo(&handle, &speeds));
        EXPECT_EQ(0, CARD_SecureGetinfo(&handle, bytes));
    });
    EXPECT_EQ(0xABCD, word);
    for (size_t i = 0; i < 64; i++) {
        EXPECT_EQ(0xE1, bytes[i]);
        EXPECT_EQ(0xE1, reinterpret_cast<const uint8_t*>(&registers)[i % sizeof registers]);
        EXPECT_EQ(0xE1, speeds.bytes[i % sizeof speeds]);
    }
}

TEST(CardCalls, PassNothingOnAsNothing)
{
    recording::Reset();
    DrvInfo handle = MarkedHandle(&recording::kOps);
    EXPECT_EQ(0, CARD_Init(&handle, 0, nullptr));
    EXPECT_EQ(0, CARD_Ioctl(&handle, 0, 0));
    EXPECT_EQ((std::vector<Arrival>{{6, &handle, {0, 0}}, {5, &handle, {0, 0}}}),
              recording::arrivals);
}

// --- null pointers ---------------------------------------------------------------

struct NullPointer {
    const char* name;
    size_t slot;
    std::function<int32_t(DrvInfo*)> call;
    std::string printed;          // with a handle
    std::string printed_unbound;  // without one
};

std::vector<NullPointer> NullPointers()
{
    return {
        {"CARD_Getstatus", 7, [](DrvInfo* handle) { return CARD_Getstatus(handle, nullptr); },
         "[drv:CARD_Getstatus(#)](E)Invalid argument: status!\n",
         "[drv:CARD_Getstatus(#)](E)Invalid wrapper low-level driver info!\n"},
        {"CARD_Getinfo", 9, [](DrvInfo* handle) { return CARD_Getinfo(handle, nullptr); },
         "[drv:CARD_Getinfo(#)](E)Invalid argument: cardinfo!\n",
         "[drv:CARD_Getinfo(#)](E)Invalid wrapper low-level driver info!\n"},
        {"CARD_GetSpeedInfo", 10,
         [](DrvInfo* handle) { return CARD_GetSpeedInfo(handle, nullptr); },
         "[drv:CARD_GetSpeedInfo(#)](E)Invalid argument: buf!\n",
         "[drv:CARD_GetSpeedInfo(#)](E)Invalid wrapper low-level driver info!\n"},
        {"CARD_SecureGetinfo", 11,
         [](DrvInfo* handle) { return CARD_SecureGetinfo(handle, nullptr); },
         "[drv:CARD_SecureGetinfo(#)](E)Invalid argument: buf!\n",
         "[drv:CARD_SecureGetinfo(#)](E)Invalid wrapper low-level driver info!\n"},
    };
}

// The handle is looked at first, then the pointer, then the slot.
TEST(CardCalls, RefuseANullPointerAfterTheHandleAndBeforeTheSlot)
{
    for (const NullPointer& row : NullPointers()) {
        SCOPED_TRACE(row.name);
        recording::Reset();
        recording::answer = 3;
        DrvInfo unbound = MarkedHandle(nullptr);
        EXPECT_EQ(row.printed_unbound, Printed([&] { EXPECT_EQ(10, row.call(nullptr)); }));
        EXPECT_EQ(row.printed_unbound, Printed([&] { EXPECT_EQ(10, row.call(&unbound)); }));

        DrvInfo handle = MarkedHandle(&recording::kOps);
        EXPECT_EQ(row.printed, Printed([&] { EXPECT_EQ(10, row.call(&handle)); }));

        const DrvOps ops = recording::Without(row.slot);
        handle.ops = &ops;
        EXPECT_EQ(row.printed, Printed([&] { EXPECT_EQ(10, row.call(&handle)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { row.call(&handle); }));
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

// --- CARD_GetR1Status ---------------------------------------------------------------

TEST(CardGetR1Status, WarnsWhereOnlyItsOwnSlotIsFilled)
{
    recording::Reset();
    recording::answer = 5;
    const DrvOps ops = recording::Without(7);
    DrvInfo handle = MarkedHandle(&ops);
    EXPECT_EQ("[drv:CARD_GetR1Status(#)](W)\nNOT supported CardGetR1Status method!\n",
              Printed([&] { EXPECT_EQ(0, CARD_GetR1Status(&handle)); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { CARD_GetR1Status(&handle); }));
    EXPECT_TRUE(recording::arrivals.empty());
}

// Forked, not started anew: the emulator cannot start the board's programs.
TEST(CardGetR1StatusDeathTest, CallsItsOwnSlotEvenWhereThatIsEmpty)
{
    GTEST_FLAG_SET(death_test_style, "fast");
    const DrvOps ops = recording::Without(8);
    DrvInfo handle = MarkedHandle(&ops);
    const auto call = [&] {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        CARD_GetR1Status(&handle);
    };
    EXPECT_DEATH(call(), "");
}

// --- CARD_Read and CARD_Write ---------------------------------------------------------

struct Transfer {
    const char* name;
    size_t slot;
    std::function<int32_t(DrvInfo*, CardIoResult*)> call;
    std::string refused;
};

std::vector<Transfer> Transfers()
{
    return {
        {"CARD_Read", 2,
         [](DrvInfo* handle, CardIoResult* result) {
             return CARD_Read(handle, buffer, 0x80000001, 0xFFFFFFFE, 0xFEDCBA98, result);
         },
         "[drv:CARD_Read(#)](E)Invalid wrapper low-level driver info!\n"},
        {"CARD_Write", 3,
         [](DrvInfo* handle, CardIoResult* result) {
             return CARD_Write(handle, buffer, 0x80000001, 0xFFFFFFFE, 0xFEDCBA98, result);
         },
         "[drv:CARD_Write(#)](E)Invalid wrapper low-level driver info!\n"},
    };
}

constexpr CardIoResult kMarked = {0x5A5A, 0x6B6B, 0x7C7C7C7C};

void ExpectRecord(const CardIoResult& result, uint16_t error, int32_t length)
{
    EXPECT_EQ(0x5A5A, result.reserved);
    EXPECT_EQ(error, result.error);
    EXPECT_EQ(length, result.length);
}

TEST(CardTransfers, RefuseAHandleThatIsBoundToNothing)
{
    for (const Transfer& row : Transfers()) {
        SCOPED_TRACE(row.name);
        recording::Reset();
        CardIoResult result = kMarked;
        DrvInfo unbound = MarkedHandle(nullptr);
        const DrvInfo before = unbound;
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(nullptr, &result)); }));
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(nullptr, nullptr)); }));
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(&unbound, &result)); }));
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(&unbound, nullptr)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { row.call(nullptr, &result); }));
        ExpectRecord(result, 0x6B6B, 0x7C7C7C7C);
        ExpectUnchanged(unbound, before);
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

TEST(CardTransfers, RefuseANullRecord)
{
    for (const Transfer& row : Transfers()) {
        SCOPED_TRACE(row.name);
        recording::Reset();
        DrvInfo handle = MarkedHandle(&recording::kOps);
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(&handle, nullptr)); }));
        const DrvOps ops = recording::Without(row.slot);
        handle.ops = &ops;
        EXPECT_EQ(row.refused, Printed([&] { EXPECT_EQ(10, row.call(&handle, nullptr)); }));
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

TEST(CardTransfers, MarkTheRecordForAnEmptySlotWithoutAWord)
{
    for (const Transfer& row : Transfers()) {
        SCOPED_TRACE(row.name);
        recording::Reset();
        const DrvOps ops = recording::Without(row.slot);
        DrvInfo handle = MarkedHandle(&ops);
        CardIoResult result = kMarked;
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, row.call(&handle, &result)); }));
        ExpectRecord(result, 10, 0x7C7C7C7C);
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

TEST(CardTransfers, PutTheSlotsResultIntoTheRecord)
{
    struct Outcome {
        int32_t answer;
        uint16_t error;
        int32_t length;
    };
    const Outcome outcomes[] = {
        {0, 0x6B6B, 0},
        {1, 0x6B6B, 1},
        {512, 0x6B6B, 512},
        {4096, 0x6B6B, 4096},
        {65531, 0x6B6B, 65531},
        {INT_MAX, 0x6B6B, INT_MAX},
        {-1, 10, 0x7C7C7C7C},
        {-5, 10, 0x7C7C7C7C},
        {-19, 10, 0x7C7C7C7C},
        {-22, 10, 0x7C7C7C7C},
        {INT_MIN, 10, 0x7C7C7C7C},
    };
    for (const Transfer& row : Transfers()) {
        for (const Outcome& outcome : outcomes) {
            SCOPED_TRACE(testing::Message() << row.name << " " << outcome.answer);
            recording::Reset();
            recording::answer = outcome.answer;
            recording::on_arrival = [](DrvInfo*) { errno = EXFULL; };
            DrvInfo handle = MarkedHandle(&recording::kOps);
            const DrvInfo before = handle;
            CardIoResult result = kMarked;
            int error = 0;
            EXPECT_EQ("", Printed([&] {
                          EXPECT_EQ(0, row.call(&handle, &result));
                          error = errno;
                      }));
            ExpectRecord(result, outcome.error, outcome.length);
            EXPECT_EQ(EXFULL, error);
            EXPECT_EQ(
                (std::vector<Arrival>{
                    {row.slot, &handle, {Word(&buffer[0]), 0x80000001, 0xFFFFFFFE, 0xFEDCBA98}}}),
                recording::arrivals);
            ExpectUnchanged(handle, before);
        }
    }
    recording::Reset();
}

TEST(CardTransfers, PassANullBufferOn)
{
    recording::Reset();
    DrvInfo handle = MarkedHandle(&recording::kOps);
    CardIoResult result = kMarked;
    EXPECT_EQ(0, CARD_Read(&handle, nullptr, 0, 0, 0, &result));
    EXPECT_EQ(0, CARD_Write(&handle, nullptr, 0, 0, 0, &result));
    EXPECT_EQ((std::vector<Arrival>{{2, &handle, {0, 0, 0, 0}}, {3, &handle, {0, 0, 0, 0}}}),
              recording::arrivals);
    ExpectRecord(result, 0x6B6B, 0);
}

}  // namespace
