// SPDX-License-Identifier: MIT
//
// Moving data: plain reads and writes of the node, and the five direct
// requests, which share a policy of retries and differ in their request.
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/address.h"
#include "common/latch.h"
#include "common/retry.h"
#include "common/sector.h"
#include "common/transfer_records.h"
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

namespace {

constexpr int kErrorTries = 3;  // the third failure ends it

// A direct request, and what it says when it does not succeed at once. Arrays, so that
// there is no address to fill in when the library is loaded.
struct Request {
    uint32_t number;  // what is sent again after a failure
    char retry[48];
    char failure[60];
};

constexpr Request kRead = {
    MIVOSDIF_IOC_DIRECT_READ,
    "Retry MIVOSDIF_IOC_DIRECT_READ : retry=%d!\n",
    "ioctl(MIVOSDIF_IOC_DIRECT_READ) is failed(retry=%d) : %s\n",
};

constexpr Request kWrite = {
    MIVOSDIF_IOC_DIRECT_WRITE,
    "Retry MIVOSDIF_IOC_DIRECT_WRITE : retry=%d!\n",
    "ioctl(MIVOSDIF_IOC_DIRECT_WRITE) is failed(retry=%d) : %s\n",
};

constexpr Request kCommand = {
    MIVOSDIF_IOC_SDCMD_WRITE,
    "Retry MIVOSDIF_IOC_SDCMD_WRITE : retry=%d!\n",
    "ioctl(MIVOSDIF_IOC_SDCMD_WRITE) is failed(retry=%d) : %s\n",
};

// Send a request and wait for its end, even where the driver did not accept it. 0: done.
// Positive: not finished, to be sent again. Negative: failed, and errno, whatever set it,
// decides what follows.
__attribute__((always_inline)) inline int Send(const MivoDevice* dev, uint32_t number,
                                               const void* record)
{
    const int answer = ioctl(dev->chr_fd, number, record);
    const int completion = Mivo_WaitDone(dev->chr_fd);
    return answer | completion;  // negative where one of them is
}

// What Send says of a request that is not finished; begins one, too.
constexpr int kToSend = 1;

// The failures of one call.
struct Tries {
    RetryCounter<kErrorTries> errors;
};

enum class Verdict { Retry, GiveUp };

// The tests see each of the texts printed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// What follows a failed try; a device that has gone gets no further one. The lines are
// the caller's.
Verdict Judge(MivoDevice* dev, const Request& request, Tries* tries, const char* caller,
              unsigned line)
{
    const int error = errno;
    const bool may_retry = tries->errors.MayRetry();
    if (may_retry && error != ENODEV) {
        LOG_WARNING_OF(caller, line, request.retry, tries->errors.count);
        return Verdict::Retry;
    }
    LOG_ERROR_OF(caller, line, request.failure, tries->errors.count, strerror(error));
    Latch(&dev->io_error);
    return Verdict::GiveUp;
}

#pragma GCC diagnostic pop

// What follows a first try that did not end the matter, with what Send said of it: the
// request goes out until the driver has finished it, without end and uncounted, or has
// failed too often. The lines are the caller's.
__attribute__((cold, noinline)) bool Insist(MivoDevice* dev, const Request& request,
                                            uint32_t number, const void* record, int said,
                                            uint32_t* retried = nullptr,
                                            const char* caller = __builtin_FUNCTION(),
                                            unsigned line = __builtin_LINE())
{
    Tries tries;
    while (said != 0) {
        if (said < 0) {
            if (Judge(dev, request, &tries, caller, line) == Verdict::GiveUp) {
                return false;
            }
            if (retried != nullptr) {
                *retried = 1;
            }
            number = request.number;
            ioctl(dev->chr_fd, MIVOSDIF_IOC_RESET, nullptr);
        }
        said = Send(dev, number, record);
    }
    return true;
}

}  // namespace

int32_t Mivo_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t /*word*/)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_HasNode(dev)) {
        return -ENODEV;
    }
    if (Mivo_HasGone(dev)) {
        return -EIO;
    }
    if (lseek64(dev->chr_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", carddev_errno_text());
        return -EINVAL;
    }
    return static_cast<int32_t>(read(dev->chr_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Mivo_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                   uint32_t /*word*/)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_HasNode(dev)) {
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error) || Mivo_HasGone(dev)) {
        return -EIO;
    }
    if (lseek64(dev->chr_fd, SectorPosition(first_sector), SEEK_SET) == -1) {
        LOG_ERROR("lseek failed : %s\n", carddev_errno_text());
        return -EINVAL;
    }
    return static_cast<int32_t>(write(dev->chr_fd, buffer, SectorsToBytes(sectors)));
}

int32_t Mivo_DrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t sectors,
                      MemoryChunkArray* chunks)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        Mivo_CheckEject(dev);
        return -ENODEV;
    }
    if (Mivo_HasGone(dev)) {
        return -EIO;
    }
    direct_parm parm;
    parm.sector = first_sector;
    parm.sectors = sectors;
    parm.sg_table = Address32(dev->sg_table);
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Mivo_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Mivo_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    parm.sg_bytes = static_cast<uint32_t>(sg_bytes);
    const int said = Send(dev, MIVOSDIF_IOC_DIRECT_READ, &parm);
    const bool done = said == 0 || Insist(dev, kRead, MIVOSDIF_IOC_DIRECT_READ, &parm, said);
    pthread_mutex_unlock(&dev->lock);
    return done ? static_cast<int32_t>(sectors) : -EIO;
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
    if (!Mivo_IsOpened(dev)) {
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error) || Mivo_HasGone(dev)) {
        return -EIO;
    }
    direct_parm parm;
    parm.sector = first_sector;
    parm.sectors = sectors;
    parm.sg_table = Address32(dev->sg_table);
    pthread_mutex_lock(&dev->lock);
    const int32_t sg_bytes = Mivo_Chunk2Sg(chunks, dev->sg_table);
    if (sg_bytes < 0) {
        LOG_ERROR("Mivo_Chunk2Sg is failed(%d)\n", sg_bytes);
        pthread_mutex_unlock(&dev->lock);
        return -EINVAL;
    }
    *retried = 0;
    parm.sg_bytes = static_cast<uint32_t>(sg_bytes);
    const uint32_t number = flag == 0 ? MIVOSDIF_IOC_DIRECT_WRITE_ALT : MIVOSDIF_IOC_DIRECT_WRITE;
    const int said = Send(dev, number, &parm);
    const bool done = said == 0 || Insist(dev, kWrite, number, &parm, said, retried);
    pthread_mutex_unlock(&dev->lock);
    return done ? static_cast<int32_t>(sectors) : -EIO;
}

