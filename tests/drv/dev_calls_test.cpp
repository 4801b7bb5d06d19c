// SPDX-License-Identifier: MIT
//
// The Dev* calls, apart from detection: checks, one slot each, what an empty
// slot answers, and the two array variants of the direct transfers.
#include <algorithm>
#include <memory>

#include "drv/drv.h"
#include "sim/low_memory.h"
#include "tests/drv/frame_call.h"
#include "tests/support/trace.h"

namespace {

using cardsim::CallKind;
using cardsim::Fault;
using cardsim::Kernel;
using recording::Arrival;
using recording::Word;

uint8_t buffer[512];
uint32_t retried;
MemoryChunkArray chunks;
BlockList blocks;

std::vector<FrameCall> CallsThatWarn()
{
    return {
        {"DevInit",
         0,
         [](DrvInfo* handle) { return DevInit(handle); },
         {},
         -22,
         "[drv:DevInit(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:DevInit(#)](W)\nNOT supported Init method!\n"},
        {"DevIoctl",
         4,
         [](DrvInfo* handle) { return DevIoctl(handle, 0xFEDCBA98, buffer); },
         {0xFEDCBA98, Word(&buffer[0])},
         -22,
         "[drv:DevIoctl(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:DevIoctl(#)](W)\nNOT supported Ioctl method!\n"},
        {"DevDrctRead",
         14,
         [](DrvInfo* handle) { return DevDrctRead(handle, 0xFFFFFFFE, 0x80000001, &chunks); },
         {0xFFFFFFFE, 0x80000001, Word(&chunks)},
         -22,
         "[drv:DevDrctRead(#)](E)Invalid wrapper low-level driver info!\n",
         -22,
         "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"},
        {"DevDrctWrite",
         15,
         [](DrvInfo* handle) {
             return DevDrctWrite(handle, 0xFFFFFFFE, 0x80000001, &chunks, 0xFEDCBA98, &retried);
         },
         {0xFFFFFFFE, 0x80000001, Word(&chunks), 0xFEDCBA98, Word(&retried)},
         -22,
         "[drv:DevDrctWrite(#)](E)Invalid wrapper low-level driver info!\n",
         -22,
         "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n"},
        {"DevDrctRMW",
         16,
         [](DrvInfo* handle) { return DevDrctRMW(handle, &blocks); },
         {Word(&blocks)},
         -22,
         "[drv:DevDrctRMW(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:DevDrctRMW(#)](W)\nNOT supported DrctRMW method!\n"},
        {"DevFatWrite",
         17,
         [](DrvInfo* handle) { return DevFatWrite(handle, &blocks); },
         {Word(&blocks)},
         -22,
         "[drv:DevFatWrite(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:DevFatWrite(#)](W)\nNOT supported FatWrite method!\n"},
        {"DevSdCmdWrite",
         18,
         [](DrvInfo* handle) {
             return DevSdCmdWrite(handle, buffer, 0x80000001, 0xFEDCBA98, 0xFD, 0xFC);
         },
         {Word(&buffer[0]), 0x80000001, 0xFEDCBA98, 0xFD, 0xFC},
         -22,
         "[drv:DevSdCmdWrite(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         "[drv:DevSdCmdWrite(#)](W)\nNOT supported SdCmdWrite method!\n"},
    };
}

std::vector<FrameCall> SilentCalls()
{
    return {
        {"DevCheckRt",
         19,
         [](DrvInfo* handle) { return DevCheckRt(handle); },
         {},
         -22,
         "[drv:DevCheckRt(#)](E)Invalid wrapper low-level driver info!\n",
         1,
         ""},
        {"DevCheckDelay",
         20,
         [](DrvInfo* handle) { return DevCheckDelay(handle); },
         {},
         -22,
         "[drv:DevCheckDelay(#)](E)Invalid wrapper low-level driver info!\n",
         1,
         ""},
        {"DevRTOn4Wait",
         21,
         [](DrvInfo* handle) { return DevRTOn4Wait(handle); },
         {},
         -22,
         "[drv:DevRTOn4Wait(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         ""},
    };
}

std::vector<FrameCall> CallsWithoutAResult()
{
    return {
        {"DevLockRTOn",
         22,
         [](DrvInfo* handle) {
             DevLockRTOn(handle);
             return 0;
         },
         {},
         0,
         "[drv:DevLockRTOn(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         ""},
        {"DevUnlockRTOn",
         23,
         [](DrvInfo* handle) {
             DevUnlockRTOn(handle);
             return 0;
         },
         {},
         0,
         "[drv:DevUnlockRTOn(#)](E)Invalid wrapper low-level driver info!\n",
         0,
         ""},
    };
}

std::vector<FrameCall> AllCalls()
{
    std::vector<FrameCall> all = CallsThatWarn();
    for (const FrameCall& row : SilentCalls()) {
        all.push_back(row);
    }
    for (const FrameCall& row : CallsWithoutAResult()) {
        all.push_back(row);
    }
    return all;
}

TEST(DevCalls, RefuseAHandleThatIsBoundToNothing)
{
    for (const FrameCall& row : AllCalls()) {
        ExpectRefusesAnUnboundHandle(row);
    }
}

TEST(DevCalls, ForwardOnceAndUnchanged)
{
    for (const FrameCall& row : CallsThatWarn()) {
        ExpectForwards(row, AsItStands);
    }
    for (const FrameCall& row : SilentCalls()) {
        ExpectForwards(row, AsItStands);
    }
    for (const FrameCall& row : CallsWithoutAResult()) {
        ExpectForwards(row, [](int32_t) { return 0; });
    }
}

TEST(DevCalls, AnswerForAnEmptySlot)
{
    for (const FrameCall& row : AllCalls()) {
        ExpectAnswersForAnEmptySlot(row);
    }
}

// The frame looks at no argument of these but the handle.
TEST(DevCalls, PassNothingOnAsNothing)
{
    recording::Reset();
    DrvInfo handle = MarkedHandle(&recording::kOps);
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(0, DevIoctl(&handle, 0, nullptr));
                  EXPECT_EQ(0, DevDrctRead(&handle, 0, 0, nullptr));
                  EXPECT_EQ(0, DevDrctWrite(&handle, 0, 0, nullptr, 0, nullptr));
                  EXPECT_EQ(0, DevDrctRMW(&handle, nullptr));
                  EXPECT_EQ(0, DevFatWrite(&handle, nullptr));
                  EXPECT_EQ(0, DevSdCmdWrite(&handle, nullptr, 0, 0, 0, 0));
              }));
    EXPECT_EQ((std::vector<Arrival>{{4, &handle, {0, 0}},
                                    {14, &handle, {0, 0, 0}},
                                    {15, &handle, {0, 0, 0, 0, 0}},
                                    {16, &handle, {0}},
                                    {17, &handle, {0}},
                                    {18, &handle, {0, 0, 0, 0, 0}}}),
              recording::arrivals);
}

// --- DevExit -----------------------------------------------------------------------

void ExpectZeroed(const DrvInfo& handle)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&handle);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof handle, [](uint8_t byte) { return byte == 0; }));
}

