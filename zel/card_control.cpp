// SPDX-License-Identifier: MIT
//
// Status word, write protection, card commands.
#include <sys/ioctl.h>

#include "common/latch.h"
#include "common/retry.h"
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

int32_t Zel_CardGetStatus(DrvInfo* handle, uint16_t* status)
{
    if (status == nullptr) {
        LOG_ERROR("Invalid an argument\n");
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
    *status = CARD_STATUS_READY;
    return CARD_CODE_OK;
}

int32_t Zel_CardGetR1Status(DrvInfo* /*handle*/)
{
    return CARD_CODE_OK;
}

int32_t Zel_CardGetWriteProtect(DrvInfo* handle)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_IsOpened(dev)) {
        return CARD_CODE_ERROR;
    }
    if (dev->chr_fd == 0) {
        LOG_ERROR("Invalid chr_fd!\n");
        return CARD_CODE_ERROR;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    RetryCounter<ZEL_BUSY_TRIES> busy;
    pthread_mutex_lock(&dev->lock);
    for (;;) {
        const int result = ioctl(dev->chr_fd, ZEL_CHECK_WRITE_PROTECT, nullptr);
        if (result >= 0) {
            pthread_mutex_unlock(&dev->lock);
            return static_cast<int16_t>(result);
        }
        const int error = errno;
        if (error == EBUSY && busy.MayRetry()) {
            Zel_Pause();
            continue;
        }
        LOG_ERROR("ioctl(ZEL_CHECK_WRITE_PROTECT) is failed(retry=%d) : %s\n", busy.count,
                  strerror(error));
        pthread_mutex_unlock(&dev->lock);
        return -EIO;
    }
}

namespace {

// The request of a card command, or 0 for a number that is none.
uint32_t CommandRequest(int32_t command)
{
    switch (command) {
        case 2:
            return ZEL_CARD_CMD2;
        case 3:
            return ZEL_CARD_CMD3;
        case 4:
            return ZEL_CARD_CMD4;
        default:
            return 0;
    }
}

}  // namespace

int32_t Zel_CardIoctl(DrvInfo* handle, int32_t command, int32_t argument)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    Zel_CheckEject(dev);
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
    const int result = ioctl(dev->dev_fd, request, word);
    pthread_mutex_unlock(&dev->lock);
    return result >= 0 ? CARD_CODE_OK : CARD_CODE_COMMAND_FAILED;
}
