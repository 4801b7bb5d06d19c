// SPDX-License-Identifier: MIT
//
// The Zel back-end's writes of runs of sectors, read-modify-write and file-system
// area: the elements as the driver finds them, and lists that are not as their
// header says.
#include "tests/zel/transfer_fixture.h"

namespace {

using cardsim::CallKind;
using cardsim::Fault;

constexpr uint32_t kEnd = 0x80000000;

struct Operation {
    const char* function;
    uint32_t request;
    const char* panic;  // how the line about a short chain begins
    uint32_t mark;      // on the last table entry of each element
    int32_t (*run)(DrvInfo*, BlockList*);
};

const Operation kOperations[] = {
    {"Zel_DrctRMW", kRmw, "DrctRMW List panic", 0,
     [](DrvInfo* handle, BlockList* list) { return zel_ops.DrctRMW(handle, list); }},
    {"Zel_FatWrite", kFsmiWrite, "FSMI List panic", kEnd,
     [](DrvInfo* handle, BlockList* list) { return zel_ops.FatWrite(handle, list); }},
};

void PrintTo(const Operation& op, std::ostream* out)
{
    *out << op.function;
}

// A request as the driver finds it.
struct Seen {
    Bytes record;
    Bytes elements;
};

class ZelElements : public ZelTransfer, public testing::WithParamInterface<Operation> {
protected:
    // What the driver is handed for a list that the operation accepts.
    Seen Sent(BlockList* list, size_t elements, const std::string& printed = "")
    {
        Seen seen;
        kernel.ClearFaults();
        Intercept(GetParam().request, [&](uintptr_t argument) {
            seen.record = MemoryAt(argument, 12);
            uint32_t array = 0;
            memcpy(&array, &seen.record[8], 4);
            seen.elements = MemoryAt(array, elements * 16);
            EXPECT_FALSE(LockIsFree());
        });
        kernel.ClearCalls();
        EXPECT_EQ(printed, Printed([&] { EXPECT_EQ(0, Run(list)); }));
        EXPECT_TRUE(LockIsFree());
        return seen;
    }

    Trace Usual(const std::string& room) const
    {
        return {"malloc(" + room + ")", Ioctl(GetParam().request), Poll(), "free() = 0"};
    }

    // The array's address, as the library got it.
    uint32_t ArrayIn(const Seen& seen)
    {
        uint32_t array = 0;
        memcpy(&array, &seen.record[8], 4);
        EXPECT_EQ(kernel.Calls().back().argument, array);  // freed last
        return array;
    }

    int32_t Run(BlockList* list) { return GetParam().run(&handle, list); }

    std::string Panic(int visited, int count) const
    {
        return ErrorLine(GetParam().function, std::string(GetParam().panic) + "(" +
                                                  std::to_string(visited) + "/" +
                                                  std::to_string(count) + ")!");
    }

