// SPDX-License-Identifier: MIT
//
// Moving data: plain reads and writes of the node, and the five direct
// requests, which share a policy of retries and differ in their words.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/address.h"
#include "common/latch.h"
#include "common/retry.h"
#include "common/sector.h"
#include "common/transfer_records.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG "mivosdif"
#include "common/log.h"

namespace {

constexpr int kTries = 3;  // the third failure ends it

// The failures of one call.
struct Tries {
    RetryCounter errors = {kTries};
    int error = 0;  // errno after the last one
};

enum class Verdict { Done, Retry, GiveUp };

// Send a request until the driver has finished it or fails. A positive answer
// means that it has not finished: it is sent again, without end and uncounted.
// Completion is waited for even where the request failed. What decides is the
// errno left after that, whatever set it; a device that has gone gets no further
// try.
Verdict Try(const MivoDevice* dev, uint32_t request, const void* record, Tries* tries)
{
    for (;;) {
        const int answer = ioctl(dev->chr_fd, request, record);
        const int completion = Mivo_PollWait(dev->chr_fd);
        if (answer < 0 || completion < 0) {
            break;
        }
        if (answer == 0) {
            return Verdict::Done;
        }
    }
    tries->error = errno;
    const bool may_retry = tries->errors.MayRetry();
    return may_retry && tries->error != ENODEV ? Verdict::Retry : Verdict::GiveUp;
}

void Reset(const MivoDevice* dev)
{
    ioctl(dev->chr_fd, MIVOSDIF_IOC_RESET, nullptr);
}

}  // namespace

