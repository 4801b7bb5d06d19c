// SPDX-License-Identifier: MIT
//
// The Zel back-end's direct reads and writes: the record and the table that go to
// the driver, which request is chosen, and what is refused before there is one.
#include "tests/zel/transfer_fixture.h"

namespace {

using cardsim::Fault;

constexpr uint32_t kEnd = 0x80000000;

// The direct read and the two kinds of direct write, for what they have in common.
struct Direction {
    const char* function;
    uint32_t request;
    int32_t (*run)(DrvInfo*, uint32_t sector, uint32_t length, MemoryChunkArray*);
};

uint32_t last_retried;

int32_t DirectRead(DrvInfo* handle, uint32_t sector, uint32_t length, MemoryChunkArray* chunks)
{
    return zel_ops.DrctRead(handle, sector, length, chunks);
}

template <uint32_t kMode>
int32_t DirectWrite(DrvInfo* handle, uint32_t sector, uint32_t length, MemoryChunkArray* chunks)
{
    last_retried = 0xABAB;
    return zel_ops.DrctWrite(handle, sector, length, chunks, kMode, &last_retried);
}

const Direction kDirections[] = {
    {"Zel_DrctRead", kRead, DirectRead},
    {"Zel_DrctWrite", kSeqWrite, DirectWrite<0>},
    {"Zel_DrctWrite", kWrite, DirectWrite<1>},
};

// A request as the driver finds it.
struct Seen {
    Bytes record;
    Bytes table;
};

class ZelDirect : public ZelTransfer {
protected:
    // What one transfer hands to the driver.
    Seen SentBy(const Direction& way, uint32_t sector, uint32_t length, MemoryChunkArray* chunks)
    {
        Seen seen;
        kernel.ClearFaults();
        Intercept(way.request, [&](uintptr_t argument) {
            seen.record = MemoryAt(argument, 16);
            uint32_t list[2];  // address and length
            memcpy(list, &seen.record[8], sizeof list);
            seen.table = MemoryAt(list[0], list[1]);
        });
        kernel.ClearCalls();
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(static_cast<int32_t>(length),
                                way.run(&handle, sector, length, chunks));
                  }));
        EXPECT_EQ((Trace{Ioctl(way.request), Poll()}), TraceOf(kernel));
        return seen;
    }
};

struct ListRow {
    const char* what;
    std::vector<MemoryChunk> chunks;
    std::vector<uint32_t> table;
};

TEST_F(ZelDirect, HandsOverTheRecordAndTheTable)
{
    const ListRow rows[] = {
        {"one piece", {{0x1000, 0x600}}, {0x1000, 0x600 | kEnd}},
        {"odd address and length", {{0x1003, 1}}, {0x1003, 1 | kEnd}},
        {"pieces apart", {{0x1000, 0x200}, {0x3000, 0x400}}, {0x1000, 0x200, 0x3000, 0x400 | kEnd}},
        {"pieces in reverse",
         {{0x3000, 0x200}, {0x2E00, 0x200}},
         {0x3000, 0x200, 0x2E00, 0x200 | kEnd}},
        {"adjacent pieces", {{0x1000, 0x800}, {0x1800, 0x800}}, {0x1000, 0x1000 | kEnd}},
        {"adjacent up to the limit",
         {{0x10000, 0x8000}, {0x18000, 0x8000}},
         {0x10000, 0x10000 | kEnd}},
        {"adjacent beyond the limit",
         {{0x10000, 0x8000}, {0x18000, 0x8001}},
         {0x10000, 0x8000, 0x18000, 0x8001 | kEnd}},
        {"64 KiB", {{0x10000, 0x10000}}, {0x10000, 0x10000 | kEnd}},
        {"a byte more", {{0x10000, 0x10001}}, {0x10000, 0x10000, 0x20000, 1 | kEnd}},
        {"200000 bytes",
         {{0x10000, 200000}},
         {0x10000, 65536, 0x20000, 65536, 0x30000, 65536, 0x40000, 3392 | kEnd}},
        {"an empty piece in the middle",
         {{0x1000, 0x200}, {0x9000, 0}, {0x3000, 0x200}},
         {0x1000, 0x200, 0x3000, 0x200 | kEnd}},
        {"an empty piece at the end", {{0x1000, 0x200}, {0x9000, 0}}, {0x1000, 0x200 | kEnd}},
        {"an address at the end", {{0xFFFFFF00, 0x100}}, {0xFFFFFF00, 0x100 | kEnd}},
    };
    Open();
    for (const Direction& way : kDirections) {
        for (const ListRow& row : rows) {
            SCOPED_TRACE(testing::Message() << way.function << ", " << row.what);
            Chunks chunks(row.chunks, static_cast<uint32_t>(row.chunks.size()));
            Bytes table;
            for (const uint32_t word : row.table) {
                table = table + TableWords({word});
            }
            // The length is the caller's word: pieces are not added up.
            const Seen seen = SentBy(way, 0x89ABCDEF, 0x12345, chunks.get());
            EXPECT_EQ(
                Words({0x89ABCDEF, 0x91, Low(dev.sg_table), static_cast<uint32_t>(table.size())}),
                seen.record);
            EXPECT_EQ(table, seen.table);
            EXPECT_EQ(0, dev.io_error);
        }
    }
}