    const uint32_t mark = GetParam().mark;
};

TEST_P(ZelElements, HandsOverEachElementsFirstPiece)
{
    Open();
    Elements list{{0x12345678, 1, 0x89ABCDEF, nullptr},
                  {0x00001001, 3, 0, nullptr},
                  {0x7FFF0000, 128, 0xFFFFFFFF, nullptr}};
    const Seen seen = Sent(list.get(), 3);
    EXPECT_EQ(Words({3, 0, ArrayIn(seen)}), seen.record);
    // The words of the table go over as they stand in it.
    EXPECT_EQ(Words({0x89ABCDEF, 1}) + TableWords({0x12345678, 0x200 | mark}) + Words({0, 3}) +
                  TableWords({0x00001001, 0x600 | mark}) + Words({0xFFFFFFFF, 128}) +
                  TableWords({0x7FFF0000, 0x10000 | mark}),
              seen.elements);
    EXPECT_EQ(Usual("48"), TraceOf(kernel));
}

// The element says how many sectors it has; its memory ends after 64 KiB. The end
// mark is on the last piece, which is not handed over.
TEST_P(ZelElements, CutsAnElementToItsFirst64KiB)
{
    Open();
    Elements list{{0x10000, 129, 7, nullptr}, {0x50000, 512, 8, nullptr}, {0x90000, 2, 9, nullptr}};
    EXPECT_EQ(Words({7, 129}) + TableWords({0x10000, 0x10000}) + Words({8, 512}) +
                  TableWords({0x50000, 0x10000}) + Words({9, 2}) +
                  TableWords({0x90000, 0x400 | mark}),
              Sent(list.get(), 3).elements);
    EXPECT_EQ(Usual("48"), TraceOf(kernel));
}

// Adjacent elements stay apart: each begins at the table's first entry.
TEST_P(ZelElements, DoesNotMergeElements)
{
    Open();
    Elements list{{0x10000, 1, 0, nullptr}, {0x10200, 1, 1, nullptr}};
    EXPECT_EQ(Words({0, 1}) + TableWords({0x10000, 0x200 | mark}) + Words({1, 1}) +
                  TableWords({0x10200, 0x200 | mark}),
              Sent(list.get(), 2).elements);
    EXPECT_EQ(TableWords({0x10200, 0x200 | mark}), MemoryAt(AddressOf(dev.sg_table), 8));
}

TEST_P(ZelElements, WritesTheElementsToTheCard)
{
    Open();
    const Bytes data = Pattern(200, 9);
    FillBuffer(data);
    const uint32_t at = buffer.address();
    Elements list{{at, 2, 1000, nullptr},
                  {at + 1024, 1, 10, nullptr},
                  {at + 1536, 130, 2000, nullptr},  // its first 128
                  {at + 512, 1, 11, nullptr}};
    PutOnCard(2128, Pattern(1, 99));
    ASSERT_EQ(0, Run(list.get()));
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 1024), OnCard(1000, 2));
    EXPECT_EQ(Bytes(data.begin() + 1024, data.begin() + 1536), OnCard(10, 1));
    EXPECT_EQ(Bytes(data.begin() + 1536, data.begin() + 1536 + 65536), OnCard(2000, 128));
    EXPECT_EQ(Pattern(1, 99), OnCard(2128, 1));
    EXPECT_EQ(Bytes(data.begin() + 512, data.begin() + 1024), OnCard(11, 1));
    EXPECT_EQ(Bytes(512, 0), OnCard(12, 1));
}

// The byte count is formed in 32 bits: 0x800001 sectors are 512 bytes.
TEST_P(ZelElements, FormsByteCountsIn32Bits)
{
    Open();
    Elements list{{0x10000, 0x00800001, 3, nullptr}, {0x20000, 0x80000002, 4, nullptr}};
    EXPECT_EQ(Words({3, 0x00800001}) + TableWords({0x10000, 0x200 | mark}) +
                  Words({4, 0x80000002}) + TableWords({0x20000, 0x400 | mark}),
              Sent(list.get(), 2).elements);
}

// Nothing is built for it: what the table held goes over. The end mark of such an
// element goes into the last word in front of the table.
TEST_P(ZelElements, PassesTheTablesOldEntryForAnElementWithoutSectors)
{
    Open();
    const uintptr_t front = AddressOf(dev.sg_table) - 8;
    memset(reinterpret_cast<void*>(front), 0x11, 16);
    Elements list{{0xAAAA0000, 0, 5, nullptr},
                  {0xBBBB0000, 2, 6, nullptr},
                  {0xCCCC0000, 0, 7, nullptr},
                  {0xDDDD0000, 0x00800000, 8, nullptr}};
    EXPECT_EQ(Words({5, 0}) + TableWords({0x11111111, 0x11111111}) + Words({6, 2}) +
                  TableWords({0xBBBB0000, 0x400 | mark}) + Words({7, 0}) +
                  TableWords({0xBBBB0000, 0x400 | mark}) + Words({8, 0x00800000}) +
                  TableWords({0xBBBB0000, 0x400 | mark}),
              Sent(list.get(), 4).elements);
    EXPECT_EQ(TableWords({0x11111111, 0x11111111 | mark}), MemoryAt(front, 8));
}

// --- lists and their headers ----------------------------------------------------------------

