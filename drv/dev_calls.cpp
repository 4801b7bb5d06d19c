// SPDX-License-Identifier: MIT
//
// The Dev* calls: check, look up the slot, forward.
#include "drv/drv.h"

int32_t DevInit(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->Init == nullptr) {
        return Refuse(handle, Call::DevInit);
    }
    return handle->ops->Init(handle);
}

int32_t DevIoctl(DrvInfo* handle, uint32_t request, void* argument)
{
    if (!IsBound(handle) || handle->ops->Ioctl == nullptr) {
        return Refuse(handle, Call::DevIoctl);
    }
    return handle->ops->Ioctl(handle, request, argument);
}

int32_t DevDrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                    MemoryChunkArray* chunks)
{
    if (!IsBound(handle) || handle->ops->DrctRead == nullptr) {
        return Refuse(handle, Call::DevDrctRead);
    }
    return handle->ops->DrctRead(handle, first_sector, length, chunks);
}

int32_t DevDrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                     MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
{
    if (!IsBound(handle) || handle->ops->DrctWrite == nullptr) {
        return Refuse(handle, Call::DevDrctWrite);
    }
    return handle->ops->DrctWrite(handle, first_sector, length, chunks, flag, retried);
}

int32_t DevDrctRMW(DrvInfo* handle, BlockList* list)
{
    if (!IsBound(handle) || handle->ops->DrctRMW == nullptr) {
        return Refuse(handle, Call::DevDrctRMW);
    }
    return handle->ops->DrctRMW(handle, list);
}

int32_t DevFatWrite(DrvInfo* handle, BlockList* list)
{
    if (!IsBound(handle) || handle->ops->FatWrite == nullptr) {
        return Refuse(handle, Call::DevFatWrite);
    }
    return handle->ops->FatWrite(handle, list);
}

int32_t DevSdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                      uint8_t cmd_byte0, uint8_t cmd_byte1)
{
    if (!IsBound(handle) || handle->ops->SdCmdWrite == nullptr) {
        return Refuse(handle, Call::DevSdCmdWrite);
    }
    return handle->ops->SdCmdWrite(handle, buffer, sectors, cmd_arg, cmd_byte0, cmd_byte1);
}

int32_t DevCheckRt(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->CheckRt == nullptr) {
        return Refuse(handle, Call::DevCheckRt);
    }
    return handle->ops->CheckRt(handle);
}

int32_t DevCheckDelay(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->CheckDelay == nullptr) {
        return Refuse(handle, Call::DevCheckDelay);
    }
    return handle->ops->CheckDelay(handle);
}

int32_t DevRTOn4Wait(DrvInfo* handle)
{
    if (!IsBound(handle) || handle->ops->RTOn4Wait == nullptr) {
        return Refuse(handle, Call::DevRTOn4Wait);
    }
    return handle->ops->RTOn4Wait(handle);
}

void DevLockRTOn(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        Refuse(handle, Call::DevLockRTOn);
        return;
    }
    if (handle->ops->LockRTOn != nullptr) {
        handle->ops->LockRTOn(handle);
    }
}

void DevUnlockRTOn(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        Refuse(handle, Call::DevUnlockRTOn);
        return;
    }
    if (handle->ops->UnlockRTOn != nullptr) {
        handle->ops->UnlockRTOn(handle);
    }
}
