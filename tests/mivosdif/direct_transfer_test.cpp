// SPDX-License-Identifier: MIT
//
// The Mivo back-end's direct reads and writes: the record and the table that go to
// the driver, which request is chosen, and what is refused before there is one.
#include "tests/mivosdif/transfer_fixture.h"

namespace {

using cardsim::Fault;

constexpr uint32_t kEnd = 0x80000000;

// The direct read and the two kinds of direct write, for what they have in common.
struct Direction {
    const char* function;
    uint32_t request;
    int32_t (*run)(DrvInfo*, uint32_t sector, uint32_t sectors, MemoryChunkArray*);
};

uint32_t last_retried;

int32_t DirectRead(DrvInfo* handle, uint32_t sector, uint32_t sectors, MemoryChunkArray* chunks)
{
    return mivo_ops.DrctRead(handle, sector, sectors, chunks);
}

template <uint32_t kFlag>
int32_t DirectWrite(DrvInfo* handle, uint32_t sector, uint32_t sectors, MemoryChunkArray* chunks)
{
    last_retried = 0xABAB;
    return mivo_ops.DrctWrite(handle, sector, sectors, chunks, kFlag, &last_retried);
}

const Direction kDirections[] = {
    {"Mivo_DrctRead", kRead, DirectRead},
    {"Mivo_DrctWrite", kAltWrite, DirectWrite<0>},
    {"Mivo_DrctWrite", kWrite, DirectWrite<1>},
};

// A request as the driver finds it.
struct Seen {
    Bytes record;
    Bytes table;
};

class MivoDirect : public MivoTransfer {
protected:
    // What one transfer hands to the driver.
    Seen SentBy(const Direction& way, uint32_t sector, uint32_t sectors, MemoryChunkArray* chunks)
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
                      EXPECT_EQ(static_cast<int32_t>(sectors),
                                way.run(&handle, sector, sectors, chunks));
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

TEST_F(MivoDirect, HandsOverTheRecordAndTheTable)
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
            // The number of sectors is the caller's word: pieces are not added up.
            const Seen seen = SentBy(way, 0x89ABCDEF, 0x12345, chunks.get());
            EXPECT_EQ(Words({0x89ABCDEF, 0x12345, Low(dev.sg_table),
                             static_cast<uint32_t>(table.size())}),
                      seen.record);
            EXPECT_EQ(table, seen.table);
            EXPECT_EQ(0, dev.io_error);
        }
    }
}

TEST_F(MivoDirect, HandsOverAndReturnsTheNumberOfSectorsAsItIs)
{
    Open();
    for (const Direction& way : kDirections) {
        for (const uint32_t sectors : {0u, 1u, 511u, 512u, 0x007FFFFFu, 0x00800000u, 0x7FFFFFFFu,
                                       0x80000000u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << sectors);
            Chunks chunks{{0x1000, 0x200}};
            EXPECT_EQ(Words({7, sectors, Low(dev.sg_table), 8}),
                      SentBy(way, 7, sectors, chunks.get()).record);
        }
    }
}

TEST_F(MivoDirect, BuildsTheTableAfreshForEachRequest)
{
    Open();
    Chunks many{{0x1000, 0x200}, {0x2000, 0x200}, {0x3000, 0x200}};
    Chunks one{{0x1200, 0x200}};
    SentBy(kDirections[0], 0, 3, many.get());
    EXPECT_EQ(TableWords({0x1200, 0x200 | kEnd}), SentBy(kDirections[0], 0, 1, one.get()).table);
}

TEST_F(MivoDirect, MovesScatteredSectors)
{
    Open();
    const Bytes written = Pattern(8, 3);
    FillBuffer(written);
    const uint32_t at = buffer.address();
    uint32_t retried = 9;
    Chunks chunks{{at, 100}, {at + 100, 1}, {at + 101, 2000}, {at + 2101, 1995}};
    ASSERT_EQ(8, DevDrctWrite(&handle, 40, 8, chunks.get(), 0, &retried));
    EXPECT_EQ(0u, retried);
    EXPECT_EQ(written, OnCard(40, 8));

    cardsim::LowBuffer apart(3 * 4096);
    const uint32_t to = apart.address();
    Chunks pieces{{to + 8192, 1000}, {to + 1, 3000}, {to + 4096, 96}};
    ASSERT_EQ(8, DevDrctRead(&handle, 40, 8, pieces.get()));
    Bytes read = MemoryAt(to + 8192, 1000) + MemoryAt(to + 1, 3000) + MemoryAt(to + 4096, 96);
    EXPECT_EQ(written, read);
    EXPECT_EQ(0, apart[0]);
    EXPECT_EQ(0, apart[3001]);
    EXPECT_EQ(0, apart[8192 + 1000]);
}

