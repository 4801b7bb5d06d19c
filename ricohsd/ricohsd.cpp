// SPDX-License-Identifier: MIT
#include "ricohsd/ricohsd.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/copy.h"
#include "common/sector.h"

// Its lines carry the tag of the back-end that it grew out of; log filters on
// the board know them by it.
#define LOG_TAG Zel
#include "common/log.h"

RicohSdDev ricoh_sd_dev[1];

namespace {

constexpr char kDriverVersion[] = "0.10";
constexpr int32_t kUnits = sizeof ricoh_sd_dev / sizeof ricoh_sd_dev[0];

// Null for a handle that is null or not initialised.
RicohSdDev* Device(const DrvInfo* handle)
{
    return handle == nullptr ? nullptr : static_cast<RicohSdDev*>(handle->priv);
}

// False after a line of the caller's that says why.
bool HasNode(const RicohSdDev* dev, const char* caller = __builtin_FUNCTION(),
             unsigned line = __builtin_LINE())
{
    if (dev == nullptr) {
        LOG_ERROR_OF(caller, line, "Cannot get driver info!\n");
        return false;
    }
    if (dev->blk_fd == 0) {
        LOG_ERROR_OF(caller, line, "Invalid blk_fd!\n");
        return false;
    }
    return true;
}

}  // namespace

int32_t RicohSD_Init(DrvInfo* handle)
{
    if (handle == nullptr) {
        return -EINVAL;
    }
    if (handle->dev_index < 0 || handle->dev_index >= kUnits) {
        LOG_ERROR("Invalid dev_index(%d)!\n", handle->dev_index);
        return -1;
    }
    RicohSdDev* dev = &ricoh_sd_dev[handle->dev_index];
    memset(dev, 0, sizeof *dev);
    dev->index = handle->dev_index;
    handle->priv = dev;

    char path[] = "/dev/sdcarda";
    path[sizeof path - 2] = static_cast<char>('a' + dev->index);
    dev->blk_fd = open64(path, O_RDWR | O_SYNC);
    if (dev->blk_fd < 0 && errno == EROFS) {
        dev->read_only = 1;
        dev->blk_fd = open64(path, O_RDONLY);
    }
    if (dev->blk_fd < 0) {
        LOG_ERROR("open[%s] failed : %s\n", path, carddev_errno_text());
        return -1;
    }
    LOG_PLAIN("Wrapper low-level driver for SD card-CardBus adaptor ver.%s\n", kDriverVersion);
    return 0;
}

int32_t RicohSD_Exit(DrvInfo* handle)
{
    RicohSdDev* dev = Device(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    free(dev->secure_buf);
    free(dev->reg_buf);
    const int closed = close(dev->blk_fd);
    memset(dev, 0, sizeof *dev);
    return closed;
}

int32_t RicohSD_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                     uint32_t /*word*/)
{
    const RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return -ENODEV;
    }
    if (lseek64(dev->blk_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", carddev_errno_text());
        return -EINVAL;
    }
    return static_cast<int32_t>(read(dev->blk_fd, buffer, SectorsToBytes(sectors)));
}

int32_t RicohSD_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                      uint32_t /*word*/)
{
    const RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return -ENODEV;
    }
    if (lseek64(dev->blk_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", carddev_errno_text());
        return -EINVAL;
    }
    return static_cast<int32_t>(write(dev->blk_fd, buffer, SectorsToBytes(sectors)));
}

int32_t RicohSD_Ioctl(DrvInfo* /*handle*/, uint32_t /*request*/, void* /*argument*/)
{
    return -ENOTTY;
}

int32_t RicohSD_CardIoctl(DrvInfo* /*handle*/, int32_t /*command*/, int32_t /*argument*/)
{
    return CARD_CODE_OK;
}

int32_t RicohSD_CardInit(DrvInfo* /*handle*/, uint32_t /*eject_arg*/,
                         CardEjectCallback /*eject_cb*/)
{
    return CARD_CODE_OK;
}

