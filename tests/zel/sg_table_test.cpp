// SPDX-License-Identifier: MIT
//
// The Zel back-end's scatter-gather table, byte by byte as the driver reads it.
#include <climits>

#include "tests/zel/fixture.h"

namespace {

constexpr uint8_t kFill = 0x61;  // what stands where nothing was written

struct Piece {
    uint32_t addr;
    uint32_t len;

    bool operator==(const Piece&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Piece& piece)
{
    return out << std::hex << "{0x" << piece.addr << ", 0x" << piece.len << "}" << std::dec;
}

using Pieces = std::vector<Piece>;

constexpr Piece kUntouched = {0x61616161, 0x61616161};

// A table with an entry's room in front and one behind.
class ZelSgTable : public testing::Test {
protected:
    ZelSgTable() { Clear(); }

    void Clear() { memset(entries_.data(), kFill, Size()); }

    ZelSgEntry* table() { return entries_.data() + 1; }

    Bytes BytesOfEntry(int index)
    {
        return BytesAt(reinterpret_cast<uintptr_t>(table() + index), sizeof(ZelSgEntry));
    }

    // Decoded here, not by the library's own means.
    Piece At(int index)
    {
        const Bytes bytes = BytesOfEntry(index);
        const auto word = [&](size_t at) {
            return uint32_t{bytes[at]} | uint32_t{bytes[at + 1]} << 8 |
                   uint32_t{bytes[at + 2]} << 16 | uint32_t{bytes[at + 3]} << 24;
        };
        return {word(0), word(4)};
    }

    void Put(int index, const Piece& piece)
    {
        table()[index].addr.Set(piece.addr);
        table()[index].len.Set(piece.len);
    }

    // Entries from `first` up to the first that was never written.
    Pieces Written(int first = 0)
    {
        Pieces pieces;
        for (int i = first; i < kEntries && At(i) != kUntouched; i++) {
            pieces.push_back(At(i));
        }
        return pieces;
    }

    bool IsUntouched(int first, int end)
    {
        for (int i = first; i < end; i++) {
            if (BytesOfEntry(i) != Bytes(sizeof(ZelSgEntry), kFill)) {
                return false;
            }
        }
        return true;
    }

    static constexpr int kEntries = 2048;

private:
    size_t Size() const { return entries_.size() * sizeof(ZelSgEntry); }

    std::vector<ZelSgEntry> entries_ = std::vector<ZelSgEntry>(kEntries + 2);
};

const char* const kOverflow2048 = "[zel:Zel_SetSgEntry(#)](E)Overflow sg table(2048)!\n";

// --- one buffer ----------------------------------------------------------------------

class ZelSetSgEntry : public ZelSgTable {
protected:
    Outcome Set(int32_t index, uint32_t addr, uint32_t len)
    {
        return OutcomeOf([&] { return Zel_SetSgEntry(table(), index, addr, len); });
    }
};

TEST_F(ZelSetSgEntry, StoresTheLeastSignificantByteFirst)
{
    EXPECT_EQ((Outcome{1}), Set(0, 0x12345678, 0xBCDE));
    EXPECT_EQ((Bytes{0x78, 0x56, 0x34, 0x12, 0xDE, 0xBC, 0x00, 0x00}), BytesOfEntry(0));
    EXPECT_TRUE(IsUntouched(-1, 0));
    EXPECT_TRUE(IsUntouched(1, kEntries + 1));
}

TEST_F(ZelSetSgEntry, WritesBehindTheEntriesInUse)
{
    EXPECT_EQ((Outcome{8}), Set(7, 0x00010000, 0x100));
    EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00}), BytesOfEntry(7));
    EXPECT_TRUE(IsUntouched(-1, 7));
    EXPECT_TRUE(IsUntouched(8, kEntries + 1));
}