namespace {

// Room for a list's elements, contents as the allocator left them; null when
// there is none. A negative count asks for more than there is.
fsmiw_parm* AllocateParms(int32_t count)
{
    uint32_t size = 0;
    if (__builtin_mul_overflow(static_cast<uint32_t>(count),
                               static_cast<uint32_t>(sizeof(fsmiw_parm)), &size)) {
        errno = ENOMEM;  // as the allocator says it
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

// What tells DrctRMW and FatWrite apart behind their checks.
struct ElementRequest {
    Request request;
    char panic[36];
    bool marks_end;  // of each element's entries
};

constexpr ElementRequest kRmw = {
    {MIVOSDIF_IOC_DIRECT_RMW, "Retry MIVOSDIF_IOC_DIRECT_RMW : retry=%d!\n",
     "ioctl(MIVOSDIF_IOC_DIRECT_RMW) is failed(retry=%d) : %s\n"},
    "DrctRMW List panic(%d/%d)!\n",
    false,
};

constexpr ElementRequest kFat = {
    {MIVOSDIF_IOC_FSMI_WRITE, "Retry MIVOSDIF_IOC_FSMI_WRITE : retry=%d!\n",
     "ioctl(MIVOSDIF_IOC_FSMI_WRITE) is failed(retry=%d) : %s\n"},
    "FSMI List panic(%d/%d)!\n",
    true,
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// The lines are the caller's. A chain that ends early is printed and sent all the same,
// with the elements beyond as the allocator left them.
int32_t WriteElements(MivoDevice* dev, const BlockList* list, const ElementRequest& kind,
                      const char* caller = __builtin_FUNCTION(), unsigned line = __builtin_LINE())
{
    fsmiw_parm* parms = AllocateParms(list->count);
    if (parms == nullptr) {
        LOG_ERROR_OF(caller, line, "fsmiw_parm malloc failed!");
        return -ENOMEM;
    }
    const fsmiw_req req = {static_cast<uint32_t>(list->count), 0, Address32(parms)};
    pthread_mutex_lock(&dev->lock);
    int32_t result = 0;
    const BlockListEntry* element = list->first;
    int32_t done = 0;
    for (; done < list->count && element != nullptr; done++, element = element->next) {
        const int32_t used =
            Mivo_SetSgEntry(dev->sg_table, 0, element->buf, SectorsToBytes(element->sectors));
        if (used < 0) {
            LOG_ERROR_OF(caller, line, "Mivo_SetSgEntry failed(%d)!\n", used);
            result = used;
            break;
        }
        if (kind.marks_end) {
            SgMarkEnd(dev->sg_table + used);
        }
        Describe(element, dev->sg_table, &parms[done]);
    }
    if (result == 0) {
        if (done < list->count) {
            LOG_ERROR_OF(caller, line, kind.panic, done, list->count);
        }
        const bool sent =
            Insist(dev, kind.request, kind.request.number, &req, kToSend, nullptr, caller, line);
        result = sent ? 0 : -EIO;
    }
    free(parms);
    pthread_mutex_unlock(&dev->lock);
    return result;
}

#pragma GCC diagnostic pop

}  // namespace

int32_t Mivo_DrctRMW(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    if (dev == nullptr) {
        Mivo_CheckEject(dev);
        return -ENODEV;
    }
    if (Mivo_HasGone(dev) || IsLatched(&dev->io_error)) {
        return -EIO;
    }
    return WriteElements(dev, list, kRmw);
}

int32_t Mivo_FatWrite(DrvInfo* handle, BlockList* list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_IsOpened(dev)) {
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error) || Mivo_HasGone(dev)) {
        return -EIO;
    }
    return WriteElements(dev, list, kFat);
}

int32_t Mivo_SdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                        uint8_t cmd_byte0, uint8_t cmd_byte1)
{
    MivoDevice* dev = MivoDeviceOf(handle);
    if (!Mivo_IsOpened(dev)) {
        return -ENODEV;
    }
    if (IsLatched(&dev->io_error) || Mivo_HasGone(dev)) {
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
    SgMarkEnd(dev->sg_table + used);
    sdcmd_request request;
    request.parm.cmd_byte0 = cmd_byte0;
    request.parm.cmd_byte1 = cmd_byte1;
    request.parm.data = Address32(&request.data);
    request.data = {cmd_arg, SectorsToBytes(sectors), Address32(dev->sg_table),
                    static_cast<uint32_t>(used * static_cast<int>(sizeof(MivoSgEntry)))};
    const bool done = Insist(dev, kCommand, kCommand.number, &request, kToSend);
    pthread_mutex_unlock(&dev->lock);
    return done ? 0 : -EIO;
}
