// SPDX-License-Identifier: MIT
#include "bench/board/bare.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/transfer_records.h"
#include "mivosdif/mivosdif.h"
#include "ricohsd/ricohsd.h"
#include "zel/zel.h"

namespace {

constexpr uint32_t kMostInEntry = 65536;
constexpr uint32_t kEnd = 0x80000000;

uint32_t Word(const void* object)
{
    // The driver reads what stands there, out of the compiler's sight.
    __asm__ volatile("" : : "r"(object) : "memory");
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(object));
}

uint32_t Swapped(uint32_t word)
{
    return __builtin_bswap32(word);
}

void Banner(const char* version)
{
    printf("Wrapper low-level driver for SD card-CardBus adaptor ver.%s\n", version);
}

void DiscardEvent(int fd)
{
    struct pollfd node = {fd, POLLIN | POLLOUT | POLLERR | POLLHUP, 0};
    poll(&node, 1, 1);
}

// A request, then the wait for its end.
int Finish(const BareDevice* dev, uint32_t request, const void* record)
{
    if (ioctl(dev->chr_fd, request, record) != 0) {
        return -1;
    }
    struct pollfd node = {dev->chr_fd, POLLIN | POLLOUT | POLLERR | POLLHUP, 0};
    return poll(&node, 1, 4000) == 1 && node.revents == POLLOUT ? 0 : -1;
}

int ZelParams(const BareDevice* dev, uint32_t item, uint8_t* answer)
{
    ZelCardParamsRequest request = {item, Word(answer)};
    return ioctl(dev->dev_fd, ZEL_GET_CARD_PARAMS, &request);
}

// Of a card beyond 2 GB, then of the others.
uint32_t Size(uint32_t capacity, const uint8_t* csd, const uint8_t* sd_status)
{
    const uint32_t area = uint32_t{sd_status[4]} << 24 | uint32_t{sd_status[5]} << 16 |
                          uint32_t{sd_status[6]} << 8 | sd_status[7];
    if (capacity > 0x3FFFFF) {
        const uint32_t c_size = (csd[7] & 63u) << 16 | uint32_t{csd[8]} << 8 | csd[9];
        return ((c_size + 1) << 10) + (area >> 9);
    }
    const uint32_t c_size = (csd[6] & 3u) << 10 | uint32_t{csd[7]} << 2 | csd[8] >> 6;
    const uint32_t mult = (csd[9] & 3u) << 1 | csd[10] >> 7;
    return ((c_size + 1 + area) << (mult + 2)) * ((1u << (csd[5] & 15)) >> 9);
}

int OpenFailed(const BareDevice* dev)
{
    return dev->dev_fd < 0 || dev->blk_fd < 0 || dev->chr_fd < 0 || dev->rt_fd < 0 ? -1 : 0;
}

}  // namespace

int BareOpenZel(BareDevice* dev, const char* node, const char* block_node, const char* char_node)
{
    struct stat64 status;
    stat64(node, &status);
    dev->dev_fd = open64(node, O_RDWR);
    const int mounted = ioctl(dev->dev_fd, BLKMNTFS, nullptr);
    dev->blk_fd = open64(block_node, O_RDWR);
    dev->chr_fd = open64(char_node, O_RDWR);
    uint8_t identify[512];
    ioctl(dev->chr_fd, ZEL_IDENTIFY_DEVICE, identify);
    uint32_t capacity = 0;
    ioctl(dev->blk_fd, ZEL_BLKGETSIZE, &capacity);
    BareZelStatusRegister(dev, dev->sd_status);
    BareZelRegisters(dev, &dev->registers);
    SdFormatParams format;
    CalcSdParams(Size(capacity, dev->registers.csd, dev->sd_status), &format);
    const ZelSetCardParams params = {0, 0, format.data_start};
    ioctl(dev->chr_fd, ZEL_SET_CARD_PARAMS, &params);
    dev->rt_fd = open64("/dev/rtctrl_zel", O_RDWR);
    pthread_mutex_init(&dev->lock, nullptr);
    DiscardEvent(dev->chr_fd);
    Banner("0.11");
    return OpenFailed(dev) != 0 ? -1 : mounted;
}

int BareCloseZel(BareDevice* dev)
{
    DiscardEvent(dev->chr_fd);
    close(dev->rt_fd);
    close(dev->chr_fd);
    close(dev->blk_fd);
    return close(dev->dev_fd);
}

