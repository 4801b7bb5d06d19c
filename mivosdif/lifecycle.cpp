// SPDX-License-Identifier: MIT
//
// Opening and closing a unit: the node that the handle names.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/completion.h"
#include "common/handle.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

MivoDevice mivo_dev[MIVO_UNITS];

namespace {

constexpr char kDriverVersion[] = "0.11";

}  // namespace

int32_t Mivo_Init(DrvInfo* handle)
{
    if (handle == nullptr) {
        return -EINVAL;
    }
    if (handle->dev_index < 0 || handle->dev_index >= MIVO_UNITS) {
        LOG_ERROR("Invalid dev_index(%d)!\n", handle->dev_index);
        return -1;
    }
    MivoDevice* dev = &mivo_dev[handle->dev_index];
    memset(dev, 0, sizeof *dev);
    handle->priv = dev;
    dev->index = static_cast<uint32_t>(handle->dev_index);

    dev->chr_fd = OpenDevicePath(handle, O_RDWR);
    if (dev->chr_fd < 0) {
        LOG_ERROR("open[%.256s] failed : %s\n", handle->dev_path, carddev_errno_text());
        return -1;
    }
    const int mounted = ioctl(dev->chr_fd, MIVOSDIF_IOC_MNTFS, nullptr);
    if (mounted < 0) {
        LOG_ERROR("MIVOSDIF_IOC_MNTFS ioctl[%s] failed : %s\n", handle->dev_path,
                  carddev_errno_text());
        close(dev->chr_fd);
        return -1;
    }
    dev->sg_table = SgAllocate();
    if (dev->sg_table == nullptr) {
        LOG_ERROR("Malloc sg table failed : %s\n", carddev_errno_text());
        close(dev->chr_fd);
        return -1;
    }
    pthread_mutex_init(&dev->lock, nullptr);
    Mivo_PollClear(dev->chr_fd);
    LOG_PLAIN("Wrapper low-level driver for SD card-CardBus adaptor ver.%s\n", kDriverVersion);
    return mounted;
}

int32_t Mivo_Exit(DrvInfo* handle)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_IsOpened(dev)) {
        return 0;
    }
    if (dev->chr_fd == 0 || dev->sg_table == nullptr) {
        LOG_ERROR("already closed!\n");
        return 0;
    }
    if (ioctl(dev->chr_fd, MIVOSDIF_IOC_UMNTFS, nullptr) < 0) {
        LOG_ERROR("MIVOSDIF_IOC_UMNTFS ioctl[%.256s] failed : %s\n", handle->dev_path,
                  carddev_errno_text());
    }
    Mivo_PollClear(dev->chr_fd);
    SgFree(dev->sg_table);
    free(dev->secure_buf);
    free(dev->reg_buf);
    free(dev->speed_buf);
    close(dev->chr_fd);
    memset(dev, 0, sizeof *dev);
    return 0;
}

int32_t Mivo_CardInit(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_HasNode(dev)) {
        return CARD_CODE_ERROR;
    }
    if (eject_arg != 0) {
        dev->eject_arg = eject_arg;
    }
    if (eject_cb != nullptr) {
        dev->eject_cb = eject_cb;
    }
    return CARD_CODE_OK;
}

void Mivo_PollClear(int fd)
{
    DiscardPendingEvent(fd);
}
