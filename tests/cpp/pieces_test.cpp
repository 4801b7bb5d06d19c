// SPDX-License-Identifier: MIT
//
// What the C++ face does without a device: memory and its reach, lists of pieces and runs,
// errors, results, and which units are in use.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "carddev.hpp"
#include "sim/kernel.h"

using carddev::Buffer;
using carddev::ConstBuffer;
using carddev::Error;
using carddev::From;
using carddev::Into;
using carddev::PieceList;

namespace {

constexpr size_t kGuard = 16;
constexpr uint8_t kUntouched = 0xC7;

// The lists' memory and how long it is.
std::map<void*, size_t>& Lists()
{
    static std::map<void*, size_t> lists;
    return lists;
}

bool IsGuardIntact(const void* list)
{
    const uint8_t* guard = static_cast<const uint8_t*>(list) + Lists().at(const_cast<void*>(list));
    return std::all_of(guard, guard + kGuard, [](uint8_t byte) { return byte == kUntouched; });
}

}  // namespace

// The linker puts it in front of libc's: lists are counted and refused as the library's own
// blocks are, grow to another place each time, and have a guard behind them.
extern "C" void* __wrap_realloc(void* block, size_t length);

extern "C" void* __wrap_realloc(void* block, size_t length)
{
    auto* grown = static_cast<uint8_t*>(malloc(length + kGuard));
    if (grown == nullptr) {
        return nullptr;
    }
    if (block != nullptr) {
        EXPECT_TRUE(IsGuardIntact(block));
        memcpy(grown, block, std::min(length, Lists().at(block)));
        Lists().erase(block);
        free(block);
    }
    memset(grown + length, kUntouched, kGuard);
    Lists()[grown] = length;
    return grown;
}

namespace {

// --- types ----------------------------------------------------------------------------------

template <typename T>
constexpr bool kStays = !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;

static_assert(kStays<carddev::Device> && std::is_nothrow_move_constructible_v<carddev::Device> &&
              std::is_nothrow_move_assignable_v<carddev::Device>);
static_assert(kStays<PieceList<Buffer>> && kStays<PieceList<ConstBuffer>>);
static_assert(kStays<carddev::Runs<1>> && kStays<carddev::RealTimeLock>);
static_assert(std::is_default_constructible_v<carddev::Device> &&
              std::is_default_constructible_v<PieceList<Buffer>>);

template <typename T>
constexpr bool kCanBeFilled = std::is_constructible_v<Buffer, T>;
template <typename T>
constexpr bool kCanBeRead = std::is_constructible_v<ConstBuffer, T>;

static_assert(kCanBeFilled<uint8_t (&)[4]> && kCanBeRead<uint8_t (&)[4]>);
static_assert(!kCanBeFilled<const uint8_t (&)[4]> && kCanBeRead<const uint8_t (&)[4]>);
static_assert(!kCanBeFilled<std::string (&)[4]> && !kCanBeRead<std::string (&)[4]>);
static_assert(kCanBeFilled<std::vector<int>&> && kCanBeRead<std::vector<int>&>);
static_assert(!kCanBeFilled<const std::vector<int>&> && kCanBeRead<const std::vector<int>&>);
static_assert(!kCanBeFilled<std::vector<std::string>&> && !kCanBeRead<std::vector<std::string>&>);
static_assert(kCanBeRead<Buffer&> && kCanBeRead<const Buffer&> && !kCanBeFilled<ConstBuffer&>);
static_assert(!kCanBeFilled<int> && !kCanBeRead<int*>);
static_assert(!std::is_convertible_v<int32_t, Error>);

// --- memory ---------------------------------------------------------------------------------

uint8_t* At(uint64_t address)
{
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address));
}

TEST(CppMemory, IsWhatItIsMadeOf)
{
    uint32_t words[3] = {};
    const uint32_t fixed[5] = {};
    std::vector<uint16_t> many(7);
    const std::array<uint64_t, 2> two = {};
    EXPECT_EQ(words, Buffer(words).address());
    EXPECT_EQ(12u, Buffer(words).bytes());
    EXPECT_EQ(many.data(), Buffer(many).address());
    EXPECT_EQ(14u, Buffer(many).bytes());
    EXPECT_EQ(words + 1, Buffer(words + 1, 8).address());
    EXPECT_EQ(8u, Buffer(words + 1, 8).bytes());
    EXPECT_EQ(fixed, ConstBuffer(fixed).address());
    EXPECT_EQ(20u, ConstBuffer(fixed).bytes());
    EXPECT_EQ(two.data(), ConstBuffer(two).address());
    EXPECT_EQ(16u, ConstBuffer(two).bytes());
    EXPECT_EQ(fixed + 1, ConstBuffer(fixed + 1, 4).address());
    EXPECT_EQ(4u, ConstBuffer(fixed + 1, 4).bytes());
    EXPECT_EQ(many.data(), ConstBuffer(Buffer(many)).address());
    EXPECT_EQ(14u, ConstBuffer(Buffer(many)).bytes());
}