int BareOpenMivo(BareDevice* dev, const char* node)
{
    struct stat64 status;
    stat64(node, &status);
    dev->chr_fd = open64(node, O_RDWR);
    dev->dev_fd = dev->chr_fd;
    dev->blk_fd = dev->chr_fd;
    const int mounted = ioctl(dev->chr_fd, MIVOSDIF_IOC_MNTFS, nullptr);
    pthread_mutex_init(&dev->lock, nullptr);
    DiscardEvent(dev->chr_fd);
    Banner("0.11");
    return OpenFailed(dev) != 0 ? -1 : mounted;
}

int BareCloseMivo(BareDevice* dev)
{
    ioctl(dev->chr_fd, MIVOSDIF_IOC_UMNTFS, nullptr);
    DiscardEvent(dev->chr_fd);
    return close(dev->chr_fd);
}

int BareOpenRicoh(BareDevice* dev, const char* node)
{
    struct stat64 status;
    stat64(node, &status);
    dev->blk_fd = open64(node, O_RDWR | O_SYNC);
    Banner("0.10");
    return dev->blk_fd < 0 ? -1 : 0;
}

int BareCloseRicoh(BareDevice* dev)
{
    return close(dev->blk_fd);
}

int BareCheck(BareDevice* dev)
{
    if (!dev->is_watched) {
        return 0;
    }
    int result = 0;
    bool present = false;
    pthread_mutex_lock(&dev->lock);
    if (dev->is_mivo) {
        MivoCardStatus status;
        result = ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_STATUS, &status);
        present = (status.present >> dev->unit & 1) != 0;
    } else {
        ZelCardStatus status;
        result = ioctl(dev->chr_fd, ZEL_GET_CARD_STATUS, &status);
        present = ((status.present_mask & ~status.changed_mask) >> dev->unit & 1) != 0;
    }
    pthread_mutex_unlock(&dev->lock);
    return result == 0 && present ? 0 : -1;
}

ssize_t BareRead(BareDevice* dev, void* buffer, uint32_t sectors, uint32_t first)
{
    if (BareCheck(dev) < 0 || lseek64(dev->blk_fd, int64_t{first} * 512, SEEK_SET) < 0) {
        return -1;
    }
    return read(dev->blk_fd, buffer, sectors * 512);
}

ssize_t BareWrite(BareDevice* dev, const void* buffer, uint32_t sectors, uint32_t first)
{
    if (BareCheck(dev) < 0 || lseek64(dev->blk_fd, int64_t{first} * 512, SEEK_SET) < 0) {
        return -1;
    }
    return write(dev->blk_fd, buffer, sectors * 512);
}

uint32_t BareTable(BareDevice* dev, const MemoryChunkArray* chunks)
{
    uint32_t(*entry)[2] = dev->table;
    uint32_t start = 0;
    uint32_t length = 0;  // of the entry that is being filled
    const MemoryChunk* end = chunks->chunk + chunks->count;
    for (const MemoryChunk* chunk = chunks->chunk; chunk != end; chunk++) {
        if (start + length == chunk->addr && length + chunk->len <= kMostInEntry) {
            length += chunk->len;
            continue;
        }
        if (length > 0) {
            (*entry)[0] = Swapped(start);
            (*entry++)[1] = Swapped(length);
        }
        start = chunk->addr;
        length = chunk->len;
        for (; length > kMostInEntry; start += kMostInEntry, length -= kMostInEntry) {
            (*entry)[0] = Swapped(start);
            (*entry++)[1] = Swapped(kMostInEntry);
        }
    }
    (*entry)[0] = Swapped(start);
    (*entry++)[1] = Swapped(length | kEnd);
    return static_cast<uint32_t>(entry - dev->table) * 8;
}

int BareReady(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
              uint32_t table_bytes)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    pthread_mutex_lock(&dev->lock);
    const direct_parm parm = {first, sectors, Word(dev->table), table_bytes};
    const int result = Finish(dev, request, &parm);
    pthread_mutex_unlock(&dev->lock);
    return result;
}

int BareDirect(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
               const MemoryChunkArray* chunks)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    pthread_mutex_lock(&dev->lock);
    const direct_parm parm = {first, sectors, Word(dev->table), BareTable(dev, chunks)};
    const int result = Finish(dev, request, &parm);
    pthread_mutex_unlock(&dev->lock);
    return result;
}