int32_t Mivo_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t /*word*/)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (dev->chr_fd == 0) {
        LOG_ERROR("Invalid chr_fd!\n");
        return -ENODEV;
    }
    Mivo_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (lseek64(dev->chr_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", strerror(errno));
        return -EINVAL;
    }
    return static_cast<int32_t>(read(dev->chr_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Mivo_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                   uint32_t /*word*/)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (dev->chr_fd == 0) {
        LOG_ERROR("Invalid chr_fd!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Mivo_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (lseek64(dev->chr_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", strerror(errno));
        return -EINVAL;
    }
    return static_cast<int32_t>(write(dev->chr_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Mivo_DrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t sectors,
                      MemoryChunkArray* chunks)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Mivo_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Mivo_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    const direct_parm parm = {first_sector, sectors, Address32(dev->sg_table),
                              static_cast<uint32_t>(sg_bytes)};
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, MIVOSDIF_IOC_DIRECT_READ, &parm, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return static_cast<int32_t>(sectors);
        }
        if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry MIVOSDIF_IOC_DIRECT_READ : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(MIVOSDIF_IOC_DIRECT_READ) is failed(retry=%d) : %s\n",
                      tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

// `flag` 0 begins with the alternative write. After a failure the plain write takes
// over for the rest of the call, and the caller is told.
int32_t Mivo_DrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t sectors,
                       MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
{
    if (retried == nullptr) {
        return -EINVAL;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Mivo_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Mivo_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Mivo_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    *retried = 0;
    const direct_parm parm = {first_sector, sectors, Address32(dev->sg_table),
                              static_cast<uint32_t>(sg_bytes)};
    uint32_t request = flag == 0 ? MIVOSDIF_IOC_DIRECT_WRITE_ALT : MIVOSDIF_IOC_DIRECT_WRITE;
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, request, &parm, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return static_cast<int32_t>(sectors);
        }
        if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry MIVOSDIF_IOC_DIRECT_WRITE : retry=%d!\n", tries.errors.count);
            *retried = 1;
            request = MIVOSDIF_IOC_DIRECT_WRITE;
        } else {
            LOG_ERROR("ioctl(MIVOSDIF_IOC_DIRECT_WRITE) is failed(retry=%d) : %s\n",
                      tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

namespace {

// Room for a list's elements, contents as the allocator left them; null when
// there is none. A negative count asks for more than there is.
fsmiw_parm* AllocateParms(int32_t count)
{
    uint32_t size = 0;
    if (__builtin_mul_overflow(static_cast<uint32_t>(count),
                               static_cast<uint32_t>(sizeof(fsmiw_parm)), &size)) {
        return nullptr;
    }
    return static_cast<fsmiw_parm*>(malloc(size));
}

// An element is described by its first table entry: the table is used afresh for
// each, and what does not fit into that entry is not handed over.
void Describe(const BlockListEntry* element, const MivoSgEntry* table, fsmiw_parm* parm)
{
    parm->sector = element->sector;
    parm->length = SectorsToBytes(element->sectors);
    parm->sg_addr = table[0].addr.Stored();
    parm->sg_len = table[0].len.Stored();
}

}  // namespace

int32_t Mivo_DrctRMW(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    Mivo_CheckEject(dev);
    if (dev == nullptr) {
        return -ENODEV;
    }
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    if (IsLatched(&dev->io_error)) {
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
            Mivo_SetSgEntry(dev->sg_table, 0, element->buf, SectorsToBytes(element->sectors));
        if (used < 0) {
            LOG_ERROR("Mivo_SetSgEntry failed(%d)!\n", used);
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
        const Verdict verdict = Try(dev, MIVOSDIF_IOC_DIRECT_RMW, &req, &tries);
        if (verdict == Verdict::Done) {
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry MIVOSDIF_IOC_DIRECT_RMW : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(MIVOSDIF_IOC_DIRECT_RMW) is failed(retry=%d) : %s\n",
                      tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

int32_t Mivo_FatWrite(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Mivo_CheckEject(dev);
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
            Mivo_SetSgEntry(dev->sg_table, 0, element->buf, SectorsToBytes(element->sectors));
        if (used < 0) {
            LOG_ERROR("Mivo_SetSgEntry failed(%d)!\n", used);
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
        const Verdict verdict = Try(dev, MIVOSDIF_IOC_FSMI_WRITE, &req, &tries);
        if (verdict == Verdict::Done) {
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry MIVOSDIF_IOC_FSMI_WRITE : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(MIVOSDIF_IOC_FSMI_WRITE) is failed(retry=%d) : %s\n",
                      tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            free(parms);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}

int32_t Mivo_SdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                        uint8_t cmd_byte0, uint8_t cmd_byte1)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        LOG_ERROR("Cannot get driver info!\n");
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error)) {
        return -EIO;
    }
    Mivo_CheckEject(dev);
    if (IsLatched(&dev->ejected)) {
        return -EIO;
    }
    pthread_mutex_lock(&dev->lock);
    const int32_t used =
        Mivo_SetSgEntry(dev->sg_table, 0, Address32(buffer), SectorsToBytes(sectors));
    if (used < 0) {
        LOG_ERROR("Mivo_SetSgEntry failed(%d)!\n", used);
        pthread_mutex_unlock(&dev->lock);
        return used;
    }
    SgMarkEnd(dev->sg_table, used);
    sdcmd_request request;
    request.parm.cmd_byte0 = cmd_byte0;
    request.parm.cmd_byte1 = cmd_byte1;
    request.parm.data = Address32(&request.data);
    request.data = {cmd_arg, SectorsToBytes(sectors), Address32(dev->sg_table),
                    static_cast<uint32_t>(used * static_cast<int>(sizeof(MivoSgEntry)))};
    Tries tries;
    for (;;) {
        const Verdict verdict = Try(dev, MIVOSDIF_IOC_SDCMD_WRITE, &request, &tries);
        if (verdict == Verdict::Done) {
            pthread_mutex_unlock(&dev->lock);
            return 0;
        }
        if (verdict == Verdict::Retry) {
            LOG_WARNING("Retry MIVOSDIF_IOC_SDCMD_WRITE : retry=%d!\n", tries.errors.count);
        } else {
            LOG_ERROR("ioctl(MIVOSDIF_IOC_SDCMD_WRITE) is failed(retry=%d) : %s\n",
                      tries.errors.count, strerror(tries.error));
            Latch(&dev->io_error);
            pthread_mutex_unlock(&dev->lock);
            return -EIO;
        }
        Reset(dev);
    }
}