TEST_F(ZelSetSgEntry, SplitsAt64KiB)
{
    const std::pair<uint32_t, Pieces> buffers[] = {
        {1, {{0x5000, 1}}},
        {65535, {{0x5000, 65535}}},
        {65536, {{0x5000, 65536}}},
        {65537, {{0x5000, 65536}, {0x15000, 1}}},
        {131072, {{0x5000, 65536}, {0x15000, 65536}}},
        {131073, {{0x5000, 65536}, {0x15000, 65536}, {0x25000, 1}}},
        {200000, {{0x5000, 65536}, {0x15000, 65536}, {0x25000, 65536}, {0x35000, 3392}}},
    };
    for (const auto& [length, pieces] : buffers) {
        SCOPED_TRACE(length);
        Clear();
        EXPECT_EQ((Outcome{static_cast<int64_t>(pieces.size())}), Set(0, 0x5000, length));
        EXPECT_EQ(pieces, Written());
        EXPECT_TRUE(IsUntouched(static_cast<int>(pieces.size()), kEntries + 1));
    }
}

TEST_F(ZelSetSgEntry, SplitsAcrossTheEndOfTheAddresses)
{
    EXPECT_EQ((Outcome{2}), Set(0, 0xFFFF8000, 0x18000));
    EXPECT_EQ((Pieces{{0xFFFF8000, 0x10000}, {0x8000, 0x8000}}), Written());
}

struct Meeting {
    const char* what;
    Piece last;
    Piece added;
    Pieces result;  // the last entry, then what follows it
};

TEST_F(ZelSetSgEntry, MergesWhatContinuesTheLastEntry)
{
    const Meeting meetings[] = {
        {"continues", {0x1000, 0x800}, {0x1800, 0x800}, {{0x1000, 0x1000}}},
        {"by one byte", {0x1000, 1}, {0x1001, 1}, {{0x1000, 2}}},
        {"a gap", {0x1000, 0x800}, {0x1801, 8}, {{0x1000, 0x800}, {0x1801, 8}}},
        {"an overlap", {0x1000, 0x800}, {0x17FF, 8}, {{0x1000, 0x800}, {0x17FF, 8}}},
        {"in front", {0x1000, 0x800}, {0x800, 0x800}, {{0x1000, 0x800}, {0x800, 0x800}}},
        {"exactly 64 KiB", {0x1000, 0xFFFF}, {0x10FFF, 1}, {{0x1000, 0x10000}}},
        {"64 KiB and one", {0x1000, 0xFFFF}, {0x10FFF, 2}, {{0x1000, 0xFFFF}, {0x10FFF, 2}}},
        {"full", {0x1000, 0x10000}, {0x11000, 1}, {{0x1000, 0x10000}, {0x11000, 1}}},
        {"is not topped up",
         {0x1000, 0x800},
         {0x1800, 0x20000},
         {{0x1000, 0x800}, {0x1800, 0x10000}, {0x11800, 0x10000}}},
        {"nothing", {0x1000, 0x800}, {0x1800, 0}, {{0x1000, 0x800}}},
        {"nothing, to a full one", {0x1000, 0x10000}, {0x11000, 0}, {{0x1000, 0x10000}}},
        {"at the end of the addresses", {0xFFFFF000, 0x1000}, {0, 0x10}, {{0xFFFFF000, 0x1010}}},
        // The end mark counts as part of the length.
        {"marked", {0x1000, 0x80000800}, {0x1800, 8}, {{0x1000, 0x80000800}, {0x1800, 8}}},
        {"marked, too long",
         {0x1000, 0x80000800},
         {0x80001800, 8},
         {{0x1000, 0x80000800}, {0x80001800, 8}}},
        {"marked, wrapping", {0x1000, 0x80000800}, {0x80001800, 0x80000100}, {{0x1000, 0x900}}},
        // Lengths are added in 32 bits.
        {"lengths wrap", {0x1000, 0x800}, {0x1800, 0xFFFFF801}, {{0x1000, 1}}},
    };
    for (const Meeting& meeting : meetings) {
        for (const int index : {1, 6, 2046}) {
            SCOPED_TRACE(testing::Message() << meeting.what << " at " << index);
            Clear();
            Put(index - 1, meeting.last);
            const int64_t used = index - 1 + static_cast<int64_t>(meeting.result.size());
            if (used >= kEntries) {
                continue;  // the table's end has tests of its own
            }
            EXPECT_EQ((Outcome{used}), Set(index, meeting.added.addr, meeting.added.len));
            EXPECT_EQ(meeting.result, Written(index - 1));
            EXPECT_TRUE(IsUntouched(-1, index - 1));
            EXPECT_TRUE(IsUntouched(static_cast<int>(used), kEntries + 1));
        }
    }
}

