// SPDX-License-Identifier: MIT
#include "drv/drv.h"

void DevExit(DrvInfo* handle)
{
    if (!IsBound(handle)) {
        Refuse(handle, Call::DevExit);
        return;
    }
    if (handle->ops->Exit == nullptr) {
        Refuse(handle, Call::DevExit);
    } else {
        handle->ops->Exit(handle);
    }
    memset(handle, 0, sizeof *handle);
}
