// SPDX-License-Identifier: MIT
//
// What the files of the device frame share.
#ifndef CARDDEV_DRV_DRV_H
#define CARDDEV_DRV_DRV_H

#include <stddef.h>

#include "carddev.h"

#define LOG_TAG "drv"
#include "common/log.h"

// False for a handle that no call can serve: null, zeroed, or closed.
inline bool IsBound(const DrvInfo* handle)
{
    return handle != nullptr && handle->ops != nullptr;
}

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

#endif
