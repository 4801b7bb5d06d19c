// SPDX-License-Identifier: MIT
//
// Status word, write protection, card commands, generic requests.
#include <sys/ioctl.h>

#include "common/latch.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

int32_t Mivo_CardGetStatus(DrvInfo* handle, uint16_t* status)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev != nullptr && IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    if (status == nullptr) {
        LOG_ERROR("Invalid an argument\n");
        return CARD_CODE_ERROR;
    }
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    *status = CARD_STATUS_READY;
    return CARD_CODE_OK;
}

int32_t Mivo_CardGetR1Status(DrvInfo* /*handle*/)
{
    return CARD_CODE_OK;
}

int32_t Mivo_CardGetWriteProtect(DrvInfo* handle)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    Mivo_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int result = ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_WRITE_PROTECT, nullptr);
    if (result < 0) {
        LOG_ERROR("ioctl(MIVOSDIF_IOC_GET_WRITE_PROTECT) is failed : %s\n", carddev_errno_text());
        pthread_mutex_unlock(&dev->lock);
        return -EIO;
    }
    pthread_mutex_unlock(&dev->lock);
    return static_cast<int16_t>(result);
}

namespace {

// The request of a card command, or 0 for a number that is none.
uint32_t CommandRequest(int32_t command)
{
    switch (command) {
        case 2:
            return MIVOSDIF_IOC_CARD_CMD2;
        case 3:
            return MIVOSDIF_IOC_CARD_CMD3;
        case 4:
            return MIVOSDIF_IOC_CARD_CMD4;
        default:
            return 0;
    }
}

}  // namespace

int32_t Mivo_CardIoctl(DrvInfo* handle, int32_t command, int32_t argument)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return CARD_CODE_ERROR;
    }
    if (IsLatched(&dev->ejected)) {
        return CARD_CODE_REMOVED;
    }
    const uint32_t request = CommandRequest(command);
    if (request == 0) {
        return CARD_CODE_OK;
    }
    const unsigned long word = static_cast<uint32_t>(argument);
    pthread_mutex_lock(&dev->lock);
    const int result = ioctl(dev->chr_fd, request, word);
    pthread_mutex_unlock(&dev->lock);
    return result >= 0 ? CARD_CODE_OK : CARD_CODE_COMMAND_FAILED;
}

namespace {

// Words of the device-parameter record that are answered here, without the driver.
// The others are left as the caller had them.
struct AnsweredWord {
    size_t place;
    uint32_t value;
};

constexpr AnsweredWord kDeviceParams[] = {{0, 4}, {5, 32768}, {6, 32}, {7, 8192}};

}  // namespace

int32_t Mivo_Ioctl(DrvInfo* handle, uint32_t request, void* argument)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (request != DEV_IOCTL_DEVICE_PARAMS) {
        return -ENOTTY;
    }
    if (argument == nullptr) {
        return -EINVAL;
    }
    // The record may lie at any address.
    auto* record = static_cast<uint8_t*>(argument);
    for (const AnsweredWord& word : kDeviceParams) {
        memcpy(record + 4 * word.place, &word.value, sizeof word.value);
    }
    return 0;
}