TEST(DevExit, ZeroesTheHandleAfterTheSlotHasSeenIt)
{
    for (const int32_t answer : {0, 1, -1, -5}) {
        SCOPED_TRACE(answer);
        recording::Reset();
        recording::answer = answer;
        DrvInfo handle;
        memset(&handle, 0xE1, sizeof handle);
        handle.ops = &recording::kOps;
        const DrvInfo before = handle;
        recording::on_arrival = [&](DrvInfo* seen) { ExpectUnchanged(*seen, before); };
        EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
        EXPECT_EQ((std::vector<Arrival>{{1, &handle, {}}}), recording::arrivals);
        ExpectZeroed(handle);
    }
    recording::Reset();
}

// What the slot writes into the handle goes, too.
TEST(DevExit, ZeroesWhatTheSlotLeaves)
{
    recording::Reset();
    DrvInfo handle = MarkedHandle(&recording::kOps);
    recording::on_arrival = [](DrvInfo* seen) { memset(seen, 0xE1, sizeof *seen); };
    DevExit(&handle);
    ExpectZeroed(handle);
    recording::Reset();
}

TEST(DevExit, ZeroesTheHandleAlsoForAnEmptySlot)
{
    recording::Reset();
    const DrvOps ops = recording::Without(1);
    DrvInfo handle;
    memset(&handle, 0xE1, sizeof handle);
    handle.ops = &ops;
    EXPECT_EQ("[drv:DevExit(#)](W)\nNOT supported Exit method!\n",
              Printed([&] { DevExit(&handle); }));
    EXPECT_TRUE(recording::arrivals.empty());
    ExpectZeroed(handle);

    handle.ops = &ops;
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { DevExit(&handle); }));
}

