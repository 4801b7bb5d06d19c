// SPDX-License-Identifier: MIT
//
// The Mivo back-end's write with a card command of the caller's.
#include "tests/mivosdif/transfer_fixture.h"

namespace {

constexpr uint32_t kEnd = 0x80000000;

const void* Pointer(uint32_t address)
{
    return reinterpret_cast<const void*>(uintptr_t{address});
}

// A request as the driver finds it: the record without its padding, what it points
// at, and the table.
struct Seen {
    Bytes bytes;
    Bytes data;
    Bytes table;
};

class MivoCommandWrite : public MivoTransfer {
protected:
    Seen Sent(uint32_t address, uint32_t sectors, uint32_t word, uint8_t byte0, uint8_t byte1)
    {
        Seen seen;
        kernel.ClearFaults();
        Intercept(kSdCmdWrite, [&](uintptr_t argument) {
            seen.bytes = MemoryAt(argument, 2);
            uint32_t data = 0;
            memcpy(&data, reinterpret_cast<const void*>(argument + 4), 4);
            seen.data = MemoryAt(data, 16);
            uint32_t list[2];  // address and length
            memcpy(list, &seen.data[8], sizeof list);
            seen.table = MemoryAt(list[0], list[1]);
        });
        kernel.ClearCalls();
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(
                          0, DevSdCmdWrite(&handle, Pointer(address), sectors, word, byte0, byte1));
                  }));
        EXPECT_EQ((Trace{Ioctl(kSdCmdWrite), Poll()}), TraceOf(kernel));
        EXPECT_TRUE(LockIsFree());
        return seen;
    }
};

TEST_F(MivoCommandWrite, HandsOverTheCommandAndTheTable)
{
    Open();
    const Seen seen = Sent(0x12345678, 3, 0x89ABCDEF, 0xC1, 0x92);
    EXPECT_EQ((Bytes{0xC1, 0x92}), seen.bytes);
    EXPECT_EQ(Words({0x89ABCDEF, 0x600, Low(dev.sg_table), 8}), seen.data);
    EXPECT_EQ(TableWords({0x12345678, 0x600 | kEnd}), seen.table);
}

TEST_F(MivoCommandWrite, PassesTheWordAndTheBytesUnchanged)
{
    Open();
    for (const uint32_t word : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        const Seen seen = Sent(0x10000, 1, word, static_cast<uint8_t>(word), 0xFF);
        EXPECT_EQ((Bytes{static_cast<uint8_t>(word), 0xFF}), seen.bytes);
        EXPECT_EQ(Words({word, 0x200, Low(dev.sg_table), 8}), seen.data);
    }
}

TEST_F(MivoCommandWrite, SplitsALongBuffer)
{
    Open();
    const Seen seen = Sent(0x10000, 300, 5, 0, 0);
    EXPECT_EQ(Words({5, 300 * 512, Low(dev.sg_table), 24}), seen.data);
    EXPECT_EQ(TableWords({0x10000, 0x10000, 0x20000, 0x10000, 0x30000, 0x5800 | kEnd}), seen.table);
}

TEST_F(MivoCommandWrite, FormsTheByteCountIn32Bits)
{
    Open();
    const Seen seen = Sent(0x10000, 0x80000003, 5, 0, 0);
    EXPECT_EQ(Words({5, 0x600, Low(dev.sg_table), 8}), seen.data);
    EXPECT_EQ(TableWords({0x10000, 0x600 | kEnd}), seen.table);
}

// The list is empty; its end mark goes into the last word in front of the table.
TEST_F(MivoCommandWrite, SendsAnEmptyListForNoSectors)
{
    Open();
    const uintptr_t front = AddressOf(dev.sg_table) - 8;
    for (const uint32_t sectors : {0u, 0x00800000u}) {
        memset(reinterpret_cast<void*>(front), 0x11, 16);
        const Seen seen = Sent(0x10000, sectors, 5, 0, 0);
        EXPECT_EQ(Words({5, 0, Low(dev.sg_table), 0}), seen.data);
        EXPECT_EQ(TableWords({0x11111111, 0x91111111, 0x11111111, 0x11111111}),
                  MemoryAt(front, 16));
    }
}

TEST_F(MivoCommandWrite, WritesToTheCard)
{
    Open();
    const Bytes data = Pattern(200, 5);
    FillBuffer(data);
    int error = 0;
    EXPECT_EQ("", Printed([&] {
                  errno = EXFULL;
                  EXPECT_EQ(0, DevSdCmdWrite(&handle, buffer.data(), 200, 700, 24, 25));
                  error = errno;
              }));
    EXPECT_EQ(EXFULL, error);
    EXPECT_EQ(data, OnCard(700, 200));
    EXPECT_EQ(0, DevSdCmdWrite(&handle, buffer.data(), 0, 700, 24, 25));
    EXPECT_EQ(data, OnCard(700, 200));
}

TEST_F(MivoCommandWrite, RefusesABufferThatOverflowsTheTable)
{
    Open();
    EXPECT_EQ(2047u * 8, Sent(0x10000, 0x3FF80, 0, 0, 0).table.size());
    kernel.ClearFaults();
    for (const uint32_t sectors : {0x3FF81u, 0x40000u, 0x7FFFFFu}) {
        kernel.ClearCalls();
        int left = 0;
        EXPECT_EQ(ErrorLine("Mivo_SetSgEntry", "Overflow sg table(2048)!") +
                      ErrorLine("Mivo_SdCmdWrite", "Mivo_SetSgEntry failed(-12)!"),
                  Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(-12, DevSdCmdWrite(&handle, Pointer(0x10000), sectors, 0, 0, 0));
                      left = errno;
                  }));
        EXPECT_EQ(EXFULL, left);
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_TRUE(LockIsFree());
        EXPECT_EQ(0, dev.io_error);
    }
}

TEST_F(MivoCommandWrite, NeedsAHandleAndARecord)
{
    for (DrvInfo* info : {static_cast<DrvInfo*>(nullptr), &handle}) {
        EXPECT_EQ(ErrorLine("Mivo_SdCmdWrite", "Cannot get driver info!"), Printed([&] {
                      EXPECT_EQ(-19, mivo_ops.SdCmdWrite(info, buffer.data(), 1, 0, 0, 0));
                  }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] {
                      mivo_ops.SdCmdWrite(info, buffer.data(), 1, 0, 0, 0);
                  }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

}  // namespace