int BareDirectArray(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
                    const MemoryArray* list)
{
    struct {
        uint32_t count;
        MemoryChunk chunk[MEMORY_ARRAY_PIECES];
    } chunks;
    chunks.count = static_cast<uint32_t>(list->count);
    for (uint32_t i = 0; i < chunks.count; i++) {
        chunks.chunk[i] = {list->addr[i], list->len[i]};
    }
    __asm__ volatile("" : : "r"(&chunks) : "memory");
    return BareDirect(dev, request, first, sectors,
                      reinterpret_cast<const MemoryChunkArray*>(&chunks));
}

int BareElements(BareDevice* dev, uint32_t request, const BlockList* list)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    const auto count = static_cast<uint32_t>(list->count);
    auto* parms = static_cast<fsmiw_parm*>(malloc(count * sizeof(fsmiw_parm)));
    const bool has_ends = request == ZEL_FSMI_WRITE || request == MIVOSDIF_IOC_FSMI_WRITE;
    const uint32_t mark = has_ends ? kEnd : 0;
    const int unit_shift = dev->is_mivo ? 9 : 0;
    pthread_mutex_lock(&dev->lock);
    fsmiw_parm* parm = parms;
    for (const BlockListEntry* each = list->first; each != nullptr; each = each->next, parm++) {
        parm->sector = each->sector;
        parm->length = each->sectors << unit_shift;
        parm->sg_addr = Swapped(each->buf);
        parm->sg_len = Swapped(each->sectors * 512 | mark);
    }
    const fsmiw_req req = {count, 0, Word(parms)};
    const int result = Finish(dev, request, &req);
    pthread_mutex_unlock(&dev->lock);
    free(parms);
    return result;
}

int BareCommand(BareDevice* dev, uint32_t request, const void* buffer, uint32_t sectors,
                uint32_t argument, uint8_t byte0, uint8_t byte1)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    struct {
        uint32_t count;
        MemoryChunk chunk;
    } whole = {1, {Word(buffer), sectors * 512}};
    __asm__ volatile("" : : "r"(&whole) : "memory");
    pthread_mutex_lock(&dev->lock);
    const uint32_t bytes = BareTable(dev, reinterpret_cast<const MemoryChunkArray*>(&whole));
    const sdcmd_data data = {argument, dev->is_mivo ? sectors * 512 : sectors, Word(dev->table),
                             bytes};
    const sdcmd_parm parm = {byte0, byte1, {}, Word(&data)};
    const int result = Finish(dev, request, &parm);
    pthread_mutex_unlock(&dev->lock);
    return result;
}

int BareLocked(BareDevice* dev, int fd, uint32_t request, unsigned long argument)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    pthread_mutex_lock(&dev->lock);
    const int result = ioctl(fd, request, argument);
    pthread_mutex_unlock(&dev->lock);
    return result;
}

int BarePlain(BareDevice* dev, int fd, uint32_t request, void* argument)
{
    return BareCheck(dev) < 0 ? -1 : ioctl(fd, request, argument);
}

int BareByte(int fd, uint32_t request)
{
    uint8_t status = 0;
    return ioctl(fd, request, &status) < 0 ? -1 : status;
}

int BareZelRegisters(BareDevice* dev, CardInfo* info)
{
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (BareCheck(dev) < 0 || ZelParams(dev, ZEL_ITEM_CID, answer) != 0) {
        return -1;
    }
    info->cid[0] = 0;
    memcpy(info->cid + 1, answer + ZEL_CARD_PARAMS_DATA, 15);
    const int result = ZelParams(dev, ZEL_ITEM_CSD, answer);
    memcpy(info->csd, answer + ZEL_CARD_PARAMS_DATA, 16);
    dev->registers = *info;
    return result;
}

int BareZelStatusRegister(BareDevice* dev, uint8_t* sd_status)
{
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (BareCheck(dev) < 0 || ZelParams(dev, ZEL_ITEM_SD_STATUS, answer) != 0) {
        return -1;
    }
    memcpy(sd_status, answer + ZEL_CARD_PARAMS_DATA, CARD_SD_STATUS_SIZE);
    memcpy(dev->sd_status, sd_status, CARD_SD_STATUS_SIZE);
    return 0;
}

int BareZelSpeed(BareDevice* dev, CardSpeedInfo* speed)
{
    uint8_t answer[ZEL_CARD_PARAMS_SIZE];
    if (BareCheck(dev) < 0 || ZelParams(dev, ZEL_ITEM_SPEED, answer) != 0) {
        return -1;
    }
    memset(speed, 0, sizeof *speed);
    speed->bytes[0] = answer[148];
    speed->bytes[1] = answer[152];
    speed->bytes[2] = answer[157];
    speed->bytes[3] = answer[158];
    speed->bytes[4] = answer[163];
    return 0;
}

