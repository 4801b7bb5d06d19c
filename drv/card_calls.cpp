// SPDX-License-Identifier: MIT
//
// The CARD_* calls: check, look up the slot, forward. Results are card codes.
#include "drv/drv.h"

int32_t CARD_Init(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb)
{
    if (!IsBound(handle) || handle->ops->CardInit == nullptr) {
        return Refuse(handle, Call::CARD_Init);
    }
    return handle->ops->CardInit(handle, eject_arg, eject_cb);
}

int32_t CARD_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t word, CardIoResult* result)
{
    if (!IsBound(handle) || result == nullptr) {
        return Refuse(nullptr, Call::CARD_Read);
    }
    int32_t moved = -1;
    if (handle->ops->Read != nullptr) {
        moved = handle->ops->Read(handle, buffer, sectors, first_sector, word);
    }
    if (moved < 0) {
        result->error = CARD_CODE_ERROR;
    } else {
        result->length = moved;
    }
    return CARD_CODE_OK;
}

int32_t CARD_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                   uint32_t word, CardIoResult* result)
{
    if (!IsBound(handle) || result == nullptr) {
        return Refuse(nullptr, Call::CARD_Write);
    }
    int32_t moved = -1;
    if (handle->ops->Write != nullptr) {
        moved = handle->ops->Write(handle, buffer, sectors, first_sector, word);
    }
    if (moved < 0) {
        result->error = CARD_CODE_ERROR;
    } else {
        result->length = moved;
    }
    return CARD_CODE_OK;
}

int32_t CARD_Getstatus(DrvInfo* handle, uint16_t* status)
{
    if (!IsBound(handle)) {
        return Refuse(handle, Call::CARD_Getstatus);
    }
    if (status == nullptr) {
        return RefuseArgument(Call::CARD_Getstatus);
    }
    if (handle->ops->CardGetStatus == nullptr) {
        return Refuse(handle, Call::CARD_Getstatus);
    }
    return handle->ops->CardGetStatus(handle, status);
}

int32_t CARD_GetR1Status(DrvInfo* handle)
{
    // Guarded by its neighbour's slot: a back-end that has a status word has an
    // R1 status, and the warning appears for one that has neither.
    if (!IsBound(handle) || handle->ops->CardGetStatus == nullptr) {
        return Refuse(handle, Call::CARD_GetR1Status);
    }
    return handle->ops->CardGetR1Status(handle);
}

int32_t CARD_Getinfo(DrvInfo* handle, CardInfo* info)
{
    if (!IsBound(handle)) {
        return Refuse(handle, Call::CARD_Getinfo);
    }
    if (info == nullptr) {
        return RefuseArgument(Call::CARD_Getinfo);
    }
    if (handle->ops->CardGetInfo == nullptr) {
        return Refuse(handle, Call::CARD_Getinfo);
    }
    return handle->ops->CardGetInfo(handle, info);
}

int32_t CARD_GetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed)
{
    if (!IsBound(handle)) {
        return Refuse(handle, Call::CARD_GetSpeedInfo);
    }
    if (speed == nullptr) {
        return RefuseArgument(Call::CARD_GetSpeedInfo);
    }
    if (handle->ops->CardGetSpeedInfo == nullptr) {
        return Refuse(handle, Call::CARD_GetSpeedInfo);
    }
    return handle->ops->CardGetSpeedInfo(handle, speed);
}

int32_t CARD_SecureGetinfo(DrvInfo* handle, uint8_t* sd_status)
{
    if (!IsBound(handle)) {
        return Refuse(handle, Call::CARD_SecureGetinfo);
    }
    if (sd_status == nullptr) {
        return RefuseArgument(Call::CARD_SecureGetinfo);
    }
    if (handle->ops->CardSecureGetInfo == nullptr) {
        return Refuse(handle, Call::CARD_SecureGetinfo);
    }
    return handle->ops->CardSecureGetInfo(handle, sd_status);
}

uint32_t CARD_GetCardSize(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->CardGetSize == nullptr) {
        return static_cast<uint32_t>(Refuse(handle, Call::CARD_GetCardSize));
    }
    return handle->ops->CardGetSize(handle);
}

int32_t CARD_GetWriteProtect(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->CardGetWriteProtect == nullptr) {
        return Refuse(handle, Call::CARD_GetWriteProtect);
    }
    return handle->ops->CardGetWriteProtect(handle);
}

int32_t CARD_Ioctl(DrvInfo* handle, int32_t command, int32_t argument)
{
    if (!IsBound(handle) || handle->ops->CardIoctl == nullptr) {
        return Refuse(handle, Call::CARD_Ioctl);
    }
    return handle->ops->CardIoctl(handle, command, argument);
}
