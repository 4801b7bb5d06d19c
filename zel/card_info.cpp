// SPDX-License-Identifier: MIT
//
// Registers, SD status, speed record and size. The first three are asked of the
// driver once and kept until Exit.
#include <sys/ioctl.h>

#include "common/address.h"
#include "common/card_size.h"
#include "common/copy.h"
#include "common/latch.h"
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

namespace {

// Where the speed record's five bytes stand in the driver's answer.
constexpr int kSpeedBytes[] = {148, 152, 157, 158, 163};

// False when the driver failed; `answer` then holds what it held before, and the caller goes
// on with bytes that nobody wrote. Checkers of memory are told so where the driver is played
// (fuzz/driver_answers.cpp).
bool FetchCardParams(const ZelDevice* dev, ZelCardItem item, uint8_t* answer)
{
    ZelCardParamsRequest request = {item, Address32(answer)};
    return ioctl(dev->dev_fd, ZEL_GET_CARD_PARAMS, &request) == 0;
}

}  // namespace

// A register that could not be read shows in the printed line alone: what the
// answer's buffer held is cached and reported with success.
int32_t Zel_CardGetInfo(DrvInfo* handle, CardInfo* info)
{
    if (info == nullptr) {
        return CARD_CODE_ERROR;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasBlockNode(dev)) {
        return CARD_CODE_ERROR;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (dev->reg_buf != nullptr) {
        memcpy(info, dev->reg_buf, sizeof *info);
        return CARD_CODE_OK;
    }
    memset(info, 0, sizeof *info);
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (!FetchCardParams(dev, ZEL_ITEM_CID, answer)) {
        LOG_ERROR("Cannot get card params!\n");
    }
    // One byte in: the record's first byte stays 0, and the CID's last one gives
    // way to the CSD.
    memcpy(info->cid + 1, answer + ZEL_CARD_PARAMS_DATA, sizeof info->cid - 1);
    if (!FetchCardParams(dev, ZEL_ITEM_CSD, answer)) {
        LOG_ERROR("Cannot get card params!\n");
    }
    memcpy(info->csd, answer + ZEL_CARD_PARAMS_DATA, sizeof info->csd);
    dev->reg_buf = static_cast<CardInfo*>(CopyOf(info, sizeof *info));
    if (dev->reg_buf == nullptr) {
        LOG_ERROR("Malloc register buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

int32_t Zel_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status)
{
    if (sd_status == nullptr) {
        return CARD_CODE_ERROR;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasBlockNode(dev)) {
        return CARD_CODE_ERROR;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (dev->secure_buf != nullptr) {
        memcpy(sd_status, dev->secure_buf, CARD_SD_STATUS_SIZE);
        return CARD_CODE_OK;
    }
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (!FetchCardParams(dev, ZEL_ITEM_SD_STATUS, answer)) {
        LOG_ERROR("Cannot get card params!\n");
        return CARD_CODE_ERROR;
    }
    memcpy(sd_status, answer + ZEL_CARD_PARAMS_DATA, CARD_SD_STATUS_SIZE);
    dev->secure_buf = static_cast<uint8_t*>(CopyOf(sd_status, CARD_SD_STATUS_SIZE));
    if (dev->secure_buf == nullptr) {
        LOG_ERROR("Malloc secure buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

// Goes on after a failed request, as Zel_CardGetInfo does.
int32_t Zel_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed)
{
    if (speed == nullptr) {
        return CARD_CODE_ERROR;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasBlockNode(dev)) {
        return CARD_CODE_ERROR;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    memset(speed, 0, sizeof *speed);
    if (dev->speed_buf != nullptr) {
        memcpy(speed, dev->speed_buf, sizeof *speed);
        return CARD_CODE_OK;
    }
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (!FetchCardParams(dev, ZEL_ITEM_SPEED, answer)) {
        LOG_ERROR("Cannot get card params!\n");
    }
    uint8_t* next = speed->bytes;
    for (const int place : kSpeedBytes) {
        *next++ = answer[place];
    }
    dev->speed_buf = static_cast<CardSpeedInfo*>(CopyOf(speed, sizeof *speed));
    if (dev->speed_buf == nullptr) {
        LOG_ERROR("Malloc speed info buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

uint32_t Zel_CardGetSize(DrvInfo* handle)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasBlockNode(dev)) {
        return CARD_CODE_ERROR;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return static_cast<uint32_t>(-EIO);
    }
    // The node's own size is not the answer: it tells how the registers are read.
    uint32_t sectors = 0;
    if (ioctl(dev->blk_fd, ZEL_BLKGETSIZE, &sectors) < 0) {
        LOG_ERROR("ioctl(BLKGETSIZE) failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
    CardInfo info;
    const int32_t status_code = Zel_CardSecureGetInfo(handle, sd_status);
    const int32_t info_code = Zel_CardGetInfo(handle, &info);
    if (status_code != CARD_CODE_OK || info_code != CARD_CODE_OK) {
        return CARD_CODE_ERROR;
    }
    return CardSectors(sectors, info.csd, sd_status);
}
