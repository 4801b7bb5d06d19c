// SPDX-License-Identifier: MIT
//
// The CARD_* calls: check, look up the slot, forward. Results are card codes.
#include "drv/drv.h"

int32_t CARD_Init(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardInit == nullptr) {
        LOG_WARNING("\nNOT supported CardInit method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardInit(handle, eject_arg, eject_cb);
}

int32_t CARD_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t word, CardIoResult* result)
{
    if (!IsBound(handle) || result == nullptr) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
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
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
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
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (status == nullptr) {
        LOG_ERROR("Invalid argument: status!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardGetStatus == nullptr) {
        LOG_WARNING("\nNOT supported CardGetStatus method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardGetStatus(handle, status);
}

int32_t CARD_GetR1Status(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    // Guarded by its neighbour's slot: a back-end that has a status word has an
    // R1 status, and the warning appears for one that has neither.
    if (handle->ops->CardGetStatus == nullptr) {
        LOG_WARNING("\nNOT supported CardGetR1Status method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardGetR1Status(handle);
}

int32_t CARD_Getinfo(DrvInfo* handle, CardInfo* info)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (info == nullptr) {
        LOG_ERROR("Invalid argument: cardinfo!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardGetInfo == nullptr) {
        LOG_WARNING("\nNOT supported CardGetInfo method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardGetInfo(handle, info);
}

int32_t CARD_GetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (speed == nullptr) {
        LOG_ERROR("Invalid argument: buf!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardGetSpeedInfo == nullptr) {
        LOG_WARNING("\nNOT supported CardGetSpeedInfo method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardGetSpeedInfo(handle, speed);
}

int32_t CARD_SecureGetinfo(DrvInfo* handle, uint8_t* sd_status)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (sd_status == nullptr) {
        LOG_ERROR("Invalid argument: buf!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardSecureGetInfo == nullptr) {
        LOG_WARNING("\nNOT supported CardSecureGetInfo method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardSecureGetInfo(handle, sd_status);
}

uint32_t CARD_GetCardSize(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardGetSize == nullptr) {
        LOG_WARNING("\nNOT supported CardGetSize method!\n");
        return 0;
    }
    return handle->ops->CardGetSize(handle);
}

int32_t CARD_GetWriteProtect(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardGetWriteProtect == nullptr) {
        LOG_WARNING("\nNOT supported CardGetWriteProtect method!\n");
        return 0;
    }
    return handle->ops->CardGetWriteProtect(handle);
}

int32_t CARD_Ioctl(DrvInfo* handle, int32_t command, int32_t argument)
{
    if (!IsBound(handle)) {
        LOG_ERROR("Invalid wrapper low-level driver info!\n");
        return CARD_CODE_ERROR;
    }
    if (handle->ops->CardIoctl == nullptr) {
        LOG_WARNING("\nNOT supported CardIoctl method!\n");
        return CARD_CODE_OK;
    }
    return handle->ops->CardIoctl(handle, command, argument);
}