TEST(CppMemory, IsReachableBelow4GiB)
{
    struct Row {
        uint64_t first;
        uint64_t bytes;
        bool reachable;
    };
    constexpr uint64_t kEnd = uint64_t{1} << 32;
    const Row rows[] = {
        {0, 0, true},         {0, kEnd - 1, true},       {kEnd - 1, 0, true},
        {kEnd - 1, 1, true},  {kEnd - 512, 512, true},   {0x12345678, 512, true},
        {kEnd - 1, 2, false}, {kEnd - 512, 513, false},  {0x80000000, 0x80000001, false},
        {0, kEnd, true},      {0, kEnd + 1, false},      {kEnd, 0, false},
        {kEnd, 512, false},   {kEnd + 512, 512, false},  {kEnd * 2, 0, false},
        {kEnd + 1, 0, false}, {kEnd * 512, kEnd, false},
    };
    if constexpr (sizeof(void*) > 4) {
        for (const Row& row : rows) {
            EXPECT_EQ(row.reachable,
                      carddev::internal::IsReachable(At(row.first), static_cast<size_t>(row.bytes)))
                << std::hex << row.first << " " << row.bytes;
        }
    }
    EXPECT_TRUE(carddev::internal::IsReachable(At(0x1000), 512));
    EXPECT_EQ(0x12345678u, carddev::internal::Address(At(0x12345678)));
}

// --- pieces that are known ------------------------------------------------------------------

std::vector<MemoryChunk> ChunksOf(const MemoryChunkArray* list)
{
    return {list->chunk, list->chunk + list->count};
}

void ExpectChunks(const std::vector<MemoryChunk>& expected, const MemoryChunkArray* list)
{
    const std::vector<MemoryChunk> found = ChunksOf(list);
    ASSERT_EQ(expected.size(), found.size());
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(expected[i].addr, found[i].addr);
        EXPECT_EQ(expected[i].len, found[i].len);
    }
}

TEST(CppFixedPieces, StandInTheirOrder)
{
    auto into = Into(Buffer(At(0x1000), 500), Buffer(At(0x5000), 12), Buffer(At(0x3000), 1024));
    EXPECT_EQ(0, into.code());
    EXPECT_EQ(3u, into.sectors());
    ExpectChunks({{0x1000, 500}, {0x5000, 12}, {0x3000, 1024}}, into.list());
    auto from = From(ConstBuffer(At(0x2000), 512));
    EXPECT_EQ(0, from.code());
    EXPECT_EQ(1u, from.sectors());
    ExpectChunks({{0x2000, 512}}, from.list());
}

TEST(CppFixedPieces, AreWholeSectorsTogether)
{
    EXPECT_EQ(Error::kInvalid, Into(Buffer(At(0x1000), 511)).code());
    EXPECT_EQ(Error::kInvalid, Into(Buffer(At(0x1000), 512), Buffer(At(0x3000), 1)).code());
    EXPECT_EQ(0, From(Buffer(At(0x1000), 511), Buffer(At(0x3000), 1)).code());
    EXPECT_EQ(Error::kInvalid, From(Buffer(At(0x1000), 511), Buffer(At(0x3000), 2)).code());
}

TEST(CppFixedPieces, AreAllInReach)
{
    if constexpr (sizeof(void*) > 4) {
        const ConstBuffer low(At(0x1000), 512);
        const ConstBuffer high(At(uint64_t{1} << 32), 512);
        EXPECT_EQ(0, From(low, low).code());
        EXPECT_EQ(Error::kTooHigh, From(low, high).code());
        EXPECT_EQ(Error::kTooHigh, From(high, low).code());
        EXPECT_EQ(Error::kTooHigh, From(high, high).code());
        const Buffer near(At(0x1000), 512);
        const Buffer far(At((uint64_t{1} << 32) - 511), 512);
        EXPECT_EQ(0, Into(near, near, near).code());
        EXPECT_EQ(Error::kTooHigh, Into(far, near, near).code());
        EXPECT_EQ(Error::kTooHigh, Into(near, far, near).code());
        EXPECT_EQ(Error::kTooHigh, Into(near, near, far).code());
    }
}