TEST(DevExit, LeavesAHandleThatIsBoundToNothing)
{
    EXPECT_EQ("[drv:DevExit(#)](E)Invalid wrapper low-level driver info!\n",
              Printed([] { DevExit(nullptr); }));
    DrvInfo unbound = MarkedHandle(nullptr);
    const DrvInfo before = unbound;
    EXPECT_EQ("[drv:DevExit(#)](E)Invalid wrapper low-level driver info!\n",
              Printed([&] { DevExit(&unbound); }));
    ExpectUnchanged(unbound, before);
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { DevExit(&unbound); }));
}

TEST(DevExit, LeavesAHandleThatNoCallServes)
{
    recording::Reset();
    DrvInfo handle = MarkedHandle(&recording::kOps);
    DevExit(&handle);
    recording::arrivals.clear();
    EXPECT_EQ(
        "[drv:DevExit(#)](E)Invalid wrapper low-level driver info!\n"
        "[drv:DevInit(#)](E)Invalid wrapper low-level driver info!\n"
        "[drv:CARD_GetCardSize(#)](E)Invalid wrapper low-level driver info!\n",
        Printed([&] {
            DevExit(&handle);
            EXPECT_EQ(-22, DevInit(&handle));
            EXPECT_EQ(10u, CARD_GetCardSize(&handle));
        }));
    EXPECT_TRUE(recording::arrivals.empty());
}

// --- DevArray2Chunk ------------------------------------------------------------------

constexpr uint32_t kCapacity = 12;

// Room for a list of chunks, marked so that writes show.
struct ChunkRoom {
    alignas(MemoryChunkArray) uint8_t bytes[4 + 8 * kCapacity];
    explicit ChunkRoom(uint32_t count)
    {
        memset(bytes, 0xE1, sizeof bytes);
        list()->count = count;
    }
    MemoryChunkArray* list() { return reinterpret_cast<MemoryChunkArray*>(bytes); }
};

MemoryArray Pieces(int32_t count)
{
    MemoryArray list = {};
    list.reserved = 0xDEADBEEF;
    for (uint32_t i = 0; i < MEMORY_ARRAY_PIECES; i++) {
        list.addr[i] = 0xA0000000 + i;
        list.len[i] = 0xFFFF0000 + 512 * i;
    }
    list.count = count;
    return list;
}

void ExpectPieces(const MemoryChunkArray& got, uint32_t pieces)
{
    for (uint32_t i = 0; i < pieces; i++) {
        EXPECT_EQ(0xA0000000 + i, got.chunk[i].addr) << i;
        EXPECT_EQ(0xFFFF0000 + 512 * i, got.chunk[i].len) << i;
    }
}

TEST(DevArray2Chunk, CopiesThePieces)
{
    for (const int32_t count : {1, 2, 7, 8}) {
        SCOPED_TRACE(count);
        ChunkRoom room(0);
        const MemoryArray list = Pieces(count);
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, DevArray2Chunk(&list, room.list())); }));
        const auto pieces = static_cast<uint32_t>(count);
        EXPECT_EQ(pieces, room.list()->count);
        ExpectPieces(*room.list(), pieces);
        for (uint32_t i = pieces; i < kCapacity; i++) {
            EXPECT_EQ(0xE1E1E1E1, room.list()->chunk[i].addr) << i;
            EXPECT_EQ(0xE1E1E1E1, room.list()->chunk[i].len) << i;
        }
    }
}