TEST_F(ZelSetSgEntry, HasNothingToMergeWithAtTheStart)
{
    Put(-1, {0x1000, 0x800});
    EXPECT_EQ((Outcome{1}), Set(0, 0x1800, 0x800));
    EXPECT_EQ((Piece{0x1000, 0x800}), At(-1));
    EXPECT_EQ((Pieces{{0x1800, 0x800}}), Written());
}

TEST_F(ZelSetSgEntry, AddsNoEntryForNothing)
{
    for (const int index : {0, 1, 5, 2047}) {
        SCOPED_TRACE(index);
        EXPECT_EQ((Outcome{index}), Set(index, 0x4000, 0));
        EXPECT_TRUE(IsUntouched(-1, kEntries + 1));
    }
}

TEST_F(ZelSetSgEntry, OverflowsBeyondTheLastSlot)
{
    for (const int index : {2048, 2049, 5000, INT_MAX}) {
        for (const uint32_t length : {0u, 1u, 0x20000u}) {
            SCOPED_TRACE(testing::Message() << length << " at " << index);
            const std::string line =
                "[zel:Zel_SetSgEntry(#)](E)Overflow sg table(" + std::to_string(index) + ")!\n";
            EXPECT_EQ((Outcome{-12, line}), Set(index, 0x4000, length));
            EXPECT_TRUE(IsUntouched(-1, kEntries + 1));
        }
    }
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { Zel_SetSgEntry(table(), 2048, 0x4000, 1); }));
}

// Even what would continue the last entry comes too late.
TEST_F(ZelSetSgEntry, LooksForOverflowBeforeItMerges)
{
    Put(2047, {0x1000, 0x800});
    EXPECT_EQ((Outcome{-12, kOverflow2048}), Set(2048, 0x1800, 0x800));
    EXPECT_EQ((Piece{0x1000, 0x800}), At(2047));
}

TEST_F(ZelSetSgEntry, OverflowsInTheLastSlotEvenWhenEverythingFitted)
{
    EXPECT_EQ((Outcome{-12, kOverflow2048}), Set(2047, 0x4000, 1));
    EXPECT_EQ((Piece{0x4000, 1}), At(2047));
    EXPECT_TRUE(IsUntouched(-1, 2047));
    EXPECT_TRUE(IsUntouched(2048, 2049));
}

TEST_F(ZelSetSgEntry, FillsUpToTheLastSlotButOne)
{
    EXPECT_EQ((Outcome{2047}), Set(2046, 0x4000, 0x10000));
    EXPECT_EQ((Pieces{{0x4000, 0x10000}}), Written(2046));
    Clear();
    EXPECT_EQ((Outcome{-12, kOverflow2048}), Set(2046, 0x4000, 0x10001));
    EXPECT_EQ((Pieces{{0x4000, 0x10000}, {0x14000, 1}}), Written(2046));
    EXPECT_TRUE(IsUntouched(2048, 2049));
}

TEST_F(ZelSetSgEntry, MergesIntoTheLastEntryOfAFullTable)
{
    Put(2046, {0x4000, 0x800});
    EXPECT_EQ((Outcome{2047}), Set(2047, 0x4800, 0x800));
    EXPECT_EQ((Pieces{{0x4000, 0x1000}}), Written(2046));
}