// The count of their bytes has 32 bits in the library.
TEST(CppFixedPieces, AreLessThan4GiBTogether)
{
    const ConstBuffer half(At(0x1000), 0x80000000);
    const ConstBuffer less(At(0x1000), 0x80000000 - 512);
    EXPECT_EQ(Error::kInvalid, From(half, half).code());
    EXPECT_EQ(0, From(half, less).code());
    EXPECT_EQ(0x7FFFFFu, From(half, less).sectors());
}

// --- pieces that are added --------------------------------------------------------------------

class CppPieceList : public testing::Test {
protected:
    CppPieceList() { kernel.FillBlocksWith(0xA5); }
    ~CppPieceList() override { EXPECT_EQ(0u, kernel.LiveBlocks()); }

    size_t Allocations()
    {
        size_t count = 0;
        for (const cardsim::Call& call : kernel.Calls()) {
            count += call.kind == cardsim::CallKind::Malloc ? 1 : 0;
        }
        return count;
    }

    cardsim::Kernel kernel;
};

TEST_F(CppPieceList, GrowsByTwo)
{
    const std::map<size_t, size_t> allocations = {{1, 1},  {16, 1}, {17, 2}, {32, 2},
                                                  {33, 3}, {64, 3}, {65, 4}, {128, 4}};
    PieceList<Buffer> list;
    EXPECT_EQ(nullptr, list.list());
    EXPECT_EQ(0u, Allocations());
    std::vector<MemoryChunk> expected;
    for (size_t count = 1; count <= 128; count++) {
        const auto address = static_cast<uint32_t>(0x10000 + count * 8192);
        const auto bytes = static_cast<uint32_t>(512 * count);
        list.Add(Buffer(At(address), bytes));
        expected.push_back({address, bytes});
        ASSERT_EQ(0, list.code());
        ASSERT_EQ(count * (count + 1) / 2, list.sectors());
        ASSERT_TRUE(IsGuardIntact(list.list()));
        if (allocations.count(count) != 0) {
            EXPECT_EQ(allocations.at(count), Allocations()) << count;
        }
    }
    ExpectChunks(expected, list.list());
}

TEST_F(CppPieceList, NeedsWholeSectorsAndAny)
{
    PieceList<ConstBuffer> list;
    EXPECT_EQ(Error::kInvalid, list.code());
    EXPECT_EQ(0u, list.sectors());
    list.Add(ConstBuffer(At(0x1000), 500));
    EXPECT_EQ(Error::kInvalid, list.code());
    list.Add(ConstBuffer(At(0x2000), 12));
    EXPECT_EQ(0, list.code());
    EXPECT_EQ(1u, list.sectors());
    list.Add(ConstBuffer(At(0x3000), 1));
    EXPECT_EQ(Error::kInvalid, list.code());
}

TEST_F(CppPieceList, HoldsLessThan4GiB)
{
    PieceList<ConstBuffer> list;
    list.Add(ConstBuffer(At(0x1000), 0x80000000 - 512));
    list.Add(ConstBuffer(At(0x1000), 0x80000000));
    EXPECT_EQ(0, list.code());
    EXPECT_EQ(0x7FFFFFu, list.sectors());
    list.Add(ConstBuffer(At(0x1000), 512));
    EXPECT_EQ(Error::kInvalid, list.code());
}

TEST_F(CppPieceList, KeepsItsErrorUntilItIsCleared)
{
    PieceList<Buffer> list;
    list.Clear();  // an empty one, too
    EXPECT_EQ(nullptr, list.list());
    list.Add(Buffer(At(0x1000), 512));
    if constexpr (sizeof(void*) > 4) {
        list.Add(Buffer(At(uint64_t{1} << 32), 512));
        EXPECT_EQ(Error::kTooHigh, list.code());
        list.Add(Buffer(At(0x3000), 512));
        EXPECT_EQ(Error::kTooHigh, list.code());
        ExpectChunks({{0x1000, 512}}, list.list());
        EXPECT_EQ(1u, list.sectors());
    }
    list.Clear();
    EXPECT_EQ(Error::kInvalid, list.code());
    EXPECT_EQ(0u, list.sectors());
    ExpectChunks({}, list.list());
    list.Add(Buffer(At(0x2000), 1024));
    EXPECT_EQ(0, list.code());
    EXPECT_EQ(2u, list.sectors());
    ExpectChunks({{0x2000, 1024}}, list.list());
    EXPECT_EQ(1u, Allocations());
}

