// SPDX-License-Identifier: MIT
#include "tests/fourth/ramdisk.h"

#include <errno.h>
#include <string.h>

namespace {

struct RamDisk {
    uint8_t is_open;
    uint8_t bytes[RAMDISK_SECTORS * CARD_SECTOR_SIZE];  // these outlast an exit
};

RamDisk ramdisk_dev[RAMDISK_UNITS];

// Null for a handle that is not initialised.
RamDisk* Device(const DrvInfo* handle)
{
    auto* dev = static_cast<RamDisk*>(handle->priv);
    return dev != nullptr && dev->is_open ? dev : nullptr;
}

uint8_t* Memory(uint32_t address)
{
    return reinterpret_cast<uint8_t*>(uintptr_t{address});
}

// Bytes of the card from a sector on, or null where they reach beyond its end.
uint8_t* Sectors(RamDisk* dev, uint32_t first, uint32_t sectors)
{
    const bool fits = first <= RAMDISK_SECTORS && sectors <= RAMDISK_SECTORS - first;
    return fits ? dev->bytes + size_t{first} * CARD_SECTOR_SIZE : nullptr;
}

}  // namespace

extern "C" {

static int32_t RamDisk_Init(DrvInfo* handle)
{
    if (handle->dev_index < 0 || handle->dev_index >= RAMDISK_UNITS) {
        return -1;
    }
    RamDisk* dev = &ramdisk_dev[handle->dev_index];
    dev->is_open = 1;
    handle->priv = dev;
    return 0;
}

static int32_t RamDisk_Exit(DrvInfo* handle)
{
    if (RamDisk* dev = Device(handle)) {
        dev->is_open = 0;
    }
    return 0;
}

// Plain transfers end with the card.
static int32_t RamDisk_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first,
                            uint32_t /*word*/)
{
    RamDisk* dev = Device(handle);
    if (dev == nullptr || first > RAMDISK_SECTORS) {
        return dev == nullptr ? -ENODEV : -EINVAL;
    }
    const uint32_t there = sectors < RAMDISK_SECTORS - first ? sectors : RAMDISK_SECTORS - first;
    memcpy(buffer, Sectors(dev, first, there), size_t{there} * CARD_SECTOR_SIZE);
    return static_cast<int32_t>(there * CARD_SECTOR_SIZE);
}

static int32_t RamDisk_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first,
                             uint32_t /*word*/)
{
    RamDisk* dev = Device(handle);
    if (dev == nullptr || first > RAMDISK_SECTORS) {
        return dev == nullptr ? -ENODEV : -EINVAL;
    }
    const uint32_t there = sectors < RAMDISK_SECTORS - first ? sectors : RAMDISK_SECTORS - first;
    memcpy(Sectors(dev, first, there), buffer, size_t{there} * CARD_SECTOR_SIZE);
    return static_cast<int32_t>(there * CARD_SECTOR_SIZE);
}

static int32_t RamDisk_CardGetStatus(DrvInfo* handle, uint16_t* status)
{
    *status = Device(handle) == nullptr ? 0 : CARD_STATUS_READY;
    return Device(handle) == nullptr ? CARD_CODE_NOT_OPEN : CARD_CODE_OK;
}

static int32_t RamDisk_CardGetR1Status(DrvInfo* /*handle*/)
{
    return CARD_CODE_OK;
}

static uint32_t RamDisk_CardGetSize(DrvInfo* handle)
{
    return Device(handle) == nullptr ? 0 : RAMDISK_SECTORS;
}

// Lengths count in bytes, as the frame's contract leaves to each back-end.
static int32_t RamDisk_DrctRead(DrvInfo* handle, uint32_t first, uint32_t length,
                                MemoryChunkArray* chunks)
{
    RamDisk* dev = Device(handle);
    if (dev == nullptr || chunks == nullptr) {
        return dev == nullptr ? -ENODEV : -EINVAL;
    }
    const uint8_t* from = Sectors(dev, first, length / CARD_SECTOR_SIZE);
    if (from == nullptr) {
        return -EIO;
    }
    for (uint32_t i = 0; i < chunks->count; i++) {
        memcpy(Memory(chunks->chunk[i].addr), from, chunks->chunk[i].len);
        from += chunks->chunk[i].len;
    }
    return static_cast<int32_t>(length);
}

}  // extern "C"

// All 24, in their order; null is what the back-end does not offer.
const DrvOps ramdisk_ops = {
    .Init = RamDisk_Init,
    .Exit = RamDisk_Exit,
    .Read = RamDisk_Read,
    .Write = RamDisk_Write,
    .Ioctl = nullptr,
    .CardIoctl = nullptr,
    .CardInit = nullptr,
    .CardGetStatus = RamDisk_CardGetStatus,
    .CardGetR1Status = RamDisk_CardGetR1Status,
    .CardGetInfo = nullptr,
    .CardGetSpeedInfo = nullptr,
    .CardSecureGetInfo = nullptr,
    .CardGetSize = RamDisk_CardGetSize,
    .CardGetWriteProtect = nullptr,
    .DrctRead = RamDisk_DrctRead,
    .DrctWrite = nullptr,
    .DrctRMW = nullptr,
    .FatWrite = nullptr,
    .SdCmdWrite = nullptr,
    .CheckRt = nullptr,
    .CheckDelay = nullptr,
    .RTOn4Wait = nullptr,
    .LockRTOn = nullptr,
    .UnlockRTOn = nullptr,
};