TEST_F(ZelSetSgEntry, TakesOneBufferOfTheWholeTablesLength)
{
    EXPECT_EQ((Outcome{2047}), Set(0, 0, 2047u * 65536));
    for (int i = 0; i < 2047; i++) {
        ASSERT_EQ((Piece{static_cast<uint32_t>(i) * 65536, 65536}), At(i)) << i;
    }
    EXPECT_TRUE(IsUntouched(2047, kEntries + 1));
    for (const uint32_t length : {2047u * 65536 + 1, 2048u * 65536, 2048u * 65536 + 1, UINT_MAX}) {
        SCOPED_TRACE(length);
        Clear();
        EXPECT_EQ((Outcome{-12, kOverflow2048}), Set(0, 0, length));
        EXPECT_TRUE(IsUntouched(-1, 0));
        EXPECT_TRUE(IsUntouched(2048, 2049));
    }
}

TEST_F(ZelSetSgEntry, RefusesANullTableWithoutAWord)
{
    for (const int index : {0, 1, 2048}) {
        EXPECT_EQ((Outcome{-22}), OutcomeOf([&] { return Zel_SetSgEntry(nullptr, index, 1, 1); }));
    }
}

// --- a list of chunks -------------------------------------------------------------------

class ZelChunk2Sg : public ZelSgTable {
protected:
    Outcome Convert(const Pieces& pieces)
    {
        return Convert(pieces, static_cast<uint32_t>(pieces.size()));
    }

    // With another count than there are pieces.
    Outcome Convert(const Pieces& pieces, uint32_t count)
    {
        std::vector<uint32_t> words = {count};
        for (const Piece& piece : pieces) {
            words.push_back(piece.addr);
            words.push_back(piece.len);
        }
        return OutcomeOf([&] {
            return Zel_Chunk2Sg(reinterpret_cast<const MemoryChunkArray*>(words.data()), table());
        });
    }

    // Pieces that do not touch each other.
    static Pieces Apart(int count)
    {
        Pieces pieces;
        for (int i = 0; i < count; i++) {
            pieces.push_back({0x100000 + static_cast<uint32_t>(i) * 0x1000, 0x200});
        }
        return pieces;
    }
};

TEST_F(ZelChunk2Sg, MarksTheLastEntryInItsHighestByte)
{
    EXPECT_EQ((Outcome{16}), Convert({{0x12345678, 0x200}, {0xABCDEF00, 0x10000}}));
    EXPECT_EQ((Bytes{0x78, 0x56, 0x34, 0x12, 0x00, 0x02, 0x00, 0x00}), BytesOfEntry(0));
    EXPECT_EQ((Bytes{0x00, 0xEF, 0xCD, 0xAB, 0x00, 0x00, 0x01, 0x80}), BytesOfEntry(1));
    EXPECT_TRUE(IsUntouched(-1, 0));
    EXPECT_TRUE(IsUntouched(2, kEntries + 1));
}

struct Conversion {
    const char* what;
    Pieces chunks;
    Pieces entries;  // the last one with its mark
};

