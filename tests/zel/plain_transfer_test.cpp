// SPDX-License-Identifier: MIT
//
// The Zel back-end's plain reads and writes: one seek in 64 bits on the block
// node, one transfer with a byte count of 32.
#include <fcntl.h>

#include "tests/support/temp_folder.h"
#include "tests/zel/transfer_fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Card;
using cardsim::Fault;

constexpr CardIoResult kMarked = {0x5A5A, 0x6B6B, 0x7C7C7C7C};

void ExpectRecord(const CardIoResult& result, uint16_t error, int32_t length)
{
    EXPECT_EQ(0x5A5A, result.reserved);
    EXPECT_EQ(error, result.error);
    EXPECT_EQ(length, result.length);
}

// The two directions, for what they have in common.
struct Direction {
    const char* function;
    const char* verb;  // as calls are described
    CallKind kind;
    int32_t (*slot)(DrvInfo*, uint8_t*, uint32_t, uint32_t);
    int32_t (*api)(DrvInfo*, uint8_t*, uint32_t, uint32_t, CardIoResult*);
};

const Direction kDirections[] = {
    {"Zel_Read", "read", CallKind::Read,
     [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first) {
         return zel_ops.Read(handle, buffer, sectors, first, 0xFEDCBA98);
     },
     [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first, CardIoResult* result) {
         return CARD_Read(handle, buffer, sectors, first, 0xFEDCBA98, result);
     }},
    {"Zel_Write", "write", CallKind::Write,
     [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first) {
         return zel_ops.Write(handle, buffer, sectors, first, 0xFEDCBA98);
     },
     [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first, CardIoResult* result) {
         return CARD_Write(handle, buffer, sectors, first, 0xFEDCBA98, result);
     }},
};

class ZelPlain : public ZelTransfer {
protected:
    static std::string Seek(const std::string& offset)
    {
        return "lseek64(/dev/spdc, " + offset + ", SEEK_SET)";
    }
    static std::string Move(const Direction& way, const std::string& bytes)
    {
        return std::string(way.verb) + "(/dev/spdc, " + bytes + ")";
    }
};

TEST_F(ZelPlain, SeeksThenMovesOnce)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        CardIoResult result = kMarked;
        int error = 0;
        EXPECT_EQ("", Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(0, way.api(&handle, buffer.data(), 3, 5, &result));
                      error = errno;
                  }));
        EXPECT_EQ(EXFULL, error);
        ExpectRecord(result, 0x6B6B, 1536);
        EXPECT_EQ((Trace{Seek("2560") + " = 2560", Move(way, "1536") + " = 1536"}),
                  TraceOf(kernel));
        const std::vector<Call> calls = kernel.Calls();
        EXPECT_EQ(dev.blk_fd, calls.at(0).fd);
        EXPECT_EQ(dev.blk_fd, calls.at(1).fd);
        EXPECT_EQ(AddressOf(buffer.data()), calls.at(1).argument);
    }
}

TEST_F(ZelPlain, MovesAnywhereOnTheCard)
{
    Open();
    const uint32_t places[][2] = {{0, 1}, {0, kSectors}, {kSectors - 1, 1}, {1, 7}, {17, 32}};
    for (const auto& [first, sectors] : places) {
        SCOPED_TRACE(testing::Message() << sectors << " sectors at " << first);
        const Bytes before = Pattern(kSectors, first);
        PutOnCard(0, before);
        const Bytes written = Pattern(sectors, first + 101);
        const auto bytes = static_cast<int32_t>(written.size());
        EXPECT_EQ(bytes, zel_ops.Write(&handle, written.data(), sectors, first, 0));
        Bytes expected = before;
        std::copy(written.begin(), written.end(), &expected[size_t{first} * 512]);
        EXPECT_EQ(expected, OnCard(0, kSectors));

        Bytes part(written.size());
        EXPECT_EQ(bytes, zel_ops.Read(&handle, part.data(), sectors, first, 0));
        EXPECT_EQ(written, part);
    }
}

