// SPDX-License-Identifier: MIT
//
// The real-time control node, and the generic requests, most of which go there.
#include <sys/ioctl.h>

#include "common/latch.h"
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

namespace {

// The control node knows a unit by the first of its 16 block minors.
uint32_t RtChannel(const ZelDevice* dev)
{
    return 16 * dev->index + 1;
}

// The first word of the caller's record names the unit; the record may lie at any
// address.
void SetRecordChannel(void* record, uint32_t channel)
{
    memcpy(record, &channel, sizeof channel);
}

}  // namespace

int32_t Zel_Ioctl(DrvInfo* handle, uint32_t request, void* argument)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    Zel_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    const uint32_t channel = RtChannel(dev);
    const unsigned long channel_word = channel;
    switch (request) {
        case DEV_IOCTL_RT_45:
            return ioctl(dev->rt_fd, RTCTRL_IOC_15, channel_word);
        case DEV_IOCTL_RT_40:
            if (argument == nullptr) {
                return -EINVAL;
            }
            SetRecordChannel(argument, channel);
            return ioctl(dev->rt_fd, RTCTRL_IOC_14, argument);
        case DEV_IOCTL_RT_41:
            if (argument == nullptr) {
                return -EINVAL;
            }
            SetRecordChannel(argument, channel);
            return ioctl(dev->rt_fd, RTCTRL_IOC_18, argument);
        case DEV_IOCTL_RT_42:
            // Asked for, though it is not used.
            if (argument == nullptr) {
                return -EINVAL;
            }
            return ioctl(dev->rt_fd, RTCTRL_IOC_1B, channel_word);
        case DEV_IOCTL_DEVICE_PARAMS:
            return ioctl(dev->dev_fd, ZEL_GET_DEVICE_PARAMS, argument);
        default:
            return -ENOTTY;
    }
}

namespace {

// The format of a failure is its caller's; the tests see each of them printed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// One byte of the control node's, or a negative errno. The line is the caller's.
int32_t AskControlNode(const DrvInfo* handle, uint32_t request, const char* failure,
                       const char* caller = __builtin_FUNCTION(), unsigned line = __builtin_LINE())
{
    uint8_t status = 0;
    const ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasControlNode(dev, caller, line)) {
        return -ENODEV;
    }
    if (ioctl(dev->rt_fd, request, &status) < 0) {
        LOG_ERROR_OF(caller, line, failure, carddev_errno_text());
        return -errno;
    }
    return status;
}

// A request that answers nothing. The line is the caller's.
void TellControlNode(const DrvInfo* handle, uint32_t request, const char* failure,
                     const char* caller = __builtin_FUNCTION(), unsigned line = __builtin_LINE())
{
    const ZelDevice* dev = ZelDeviceOf(handle);
    if (Zel_HasControlNode(dev, caller, line) && ioctl(dev->rt_fd, request, nullptr) < 0) {
        LOG_ERROR_OF(caller, line, failure, carddev_errno_text());
    }
}

#pragma GCC diagnostic pop

}  // namespace

int32_t Zel_CheckRt(DrvInfo* handle)
{
    return AskControlNode(handle, RTCTRL_IOC_CHECK_RT_STATUS,
                          "RTCTRL_IOC_CHECK_RT_STATUS ioctl failed : %s\n");
}

int32_t Zel_CheckDelay(DrvInfo* handle)
{
    return AskControlNode(handle, RTCTRL_IOC_CHECK_DELAY_STATUS,
                          "RTCTRL_IOC_CHECK_DELAY_STATUS ioctl failed : %s\n");
}

int32_t Zel_RTOn4Wait(DrvInfo* handle)
{
    return AskControlNode(handle, RTCTRL_IOC_IS_RTON4WAIT,
                          "RTCTRL_IOC_IS_RTON4WAIT ioctl failed : %s\n");
}

void Zel_LockRTOn(DrvInfo* handle)
{
    TellControlNode(handle, RTCTRL_IOC_LOCK_RTON, "RTCTRL_IOC_LOCK_RTON failed : %s\n");
}

void Zel_UnlockRTOn(DrvInfo* handle)
{
    TellControlNode(handle, RTCTRL_IOC_UNLOCK_RTON, "RTCTRL_IOC_UNLOCK_RTON failed : %s\n");
}