struct LengthRow {
    uint32_t bytes;
    uint32_t sectors;
};

TEST_F(ZelDirect, CountsWholeSectorsAndReturnsTheLengthAsItIs)
{
    const LengthRow rows[] = {
        {0, 0},
        {511, 0},
        {512, 1},
        {1023, 1},
        {0x7FFFFFFF, 0x003FFFFF},
        {0x80000000, 0x00400000},
        {0xFFFFFFFF, 0x007FFFFF},
    };
    Open();
    for (const Direction& way : kDirections) {
        for (const LengthRow& row : rows) {
            SCOPED_TRACE(testing::Message() << way.function << " " << row.bytes);
            Chunks chunks{{0x1000, 0x200}};
            EXPECT_EQ(Words({7, row.sectors, Low(dev.sg_table), 8}),
                      SentBy(way, 7, row.bytes, chunks.get()).record);
        }
    }
}

TEST_F(ZelDirect, BuildsTheTableAfreshForEachRequest)
{
    Open();
    Chunks many{{0x1000, 0x200}, {0x2000, 0x200}, {0x3000, 0x200}};
    Chunks one{{0x1200, 0x200}};
    SentBy(kDirections[0], 0, 1536, many.get());
    EXPECT_EQ(TableWords({0x1200, 0x200 | kEnd}), SentBy(kDirections[0], 0, 512, one.get()).table);
}

TEST_F(ZelDirect, MovesScatteredSectors)
{
    Open();
    const Bytes written = Pattern(8, 3);
    FillBuffer(written);
    const uint32_t at = buffer.address();
    uint32_t retried = 9;
    Chunks chunks{{at, 100}, {at + 100, 1}, {at + 101, 2000}, {at + 2101, 1995}};
    ASSERT_EQ(4096, DevDrctWrite(&handle, 40, 4096, chunks.get(), 0, &retried));
    EXPECT_EQ(0u, retried);
    EXPECT_EQ(written, OnCard(40, 8));

    cardsim::LowBuffer apart(3 * 4096);
    const uint32_t to = apart.address();
    Chunks pieces{{to + 8192, 1000}, {to + 1, 3000}, {to + 4096, 96}};
    ASSERT_EQ(4096, DevDrctRead(&handle, 40, 4096, pieces.get()));
    Bytes read = MemoryAt(to + 8192, 1000) + MemoryAt(to + 1, 3000) + MemoryAt(to + 4096, 96);
    EXPECT_EQ(written, read);
    EXPECT_EQ(0, apart[0]);
    EXPECT_EQ(0, apart[3001]);
    EXPECT_EQ(0, apart[8192 + 1000]);
}

TEST_F(ZelDirect, LeavesErrnoAloneWhereAllGoesWell)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    for (const Direction& way : kDirections) {
        errno = EXFULL;
        EXPECT_EQ(512, way.run(&handle, 0, 512, chunks.get()));
        EXPECT_EQ(EXFULL, errno);
    }
}

// --- lists that are empty or too long ------------------------------------------------------

