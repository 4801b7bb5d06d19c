// SPDX-License-Identifier: MIT
//
// The card leaving the adaptor, and the driver signalling the end of a request.
#include <sys/ioctl.h>

#include "common/completion.h"
#include "common/latch.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

// Without a callback the card is never looked at. A card that has gone is
// reported by every check, for as long as it stays away.
void Mivo_CheckEject(MivoDevice* dev)
{
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return;
    }
    __Mivo_CheckEject(dev);
}

namespace {

// What the query's result says: 1 is the driver's own word for a removed card,
// other positive numbers say nothing.
bool CardIsGone(const MivoDevice* dev, int result, const MivoCardStatus* status)
{
    if (result != 0) {
        return result == 1;
    }
    return dev->index >= 32 || (uint32_t{status->present} >> dev->index & 1) == 0;
}

}  // namespace

void __Mivo_CheckEject(MivoDevice* dev)
{
    if (dev->eject_cb == nullptr) {
        return;
    }
    if (dev->chr_fd == 0) {
        LOG_ERROR("Invalid chr_fd!\n");
        return;
    }
    MivoCardStatus status = {};
    pthread_mutex_lock(&dev->lock);
    const int result = ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_STATUS, &status);
    if (result < 0) {
        LOG_ERROR("ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is failed : %s\n", carddev_errno_text());
        pthread_mutex_unlock(&dev->lock);
        return;
    }
    pthread_mutex_unlock(&dev->lock);
    if (CardIsGone(dev, result, &status)) {
        Latch(&dev->ejected);
        dev->eject_cb();
    }
}

// Its lines are Mivo_PollWait's, which most often ends without one.
int Mivo_PollFailed(Failure failure)
{
    const char* const caller = "Mivo_PollWait";
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

int Mivo_PollWait(int fd)
{
    return Mivo_WaitDone(fd);
}