TEST_F(ZelPlain, TakesABufferAtAnyAddress)
{
    Open();
    const Bytes written = Pattern(2, 9);
    Bytes odd(written.size() + 1);
    std::copy(written.begin(), written.end(), odd.begin() + 1);
    EXPECT_EQ(1024, zel_ops.Write(&handle, odd.data() + 1, 2, 3, 0));
    std::fill(odd.begin(), odd.end(), uint8_t{0xE1});
    EXPECT_EQ(1024, zel_ops.Read(&handle, odd.data() + 1, 2, 3, 0));
    EXPECT_EQ(0xE1, odd[0]);
    EXPECT_TRUE(std::equal(written.begin(), written.end(), odd.begin() + 1));
}

TEST_F(ZelPlain, MovesNothingForNoSectors)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        CardIoResult result = kMarked;
        EXPECT_EQ(0, way.api(&handle, buffer.data(), 0, 5, &result));
        ExpectRecord(result, 0x6B6B, 0);
        EXPECT_EQ((Trace{Seek("2560") + " = 2560", Move(way, "0") + " = 0"}), TraceOf(kernel));
    }
}

// --- ends and short transfers ----------------------------------------------------------

TEST_F(ZelPlain, IsCutAtTheEndOfTheCard)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        EXPECT_EQ(512, way.slot(&handle, buffer.data(), 4, kSectors - 1));
    }
    EXPECT_EQ(0, zel_ops.Read(&handle, buffer.data(), 1, kSectors, 0));
    EXPECT_EQ(-1, zel_ops.Write(&handle, buffer.data(), 1, kSectors, 0));
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(ZelPlain, PassesAShortTransferOn)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        Fault fault;
        fault.kind = way.kind;
        fault.at_most = 1000;
        kernel.Inject(fault);
        CardIoResult result = kMarked;
        EXPECT_EQ("",
                  Printed([&] { EXPECT_EQ(0, way.api(&handle, buffer.data(), 4, 0, &result)); }));
        ExpectRecord(result, 0x6B6B, 1000);
        EXPECT_EQ((Trace{Seek("0") + " = 0", Move(way, "2048") + " = 1000"}), TraceOf(kernel));
    }
}

// --- failures -------------------------------------------------------------------------

// The caller reads errno; no line is printed, nothing is tried again and the
// device is not taken for broken.
TEST_F(ZelPlain, PassesAFailedTransferOn)
{
    Open();
    for (const Direction& way : kDirections) {
        for (const int error : {EIO, EINTR, EBUSY, EFAULT, ENOMEDIUM}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << strerror(error));
            kernel.ClearCalls();
            Fault fault;
            fault.kind = way.kind;
            fault.error = error;
            kernel.Inject(fault);
            int32_t moved = 0;
            int left = 0;
            EXPECT_EQ("", Printed([&] {
                          moved = way.slot(&handle, buffer.data(), 2, 1);
                          left = errno;
                      }));
            EXPECT_EQ(-1, moved);
            EXPECT_EQ(error, left);
            EXPECT_EQ((Trace{Seek("512") + " = 512", Move(way, "1024") + " = " + Failed(error)}),
                      TraceOf(kernel));
            EXPECT_EQ(0, dev.io_error);
        }
    }
}

TEST_F(ZelPlain, ReportsAFailedSeekAndMovesNothing)
{
    Open();
    for (const Direction& way : kDirections) {
        for (const int error : {EIO, EINVAL, EBUSY}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << strerror(error));
            kernel.ClearCalls();
            Fault fault;
            fault.kind = CallKind::Seek;
            fault.error = error;
            fault.times = 3;
            kernel.Inject(fault);
            int32_t moved = 0;
            int left = 0;
            EXPECT_EQ(ErrorLine(way.function, std::string("lseek failed : ") + strerror(error)),
                      Printed([&] {
                          moved = way.slot(&handle, buffer.data(), 1, 3);
                          left = errno;
                      }));
            EXPECT_EQ(-22, moved);
            EXPECT_EQ(error, left);
            EXPECT_EQ(Trace{Seek("1536") + " = " + Failed(error)}, TraceOf(kernel));
            EXPECT_EQ(error, ErrnoAfter(EXFULL, [&] { way.slot(&handle, buffer.data(), 1, 3); }));
            CardIoResult result = kMarked;
            Printed([&] { EXPECT_EQ(0, way.api(&handle, buffer.data(), 1, 3, &result)); });
            ExpectRecord(result, 10, 0x7C7C7C7C);
            EXPECT_EQ(0, dev.io_error);
        }
    }
}