TEST_F(CppPieceList, TellsOfMissingMemory)
{
    for (const uint64_t at : {uint64_t{1}, uint64_t{2}}) {
        PieceList<Buffer> list;
        cardsim::Fault fault;
        fault.kind = cardsim::CallKind::Malloc;
        fault.first = at;
        fault.error = ENOMEM;
        kernel.Inject(fault);
        for (uint32_t i = 0; i < 18; i++) {
            list.Add(Buffer(At(0x1000), 512));
        }
        EXPECT_EQ(Error::kNoMemory, list.code());
        EXPECT_EQ(at == 1 ? 0u : 16u, list.sectors());
        kernel.ClearFaults();
        list.Clear();
        list.Add(Buffer(At(0x1000), 512));
        EXPECT_EQ(0, list.code());
        ExpectChunks({{0x1000, 512}}, list.list());
    }
}

// --- runs -------------------------------------------------------------------------------------

TEST(CppRuns, AreChainedInTheirOrder)
{
    carddev::Runs<3> runs({{ConstBuffer(At(0x1000), 512), 70},
                           {ConstBuffer(At(0x5000), 1024), 10},
                           {ConstBuffer(At(0x3000), 65536), 900}});
    EXPECT_EQ(0, runs.code());
    EXPECT_EQ(3, runs.list()->count);
    const BlockListEntry expected[] = {
        {0x1000, 1, 70, nullptr}, {0x5000, 2, 10, nullptr}, {0x3000, 128, 900, nullptr}};
    const BlockListEntry* entry = runs.list()->first;
    for (const BlockListEntry& each : expected) {
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(each.buf, entry->buf);
        EXPECT_EQ(each.sectors, entry->sectors);
        EXPECT_EQ(each.sector, entry->sector);
        entry = entry->next;
    }
    EXPECT_EQ(nullptr, entry);
}

int32_t CodeOf(const ConstBuffer& data)
{
    return carddev::Runs<1>({{data, 0}}).code();
}

TEST(CppRuns, AreWholeSectorsUpTo64KiB)
{
    EXPECT_EQ(Error::kInvalid, CodeOf(ConstBuffer(At(0x1000), 0)));
    EXPECT_EQ(Error::kInvalid, CodeOf(ConstBuffer(At(0x1000), 511)));
    EXPECT_EQ(0, CodeOf(ConstBuffer(At(0x1000), 512)));
    EXPECT_EQ(0, CodeOf(ConstBuffer(At(0x1000), 65536)));
    EXPECT_EQ(Error::kInvalid, CodeOf(ConstBuffer(At(0x1000), 65536 + 512)));
    if constexpr (sizeof(void*) > 4) {
        EXPECT_EQ(Error::kTooHigh, CodeOf(ConstBuffer(At(uint64_t{1} << 32), 512)));
    }
    EXPECT_EQ(65536u, carddev::Runs<1>::kLongest);
    // One wrong one is enough, wherever it stands.
    const ConstBuffer good(At(0x1000), 512);
    const ConstBuffer wrong(At(0x1000), 100);
    EXPECT_EQ(Error::kInvalid, carddev::Runs<2>({{wrong, 0}, {good, 9}}).code());
    EXPECT_EQ(Error::kInvalid, carddev::Runs<2>({{good, 0}, {wrong, 9}}).code());
}

// --- errors and results -------------------------------------------------------------------------