TEST_F(MivoDirect, LeavesErrnoAloneWhereAllGoesWell)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    for (const Direction& way : kDirections) {
        errno = EXFULL;
        EXPECT_EQ(1, way.run(&handle, 0, 1, chunks.get()));
        EXPECT_EQ(EXFULL, errno);
    }
}

// --- lists that are empty or too long ------------------------------------------------------

// The end mark of an empty list goes into the last word in front of the table.
TEST_F(MivoDirect, SendsAnEmptyListForACountBelowOne)
{
    kernel.FillBlocksWith(0x11);
    Open();
    for (const Direction& way : kDirections) {
        for (const uint32_t count : {0u, 0xFFFFFFFFu, 0x80000000u}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << count);
            const uintptr_t front = AddressOf(dev.sg_table) - 8;
            memset(reinterpret_cast<void*>(front), 0x11, 16);
            Chunks chunks({{0x1000, 0x200}}, count);
            const Seen seen = SentBy(way, 1, 1, chunks.get());
            EXPECT_EQ(Words({1, 1, Low(dev.sg_table), 0}), seen.record);
            EXPECT_EQ(TableWords({0x11111111, 0x91111111, 0x11111111, 0x11111111}),
                      MemoryAt(front, 16));
        }
    }
}

TEST_F(MivoDirect, TakesAnEmptyListForNoSectors)
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

TEST_F(MivoDirect, Takes2047PiecesAndNoMore)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        Chunks most(Apart(2047), 2047);
        const Seen seen = SentBy(way, 0, 2047, most.get());
        ASSERT_EQ(2047u * 8, seen.table.size());
        EXPECT_EQ(TableWords({0x1000 + 0x1000 * 2045, 0x200, 0x1000 + 0x1000 * 2046, 0x200 | kEnd}),
                  Bytes(seen.table.end() - 16, seen.table.end()));

        kernel.ClearFaults();
        kernel.ClearCalls();
        Chunks more(Apart(2048), 2048);
        int left = 0;
        EXPECT_EQ(ErrorLine("Mivo_SetSgEntry", "Overflow sg table(2048)!") +
                      ErrorLine("Mivo_Chunk2Sg", "Mivo_SetSgEntry failed(-12)!") +
                      ErrorLine(way.function, "Mivo_Chunk2Sg is failed(-12)"),
                  Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(-22, way.run(&handle, 0, 2048, more.get()));
                      left = errno;
                  }));
        EXPECT_EQ(EXFULL, left);
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
        EXPECT_TRUE(way.request == kRead || last_retried == 0xABAB);
    }
}

TEST_F(MivoDirect, RefusesANullList)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        EXPECT_EQ(ErrorLine("Mivo_Chunk2Sg", "Invalid arguments!") +
                      ErrorLine(way.function, "Mivo_Chunk2Sg is failed(-22)"),
                  Printed([&] { EXPECT_EQ(-22, way.run(&handle, 0, 1, nullptr)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.run(&handle, 0, 1, nullptr); }));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
        EXPECT_TRUE(way.request == kRead || last_retried == 0xABAB);
    }
}

// The card is asked for before the list is looked at.
TEST_F(MivoDirect, LooksForTheCardBeforeTheList)
{
    Open();
    RegisterCallback();
    for (const Direction& way : kDirections) {
        kernel.ClearCalls();
        Printed([&] { EXPECT_EQ(-22, way.run(&handle, 0, 1, nullptr)); });
        EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
    }
    units->Eject(kUnit);
    for (const Direction& way : kDirections) {
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, way.run(&handle, 0, 1, nullptr)); }));
    }
    EXPECT_EQ(3, ejects);
}

// --- the kinds of write ----------------------------------------------------------------------