TEST_F(ZelPlain, CannotSeekBeyondTheCard)
{
    Open();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        EXPECT_EQ(ErrorLine(way.function, "lseek failed : Invalid argument"), Printed([&] {
                      EXPECT_EQ(-22, way.slot(&handle, buffer.data(), 1, kSectors + 1));
                  }));
    }
}

// In this order: the record, the node, the latch (writes), the card.
TEST_F(ZelPlain, NeedsAHandleAndAnOpenDevice)
{
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        handle.priv = nullptr;
        CardIoResult result = kMarked;
        EXPECT_EQ(ErrorLine(way.function, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(nullptr, buffer.data(), 1, 0)); }));
        EXPECT_EQ(ErrorLine(way.function, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(&handle, buffer.data(), 1, 0)); }));
        EXPECT_EQ(ErrorLine(way.function, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(0, way.api(&handle, buffer.data(), 1, 0, &result)); }));
        ExpectRecord(result, 10, 0x7C7C7C7C);
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.slot(&handle, buffer.data(), 1, 0); }));

        handle.priv = &dev;
        dev.io_error = 1;
        dev.ejected = 1;
        EXPECT_EQ(ErrorLine(way.function, "Invalid blk_fd!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(&handle, buffer.data(), 1, 0)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.slot(&handle, buffer.data(), 1, 0); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelPlain, CannotWriteToAProtectedCard)
{
    Open();
    card->model().write_protected = true;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(-1, zel_ops.Write(&handle, buffer.data(), 1, 1, 0));
                  EXPECT_EQ(EROFS, errno);
                  EXPECT_EQ(512, zel_ops.Read(&handle, buffer.data(), 1, 1, 0));
              }));
}

// --- the card and the latch -----------------------------------------------------------

TEST_F(ZelPlain, AsksForTheCardFirstWhereACallbackIsRegistered)
{
    Open();
    RegisterCallback();
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        EXPECT_EQ(512, way.slot(&handle, buffer.data(), 1, 0));
        EXPECT_EQ((Trace{Ioctl(kGetStatus), Seek("0") + " = 0", Move(way, "512") + " = 512"}),
                  TraceOf(kernel));
    }
    EXPECT_EQ(0, ejects);
}

TEST_F(ZelPlain, RefusesWhereTheCardHasGone)
{
    Open();
    RegisterCallback();
    slots->Eject(kUnit);
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        for (const int round : {1, 2}) {
            kernel.ClearCalls();
            ejects = 0;
            EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, way.slot(&handle, buffer.data(), 1, 0)); }))
                << round;
            EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
            EXPECT_EQ(1, ejects);
            EXPECT_EQ(1, dev.ejected);
        }
        CardIoResult result = kMarked;
        EXPECT_EQ(0, way.api(&handle, buffer.data(), 1, 0, &result));
        ExpectRecord(result, 10, 0x7C7C7C7C);
    }
}

// Nobody asks; the driver's own answer comes through.
TEST_F(ZelPlain, FailsAtTheDriverWithoutACallback)
{
    Open();
    slots->Eject(kUnit);
    for (const Direction& way : kDirections) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(-1, way.slot(&handle, buffer.data(), 1, 0));
                      EXPECT_EQ(EIO, errno);
                  }));
        EXPECT_EQ((Trace{Seek("0") + " = 0", Move(way, "512") + " = -1 EIO"}), TraceOf(kernel));
    }
    EXPECT_EQ(0, dev.ejected);
}

TEST_F(ZelPlain, OnlyReadsOnceADirectRequestGaveUp)
{
    Open();
    RegisterCallback();
    BreakDevice();
    PutOnCard(4, Pattern(1, 77));
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, zel_ops.Write(&handle, buffer.data(), 1, 4, 0)); }));
    EXPECT_TRUE(kernel.Calls().empty());
    CardIoResult result = kMarked;
    EXPECT_EQ(0, CARD_Write(&handle, buffer.data(), 1, 4, 0, &result));
    ExpectRecord(result, 10, 0x7C7C7C7C);
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(512, zel_ops.Read(&handle, buffer.data(), 1, 4, 0));
    EXPECT_EQ(Pattern(1, 77), MemoryAt(AddressOf(buffer.data()), 512));
    Reopen();
    EXPECT_EQ(512, zel_ops.Write(&handle, buffer.data(), 1, 4, 0));
}