TEST(CppError, HasANameAndAText)
{
    struct Words {
        int32_t code;
        const char* name;
        const char* text;
    };
    const Words all[] = {
        {-1, "-1", "failed; where a system call did, errno tells why"},
        {-5, "EIO", "the card has gone, or the driver failed"},
        {-12, "ENOMEM", "memory, or the driver's table, does not suffice"},
        {-14, "EFAULT", "the memory lies above 4 GiB, out of the driver's reach"},
        {-16, "EBUSY", "this program has the unit open already"},
        {-19, "ENODEV", "no such device, or not initialised"},
        {-22, "EINVAL", "invalid argument, or not offered by this device"},
        {-25, "ENOTTY", "a request that this device does not know"},
        {10, "CARD_CODE_ERROR", "failure, or an invalid argument"},
        {43271, "CARD_CODE_COMMAND_FAILED", "the driver failed a card command"},
        {0xFFED, "CARD_CODE_NOT_OPEN", "the device is not open"},
        {0xFFFB, "CARD_CODE_REMOVED", "the card was removed or changed"},
        {77, "unknown", "a code without a name"},
    };
    for (const Words& words : all) {
        const Error error(words.code);
        EXPECT_EQ(words.code, error.code());
        EXPECT_STREQ(words.name, error.name());
        EXPECT_STREQ(words.text, error.text());
    }
    EXPECT_TRUE(Error(-5) == Error(-5));
    EXPECT_FALSE(Error(-5) == Error(-12));
    EXPECT_FALSE(Error(-12) == Error(-5));
    EXPECT_FALSE(Error(-5) != Error(-5));
    EXPECT_TRUE(Error(-12) != Error(-5));
    EXPECT_TRUE(Error(-5) != Error(-12));
}

TEST(CppResult, IsAValueOrAnError)
{
    carddev::Result<std::string> done(std::string("text"));
    const carddev::Result<std::string>& constant = done;
    EXPECT_TRUE(done);
    EXPECT_EQ("text", *done);
    EXPECT_EQ("text", *constant);
    EXPECT_EQ(4u, constant->size());
    done->push_back('s');
    EXPECT_EQ("texts", *constant);
    EXPECT_EQ(Error(0), done.error());
    const carddev::Result<std::string> failed(Error(-5));
    EXPECT_FALSE(failed);
    EXPECT_EQ(Error(-5), failed.error());
}

TEST(CppResult, IsSuccessOrAnError)
{
    constexpr carddev::Result<void> kDone;
    static_assert(kDone && kDone.error() == Error(0));
    EXPECT_TRUE(kDone);
    EXPECT_TRUE(carddev::Result<void>(Error(0)));
    for (const int32_t code : {-5, 1, 10}) {
        const carddev::Result<void> failed{Error(code)};
        EXPECT_FALSE(failed);
        EXPECT_EQ(Error(code), failed.error());
    }
}

// --- units --------------------------------------------------------------------------------------

DrvInfo UnitOf(int32_t type, int32_t index)
{
    DrvInfo handle = {};
    handle.dev_type = type;
    handle.dev_index = index;
    return handle;
}

uint32_t InUse(int32_t type)
{
    return carddev::internal::units_in_use[type].load();
}

TEST(CppUnits, AreTakenOnce)
{
    using carddev::internal::GiveUnitBack;
    using carddev::internal::TakeUnit;
    for (const int32_t type : {DEV_TYPE_RICOH_SD, DEV_TYPE_ZEL, DEV_TYPE_MIVO}) {
        for (const int32_t index : {0, 1, 5, 31}) {
            const uint32_t bit = uint32_t{1} << index;
            EXPECT_TRUE(TakeUnit(UnitOf(type, index)));
            EXPECT_EQ(bit, InUse(type));
            EXPECT_FALSE(TakeUnit(UnitOf(type, index)));
            EXPECT_TRUE(TakeUnit(UnitOf(type, 7)));
            EXPECT_EQ(bit | 0x80, InUse(type));
            GiveUnitBack(UnitOf(type, 7));
            EXPECT_EQ(bit, InUse(type));
            GiveUnitBack(UnitOf(type, index));
            EXPECT_EQ(0u, InUse(type));
        }
    }
}

// Those that no back-end has are not kept account of.
TEST(CppUnits, AreCountedWhereTheyCanBe)
{
    using carddev::internal::GiveUnitBack;
    using carddev::internal::IsCounted;
    using carddev::internal::TakeUnit;
    EXPECT_EQ(3u, std::size(carddev::internal::units_in_use));
    const int32_t none[][2] = {{-1, 0}, {3, 0}, {4, 1}, {0, -1}, {0, 32}, {2, 32}, {-5, -5}};
    for (const auto& [type, index] : none) {
        const DrvInfo handle = UnitOf(type, index);
        EXPECT_FALSE(IsCounted(handle)) << type << " " << index;
        EXPECT_TRUE(TakeUnit(handle));
        EXPECT_TRUE(TakeUnit(handle));
        GiveUnitBack(handle);
    }
    for (const int32_t type : {0, 1, 2}) {
        EXPECT_TRUE(IsCounted(UnitOf(type, 0)));
        EXPECT_TRUE(IsCounted(UnitOf(type, 31)));
        EXPECT_EQ(0u, InUse(type));
    }
}

}  // namespace