TEST(DevArray2Chunk, TouchesNothingBelowOnePiece)
{
    for (const int32_t count : {0, -1, INT_MIN}) {
        SCOPED_TRACE(count);
        ChunkRoom room(0xE1E1E1E1);
        const MemoryArray list = Pieces(count);
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, DevArray2Chunk(&list, room.list())); }));
        EXPECT_TRUE(std::all_of(std::begin(room.bytes), std::end(room.bytes),
                                [](uint8_t byte) { return byte == 0xE1; }));
    }
}

// Whoever changes the count meanwhile, here the list that is filled, ends the loop by it.
TEST(DevArray2Chunk, LooksAtTheCountBeforeEachPiece)
{
    // The third piece's length goes to where the count stands, and comes from where the number
    // of pieces that are done stands: 2.
    constexpr size_t kThirdLength = offsetof(MemoryChunkArray, chunk) + 2 * sizeof(MemoryChunk) + 4;
    alignas(MemoryArray) uint8_t both[sizeof(MemoryArray)] = {};
    const MemoryArray pieces = Pieces(8);
    memcpy(both, &pieces, sizeof pieces);
    auto* const filled =
        reinterpret_cast<MemoryChunkArray*>(both + offsetof(MemoryArray, count) - kThirdLength);
    filled->count = 0;
    EXPECT_EQ(0, DevArray2Chunk(reinterpret_cast<const MemoryArray*>(both), filled));
    EXPECT_EQ(3u, filled->count);
}

// Entries are filled from the first on whatever the count was.
TEST(DevArray2Chunk, AddsToTheCount)
{
    for (const uint32_t count : {1u, 5u, 0x7FFFFFFFu, 0xFFFFFFFEu}) {
        SCOPED_TRACE(count);
        ChunkRoom room(count);
        const MemoryArray list = Pieces(3);
        EXPECT_EQ(0, DevArray2Chunk(&list, room.list()));
        EXPECT_EQ(count + 3, room.list()->count);
        ExpectPieces(*room.list(), 3);
        EXPECT_EQ(0xE1E1E1E1, room.list()->chunk[3].addr);
    }
}

TEST(DevArray2Chunk, RefusesNullArguments)
{
    ChunkRoom room(0);
    const MemoryArray list = Pieces(3);
    const char* const printed = "[drv:DevArray2Chunk(#)](E)Invalid arguments!\n";
    EXPECT_EQ(printed, Printed([&] { EXPECT_EQ(-22, DevArray2Chunk(nullptr, room.list())); }));
    EXPECT_EQ(printed, Printed([&] { EXPECT_EQ(-22, DevArray2Chunk(&list, nullptr)); }));
    EXPECT_EQ(printed, Printed([] { EXPECT_EQ(-22, DevArray2Chunk(nullptr, nullptr)); }));
    EXPECT_EQ(0u, room.list()->count);
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [] { DevArray2Chunk(nullptr, nullptr); }));
}

// --- DevDrctReadArray and DevDrctWriteArray --------------------------------------------

struct ArrayTransfer {
    const char* name;
    size_t slot;
    std::function<int32_t(DrvInfo*, const MemoryArray*)> call;
    std::vector<uint64_t> before_list;  // arguments of the slot around the list
    std::vector<uint64_t> after_list;
    std::string empty_printed;
    std::string no_memory_printed;
    bool clears_count;
};