int BareMivoRegisters(BareDevice* dev, CardInfo* info)
{
    if (BareCheck(dev) < 0 || ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CID, info->cid) != 0) {
        return -1;
    }
    const int result = ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CSD, info->csd);
    dev->registers = *info;
    return result;
}

int BareMivoStatusRegister(BareDevice* dev, uint8_t* sd_status)
{
    if (BareCheck(dev) < 0 || ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_SD_STATUS, sd_status) != 0) {
        return -1;
    }
    memcpy(dev->sd_status, sd_status, CARD_SD_STATUS_SIZE);
    return 0;
}

int BareMivoSpeed(BareDevice* dev, CardSpeedInfo* speed)
{
    MivoCardParams params;
    uint8_t scr[8];
    if (BareCheck(dev) < 0 || ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_PARAMS, &params) < 0 ||
        ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_SCR, scr) != 0) {
        return -1;
    }
    static const uint32_t units[] = {32,   64,    128,   256,   512,   1024,  2048,  4096,
                                     8192, 16384, 24576, 32768, 49152, 65536, 131072};
    uint32_t unit = params.au_default;
    if (params.video_class != 0) {
        unit = params.au_video;
    } else if ((params.grades & 0x3C) != 0) {
        unit = params.au_uhs;
    }
    uint8_t code = 15;
    while (code > 0 && units[code - 1] != unit) {
        code--;
    }
    memset(speed, 0, sizeof *speed);
    speed->bytes[0] = static_cast<uint8_t>(params.video_class);
    speed->bytes[1] = scr[3];
    speed->bytes[2] = static_cast<uint8_t>(params.byte2);
    speed->bytes[3] = static_cast<uint8_t>(params.grades);
    speed->bytes[4] = code;
    return 0;
}

int BareRicohRegisters(BareDevice* dev, CardInfo* info)
{
    if (ioctl(dev->blk_fd, SDCARD_GET_CSD, &info->cid[15]) < 0) {
        return -1;
    }
    return ioctl(dev->blk_fd, SDCARD_GET_CID, info->cid);
}

uint32_t BareZelSize(BareDevice* dev)
{
    uint32_t capacity = 0;
    if (BareCheck(dev) < 0 || ioctl(dev->blk_fd, ZEL_BLKGETSIZE, &capacity) < 0 ||
        BareCheck(dev) < 0 || BareCheck(dev) < 0) {
        return 0;
    }
    return Size(capacity, dev->registers.csd, dev->sd_status);
}

uint32_t BareMivoSize(BareDevice* dev)
{
    MivoCardParams params;
    if (BareCheck(dev) < 0 || ioctl(dev->chr_fd, MIVOSDIF_IOC_GET_CARD_PARAMS, &params) < 0 ||
        BareCheck(dev) < 0 || BareCheck(dev) < 0) {
        return 0;
    }
    return Size(params.capacity, dev->registers.csd, dev->sd_status);
}

uint32_t BareRicohSize(BareDevice* dev)
{
    uint32_t sectors = 0;
    return ioctl(dev->blk_fd, RICOHSD_BLKGETSIZE, &sectors) < 0 ? 0 : sectors;
}

int BareCopy(BareDevice* dev, void* to, const void* from, size_t length)
{
    if (BareCheck(dev) < 0) {
        return -1;
    }
    memcpy(to, from, length);
    return 0;
}

int LoopRead(int fd, uint32_t first, const MemoryChunkArray* chunks)
{
    int64_t position = int64_t{first} * 512;
    for (uint32_t i = 0; i < chunks->count; i++) {
        const MemoryChunk* chunk = &chunks->chunk[i];
        auto* memory = reinterpret_cast<void*>(uintptr_t{chunk->addr});
        if (pread64(fd, memory, chunk->len, position) != static_cast<ssize_t>(chunk->len)) {
            return -1;
        }
        position += chunk->len;
    }
    return 0;
}

int LoopWrite(int fd, uint32_t first, const MemoryChunkArray* chunks)
{
    int64_t position = int64_t{first} * 512;
    for (uint32_t i = 0; i < chunks->count; i++) {
        const MemoryChunk* chunk = &chunks->chunk[i];
        const auto* memory = reinterpret_cast<const void*>(uintptr_t{chunk->addr});
        if (pwrite64(fd, memory, chunk->len, position) != static_cast<ssize_t>(chunk->len)) {
            return -1;
        }
        position += chunk->len;
    }
    return 0;
}
