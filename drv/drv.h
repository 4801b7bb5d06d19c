// SPDX-License-Identifier: MIT
//
// What the files of the device frame share.
#ifndef CARDDEV_DRV_DRV_H
#define CARDDEV_DRV_DRV_H

#include <stddef.h>

#include "carddev.h"

#define LOG_TAG Drv
#include "common/log.h"

// False for a handle that no call can serve: null, zeroed, or closed.
__attribute__((always_inline)) inline bool IsBound(const DrvInfo* handle)
{
    return handle != nullptr && handle->ops != nullptr;
}

// The public calls that a slot serves.
enum class Call {
    DevInit,
    DevExit,
    DevIoctl,
    DevDrctRead,
    DevDrctWrite,
    DevDrctRMW,
    DevFatWrite,
    DevSdCmdWrite,
    DevCheckRt,
    DevCheckDelay,
    DevRTOn4Wait,
    DevLockRTOn,
    DevUnlockRTOn,
    CARD_Init,
    CARD_Read,
    CARD_Write,
    CARD_Getstatus,
    CARD_GetR1Status,
    CARD_Getinfo,
    CARD_GetSpeedInfo,
    CARD_SecureGetinfo,
    CARD_GetCardSize,
    CARD_GetWriteProtect,
    CARD_Ioctl,
};

// Hot, like what they jump to: the linker then puts what a transfer runs through side by
// side, and the processor needs one mapping for all of it.
// NOLINTBEGIN(readability-redundant-declaration)
extern "C" int32_t DevDrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                               MemoryChunkArray* chunks) __attribute__((hot));
extern "C" int32_t DevDrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                                MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
    __attribute__((hot));
// NOLINTEND(readability-redundant-declaration)

#pragma GCC visibility push(hidden)

// What a call answers, and says, that cannot be handed on: the handle is not bound, or
// the slot is empty. Numbers alone go in, so a call that is handed on pays nothing.
int32_t Refuse(const DrvInfo* handle, Call call, unsigned line = __builtin_LINE())
    __attribute__((cold));

// What a call answers that has nowhere to put its answer.
int32_t RefuseArgument(Call call, unsigned line = __builtin_LINE()) __attribute__((cold));

// Append the pieces of `list` to `chunks`, whose count must be 0 before.
// Returns 0, or -22 when either is null.
extern "C" int32_t DevArray2Chunk(const MemoryArray* list, MemoryChunkArray* chunks);

// The records are shared with programs that were compiled elsewhere.
static_assert(offsetof(DrvInfo, dev_type) == 256);
static_assert(offsetof(DrvInfo, dev_index) == 260);
static_assert(offsetof(DrvInfo, ops) == 264);
static_assert(offsetof(DrvInfo, priv) == 264 + sizeof(void*));
static_assert(sizeof(DrvInfo) == 264 + 2 * sizeof(void*));
static_assert(sizeof(DrvOps) == 24 * sizeof(void*));
static_assert(sizeof(CardInfo) == 32 && offsetof(CardInfo, csd) == 16);
static_assert(sizeof(CardSpeedInfo) == 32);
static_assert(sizeof(CardIoResult) == 8);
static_assert(offsetof(CardIoResult, error) == 2 && offsetof(CardIoResult, length) == 4);
static_assert(sizeof(MemoryChunk) == 8 && offsetof(MemoryChunk, len) == 4);
static_assert(sizeof(MemoryChunkArray) == 4);
static_assert(sizeof(MemoryArray) == 72 && offsetof(MemoryArray, addr) == 4);
static_assert(offsetof(MemoryArray, len) == 36 && offsetof(MemoryArray, count) == 68);
static_assert(offsetof(BlockListEntry, sectors) == 4 && offsetof(BlockListEntry, sector) == 8);
static_assert(sizeof(void*) != 4 || sizeof(BlockListEntry) == 16);
static_assert(sizeof(BlockList) == 2 * sizeof(void*));

#pragma GCC visibility pop

#endif