// The end mark of an empty list goes into the last word in front of the table.
TEST_F(ZelDirect, SendsAnEmptyListForACountBelowOne)
{
    kernel.FillBlocksWith(0x11);
    Open();
    for (const Direction& way : kDirections) {
        for (const uint32_t count : {0u, 0xFFFFFFFFu, 0x80000000u}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << count);
            const uintptr_t front = AddressOf(dev.sg_table) - 8;
            memset(reinterpret_cast<void*>(front), 0x11, 16);
            Chunks chunks({{0x1000, 0x200}}, count);
            const Seen seen = SentBy(way, 1, 512, chunks.get());
            EXPECT_EQ(Words({1, 1, Low(dev.sg_table), 0}), seen.record);
            EXPECT_EQ(TableWords({0x11111111, 0x91111111, 0x11111111, 0x11111111}),
                      MemoryAt(front, 16));
        }
    }
}

TEST_F(ZelDirect, TakesAnEmptyListForNoSectors)
{
    Open();
    Chunks none(std::vector<MemoryChunk>{}, 0);
    for (const Direction& way : kDirections) {
        EXPECT_EQ(0, way.run(&handle, 3, 0, none.get()));
    }
}

std::vector<MemoryChunk> Apart(size_t count)
{
    std::vector<MemoryChunk> chunks;
    for (size_t i = 0; i < count; i++) {
        chunks.push_back({static_cast<uint32_t>(0x1000 + 0x1000 * i), 0x200});
    }
    return chunks;
}

TEST_F(ZelDirect, Takes2047PiecesAndNoMore)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        Chunks most(Apart(2047), 2047);
        const Seen seen = SentBy(way, 0, 2047 * 512, most.get());
        ASSERT_EQ(2047u * 8, seen.table.size());
        EXPECT_EQ(TableWords({0x1000 + 0x1000 * 2045, 0x200, 0x1000 + 0x1000 * 2046, 0x200 | kEnd}),
                  Bytes(seen.table.end() - 16, seen.table.end()));

        kernel.ClearFaults();
        kernel.ClearCalls();
        Chunks more(Apart(2048), 2048);
        int left = 0;
        EXPECT_EQ(ErrorLine("Zel_SetSgEntry", "Overflow sg table(2048)!") +
                      ErrorLine("Zel_Chunk2Sg", "Zel_SetSgEntry failed(-12)!") +
                      ErrorLine(way.function, "Zel_Chunk2Sg is failed(-12)"),
                  Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(-22, way.run(&handle, 0, 2048 * 512, more.get()));
                      left = errno;
                  }));
        EXPECT_EQ(EXFULL, left);
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
        EXPECT_TRUE(way.request == kRead || last_retried == 0xABAB);
    }
}

TEST_F(ZelDirect, RefusesANullList)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        EXPECT_EQ(ErrorLine("Zel_Chunk2Sg", "Invalid arguments!") +
                      ErrorLine(way.function, "Zel_Chunk2Sg is failed(-22)"),
                  Printed([&] { EXPECT_EQ(-22, way.run(&handle, 0, 512, nullptr)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.run(&handle, 0, 512, nullptr); }));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
        EXPECT_TRUE(way.request == kRead || last_retried == 0xABAB);
    }
}

// The card is asked for before the list is looked at.
TEST_F(ZelDirect, LooksForTheCardBeforeTheList)
{
    Open();
    RegisterCallback();
    for (const Direction& way : kDirections) {
        kernel.ClearCalls();
        Printed([&] { EXPECT_EQ(-22, way.run(&handle, 0, 512, nullptr)); });
        EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
    }
    slots->Eject(kUnit);
    for (const Direction& way : kDirections) {
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, way.run(&handle, 0, 512, nullptr)); }));
    }
    EXPECT_EQ(3, ejects);
}

// --- the kinds of write ----------------------------------------------------------------------

