// SPDX-License-Identifier: MIT
//
// The Ricoh SD back-end's reads and writes: one seek in 64 bits, one transfer
// with a byte count of 32.
#include <climits>
#include <functional>

#include <fcntl.h>

#include "sim/low_memory.h"
#include "tests/ricohsd/ricohsd_fixture.h"
#include "tests/support/temp_folder.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Card;
using cardsim::Fault;
using cardsim::LowBuffer;

constexpr CardIoResult kMarked = {0x5A5A, 0x6B6B, 0x7C7C7C7C};

void ExpectRecord(const CardIoResult& result, uint16_t error, int32_t length)
{
    EXPECT_EQ(0x5A5A, result.reserved);
    EXPECT_EQ(error, result.error);
    EXPECT_EQ(length, result.length);
}

// Different bytes for every sector and every place in it.
std::vector<uint8_t> Pattern(uint32_t sectors, uint32_t seed)
{
    std::vector<uint8_t> bytes(size_t{sectors} * 512);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 512 * 31);
    }
    return bytes;
}

// The two directions, for what they have in common.
struct Direction {
    const char* function;
    const char* verb;  // as calls are described
    CallKind kind;
    std::function<int32_t(DrvInfo*, uint8_t*, uint32_t, uint32_t)> slot;
    std::function<int32_t(DrvInfo*, uint8_t*, uint32_t, uint32_t, CardIoResult*)> api;
};

std::vector<Direction> Directions()
{
    return {
        {"RicohSD_Read", "read", CallKind::Read,
         [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first) {
             return ricoh_sd_ops.Read(handle, buffer, sectors, first, 0xFEDCBA98);
         },
         [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first,
            CardIoResult* result) {
             return CARD_Read(handle, buffer, sectors, first, 0xFEDCBA98, result);
         }},
        {"RicohSD_Write", "write", CallKind::Write,
         [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first) {
             return ricoh_sd_ops.Write(handle, buffer, sectors, first, 0xFEDCBA98);
         },
         [](DrvInfo* handle, uint8_t* buffer, uint32_t sectors, uint32_t first,
            CardIoResult* result) {
             return CARD_Write(handle, buffer, sectors, first, 0xFEDCBA98, result);
         }},
    };
}

class RicohSdTransfer : public RicohSd {
protected:
    std::string Line(const Direction& way, const std::string& text)
    {
        return std::string("[zel:") + way.function + "(#)](E)" + text + "\n";
    }
    static std::string Seek(const std::string& offset)
    {
        return "lseek64(/dev/sdcarda, " + offset + ", SEEK_SET)";
    }
    static std::string Move(const Direction& way, const std::string& bytes)
    {
        return std::string(way.verb) + "(/dev/sdcarda, " + bytes + ")";
    }

    LowBuffer buffer{size_t{kSectors} * 512};
};

TEST_F(RicohSdTransfer, SeeksThenMovesOnce)
{
    Open();
    for (const Direction& way : Directions()) {
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
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()), calls.at(1).argument);
    }
}

TEST_F(RicohSdTransfer, MovesAnywhereOnTheCard)
{
    Open();
    const uint32_t places[][2] = {{0, 1}, {0, kSectors}, {kSectors - 1, 1}, {1, 7}, {17, 32}};
    for (const auto& [first, sectors] : places) {
        SCOPED_TRACE(testing::Message() << sectors << " sectors at " << first);
        const std::vector<uint8_t> before = Pattern(kSectors, first);
        ASSERT_EQ(int32_t{kSectors} * 512,
                  ricoh_sd_ops.Write(&handle, before.data(), kSectors, 0, 0));
        const std::vector<uint8_t> written = Pattern(sectors, first + 101);
        const auto bytes = static_cast<int32_t>(written.size());
        EXPECT_EQ(bytes, ricoh_sd_ops.Write(&handle, written.data(), sectors, first, 0));

        std::vector<uint8_t> expected = before;
        std::copy(written.begin(), written.end(), &expected[size_t{first} * 512]);
        std::vector<uint8_t> whole(size_t{kSectors} * 512);
        EXPECT_EQ(int32_t{kSectors} * 512,
                  ricoh_sd_ops.Read(&handle, whole.data(), kSectors, 0, 0));
        EXPECT_EQ(expected, whole);

        std::vector<uint8_t> part(written.size());
        EXPECT_EQ(bytes, ricoh_sd_ops.Read(&handle, part.data(), sectors, first, 0));
        EXPECT_EQ(written, part);
    }
}