TEST_P(ZelElements, SendsAShortChainAllTheSame)
{
    Open();
    kernel.FillBlocksWith(0xA5);
    Elements list(std::vector<BlockListEntry>{{0x10000, 1, 3, nullptr}, {0x20000, 1, 4, nullptr}},
                  3);
    const Seen seen = Sent(list.get(), 3, Panic(2, 3));
    EXPECT_EQ(Words({3, 0, ArrayIn(seen)}), seen.record);
    EXPECT_EQ(Words({3, 1}) + TableWords({0x10000, 0x200 | mark}) + Words({4, 1}) +
                  TableWords({0x20000, 0x200 | mark}) + Bytes(16, 0xA5),
              seen.elements);
    EXPECT_EQ(Usual("48"), TraceOf(kernel));
}

TEST_P(ZelElements, SendsAListWithoutElementsAllTheSame)
{
    Open();
    kernel.FillBlocksWith(0xA5);
    Elements list(std::vector<BlockListEntry>{}, 1);
    const Seen seen = Sent(list.get(), 1, Panic(0, 1));
    EXPECT_EQ(Words({1, 0, ArrayIn(seen)}), seen.record);
    EXPECT_EQ(Bytes(16, 0xA5), seen.elements);
    EXPECT_EQ(Usual("16"), TraceOf(kernel));
    EXPECT_EQ(0, dev.io_error);
}

TEST_P(ZelElements, StopsAtTheHeadersCount)
{
    Open();
    Elements list(
        std::vector<BlockListEntry>{
            {0x10000, 1, 3, nullptr}, {0x20000, 1, 4, nullptr}, {0x30000, 1, 5, nullptr}},
        2);
    const Seen seen = Sent(list.get(), 2);
    EXPECT_EQ(Words({2, 0, ArrayIn(seen)}), seen.record);
    EXPECT_EQ(Usual("32"), TraceOf(kernel));
    EXPECT_EQ(TableWords({0x20000, 0x200 | mark}), MemoryAt(AddressOf(dev.sg_table), 8));
}

TEST_P(ZelElements, SendsAnEmptyArrayForACountBelowOne)
{
    Open();
    for (const int32_t count : {0, -1, INT32_MIN}) {
        SCOPED_TRACE(count);
        Elements list(std::vector<BlockListEntry>{{0x10000, 1, 3, nullptr}}, count);
        const Seen seen = Sent(list.get(), 0);
        EXPECT_EQ(Words({static_cast<uint32_t>(count), 0, ArrayIn(seen)}), seen.record);
        EXPECT_EQ(Usual("0"), TraceOf(kernel));
        EXPECT_EQ(0, dev.io_error);
    }
}

TEST_P(ZelElements, RefusesANullListFirst)
{
    const auto refused = [&](DrvInfo* info) {
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(-22, GetParam().run(info, nullptr)); }));
    };
    refused(nullptr);
    refused(&handle);
    Open();
    BreakDevice();
    RegisterCallback();
    slots->Eject(kUnit);
    refused(&handle);
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
}

