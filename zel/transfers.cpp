// SPDX-License-Identifier: MIT
//
// Moving data: plain reads and writes of the block node, and the five direct
// requests, which share a policy of retries and differ in their words.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/address.h"
#include "common/latch.h"
#include "common/retry.h"
#include "common/sector.h"
#include "common/transfer_records.h"
#include "zel/zel.h"

#define LOG_TAG "zel"
#include "common/log.h"

namespace {

constexpr int kErrorTries = 3;  // the third failure other than busy ends it

// The failures of one call.
struct Tries {
    RetryCounter busy = {ZEL_BUSY_TRIES};
    RetryCounter errors = {kErrorTries};
    int error = 0;  // errno after the last one
};

enum class Verdict { Done, Busy, Retry, GiveUp };

// Send a request until the driver has finished it or fails. A positive answer
// means that it has not finished: it is sent again, without end and uncounted.
// Completion is waited for only where the request was accepted. What decides is
// the errno left after that, whatever set it.
Verdict Try(const ZelDevice* dev, uint32_t request, const void* record, Tries* tries)
{
    for (;;) {
        const int answer = ioctl(dev->chr_fd, request, record);
        if (answer < 0 || Zel_PollWait(dev->chr_fd) < 0) {
            break;
        }
        if (answer == 0) {
            return Verdict::Done;
        }
    }
    tries->error = errno;
    if (tries->error == EBUSY) {
        return tries->busy.MayRetry() ? Verdict::Busy : Verdict::GiveUp;
    }
    return tries->errors.MayRetry() ? Verdict::Retry : Verdict::GiveUp;
}

void Reset(const ZelDevice* dev)
{
    ioctl(dev->chr_fd, ZEL_RESET, nullptr);
}

}  // namespace