std::vector<ArrayTransfer> ArrayTransfers()
{
    return {
        {"DevDrctReadArray",
         14,
         [](DrvInfo* handle, const MemoryArray* list) {
             return DevDrctReadArray(handle, 0xFFFFFFFE, 0x80000001, list);
         },
         {0xFFFFFFFE, 0x80000001},
         {},
         "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n",
         "[drv:DevDrctReadArray(#)](E)malloc MemoryChunkArray failed!\n",
         true},
        {"DevDrctWriteArray",
         15,
         [](DrvInfo* handle, const MemoryArray* list) {
             return DevDrctWriteArray(handle, 0xFFFFFFFE, 0x80000001, list, 0xFEDCBA98, &retried);
         },
         {0xFFFFFFFE, 0x80000001},
         {0xFEDCBA98, Word(&retried)},
         "[drv:DevDrctWrite(#)](W)\nNOT supported DrctWrite method!\n",
         "[drv:DevDrctWriteArray(#)](E)malloc MemoryChunkArray failed!\n",
         false},
    };
}

class DrctArray : public testing::Test {
protected:
    DrctArray() { recording::Reset(); }
    ~DrctArray() override { recording::Reset(); }

    // The list as it was when the slot was called.
    void KeepTheList(int32_t pieces)
    {
        recording::on_arrival = [this, pieces](DrvInfo*) {
            const auto* list = reinterpret_cast<const MemoryChunkArray*>(
                static_cast<uintptr_t>(recording::arrivals.back().arguments.at(2)));
            seen_at = list;
            seen_count = list->count;
            seen_blocks = kernel.LiveBlocks();
            seen_calls = kernel.Calls().size();
            ExpectPieces(*list, static_cast<uint32_t>(pieces));
        };
    }

    Kernel kernel;
    DrvInfo handle = MarkedHandle(&recording::kOps);
    const MemoryChunkArray* seen_at = nullptr;
    uint32_t seen_count = 4711;
    size_t seen_blocks = 0;
    size_t seen_calls = 0;
};

TEST_F(DrctArray, HandsOverAListOfExactSizeAndFreesIt)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        for (const int32_t count : {0, 1, 2, 8}) {
            SCOPED_TRACE(testing::Message() << row.name << " " << count);
            recording::Reset();
            kernel.ClearCalls();
            recording::answer = 4096;
            KeepTheList(count);
            const MemoryArray list = Pieces(count);
            const DrvInfo before = handle;
            EXPECT_EQ("", Printed([&] { EXPECT_EQ(4096, row.call(&handle, &list)); }));

            std::vector<uint64_t> arguments = row.before_list;
            arguments.push_back(Word(seen_at));
            arguments.insert(arguments.end(), row.after_list.begin(), row.after_list.end());
            EXPECT_EQ((std::vector<Arrival>{{row.slot, &handle, arguments}}), recording::arrivals);
            EXPECT_EQ(static_cast<uint32_t>(count), seen_count);
            EXPECT_EQ(1u, seen_blocks);
            EXPECT_EQ(1u, seen_calls);
            EXPECT_EQ((Trace{"malloc(" + std::to_string(4 + 8 * count) + ")", "free() = 0"}),
                      TraceOf(kernel));
            EXPECT_EQ(Word(seen_at), kernel.Calls().back().argument);
            EXPECT_EQ(0u, kernel.LiveBlocks());
            ExpectUnchanged(handle, before);
        }
    }
}

// The write variant does not clear the count: it goes on from what the
// allocator left there.
TEST_F(DrctArray, StartsTheCountAtNothingForReadsOnly)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        for (const int32_t count : {0, 3}) {
            for (const uint32_t fill : {0x00u, 0x01u, 0xA5u, 0xFFu}) {
                SCOPED_TRACE(testing::Message() << row.name << " " << count << " " << fill);
                recording::Reset();
                kernel.FillBlocksWith(static_cast<uint8_t>(fill));
                KeepTheList(count);
                const MemoryArray list = Pieces(count);
                EXPECT_EQ(0, row.call(&handle, &list));
                const uint32_t left = row.clears_count ? 0 : 0x01010101u * fill;
                EXPECT_EQ(left + static_cast<uint32_t>(count), seen_count);
            }
        }
    }
    kernel.FillBlocksWith(0);
}