// The host cannot tell whether a card is there: an open node counts as one.
int32_t RicohSD_CardGetStatus(DrvInfo* handle, uint16_t* status)
{
    if (status == nullptr) {
        return CARD_CODE_ERROR;
    }
    *status = 0;
    const RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return CARD_CODE_NOT_OPEN;
    }
    *status = CARD_STATUS_READY;
    return CARD_CODE_OK;
}

int32_t RicohSD_CardGetR1Status(DrvInfo* /*handle*/)
{
    return CARD_CODE_OK;
}

int32_t RicohSD_CardGetInfo(DrvInfo* handle, CardInfo* info)
{
    if (info == nullptr) {
        return CARD_CODE_ERROR;
    }
    RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    if (dev->reg_buf != nullptr) {
        memcpy(info, dev->reg_buf, sizeof *info);
        return CARD_CODE_OK;
    }
    memset(info, 0, sizeof *info);
    // The CSD first, one byte ahead of its place: what the driver puts in front of
    // the register is its own affair, and the CID then overwrites that byte.
    if (ioctl(dev->blk_fd, SDCARD_GET_CSD, &info->cid[15]) < 0) {
        LOG_ERROR("SDCARD_GET_CSD failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    if (ioctl(dev->blk_fd, SDCARD_GET_CID, &info->cid[0]) < 0) {
        LOG_ERROR("SDCARD_GET_CID failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    dev->reg_buf = static_cast<CardInfo*>(CopyOf(info, sizeof *info));
    if (dev->reg_buf == nullptr) {
        LOG_ERROR("Malloc register buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

// The host has no speed record; callers get the registers in its place.
int32_t RicohSD_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed)
{
    return RicohSD_CardGetInfo(handle, reinterpret_cast<CardInfo*>(speed));
}

int32_t RicohSD_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status)
{
    if (sd_status == nullptr) {
        return CARD_CODE_ERROR;
    }
    RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    if (dev->secure_buf != nullptr) {
        memcpy(sd_status, dev->secure_buf, CARD_SD_STATUS_SIZE);
        return CARD_CODE_OK;
    }
    if (ioctl(dev->blk_fd, SDCARD_GET_SD_STATUS, sd_status) < 0) {
        LOG_ERROR("SDCARD_GET_SD_STATUS failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    dev->secure_buf = static_cast<uint8_t*>(CopyOf(sd_status, CARD_SD_STATUS_SIZE));
    if (dev->secure_buf == nullptr) {
        LOG_ERROR("Malloc register buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

uint32_t RicohSD_CardGetSize(DrvInfo* handle)
{
    const RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return 0;
    }
    uint32_t sectors = 0;
    if (ioctl(dev->blk_fd, RICOHSD_BLKGETSIZE, &sectors) < 0) {
        LOG_ERROR("BLKGETSIZE failed : %s\n", carddev_errno_text());
        return 0;
    }
    return sectors;
}

int32_t RicohSD_CardGetWriteProtect(DrvInfo* handle)
{
    const RicohSdDev* dev = Device(handle);
    if (!HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    return dev->read_only;
}

const DrvOps ricoh_sd_ops = {
    .Init = RicohSD_Init,
    .Exit = RicohSD_Exit,
    .Read = RicohSD_Read,
    .Write = RicohSD_Write,
    .Ioctl = RicohSD_Ioctl,
    .CardIoctl = RicohSD_CardIoctl,
    .CardInit = RicohSD_CardInit,
    .CardGetStatus = RicohSD_CardGetStatus,
    .CardGetR1Status = RicohSD_CardGetR1Status,
    .CardGetInfo = RicohSD_CardGetInfo,
    .CardGetSpeedInfo = RicohSD_CardGetSpeedInfo,
    .CardSecureGetInfo = RicohSD_CardSecureGetInfo,
    .CardGetSize = RicohSD_CardGetSize,
    .CardGetWriteProtect = RicohSD_CardGetWriteProtect,
    .DrctRead = nullptr,
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