TEST_F(MivoDirect, ChoosesTheWriteRequestByTheFlag)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    for (const uint32_t flag : {0u, 1u, 2u, 0x100u, 0x80000000u, 0xFFFFFFFFu}) {
        kernel.ClearCalls();
        uint32_t retried = 5;
        EXPECT_EQ(1, DevDrctWrite(&handle, 0, 1, chunks.get(), flag, &retried));
        EXPECT_EQ((Trace{Ioctl(flag == 0 ? kAltWrite : kWrite), Poll()}), TraceOf(kernel));
        EXPECT_EQ(0u, retried);
    }
}

// 0 from the moment the list stands, 1 from the first retry on, whatever the failure.
TEST_F(MivoDirect, TellsTheCallerWhenItRetried)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    for (const int error : {EBUSY, EIO, EAGAIN}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        uint32_t retried = 5;
        std::vector<uint32_t> during;
        Fault look;
        look.kind = cardsim::CallKind::Ioctl;
        look.then = [&] { during.push_back(retried); };
        for (uint64_t call = 1; call <= 5; call++) {
            look.first = call;
            look.error = call == 1 || call == 3 ? error : 0;  // a reset in between
            look.reach_driver = true;
            kernel.Inject(look);
        }
        Printed([&] { EXPECT_EQ(1, DevDrctWrite(&handle, 0, 1, chunks.get(), 0, &retried)); });
        EXPECT_EQ((std::vector<uint32_t>{0, 1, 1, 1, 1}), during);
        EXPECT_EQ(1u, retried);
        EXPECT_EQ(
            (Trace{Ioctl(kAltWrite, Failed(error)), Poll(), Ioctl(kReset),
                   Ioctl(kWrite, Failed(error)), Poll(), Ioctl(kReset), Ioctl(kWrite), Poll()}),
            TraceOf(kernel));
    }
}

// No retry was taken where the first failure was the last.
TEST_F(MivoDirect, HasNotRetriedWhereItGaveUpAtOnce)
{
    Open();
    Chunks chunks{{buffer.address(), 512}};
    FailRequest(kAltWrite, ENODEV);
    CompleteAll();
    uint32_t retried = 5;
    Printed([&] { EXPECT_EQ(-5, DevDrctWrite(&handle, 0, 1, chunks.get(), 0, &retried)); });
    EXPECT_EQ(0u, retried);
    EXPECT_EQ((Trace{Ioctl(kAltWrite, Failed(ENODEV)), Poll()}), TraceOf(kernel));
}

TEST_F(MivoDirect, RefusesAWriteWithoutAPlaceForTheAnswer)
{
    Chunks chunks{{buffer.address(), 512}};
    const auto refused = [&](DrvInfo* info) {
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(-22, mivo_ops.DrctWrite(info, 0, 1, chunks.get(), 0, nullptr));
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

TEST_F(MivoDirect, NeedsAHandleAndARecord)
{
    Chunks chunks{{buffer.address(), 512}};
    for (const Direction& way : kDirections) {
        for (DrvInfo* info : {static_cast<DrvInfo*>(nullptr), &handle}) {
            const std::string line =
                ErrorLine(way.request == kRead ? "Mivo_CheckEject" : "Mivo_DrctWrite",
                          "Cannot get driver info!");
            EXPECT_EQ(line, Printed([&] { EXPECT_EQ(-19, way.run(info, 0, 1, chunks.get())); }));
            EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.run(info, 0, 1, chunks.get()); }));
        }
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- the array forms -------------------------------------------------------------------------

TEST_F(MivoDirect, CarriesTheArrayFormsPieces)
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
    ASSERT_EQ(8, DevDrctWriteArray(&handle, 100, 8, &list, 1, &retried));
    EXPECT_EQ((Trace{"malloc(68)", Ioctl(kWrite), Poll(), "free() = 0"}), TraceOf(kernel));
    EXPECT_EQ(0u, retried);
    for (uint32_t i = 0; i < 8; i++) {
        EXPECT_EQ(Bytes(written.end() - 512 * (int{1} + static_cast<int>(i)),
                        written.end() - 512 * static_cast<int>(i)),
                  OnCard(100 + i, 1));
    }
    memset(buffer.data(), 0, 4096);
    kernel.ClearCalls();
    ASSERT_EQ(8, DevDrctReadArray(&handle, 100, 8, &list));
    EXPECT_EQ((Trace{"malloc(68)", Ioctl(kRead), Poll(), "free() = 0"}), TraceOf(kernel));
    EXPECT_EQ(written, MemoryAt(buffer.address(), 4096));
}

}  // namespace