TEST_F(ZelChunk2Sg, PutsTheChunksInOrder)
{
    const Conversion conversions[] = {
        {"one", {{0x1000, 0x800}}, {{0x1000, 0x80000800}}},
        {"two that meet", {{0x1000, 0x800}, {0x1800, 0x800}}, {{0x1000, 0x80001000}}},
        {"three that meet",
         {{0x1000, 0x800}, {0x1800, 0x400}, {0x1C00, 0x200}},
         {{0x1000, 0x80000E00}}},
        {"two the other way round",
         {{0x1800, 0x800}, {0x1000, 0x800}},
         {{0x1800, 0x800}, {0x1000, 0x80000800}}},
        {"a long one",
         {{0x1000, 200000}},
         {{0x1000, 65536}, {0x11000, 65536}, {0x21000, 65536}, {0x31000, 0x80000000 + 3392}}},
        {"two that are too long together",
         {{0x1000, 0x8000}, {0x9000, 0x8001}},
         {{0x1000, 0x8000}, {0x9000, 0x80008001}}},
        {"three of which two fit together",
         {{0x1000, 0x8000}, {0x9000, 0x8000}, {0x11000, 0x8000}},
         {{0x1000, 0x10000}, {0x11000, 0x80008000}}},
        {"what continues a split one",
         {{0x1000, 0x10800}, {0x11800, 0x800}},
         {{0x1000, 0x10000}, {0x11000, 0x80001000}}},
        {"nothing in the middle",
         {{0x1000, 0x800}, {0x7000, 0}, {0x9000, 0x800}},
         {{0x1000, 0x800}, {0x9000, 0x80000800}}},
        {"nothing in the middle of two that meet",
         {{0x1000, 0x800}, {0x7000, 0}, {0x1800, 0x800}},
         {{0x1000, 0x80001000}}},
        {"nothing at the start", {{0x7000, 0}, {0x9000, 0x800}}, {{0x9000, 0x80000800}}},
        {"nothing at the end", {{0x9000, 0x800}, {0x7000, 0}}, {{0x9000, 0x80000800}}},
    };
    for (const Conversion& conversion : conversions) {
        SCOPED_TRACE(conversion.what);
        Clear();
        const size_t entries = conversion.entries.size();
        EXPECT_EQ((Outcome{static_cast<int64_t>(8 * entries)}), Convert(conversion.chunks));
        EXPECT_EQ(conversion.entries, Written());
        EXPECT_TRUE(IsUntouched(-1, 0));
        EXPECT_TRUE(IsUntouched(static_cast<int>(entries), kEntries + 1));
    }
}

TEST_F(ZelChunk2Sg, ClearsTheMarksOfTheListBefore)
{
    EXPECT_EQ((Outcome{8}), Convert({{0x1000, 0x800}}));
    EXPECT_EQ((Outcome{24}), Convert({{0x1000, 0x800}, {0x5000, 8}, {0x9000, 8}}));
    EXPECT_EQ((Pieces{{0x1000, 0x800}, {0x5000, 8}, {0x9000, 0x80000008}}), Written());
}

TEST_F(ZelChunk2Sg, MarksTheWordInFrontForAnEmptyList)
{
    struct Empty {
        const char* what;
        Pieces chunks;
        uint32_t count;
    };
    const Empty lists[] = {
        {"no chunk", {}, 0},
        {"no chunk is looked at", {{0x1000, 0x800}}, 0},
        {"the count is signed", {{0x1000, 0x800}}, 0x80000000},
        {"minus one", {{0x1000, 0x800}}, 0xFFFFFFFF},
        {"a chunk of nothing", {{0x1000, 0}}, 1},
        {"two of nothing", {{0x1000, 0}, {0x2000, 0}}, 2},
    };
    for (const Empty& list : lists) {
        SCOPED_TRACE(list.what);
        Clear();
        EXPECT_EQ((Outcome{0}), Convert(list.chunks, list.count));
        EXPECT_EQ((Bytes{0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0xE1}), BytesOfEntry(-1));
        // A mark that is there already stays.
        EXPECT_EQ((Outcome{0}), Convert(list.chunks, list.count));
        EXPECT_EQ((Bytes{0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0xE1}), BytesOfEntry(-1));
        EXPECT_TRUE(IsUntouched(0, kEntries + 1));
    }
}

TEST_F(ZelChunk2Sg, TakesAsManyEntriesAsThereAreSlotsButOne)
{
    EXPECT_EQ((Outcome{16376}), Convert(Apart(2047)));
    EXPECT_EQ((Piece{0x8FD000, 0x200}), At(2045));
    EXPECT_EQ((Piece{0x8FE000, 0x80000200}), At(2046));
    EXPECT_TRUE(IsUntouched(2047, kEntries + 1));
    Pieces merging = Apart(2047);
    merging.push_back({merging.back().addr + 0x200, 0x200});
    Clear();
    EXPECT_EQ((Outcome{16376}), Convert(merging));
    EXPECT_EQ((Piece{0x8FE000, 0x80000400}), At(2046));
    EXPECT_TRUE(IsUntouched(2047, kEntries + 1));
}

