// SPDX-License-Identifier: MIT
//
// Runs operations of the library whose instructions are then counted by count.py. libc's
// calls that a transfer makes do nothing (see quiet_libc.cpp, too).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <initializer_list>

#include "carddev.h"
#include "carddev_state.h"

extern "C" {

off64_t lseek64(int /*fd*/, off64_t /*offset*/, int /*whence*/) noexcept
{
    return 0;
}

ssize_t read(int /*fd*/, void* /*buffer*/, size_t /*count*/)
{
    return 512;
}

ssize_t write(int /*fd*/, const void* /*buffer*/, size_t /*count*/)
{
    return 512;
}

// What lies between the two is counted. count.py knows them by name.
__attribute__((noinline)) void CountBegin(void)
{
    __asm__ volatile("");
}

__attribute__((noinline)) void CountEnd(void)
{
    __asm__ volatile("");
}

}  // extern "C"

namespace {

constexpr uint32_t kMostChunks = 2047;
constexpr uint32_t kAway = 0x10000000;  // where the data would lie; never touched

uint32_t chunk_memory[1 + 2 * kMostChunks];
auto* const chunks = reinterpret_cast<MemoryChunkArray*>(chunk_memory);

// With the room in front that the library's own tables have.
uint64_t table_memory[1 + 2048];
auto* const table = reinterpret_cast<struct SgEntry*>(&table_memory[1]);

ZelDevice zel_unit;
MivoDevice mivo_unit;
DrvInfo zel = {};
DrvInfo mivo = {};
DrvInfo ricoh = {};
uint32_t retried;

// The line says what the next pair of marks is about.
template <typename Operation>
void Count(const char* name, Operation operation)
{
    puts(name);
    CountBegin();
    const bool went_well = operation();
    CountEnd();
    if (!went_well) {
        printf("failed: %s\n", name);
        exit(1);
    }
}

enum class Layout { Contiguous, Scattered };

void Lay(uint32_t count, uint32_t bytes, Layout layout)
{
    const uint32_t step = layout == Layout::Contiguous ? bytes : 2 * bytes;
    chunks->count = count;
    for (uint32_t i = 0; i < count; i++) {
        chunks->chunk[i] = {kAway + i * step, bytes};
    }
}

// The Mivo back-end takes its lengths in sectors: the number is handed on unread.
void DirectTransfers(const char* who, DrvInfo* handle, const char* what)
{
    char name[80];
    snprintf(name, sizeof name, "%s read %s", who, what);
    Count(name, [&] { return DevDrctRead(handle, 8, 512, chunks) == 512; });
    snprintf(name, sizeof name, "%s write %s", who, what);
    Count(name, [&] { return DevDrctWrite(handle, 8, 512, chunks, 0, &retried) == 512; });
}

void ArrayTransfers(const char* who, DrvInfo* handle, int32_t count)
{
    MemoryArray list = {};
    list.count = count;
    for (uint32_t i = 0; i < static_cast<uint32_t>(count); i++) {
        list.addr[i] = kAway + i * 1024;
        list.len[i] = 512;
    }
    char name[80];
    snprintf(name, sizeof name, "%s read array %d", who, static_cast<int>(count));
    Count(name, [&] { return DevDrctReadArray(handle, 8, 512, &list) == 512; });
}

void ElementWrites(const char* who, DrvInfo* handle, int32_t count)
{
    static BlockListEntry elements[8];
    for (int32_t i = 0; i < count; i++) {
        BlockListEntry* const next = i + 1 < count ? &elements[i + 1] : nullptr;
        elements[i] = {kAway, 1, static_cast<uint32_t>(i), next};
    }
    BlockList list = {count, elements};
    char name[80];
    snprintf(name, sizeof name, "%s rmw %d", who, static_cast<int>(count));
    Count(name, [&] { return DevDrctRMW(handle, &list) == 0; });
    snprintf(name, sizeof name, "%s fat %d", who, static_cast<int>(count));
    Count(name, [&] { return DevFatWrite(handle, &list) == 0; });
}

void PlainTransfers(const char* who, DrvInfo* handle)
{
    char buffer[512] = {};
    char name[80];
    CardIoResult result = {};
    snprintf(name, sizeof name, "%s read plain", who);
    Count(name, [&] { return CARD_Read(handle, buffer, 1, 8, 0, &result) == 0; });
    snprintf(name, sizeof name, "%s write plain", who);
    Count(name, [&] { return CARD_Write(handle, buffer, 1, 8, 0, &result) == 0; });
}

// What a public call costs before the slot is reached: the slot is the end mark.
void FrameCalls()
{
    DrvOps ops;
    void (*const end)(void) = CountEnd;
    static_assert(sizeof ops == 24 * sizeof end);
    for (size_t slot = 0; slot < 24; slot++) {
        memcpy(reinterpret_cast<char*>(&ops) + slot * sizeof end, &end, sizeof end);
    }
    DrvInfo handle = {};
    handle.ops = &ops;
    CardIoResult result;
    uint16_t word;
    CardInfo info;
    CardSpeedInfo speed;
    uint8_t status[CARD_SD_STATUS_SIZE];
    BlockList list = {};
#define FRAME_CALL(name, ...)                 \
    do {                                      \
        puts("frame " #name);                 \
        CountBegin();                         \
        static_cast<void>(name(__VA_ARGS__)); \
    } while (0)
    FRAME_CALL(DevInit, &handle);
    FRAME_CALL(DevIoctl, &handle, 0, nullptr);
    FRAME_CALL(DevDrctRead, &handle, 0, 0, chunks);
    FRAME_CALL(DevDrctWrite, &handle, 0, 0, chunks, 0, &retried);
    FRAME_CALL(DevDrctRMW, &handle, &list);
    FRAME_CALL(DevFatWrite, &handle, &list);
    FRAME_CALL(DevSdCmdWrite, &handle, nullptr, 0, 0, 0, 0);
    FRAME_CALL(DevCheckRt, &handle);
    FRAME_CALL(DevCheckDelay, &handle);
    FRAME_CALL(DevRTOn4Wait, &handle);
    FRAME_CALL(DevLockRTOn, &handle);
    FRAME_CALL(DevUnlockRTOn, &handle);
    FRAME_CALL(CARD_Init, &handle, 0, nullptr);
    FRAME_CALL(CARD_Read, &handle, nullptr, 0, 0, 0, &result);
    FRAME_CALL(CARD_Write, &handle, nullptr, 0, 0, 0, &result);
    FRAME_CALL(CARD_Getstatus, &handle, &word);
    FRAME_CALL(CARD_GetR1Status, &handle);
    FRAME_CALL(CARD_Getinfo, &handle, &info);
    FRAME_CALL(CARD_GetSpeedInfo, &handle, &speed);
    FRAME_CALL(CARD_SecureGetinfo, &handle, status);
    FRAME_CALL(CARD_GetCardSize, &handle);
    FRAME_CALL(CARD_GetWriteProtect, &handle);
    FRAME_CALL(CARD_Ioctl, &handle, 0, 0);
    FRAME_CALL(DevExit, &handle);
#undef FRAME_CALL
}

void Transfers(const char* who, DrvInfo* handle)
{
    char what[40];
    for (const uint32_t count : {1u, 2u, 8u, 64u, kMostChunks}) {
        // Short enough for 2047 of them to join: 32 bytes each.
        snprintf(what, sizeof what, "joined %u", static_cast<unsigned>(count));
        Lay(count, 32, Layout::Contiguous);
        DirectTransfers(who, handle, what);
        snprintf(what, sizeof what, "scattered %u", static_cast<unsigned>(count));
        Lay(count, 512, Layout::Scattered);
        DirectTransfers(who, handle, what);
    }
    for (const uint32_t pieces : {1u, 2u, 64u}) {
        snprintf(what, sizeof what, "long %u", static_cast<unsigned>(pieces));
        Lay(1, pieces * 65536, Layout::Contiguous);
        DirectTransfers(who, handle, what);
    }
    ArrayTransfers(who, handle, 1);
    ArrayTransfers(who, handle, 8);
    ElementWrites(who, handle, 1);
    ElementWrites(who, handle, 8);
    PlainTransfers(who, handle);
}

}  // namespace

int main()
{
    zel_unit.blk_fd = zel_unit.dev_fd = zel_unit.chr_fd = zel_unit.rt_fd = 9;
    zel_unit.sg_table = table;
    zel.ops = &zel_ops;
    zel.priv = &zel_unit;
    mivo_unit.chr_fd = 9;
    mivo_unit.sg_table = table;
    mivo.ops = &mivo_ops;
    mivo.priv = &mivo_unit;
    // The record is the back-end's own: index, read_only, blk_fd, two buffers.
    static int32_t ricoh_unit[5] = {0, 0, 9, 0, 0};
    ricoh.ops = &ricoh_sd_ops;
    ricoh.priv = ricoh_unit;

    // The first run fills in what the loader leaves for the first call.
    printf("begin %p end %p library %p\n", reinterpret_cast<void*>(CountBegin),
           reinterpret_cast<void*>(CountEnd), reinterpret_cast<void*>(DevDetect));
    Transfers("zel", &zel);
    Transfers("mivo", &mivo);
    PlainTransfers("ricoh", &ricoh);
    FrameCalls();
    return 0;
}