TEST_F(RicohSdTransfer, TakesABufferAtAnyAddress)
{
    Open();
    const std::vector<uint8_t> written = Pattern(2, 9);
    std::vector<uint8_t> odd(written.size() + 1);
    std::copy(written.begin(), written.end(), odd.begin() + 1);
    EXPECT_EQ(1024, ricoh_sd_ops.Write(&handle, odd.data() + 1, 2, 3, 0));
    std::fill(odd.begin(), odd.end(), 0xE1);
    EXPECT_EQ(1024, ricoh_sd_ops.Read(&handle, odd.data() + 1, 2, 3, 0));
    EXPECT_EQ(0xE1, odd[0]);
    EXPECT_TRUE(std::equal(written.begin(), written.end(), odd.begin() + 1));
}

TEST_F(RicohSdTransfer, MovesNothingForNoSectors)
{
    Open();
    for (const Direction& way : Directions()) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        CardIoResult result = kMarked;
        EXPECT_EQ(0, way.api(&handle, buffer.data(), 0, 5, &result));
        ExpectRecord(result, 0x6B6B, 0);
        EXPECT_EQ((Trace{Seek("2560") + " = 2560", Move(way, "0") + " = 0"}), TraceOf(kernel));
    }
}

// --- ends and short transfers ----------------------------------------------------------

TEST_F(RicohSdTransfer, IsCutAtTheEndOfTheCard)
{
    Open();
    for (const Direction& way : Directions()) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        CardIoResult result = kMarked;
        EXPECT_EQ(0, way.api(&handle, buffer.data(), 4, kSectors - 1, &result));
        ExpectRecord(result, 0x6B6B, 512);
        EXPECT_EQ((Trace{Seek("32256") + " = 32256", Move(way, "2048") + " = 512"}),
                  TraceOf(kernel));
    }
}

TEST_F(RicohSdTransfer, FindsNothingAtTheEndOfTheCard)
{
    Open();
    CardIoResult result = kMarked;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(0, CARD_Read(&handle, buffer.data(), 1, kSectors, 0, &result));
              }));
    ExpectRecord(result, 0x6B6B, 0);
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(-1, ricoh_sd_ops.Write(&handle, buffer.data(), 1, kSectors, 0));
                  error = errno;
              }));
    EXPECT_EQ(ENOSPC, error);
}