// The first chunk that does not fit ends it; what is there stays, unmarked.
TEST_F(ZelChunk2Sg, FailsWhereTheTableOverflows)
{
    for (const int count : {2048, 2049, 2100}) {
        SCOPED_TRACE(count);
        Clear();
        EXPECT_EQ((Outcome{-12, std::string(kOverflow2048) +
                                    "[zel:Zel_Chunk2Sg(#)](E)Zel_SetSgEntry failed(-12)!\n"}),
                  Convert(Apart(count)));
        EXPECT_EQ(Apart(2048), Written());
        EXPECT_TRUE(IsUntouched(-1, 0));
        EXPECT_TRUE(IsUntouched(2048, 2049));
    }
    const uint32_t whole[] = {1, 0, 2048u * 65536};
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] {
                  Zel_Chunk2Sg(reinterpret_cast<const MemoryChunkArray*>(whole), table());
              }));
}

// A count whose list would end anywhere: the chunks there are fill the table first.
TEST_F(ZelChunk2Sg, FailsForAnAbsurdCount)
{
    for (const uint32_t count : {0x10000001u, 0x20000001u, 0x40000001u, 0x7FFFFFFFu}) {
        SCOPED_TRACE(count);
        Clear();
        EXPECT_EQ((Outcome{-12, std::string(kOverflow2048) +
                                    "[zel:Zel_Chunk2Sg(#)](E)Zel_SetSgEntry failed(-12)!\n"}),
                  Convert(Apart(2048), count));
    }
}

TEST_F(ZelChunk2Sg, NeedsBothArguments)
{
    const uint32_t one[] = {1, 0x1000, 0x200};
    const auto* chunks = reinterpret_cast<const MemoryChunkArray*>(one);
    const Outcome refused = {-22, "[zel:Zel_Chunk2Sg(#)](E)Invalid arguments!\n"};
    EXPECT_EQ(refused, OutcomeOf([&] { return Zel_Chunk2Sg(nullptr, table()); }));
    EXPECT_EQ(refused, OutcomeOf([&] { return Zel_Chunk2Sg(chunks, nullptr); }));
    EXPECT_EQ(refused, OutcomeOf([&] { return Zel_Chunk2Sg(nullptr, nullptr); }));
    EXPECT_TRUE(IsUntouched(-1, kEntries + 1));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { Zel_Chunk2Sg(nullptr, table()); }));
}

// --- the unit's own table -----------------------------------------------------------------

class ZelUnitsTable : public Zel {};

// The mark of an empty list lands in the block that the unit's table lies in.
TEST_F(ZelUnitsTable, HasRoomForTheMarkOfAnEmptyList)
{
    kernel.FillBlocksWith(0x61);
    Open();
    uint32_t none[1] = {};
    EXPECT_EQ(0, Zel_Chunk2Sg(reinterpret_cast<const MemoryChunkArray*>(none), dev->sg_table));
    EXPECT_EQ((Bytes{0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0x61, 0xE1}),
              BytesAt(AddressOf(dev->sg_table) - 8, 8));
    const uintptr_t table = AddressOf(dev->sg_table);
    kernel.ClearCalls();
    zel_ops.Exit(&handle);
    const cardsim::Call freed = kernel.Calls().at(1);
    EXPECT_EQ(cardsim::CallKind::Free, freed.kind);
    EXPECT_EQ(table - 8, freed.argument);
}

TEST_F(ZelUnitsTable, Holds2048Entries)
{
    kernel.FillBlocksWith(0x61);
    Open();
    EXPECT_EQ((Outcome{-12, kOverflow2048}),
              OutcomeOf([&] { return Zel_SetSgEntry(dev->sg_table, 2047, 0x1000, 1); }));
    EXPECT_EQ((Bytes{0x00, 0x10, 0, 0, 1, 0, 0, 0}),
              BytesAt(AddressOf(dev->sg_table) + uintptr_t{2047} * 8, 8));
}

}  // namespace
