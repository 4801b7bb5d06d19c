// SPDX-License-Identifier: MIT
//
// Registers, SD status, speed record and size. The first three are asked of the
// driver once and kept until Exit.
#include <sys/ioctl.h>

#include "common/card_size.h"
#include "common/copy.h"
#include "common/latch.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

// A register that could not be read shows in the printed line alone: it is cached
// as zeros and reported with success.
int32_t Mivo_CardGetInfo(DrvInfo* handle, CardInfo* info)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev != nullptr && IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (info == nullptr) {
        return CARD_CODE_ERROR;
    }
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    if (dev->reg_buf != nullptr) {
        memcpy(info, dev->reg_buf, sizeof *info);
        return CARD_CODE_OK;
    }
    memset(info, 0, sizeof *info);
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CID, info->cid) != 0) {
        LOG_ERROR("Cannot get cid!\n");
    }
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CSD, info->csd) != 0) {
        LOG_ERROR("Cannot get csd!\n");
    }
    dev->reg_buf = static_cast<CardInfo*>(CopyOf(info, sizeof *info));
    if (dev->reg_buf == nullptr) {
        LOG_ERROR("Malloc register buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

int32_t Mivo_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status)
{
    if (sd_status == nullptr) {
        return CARD_CODE_ERROR;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return CARD_CODE_ERROR;
    }
    if (IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    if (dev->secure_buf != nullptr) {
        memcpy(sd_status, dev->secure_buf, CARD_SD_STATUS_SIZE);
        return CARD_CODE_OK;
    }
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_SD_STATUS, sd_status) != 0) {
        LOG_ERROR("Cannot sd status!\n");
        return CARD_CODE_ERROR;
    }
    dev->secure_buf = static_cast<uint8_t*>(CopyOf(sd_status, CARD_SD_STATUS_SIZE));
    if (dev->secure_buf == nullptr) {
        LOG_ERROR("Malloc secure buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

namespace {

constexpr uint16_t kUhsGrades = 0x3C;

// Sectors of an allocation unit, by the AU_SIZE code that the card's SD status has
// for it. Code 0 is none.
constexpr uint32_t kAllocationUnits[] = {0,    32,   64,    128,   256,   512,   1024,  2048,
                                         4096, 8192, 16384, 24576, 32768, 49152, 65536, 131072};

uint8_t AllocationUnitCode(uint32_t sectors)
{
    uint8_t code = sizeof kAllocationUnits / sizeof kAllocationUnits[0] - 1;
    while (code > 0 && kAllocationUnits[code] != sectors) {
        code--;
    }
    return code;
}

uint32_t AllocationUnit(const MivoCardParams* params)
{
    if (params->video_class != 0) {
        return params->au_video;
    }
    if ((params->grades & kUhsGrades) != 0) {
        return params->au_uhs;
    }
    return params->au_default;
}

}  // namespace

int32_t Mivo_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev != nullptr && IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (speed == nullptr) {
        return CARD_CODE_ERROR;
    }
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    memset(speed, 0, sizeof *speed);
    // Mivo_HasNode, which the analysis does not look into, has refused a null record.
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference)
    if (dev->speed_buf != nullptr) {
        memcpy(speed, dev->speed_buf, sizeof *speed);
        return CARD_CODE_OK;
    }
    MivoCardParams params = {};
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_PARAMS, &params) < 0) {
        LOG_ERROR("MIVOSDIF_IOC_GET_CARD_PARAMS failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    speed->bytes[0] = static_cast<uint8_t>(params.video_class);
    uint8_t scr[8] = {};
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_SCR, scr) != 0) {
        LOG_ERROR("Cannot sd scr!\n");
        return CARD_CODE_ERROR;
    }
    speed->bytes[1] = scr[3];
    speed->bytes[2] = static_cast<uint8_t>(params.byte2);
    speed->bytes[3] = static_cast<uint8_t>(params.grades);
    speed->bytes[4] = AllocationUnitCode(AllocationUnit(&params));
    dev->speed_buf = static_cast<CardSpeedInfo*>(CopyOf(speed, sizeof *speed));
    if (dev->speed_buf == nullptr) {
        LOG_ERROR("Malloc speed info buffer failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    return CARD_CODE_OK;
}

uint32_t Mivo_CardGetSize(DrvInfo* handle)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return CARD_CODE_ERROR;
    }
    if (IsLatched(&dev->ejected)) {
        return static_cast<uint32_t>(-EIO);
    }
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    // The driver's capacity is not the answer: it tells how the registers are read.
    MivoCardParams params = {};
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_PARAMS, &params) < 0) {
        LOG_ERROR("MIVOSDIF_IOC_GET_CARD_PARAMS failed : %s\n", carddev_errno_text());
        return CARD_CODE_ERROR;
    }
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
    CardInfo info;
    const int32_t status_code = Mivo_CardSecureGetInfo(handle, sd_status);
    const int32_t info_code = Mivo_CardGetInfo(handle, &info);
    if (status_code != CARD_CODE_OK || info_code != CARD_CODE_OK) {
        return CARD_CODE_ERROR;
    }
    return CardSectors(params.capacity, info.csd, sd_status);
}
