// SPDX-License-Identifier: MIT
//
// The card leaving its slot, and the driver signalling the end of a request.
#include <sys/ioctl.h>
#include <time.h>

#include "common/completion.h"
#include "common/latch.h"
#include "common/retry.h"
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

void Zel_Pause(void)
{
    const struct timespec pause = {0, ZEL_BUSY_PAUSE_NS};
    nanosleep(&pause, nullptr);
}

// Without a callback the card is never looked at. A card that has gone is
// reported by every check, for as long as it stays away.
void Zel_CheckEject(ZelDevice* dev)
{
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return;
    }
    if (dev->eject_cb == nullptr) {
        return;
    }
    __Zel_CheckEject(dev);
}

void __Zel_CheckEject(ZelDevice* dev)
{
    if (dev->chr_fd == 0) {
        LOG_ERROR("Invalid chr_fd!\n");
        return;
    }
    ZelCardStatus status = {};
    RetryCounter<ZEL_BUSY_TRIES> busy;
    pthread_mutex_lock(&dev->lock);
    for (;;) {
        const int result = ioctl(dev->chr_fd, ZEL_GET_CARD_STATUS, &status);
        if (result == 0) {
            break;
        }
        if (result > 0) {
            continue;  // not yet; asked again without end and uncounted
        }
        const int error = errno;
        if (error == EBUSY && busy.MayRetry()) {
            Zel_Pause();
            continue;
        }
        LOG_ERROR("ioctl(ZEL_GET_CARD_STATUS) is failed(retry=%d) : %s\n", busy.count,
                  strerror(error));
        pthread_mutex_unlock(&dev->lock);
        return;
    }
    pthread_mutex_unlock(&dev->lock);
    const auto bit = static_cast<uint8_t>(1u << dev->index);
    if ((status.present_mask & bit) == 0 || (status.changed_mask & bit) != 0) {
        Latch(&dev->ejected);
        dev->eject_cb();
    }
}

// Its lines are Zel_PollWait's, which most often ends without one.
int Zel_PollFailed(Failure failure)
{
    const char* const caller = "Zel_PollWait";
    switch (failure) {
        case Failure::PollFailed:
            LOG_ERROR_OF(caller, __LINE__, "poll error : %s\n", carddev_errno_text());
            break;
        case Failure::TimedOut:
            LOG_ERROR_OF(caller, __LINE__, "poll timeout: %s\n", carddev_errno_text());
            break;
        case Failure::NoEvent:
            LOG_ERROR_OF(caller, __LINE__, "Unknown poll events: 0x%08x\n", 0u);
            return -EINVAL;
        case Failure::HangUp:
            LOG_ERROR_OF(caller, __LINE__, "poll returns POLLHUP\n");
            break;
        case Failure::Error:
            LOG_ERROR_OF(caller, __LINE__, "poll returns POLLERR\n");
            break;
        case Failure::InvalidDescriptor:
            LOG_ERROR_OF(caller, __LINE__, "poll returns POLLNVAL\n");
            break;
        case Failure::Input:
            LOG_ERROR_OF(caller, __LINE__, "poll returns POLLIN\n");
            break;
        case Failure::OtherEvent:
            LOG_ERROR_OF(caller, __LINE__, "poll returns another event POLL???\n");
            break;
    }
    return errno != 0 ? -errno : -EIO;
}

int Zel_PollWait(int fd)
{
    return Zel_WaitDone(fd);
}
