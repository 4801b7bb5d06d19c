// SPDX-License-Identifier: MIT
//
// Opening and closing a slot: the node that the handle names, the slot's block and
// character node, and the real-time control node.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/completion.h"
#include "common/handle.h"
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

ZelDevice zel_dev[ZEL_UNITS];

namespace {

constexpr char kDriverVersion[] = "0.11";
constexpr char kRtNode[] = "/dev/rtctrl_zel";
constexpr int kIdentifySize = 512;
constexpr int kIdentifyVersion = 271;  // where the version stands in it
constexpr uint8_t kOldestVersion = 0x40;

// What a failing Init undoes. The record keeps the numbers.
void CloseCardNodes(const ZelDevice* dev)
{
    close(dev->chr_fd);
    close(dev->blk_fd);
    close(dev->dev_fd);
}

}  // namespace

// Long, because each of its lines has to name it.
// NOLINTNEXTLINE(readability-function-size)
int32_t Zel_Init(DrvInfo* handle)
{
    if (handle == nullptr) {
        return -EINVAL;
    }
    if (handle->dev_index < 0 || handle->dev_index >= ZEL_UNITS) {
        LOG_ERROR("Invalid dev_index(%d)!\n", handle->dev_index);
        return -1;
    }
    ZelDevice* dev = &zel_dev[handle->dev_index];
    memset(dev, 0, sizeof *dev);
    handle->priv = dev;
    dev->index = static_cast<uint32_t>(handle->dev_index);
    const char letter = static_cast<char>('a' + handle->dev_index);

    dev->dev_fd = OpenDevicePath(handle, O_RDWR);
    if (dev->dev_fd < 0) {
        LOG_ERROR("open[%.256s] failed : %s\n", handle->dev_path, carddev_errno_text());
        return -1;
    }
    const int mounted = ioctl(dev->dev_fd, BLKMNTFS, nullptr);
    if (mounted < 0) {
        LOG_ERROR("BLKMNTFS ioctl[%s] failed : %s\n", handle->dev_path, carddev_errno_text());
        close(dev->dev_fd);
        return -1;
    }
    char blk_node[] = "/dev/spda";
    blk_node[sizeof blk_node - 2] = letter;
    dev->blk_fd = open64(blk_node, O_RDWR);
    if (dev->blk_fd < 0) {
        LOG_ERROR("open[%s] failed : %s\n", blk_node, carddev_errno_text());
        close(dev->dev_fd);
        return -1;
    }
    char chr_node[] = "/dev/spdra";
    chr_node[sizeof chr_node - 2] = letter;
    dev->chr_fd = open64(chr_node, O_RDWR);
    if (dev->chr_fd < 0) {
        LOG_ERROR("open[%s] failed : %s\n", chr_node, carddev_errno_text());
        close(dev->blk_fd);
        close(dev->dev_fd);
        return -1;
    }
    uint8_t identify[kIdentifySize];
    if (ioctl(dev->chr_fd, ZEL_IDENTIFY_DEVICE, identify) < 0) {
        LOG_ERROR("Identify device[%s] failed : %s\n", chr_node, carddev_errno_text());
        CloseCardNodes(dev);
        return -1;
    }
    if (identify[kIdentifyVersion] < kOldestVersion) {
        LOG_ERROR("Not support Spec%02X : %s\n", identify[kIdentifyVersion], chr_node);
        CloseCardNodes(dev);
        return -1;
    }
    if (Zel_SetSdParams(handle) < 0) {
        CloseCardNodes(dev);
        return -1;
    }
    dev->rt_fd = open64(kRtNode, O_RDWR);
    if (dev->rt_fd < 0) {
        LOG_ERROR("open[%s] failed : %s\n", kRtNode, carddev_errno_text());
        CloseCardNodes(dev);
        return -1;
    }
    dev->sg_table = SgAllocate();
    if (dev->sg_table == nullptr) {
        LOG_ERROR("Malloc sg table failed : %s\n", carddev_errno_text());
        close(dev->rt_fd);
        CloseCardNodes(dev);
        return -1;
    }
    pthread_mutex_init(&dev->lock, nullptr);
    Zel_PollClear(dev->chr_fd);
    LOG_PLAIN("Wrapper low-level driver for SD card-CardBus adaptor ver.%s\n", kDriverVersion);
    return mounted;
}

// Tell the driver where the card's data area begins. 0, or negative on failure.
int32_t Zel_SetSdParams(DrvInfo* handle)
{
    const ZelDevice* dev = ZelDeviceOf(handle);
    SdFormatParams format;
    if (CalcSdParams(Zel_CardGetSize(handle), &format) < 0) {
        LOG_ERROR("CalcSdParams failed\n");
        return -1;
    }
    ZelSetCardParams params = {0, 0, format.data_start};
    if (ioctl(dev->chr_fd, ZEL_SET_CARD_PARAMS, &params) < 0) {
        LOG_ERROR("ioctl(ZEL_SET_CARD_PARAMS) failed : %s\n", carddev_errno_text());
        return -1;
    }
    return 0;
}

int32_t Zel_Exit(DrvInfo* handle)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_IsOpened(dev)) {
        return 0;
    }
    if (dev->blk_fd == 0 || dev->dev_fd == 0 || dev->chr_fd == 0 || dev->rt_fd == 0 ||
        dev->sg_table == nullptr) {
        LOG_ERROR("already closed!\n");
        return 0;
    }
    Zel_PollClear(dev->chr_fd);
    SgFree(dev->sg_table);
    free(dev->secure_buf);
    free(dev->reg_buf);
    free(dev->speed_buf);
    close(dev->rt_fd);
    close(dev->chr_fd);
    close(dev->blk_fd);
    close(dev->dev_fd);
    memset(dev, 0, sizeof *dev);
    return 0;
}

int32_t Zel_CardInit(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (!Zel_HasBlockNode(dev)) {
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

void Zel_PollClear(int fd)
{
    DiscardPendingEvent(fd);
}