TEST_F(ZelDirect, ChoosesTheWriteRequestByTheMode)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    for (const uint32_t mode : {0u, 1u, 2u, 0x100u, 0x80000000u, 0xFFFFFFFFu}) {
        kernel.ClearCalls();
        uint32_t retried = 5;
        EXPECT_EQ(512, DevDrctWrite(&handle, 0, 512, chunks.get(), mode, &retried));
        EXPECT_EQ((Trace{Ioctl(mode == 0 ? kSeqWrite : kWrite), Poll()}), TraceOf(kernel));
        EXPECT_EQ(0u, retried);
    }
}

// 0 from the moment the list stands, 1 from the first error retry on.
TEST_F(ZelDirect, TellsTheCallerWhenItRetried)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    uint32_t retried = 5;
    std::vector<uint32_t> during;
    Fault look;
    look.kind = cardsim::CallKind::Ioctl;
    look.then = [&] { during.push_back(retried); };
    for (const int error : {EBUSY, EIO, EBUSY, EIO, 0}) {
        look.error = error;
        kernel.Inject(look);
        look.first += error == 0 ? 0 : 2;  // a reset in between
    }
    Printed([&] { EXPECT_EQ(512, DevDrctWrite(&handle, 0, 512, chunks.get(), 0, &retried)); });
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 1, 1, 1}), during);
    EXPECT_EQ(1u, retried);
    EXPECT_EQ(
        (Trace{Ioctl(kSeqWrite, Failed(EBUSY)), Pause(), Ioctl(kReset),
               Ioctl(kSeqWrite, Failed(EIO)), Ioctl(kReset), Ioctl(kWrite, Failed(EBUSY)), Pause(),
               Ioctl(kReset), Ioctl(kWrite, Failed(EIO)), Ioctl(kReset), Ioctl(kWrite), Poll()}),
        TraceOf(kernel));
}

TEST_F(ZelDirect, RefusesAWriteWithoutAPlaceForTheAnswer)
{
    Chunks chunks{{buffer.address(), 512}};
    const auto refused = [&](DrvInfo* info) {
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(-22, zel_ops.DrctWrite(info, 0, 512, chunks.get(), 0, nullptr));
                  }));
    };
    refused(nullptr);
    refused(&handle);
    Open();
    RegisterCallback();
    BreakDevice();
    refused(&handle);
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelDirect, NeedsAHandleAndARecord)
{
    Chunks chunks{{buffer.address(), 512}};
    for (const Direction& way : kDirections) {
        for (DrvInfo* info : {static_cast<DrvInfo*>(nullptr), &handle}) {
            const std::string line =
                ErrorLine(way.request == kRead ? "Zel_CheckEject" : "Zel_DrctWrite",
                          "Cannot get driver info!");
            EXPECT_EQ(line, Printed([&] { EXPECT_EQ(-19, way.run(info, 0, 512, chunks.get())); }));
            EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.run(info, 0, 512, chunks.get()); }));
        }
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- the array forms -------------------------------------------------------------------------

TEST_F(ZelDirect, CarriesTheArrayFormsPieces)
{
    Open();
    const Bytes written = Pattern(8, 21);
    FillBuffer(written);
    MemoryArray list = {};
    list.count = 8;
    for (uint32_t i = 0; i < 8; i++) {
        list.addr[i] = buffer.address() + 512 * (7 - i);
        list.len[i] = 512;
    }
    uint32_t retried = 5;
    ASSERT_EQ(4096, DevDrctWriteArray(&handle, 100, 4096, &list, 1, &retried));
    EXPECT_EQ((Trace{"malloc(68)", Ioctl(kWrite), Poll(), "free() = 0"}), TraceOf(kernel));
    EXPECT_EQ(0u, retried);
    for (uint32_t i = 0; i < 8; i++) {
        EXPECT_EQ(Bytes(written.end() - 512 * (int{1} + static_cast<int>(i)),
                        written.end() - 512 * static_cast<int>(i)),
                  OnCard(100 + i, 1));
    }
    memset(buffer.data(), 0, 4096);
    kernel.ClearCalls();
    ASSERT_EQ(4096, DevDrctReadArray(&handle, 100, 4096, &list));
    EXPECT_EQ((Trace{"malloc(68)", Ioctl(kRead), Poll(), "free() = 0"}), TraceOf(kernel));
    EXPECT_EQ(written, MemoryAt(buffer.address(), 4096));
}

}  // namespace