TEST_F(RicohSdTransfer, PassesAShortTransferOn)
{
    Open();
    for (const Direction& way : Directions()) {
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

// The caller reads errno; no line is printed.
TEST_F(RicohSdTransfer, PassesAFailedTransferOn)
{
    Open();
    for (const Direction& way : Directions()) {
        for (const int error : {EIO, EINTR, EAGAIN, EFAULT, ENOMEDIUM}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << strerror(error));
            kernel.ClearCalls();
            Fail(way.kind, error, 1, 2);
            int32_t moved = 0;
            int left = 0;
            EXPECT_EQ("", Printed([&] {
                          moved = way.slot(&handle, buffer.data(), 2, 1);
                          left = errno;
                      }));
            EXPECT_EQ(-1, moved);
            EXPECT_EQ(error, left);
            CardIoResult result = kMarked;
            EXPECT_EQ(0, way.api(&handle, buffer.data(), 2, 1, &result));
            ExpectRecord(result, 10, 0x7C7C7C7C);
            const std::string failed =
                Move(way, "1024") + " = -1 " + std::string(strerrorname_np(error));
            EXPECT_EQ((Trace{Seek("512") + " = 512", failed, Seek("512") + " = 512", failed}),
                      TraceOf(kernel));
        }
    }
}

TEST_F(RicohSdTransfer, ReportsAFailedSeekAndMovesNothing)
{
    Open();
    for (const Direction& way : Directions()) {
        for (const int error : {EIO, EINVAL, EOVERFLOW}) {
            SCOPED_TRACE(testing::Message() << way.function << " " << strerror(error));
            kernel.ClearCalls();
            Fail(CallKind::Seek, error, 1, 3);
            int32_t moved = 0;
            int left = 0;
            EXPECT_EQ(Line(way, std::string("lseek failed : ") + strerror(error)), Printed([&] {
                          moved = way.slot(&handle, buffer.data(), 1, 3);
                          left = errno;
                      }));
            EXPECT_EQ(-22, moved);
            EXPECT_EQ(error, left);
            EXPECT_EQ(Trace{Seek("1536") + " = -1 " + strerrorname_np(error)}, TraceOf(kernel));
            EXPECT_EQ(error, ErrnoAfter(EXFULL, [&] { way.slot(&handle, buffer.data(), 1, 3); }));
            CardIoResult result = kMarked;
            Printed([&] { EXPECT_EQ(0, way.api(&handle, buffer.data(), 1, 3, &result)); });
            ExpectRecord(result, 10, 0x7C7C7C7C);
        }
    }
}

TEST_F(RicohSdTransfer, CannotSeekBeyondTheCard)
{
    Open();
    for (const Direction& way : Directions()) {
        SCOPED_TRACE(way.function);
        kernel.ClearCalls();
        EXPECT_EQ(Line(way, "lseek failed : Invalid argument"), Printed([&] {
                      EXPECT_EQ(-22, way.slot(&handle, buffer.data(), 1, kSectors + 1));
                  }));
        EXPECT_EQ(Trace{Seek("33280") + " = -1 EINVAL"}, TraceOf(kernel));
    }
}

TEST_F(RicohSdTransfer, NeedsAHandleAndAnOpenDevice)
{
    const CardIoResult marked = kMarked;
    for (const Direction& way : Directions()) {
        SCOPED_TRACE(way.function);
        handle.priv = nullptr;
        CardIoResult result = marked;
        EXPECT_EQ(Line(way, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(nullptr, buffer.data(), 1, 0)); }));
        EXPECT_EQ(Line(way, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(&handle, buffer.data(), 1, 0)); }));
        EXPECT_EQ(Line(way, "Cannot get driver info!"),
                  Printed([&] { EXPECT_EQ(0, way.api(&handle, buffer.data(), 1, 0, &result)); }));
        ExpectRecord(result, 10, 0x7C7C7C7C);
        handle.priv = &dev;
        EXPECT_EQ(Line(way, "Invalid blk_fd!"),
                  Printed([&] { EXPECT_EQ(-19, way.slot(&handle, buffer.data(), 1, 0)); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { way.slot(&handle, buffer.data(), 1, 0); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(RicohSdTransfer, CannotWriteWhatWasOpenedForReading)
{
    const std::vector<uint8_t> written = Pattern(1, 3);
    ASSERT_EQ(512, sim_card_write(&model(), 512, written.data(), 512));
    model().write_protected = true;
    Open();
    CardIoResult result = kMarked;
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  EXPECT_EQ(0, CARD_Write(&handle, buffer.data(), 1, 1, 0, &result));
                  error = errno;
              }));
    EXPECT_EQ(EBADF, error);
    ExpectRecord(result, 10, 0x7C7C7C7C);
    EXPECT_EQ(512, ricoh_sd_ops.Read(&handle, buffer.data(), 1, 1, 0));
    EXPECT_TRUE(std::equal(written.begin(), written.end(), buffer.data()));
}

// --- large numbers -----------------------------------------------------------------------

struct Size {
    uint32_t sectors;
    const char* bytes;
};

TEST_F(RicohSdTransfer, FormsByteCountsIn32Bits)
{
    const Size sizes[] = {
        {0x003FFFFF, "2147483136"}, {0x00400000, "2147483648"}, {0x007FFFFF, "4294966784"},
        {0x00800000, "0"},          {0x00800001, "512"},        {0x01000003, "1536"},
        {0x80000000, "0"},          {0xFFFFFFFF, "4294966784"},
    };
    Open();
    for (const Direction& way : Directions()) {
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

TEST_F(RicohSdTransfer, FormsPositionsIn64Bits)
{
    const Size positions[] = {
        {0x003FFFFF, "2147483136"},    {0x00400000, "2147483648"}, {0x007FFFFF, "4294966784"},
        {0x00800000, "4294967296"},    {0x00800001, "4294967808"}, {0x80000000, "1099511627776"},
        {0xFFFFFFFF, "2199023255040"},
    };
    Open();
    for (const Direction& way : Directions()) {
        for (const Size& position : positions) {
            SCOPED_TRACE(testing::Message() << way.function << " " << position.sectors);
            kernel.ClearCalls();
            Fault reached;
            reached.kind = CallKind::Seek;
            reached.result = 1;
            kernel.Inject(reached);
            Fail(way.kind, EIO);
            EXPECT_EQ(-1, way.slot(&handle, buffer.data(), 1, position.sectors));
            EXPECT_EQ((Trace{Seek(position.bytes) + " = 1", Move(way, "512") + " = -1 EIO"}),
                      TraceOf(kernel));
        }
    }
}

// --- a card in a file ----------------------------------------------------------------------

class RicohSdImage : public RicohSd {
protected:
    void Insert(const std::string& path, bool write_protected = false)
    {
        AddRicohCard(kernel, Card::FromImage(path, write_protected));
        Open();
    }

    TempFolder folder;
    LowBuffer buffer{8 * 512};
};

TEST_F(RicohSdImage, MovesTheFilesBytes)
{
    const std::vector<uint8_t> content = Pattern(16, 1);
    const std::string path = folder.Text("card.img", std::string(content.begin(), content.end()));
    Insert(path);
    EXPECT_EQ(16u, CARD_GetCardSize(&handle));
    ASSERT_EQ(4 * 512, ricoh_sd_ops.Read(&handle, buffer.data(), 4, 6, 0));
    EXPECT_TRUE(std::equal(buffer.data(), buffer.data() + 4 * 512, content.begin() + 6 * 512));

    const std::vector<uint8_t> written = Pattern(3, 77);
    ASSERT_EQ(3 * 512, ricoh_sd_ops.Write(&handle, written.data(), 3, 13, 0));
    std::string expected(content.begin(), content.end());
    std::copy(written.begin(), written.end(), expected.begin() + 13 * 512);
    EXPECT_EQ(expected, FileBytes(path, 0, 17 * 512));
}

TEST_F(RicohSdImage, ReachesBeyond4GiB)
{
    constexpr uint64_t kPosition = 0x100000000;
    const std::string path = folder.Sparse("card.img", kPosition + 4096);
    Insert(path);
    EXPECT_EQ(0x00800008u, CARD_GetCardSize(&handle));
    kernel.ClearCalls();
    const std::vector<uint8_t> written = Pattern(2, 5);
    ASSERT_EQ(1024, ricoh_sd_ops.Write(&handle, written.data(), 2, 0x00800000, 0));
    ASSERT_EQ(1024, ricoh_sd_ops.Read(&handle, buffer.data(), 2, 0x00800000, 0));
    EXPECT_TRUE(std::equal(written.begin(), written.end(), buffer.data()));
    EXPECT_EQ((Trace{"lseek64(/dev/sdcarda, 4294967296, SEEK_SET) = 4294967296",
                     "write(/dev/sdcarda, 1024) = 1024",
                     "lseek64(/dev/sdcarda, 4294967296, SEEK_SET) = 4294967296",
                     "read(/dev/sdcarda, 1024) = 1024"}),
              TraceOf(kernel));
    EXPECT_EQ(std::string(written.begin(), written.end()), FileBytes(path, kPosition, 1024));
    EXPECT_EQ(std::string(1024, '\0'), FileBytes(path, 0, 1024));
}

TEST_F(RicohSdImage, ReadsAProtectedCard)
{
    const std::vector<uint8_t> content = Pattern(4, 1);
    const std::string path = folder.Text("card.img", std::string(content.begin(), content.end()));
    Insert(path, true);
    EXPECT_EQ(1, CARD_GetWriteProtect(&handle));
    EXPECT_EQ(-1, ricoh_sd_ops.Write(&handle, buffer.data(), 1, 0, 0));
    ASSERT_EQ(4 * 512, ricoh_sd_ops.Read(&handle, buffer.data(), 4, 0, 0));
    EXPECT_TRUE(std::equal(content.begin(), content.end(), buffer.data()));
    EXPECT_EQ(std::string(content.begin(), content.end()), FileBytes(path, 0, 4 * 512));
}

}  // namespace
