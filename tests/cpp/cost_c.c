/* SPDX-License-Identifier: MIT */
/* What a careful C program writes: each function has its twin in cost_cpp.cpp. */
#include "carddev.h"

int32_t c_Read(DrvInfo* handle, uint32_t first, uint8_t* sectors);
int32_t c_ReadBytes(DrvInfo* handle, uint32_t first, uint8_t* bytes, uint32_t length);
int32_t c_Write(DrvInfo* handle, uint32_t first, const uint8_t* sectors);
int32_t c_Status(DrvInfo* handle);
int32_t c_Info(DrvInfo* handle);
int32_t c_Sectors(DrvInfo* handle, uint32_t* sectors);
int32_t c_DirectRead(DrvInfo* handle, uint32_t first, uint8_t* one, uint8_t* other);
int32_t c_DirectWrite(DrvInfo* handle, uint32_t first, const uint8_t* one, const uint8_t* other);
int32_t c_SdCommandWrite(DrvInfo* handle, const uint8_t* sectors);
int32_t c_OnEject(DrvInfo* handle, CardEjectCallback callback);

int32_t c_Read(DrvInfo* handle, uint32_t first, uint8_t* sectors)
{
    CardIoResult result;
    result.length = -1;
    CARD_Read(handle, sectors, 4, first, 0, &result);
    return result.length < 0 ? -1 : result.length;
}

int32_t c_ReadBytes(DrvInfo* handle, uint32_t first, uint8_t* bytes, uint32_t length)
{
    if (length % CARD_SECTOR_SIZE != 0) {
        return -1;
    }
    CardIoResult result;
    result.length = -1;
    CARD_Read(handle, bytes, length / CARD_SECTOR_SIZE, first, 0, &result);
    return result.length < 0 ? -1 : result.length;
}

int32_t c_Write(DrvInfo* handle, uint32_t first, const uint8_t* sectors)
{
    CardIoResult result;
    result.length = -1;
    CARD_Write(handle, sectors, 4, first, 0, &result);
    return result.length < 0 ? -1 : result.length;
}

int32_t c_Status(DrvInfo* handle)
{
    uint16_t status;
    return CARD_Getstatus(handle, &status) != 0 ? -1 : status;
}

int32_t c_Info(DrvInfo* handle)
{
    CardInfo info;
    return CARD_Getinfo(handle, &info) != 0 ? -1 : info.csd[5];
}

int32_t c_Sectors(DrvInfo* handle, uint32_t* sectors)
{
    const uint32_t size = CARD_GetCardSize(handle);
    if (size == 0xFFFFFFFB) {
        return CARD_CODE_REMOVED;
    }
    if (size == 0 || (size == CARD_CODE_ERROR && handle->dev_type != DEV_TYPE_RICOH_SD)) {
        return CARD_CODE_ERROR;
    }
    *sectors = size;
    return 0;
}

struct TwoPieces {
    uint32_t count;
    MemoryChunk chunk[2];
};

int32_t c_DirectRead(DrvInfo* handle, uint32_t first, uint8_t* one, uint8_t* other)
{
    struct TwoPieces pieces = {
        2, {{(uint32_t)(uintptr_t)one, 512}, {(uint32_t)(uintptr_t)other, 1024}}};
    const uint32_t length = handle->dev_type == DEV_TYPE_MIVO ? 3 : 3 * CARD_SECTOR_SIZE;
    return DevDrctRead(handle, first, length, (MemoryChunkArray*)(void*)&pieces) < 0 ? -1 : 0;
}

int32_t c_DirectWrite(DrvInfo* handle, uint32_t first, const uint8_t* one, const uint8_t* other)
{
    struct TwoPieces pieces = {
        2, {{(uint32_t)(uintptr_t)one, 512}, {(uint32_t)(uintptr_t)other, 1024}}};
    const uint32_t length = handle->dev_type == DEV_TYPE_MIVO ? 3 : 3 * CARD_SECTOR_SIZE;
    uint32_t retried;
    if (DevDrctWrite(handle, first, length, (MemoryChunkArray*)(void*)&pieces, 0, &retried) < 0) {
        return -1;
    }
    return (int32_t)retried;
}

int32_t c_SdCommandWrite(DrvInfo* handle, const uint8_t* sectors)
{
    return DevSdCmdWrite(handle, sectors, 4, 77, 24, 0) != 0 ? -1 : 0;
}

int32_t c_OnEject(DrvInfo* handle, CardEjectCallback callback)
{
    return CARD_Init(handle, 0, callback) != 0 ? -1 : 0;
}