// The device's lock is not looked at: another thread's direct request may be under
// way. The status query takes it, and gives it back before.
TEST_F(ZelPlain, TakesNoLock)
{
    Open();
    pthread_mutex_lock(&dev.lock);
    for (const Direction& way : kDirections) {
        EXPECT_EQ(512, way.slot(&handle, buffer.data(), 1, 0));
    }
    pthread_mutex_unlock(&dev.lock);

    RegisterCallback();
    int looked = 0;
    for (const CallKind kind : {CallKind::Seek, CallKind::Read, CallKind::Write}) {
        Fault look;
        look.kind = kind;
        look.times = Fault::kForEver;
        look.then = [&] {
            EXPECT_TRUE(LockIsFree());
            looked++;
        };
        kernel.Inject(look);
    }
    for (const Direction& way : kDirections) {
        EXPECT_EQ(512, way.slot(&handle, buffer.data(), 1, 0));
    }
    EXPECT_EQ(4, looked);
}

// --- large numbers -----------------------------------------------------------------------

struct Size {
    uint32_t sectors;
    const char* bytes;
};

TEST_F(ZelPlain, FormsByteCountsIn32Bits)
{
    const Size sizes[] = {
        {0x003FFFFF, "2147483136"}, {0x00400000, "2147483648"}, {0x007FFFFF, "4294966784"},
        {0x00800000, "0"},          {0x00800001, "512"},        {0x01000003, "1536"},
        {0x80000000, "0"},          {0xFFFFFFFF, "4294966784"},
    };
    Open();
    for (const Direction& way : kDirections) {
        for (const Size& size : sizes) {
            SCOPED_TRACE(testing::Message() << way.function << " " << size.sectors);
            kernel.ClearCalls();
            Fault fault;
            fault.kind = way.kind;
            fault.result = 512;
            kernel.Inject(fault);
            EXPECT_EQ(512, way.slot(&handle, buffer.data(), size.sectors, 1));
            EXPECT_EQ((Trace{Seek("512") + " = 512", Move(way, size.bytes) + " = 512"}),
                      TraceOf(kernel));
        }
    }
}

TEST_F(ZelPlain, FormsPositionsIn64Bits)
{
    const Size positions[] = {
        {0x003FFFFF, "2147483136"},    {0x00400000, "2147483648"}, {0x007FFFFF, "4294966784"},
        {0x00800000, "4294967296"},    {0x00800001, "4294967808"}, {0x80000000, "1099511627776"},
        {0xFFFFFFFF, "2199023255040"},
    };
    Open();
    for (const Direction& way : kDirections) {
        for (const Size& position : positions) {
            SCOPED_TRACE(testing::Message() << way.function << " " << position.sectors);
            kernel.ClearCalls();
            Fault reached;
            reached.kind = CallKind::Seek;
            reached.result = int64_t{position.sectors} * 512;
            kernel.Inject(reached);
            Fault failed;
            failed.kind = way.kind;
            failed.error = EIO;
            kernel.Inject(failed);
            EXPECT_EQ("", Printed([&] {
                          EXPECT_EQ(-1, way.slot(&handle, buffer.data(), 1, position.sectors));
                      }));
            EXPECT_EQ((Trace{Seek(position.bytes) + " = " + position.bytes,
                             Move(way, "512") + " = -1 EIO"}),
                      TraceOf(kernel));
        }
    }
}

TEST_F(ZelPlain, ReachesBeyond4GiB)
{
    constexpr uint64_t kPosition = 0x100000000;
    const TempFolder folder;
    const std::string path = folder.Sparse("card.img", kPosition + 4096);
    slots->Insert(kUnit, Card::FromImage(path));
    Open();
    const Bytes written = Pattern(2, 5);
    ASSERT_EQ(1024, zel_ops.Write(&handle, written.data(), 2, 0x00800000, 0));
    ASSERT_EQ(1024, zel_ops.Read(&handle, buffer.data(), 2, 0x00800000, 0));
    EXPECT_EQ(written, MemoryAt(AddressOf(buffer.data()), 1024));
    EXPECT_EQ(std::string(written.begin(), written.end()), FileBytes(path, kPosition, 1024));
    EXPECT_EQ(std::string(1024, '\0'), FileBytes(path, 0, 1024));
}

}  // namespace