int32_t Zel_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                 uint32_t /*word*/)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (dev->blk_fd == 0) {
        LOG_ERROR("Invalid blk_fd!\n");
        return -ENODEV;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (lseek64(dev->blk_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", strerror(errno));
        return -EINVAL;
    }
    return static_cast<int32_t>(read(dev->blk_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Zel_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t /*word*/)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (dev->blk_fd == 0) {
        LOG_ERROR("Invalid blk_fd!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (lseek64(dev->blk_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", strerror(errno));
        return -EINVAL;
    }
    return static_cast<int32_t>(write(dev->blk_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Zel_DrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                     MemoryChunkArray* chunks)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    Zel_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Zel_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Zel_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    const direct_parm parm = {first_sector, length >> 9, Address32(dev->sg_table),
                              static_cast<uint32_t>(sg_bytes)};
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, ZEL_DIRECT_READ, &parm, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return static_cast<int32_t>(length);
        }
        if (verdict == Verdict::Busy) {
            LOG_WARNING("Retry ZEL_DIRECT_READ (device Busy) : retry=%d!\n", tries.busy.count);
            Zel_Pause();
        } else if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry ZEL_DIRECT_READ : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(ZEL_DIRECT_READ) is failed(retry=%d err_retry=%d) : %s\n",
                      tries.busy.count, tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

// `flag` 0 begins with the sequential write. After a failure other than busy the
// plain write takes over for the rest of the call, and the caller is told.
int32_t Zel_DrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                      MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
{
    if (retried == nullptr) {
        return -EINVAL;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Zel_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Zel_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    *retried = 0;
    const direct_parm parm = {first_sector, length >> 9, Address32(dev->sg_table),
                              static_cast<uint32_t>(sg_bytes)};
    uint32_t request = flag == 0 ? ZEL_DIRECT_SEQ_WRITE : ZEL_DIRECT_WRITE;
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, request, &parm, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return static_cast<int32_t>(length);
        }
        if (verdict == Verdict::Busy) {
            LOG_WARNING("Retry ZEL_DIRECT_WRITE (device Busy) : retry=%d!\n", tries.busy.count);
            Zel_Pause();
        } else if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry ZEL_DIRECT_WRITE : retry=%d!\n", tries.errors.count);
            *retried = 1;
            request = ZEL_DIRECT_WRITE;
        } else {
            LOG_ERROR("ioctl(ZEL_DIRECT_SEQ_WRITE) is failed(retry=%d err_retry=%d) : %s\n",
                      tries.busy.count, tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

namespace {

// Room for a list's elements, contents as the allocator left them; null when
// there is none. A count below 1 gets an empty block.
fsmiw_parm* AllocateParms(int32_t count)
{
    const uint32_t elements = count > 0 ? static_cast<uint32_t>(count) : 0;
    uint32_t size = 0;
    if (__builtin_mul_overflow(elements, static_cast<uint32_t>(sizeof(fsmiw_parm)), &size)) {
        return nullptr;
    }
    return static_cast<fsmiw_parm*>(malloc(size));
}

// An element is described by its first table entry: the table is used afresh for
// each, and what does not fit into that entry is not handed over.
void Describe(const BlockListEntry* element, const ZelSgEntry* table, fsmiw_parm* parm)
{
    parm->sector = element->sector;
    parm->length = element->sectors;
    parm->sg_addr = table[0].addr.Stored();
    parm->sg_len = table[0].len.Stored();
}

}  // namespace

// The one write that a failed request before it does not bar.
int32_t Zel_DrctRMW(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    Zel_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    fsmiw_parm* parms = AllocateParms(list->count);
    if (parms == nullptr) {
        LOG_ERROR("fsmiw_parm malloc failed!");
        return -ENOMEM;
    }
    const fsmiw_req req = {static_cast<uint32_t>(list->count), 0, Address32(parms)};
    pthread_mutex_lock(&dev->lock);
    const BlockListEntry* element = list->first;
    int32_t done = 0;
    for (; done < list->count && element != nullptr; done++, element = element->next) {
        const int32_t used =
            Zel_SetSgEntry(dev->sg_table, 0, element->buf, SectorsToBytes(element->sectors));
        if (used < 0) {
            LOG_ERROR("Zel_SetSgEntry failed(%d)!\n", used);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return used;
        }
        Describe(element, dev->sg_table, &parms[done]);
    }
    if (done < list->count) {
        LOG_ERROR("DrctRMW List panic(%d/%d)!\n", done, list->count);
    }
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, ZEL_DIRECT_RMW, &req, &tries);
        if (verdict == Verdict::Done) {
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Busy) {
            LOG_WARNING("Retry ZEL_DIRECT_RMW (device Busy) : retry=%d!\n", tries.busy.count);
            Zel_Pause();
        } else if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry ZEL_DIRECT_RMW : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(ZEL_DIRECT_RMW) is failed(retry=%d err_retry=%d) : %s\n",
                      tries.busy.count, tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

int32_t Zel_FatWrite(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    ZelDevice* dev = ZelDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    fsmiw_parm* parms = AllocateParms(list->count);
    if (parms == nullptr) {
        LOG_ERROR("fsmiw_parm malloc failed!");
        return -ENOMEM;
    }
    const fsmiw_req req = {static_cast<uint32_t>(list->count), 0, Address32(parms)};
    pthread_mutex_lock(&dev->lock);
    const BlockListEntry* element = list->first;
    int32_t done = 0;
    for (; done < list->count && element != nullptr; done++, element = element->next) {
        const int32_t used =
            Zel_SetSgEntry(dev->sg_table, 0, element->buf, SectorsToBytes(element->sectors));
        if (used < 0) {
            LOG_ERROR("Zel_SetSgEntry failed(%d)!\n", used);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return used;
        }
        SgMarkEnd(dev->sg_table, used);
        Describe(element, dev->sg_table, &parms[done]);
    }
    if (done < list->count) {
        LOG_ERROR("FSMI List panic(%d/%d)!\n", done, list->count);
    }
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, ZEL_FSMI_WRITE, &req, &tries);
        if (verdict == Verdict::Done) {
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Busy) {
            LOG_WARNING("Retry ZEL_FSMI_WRITE (device Busy) : retry=%d!\n", tries.busy.count);
            Zel_Pause();
        } else if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry ZEL_FSMI_WRITE : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(ZEL_FSMI_WRITE) is failed(retry=%d err_retry=%d) : %s\n",
                      tries.busy.count, tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

int32_t Zel_SdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                       uint8_t cmd_byte0, uint8_t cmd_byte1)
{
    ZelDevice* dev = ZelDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Zel_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t used =
        Zel_SetSgEntry(dev->sg_table, 0, Address32(buffer), SectorsToBytes(sectors));
    if (used < 0) {
        LOG_ERROR("Zel_SetSgEntry failed(%d)!\n", used);
        pthread_mutex_unlock(&dev->lock);
        return used;
    }
    SgMarkEnd(dev->sg_table, used);
    sdcmd_request request;
    request.parm.cmd_byte0 = cmd_byte0;
    request.parm.cmd_byte1 = cmd_byte1;
    request.parm.data = Address32(&request.data);
    request.data = {cmd_arg, sectors, Address32(dev->sg_table),
                    static_cast<uint32_t>(used * static_cast<int>(sizeof(ZelSgEntry)))};
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, ZEL_SDCMD_WRITE, &request, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Busy) {
            LOG_WARNING("Retry ZEL_SDCMD_WRITE (device Busy) : retry=%d!\n", tries.busy.count);
            Zel_Pause();
        } else if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry ZEL_SDCMD_WRITE : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(ZEL_SDCMD_WRITE) is failed(retry=%d err_retry=%d) : %s\n",
                      tries.busy.count, tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}
