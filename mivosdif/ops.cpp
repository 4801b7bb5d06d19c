// SPDX-License-Identifier: MIT
#include "mivosdif/mivosdif.h"

const DrvOps mivo_ops = {
    .Init = Mivo_Init,
    .Exit = Mivo_Exit,
    .Read = Mivo_Read,
    .Write = Mivo_Write,
    .Ioctl = Mivo_Ioctl,
    .CardIoctl = Mivo_CardIoctl,
    .CardInit = Mivo_CardInit,
    .CardGetStatus = Mivo_CardGetStatus,
    .CardGetR1Status = Mivo_CardGetR1Status,
    .CardGetInfo = Mivo_CardGetInfo,
    .CardGetSpeedInfo = Mivo_CardGetSpeedInfo,
    .CardSecureGetInfo = Mivo_CardSecureGetInfo,
    .CardGetSize = Mivo_CardGetSize,
    .CardGetWriteProtect = Mivo_CardGetWriteProtect,
    .DrctRead = Mivo_DrctRead,
    .DrctWrite = Mivo_DrctWrite,
    .DrctRMW = Mivo_DrctRMW,
    .FatWrite = Mivo_FatWrite,
    .SdCmdWrite = Mivo_SdCmdWrite,
    .CheckRt = nullptr,
    .CheckDelay = nullptr,
    .RTOn4Wait = nullptr,
    .LockRTOn = nullptr,
    .UnlockRTOn = nullptr,
};