TEST_F(DrctArray, PassesTheResultOnAndFreesTheListWhateverItIs)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        for (const int32_t answer : {0, 1, 65531, INT_MAX, -1, -5, -22, INT_MIN}) {
            SCOPED_TRACE(testing::Message() << row.name << " " << answer);
            recording::Reset();
            recording::answer = answer;
            recording::on_arrival = [](DrvInfo*) { errno = EXFULL; };
            const MemoryArray list = Pieces(2);
            int error = 0;
            EXPECT_EQ("", Printed([&] {
                          EXPECT_EQ(answer, row.call(&handle, &list));
                          error = errno;
                      }));
            EXPECT_EQ(EXFULL, error);
            EXPECT_EQ(1u, recording::arrivals.size());
            EXPECT_EQ(0u, kernel.LiveBlocks());
        }
    }
}

TEST_F(DrctArray, FreesTheListForAnEmptySlot)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        SCOPED_TRACE(row.name);
        kernel.ClearCalls();
        const DrvOps ops = recording::Without(row.slot);
        handle.ops = &ops;
        const MemoryArray list = Pieces(3);
        EXPECT_EQ(row.empty_printed, Printed([&] { EXPECT_EQ(-22, row.call(&handle, &list)); }));
        EXPECT_EQ((Trace{"malloc(28)", "free() = 0"}), TraceOf(kernel));
        EXPECT_EQ(0u, kernel.LiveBlocks());
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

TEST_F(DrctArray, GivesUpWithoutMemory)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        SCOPED_TRACE(row.name);
        kernel.ClearCalls();
        Fault full;
        full.kind = CallKind::Malloc;
        full.error = ENOMEM;
        kernel.Inject(full);
        const MemoryArray list = Pieces(8);
        EXPECT_EQ(row.no_memory_printed,
                  Printed([&] { EXPECT_EQ(-12, row.call(&handle, &list)); }));
        EXPECT_EQ(Trace{"malloc(68) = -1 ENOMEM"}, TraceOf(kernel));
        EXPECT_TRUE(recording::arrivals.empty());

        kernel.ClearFaults();
        full.times = Fault::kForEver;
        kernel.Inject(full);
        EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { row.call(&handle, &list); }));
        kernel.ClearFaults();
    }
}

// The length of the list is formed in 32 bits: -1 asks for 4 bytes less than
// nothing, which no allocator has, and the smallest number for just the count.
TEST_F(DrctArray, FormsTheLengthOfTheListIn32Bits)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        SCOPED_TRACE(row.name);
        kernel.ClearCalls();
        recording::arrivals.clear();
        MemoryArray list = Pieces(-1);
        EXPECT_EQ(row.no_memory_printed,
                  Printed([&] { EXPECT_EQ(-12, row.call(&handle, &list)); }));
        EXPECT_TRUE(recording::arrivals.empty());
        list = Pieces(INT_MIN);
        KeepTheList(0);
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(0, row.call(&handle, &list)); }));
        EXPECT_EQ(0u, seen_count);
        EXPECT_EQ((Trace{"malloc(4294967292) = -1 ENOMEM", "malloc(4)", "free() = 0"}),
                  TraceOf(kernel));
        recording::Reset();
    }
}

TEST_F(DrctArray, RefusesWhatIsMissingWithoutAWord)
{
    for (const ArrayTransfer& row : ArrayTransfers()) {
        SCOPED_TRACE(row.name);
        const MemoryArray list = Pieces(3);
        DrvInfo unbound = MarkedHandle(nullptr);
        const DrvInfo before = unbound;
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(-22, row.call(nullptr, &list));
                      EXPECT_EQ(-22, row.call(nullptr, nullptr));
                      EXPECT_EQ(-22, row.call(&unbound, &list));
                      EXPECT_EQ(-22, row.call(&handle, nullptr));
                  }));
        ExpectUnchanged(unbound, before);
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(recording::arrivals.empty());
    }
}

}  // namespace
