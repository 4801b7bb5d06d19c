// SPDX-License-Identifier: MIT
#include "zel/zel.h"

const DrvOps zel_ops = {
    .Init = Zel_Init,
    .Exit = Zel_Exit,
    .Read = Zel_Read,
    .Write = Zel_Write,
    .Ioctl = Zel_Ioctl,
    .CardIoctl = Zel_CardIoctl,
    .CardInit = Zel_CardInit,
    .CardGetStatus = Zel_CardGetStatus,
    .CardGetR1Status = Zel_CardGetR1Status,
    .CardGetInfo = Zel_CardGetInfo,
    .CardGetSpeedInfo = Zel_CardGetSpeedInfo,
    .CardSecureGetInfo = Zel_CardSecureGetInfo,
    .CardGetSize = Zel_CardGetSize,
    .CardGetWriteProtect = Zel_CardGetWriteProtect,
    .DrctRead = Zel_DrctRead,
    .DrctWrite = Zel_DrctWrite,
    .DrctRMW = Zel_DrctRMW,
    .FatWrite = Zel_FatWrite,
    .SdCmdWrite = Zel_SdCmdWrite,
    .CheckRt = Zel_CheckRt,
    .CheckDelay = Zel_CheckDelay,
    .RTOn4Wait = Zel_RTOn4Wait,
    .LockRTOn = Zel_LockRTOn,
    .UnlockRTOn = Zel_UnlockRTOn,
};