TEST_P(ZelElements, NeedsAHandleAndARecord)
{
    Elements list{{buffer.address(), 1, 0, nullptr}};
    const char* const speaks = GetParam().request == kRmw ? "Zel_CheckEject" : GetParam().function;
    for (DrvInfo* info : {static_cast<DrvInfo*>(nullptr), &handle}) {
        EXPECT_EQ(ErrorLine(speaks, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(-19, GetParam().run(info, list.get())); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { GetParam().run(info, list.get()); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- memory and the table's end ----------------------------------------------------------------

TEST_P(ZelElements, FailsWithoutMemoryForTheElements)
{
    Open();
    RegisterCallback();
    Fault none;
    none.kind = CallKind::Malloc;
    none.times = 2;
    none.error = ENOMEM;
    none.then = [this] { EXPECT_TRUE(LockIsFree()); };
    kernel.Inject(none);
    Elements list{{buffer.address(), 1, 0, nullptr}, {buffer.address(), 1, 1, nullptr}};
    // Without a line end.
    EXPECT_EQ(std::string("[zel:") + GetParam().function + "(#)](E)fsmiw_parm malloc failed!",
              Printed([&] {
                  EXPECT_EQ(-12, Run(list.get()));
                  EXPECT_EQ(ENOMEM, errno);
              }));
    EXPECT_EQ((Trace{Ioctl(kGetStatus), "malloc(32) = -1 ENOMEM"}), TraceOf(kernel));
    EXPECT_TRUE(LockIsFree());
    EXPECT_EQ(0, dev.io_error);
    EXPECT_EQ(ENOMEM, ErrnoAfter(EXFULL, [&] { Run(list.get()); }));
    EXPECT_EQ(0, Run(list.get()));
}

TEST_P(ZelElements, AllocatesBeforeItLocks)
{
    Open();
    int looked = 0;
    Fault look;
    look.kind = CallKind::Malloc;
    look.then = [&] {
        EXPECT_TRUE(LockIsFree());
        looked++;
    };
    kernel.Inject(look);
    Elements list{{buffer.address(), 1, 0, nullptr}};
    EXPECT_EQ(0, Run(list.get()));
    EXPECT_EQ(1, looked);
}

// From there on the array's size in bytes does not fit into 32 bits. No block of
// the size that is left over is taken, and none is written to.
TEST_P(ZelElements, RefusesACountWhoseArrayHasNoSize)
{
    Open();
    const size_t blocks = kernel.LiveBlocks();
    for (const int32_t count : {0x10000000, 0x10000001, 0x10000002, 0x7FFFFFFF}) {
        SCOPED_TRACE(count);
        kernel.ClearCalls();
        Elements list(std::vector<BlockListEntry>{{buffer.address(), 1, 0, nullptr},
                                                  {buffer.address(), 1, 1, nullptr},
                                                  {buffer.address(), 1, 2, nullptr}},
                      count);
        EXPECT_EQ(std::string("[zel:") + GetParam().function + "(#)](E)fsmiw_parm malloc failed!",
                  Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(-12, Run(list.get()));
                      EXPECT_EQ(ENOMEM, errno);
                  }));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
    }
    EXPECT_EQ(blocks, kernel.LiveBlocks());
    Elements list{{buffer.address(), 1, 0, nullptr}};
    EXPECT_EQ(0, Run(list.get()));
}

TEST_P(ZelElements, AsksForTheLargestArrayThatHasASize)
{
    Open();
    Fault none;
    none.kind = CallKind::Malloc;
    none.error = ENOMEM;
    kernel.Inject(none);
    Elements list(std::vector<BlockListEntry>{{buffer.address(), 1, 0, nullptr}}, 0x0FFFFFFF);
    Printed([&] { EXPECT_EQ(-12, Run(list.get())); });
    EXPECT_EQ(Trace{"malloc(4294967280) = -1 ENOMEM"}, TraceOf(kernel));
}

TEST_P(ZelElements, RefusesAnElementThatOverflowsTheTable)
{
    Open();
    // 2047 pieces fit; with the 2048th the table is full.
    Elements fits{{0x10000, 0x3FF80, 1, nullptr}};
    EXPECT_EQ(Words({1, 0x3FF80}) + TableWords({0x10000, 0x10000}), Sent(fits.get(), 1).elements);
    EXPECT_EQ(TableWords({0x10000 + 0x10000 * 2046u, 0x10000 | mark}),
              MemoryAt(AddressOf(dev.sg_table) + 2046 * 8, 8));
    for (const uint32_t sectors : {0x3FF81u, 0x40000u, 0x7FFFFFu}) {
        SCOPED_TRACE(sectors);
        kernel.ClearFaults();
        kernel.ClearCalls();
        Elements list{{0x10000, 1, 0, nullptr}, {0x10000, sectors, 1, nullptr}};
        int left = 0;
        EXPECT_EQ(ErrorLine("Zel_SetSgEntry", "Overflow sg table(2048)!") +
                      ErrorLine(GetParam().function, "Zel_SetSgEntry failed(-12)!"),
                  Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(-12, Run(list.get()));
                      left = errno;
                  }));
        EXPECT_EQ(EXFULL, left);
        EXPECT_EQ((Trace{"malloc(32)", "free() = 0"}), TraceOf(kernel));
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
    }
}

TEST_P(ZelElements, GivesTheDriversRefusalBack)
{
    Open();
    Elements beyond{{buffer.address(), 1, kSectors, nullptr}};
    Printed([&] { EXPECT_EQ(-5, Run(beyond.get())); });
    EXPECT_EQ(1, dev.io_error);
}

INSTANTIATE_TEST_SUITE_P(Operations, ZelElements, testing::ValuesIn(kOperations),
                         [](const auto& op) { return std::string(op.param.function + 4); });

}  // namespace
