// SPDX-License-Identifier: MIT
//
// The Mivo back-end: SD cards behind an SD-card-to-CardBus adaptor, one character
// node for each unit.
#ifndef CARDDEV_MIVOSDIF_MIVOSDIF_H
#define CARDDEV_MIVOSDIF_MIVOSDIF_H

#include <stddef.h>

#include "carddev.h"
#include "carddev_state.h"
#include "common/completion.h"
#include "common/latch.h"
#include "common/request.h"
#include "common/sg_table.h"

// The driver's requests, on chr_fd. The register requests say one byte and write
// whole registers; the numbers are the driver's and are used as they are.
enum MivoRequest : uint32_t {
    MIVOSDIF_IOC_GET_CARD_STATUS = 0x4006D300,    // MivoCardStatus
    MIVOSDIF_IOC_GET_WRITE_PROTECT = 0x2000D307,  // no argument; the result is the answer
    MIVOSDIF_IOC_GET_CARD_PARAMS = 0x4030D30F,    // MivoCardParams
    MIVOSDIF_IOC_GET_CID = 0x4001D314,            // 16 bytes
    MIVOSDIF_IOC_GET_CSD = 0x4001D315,            // 16 bytes
    MIVOSDIF_IOC_GET_SCR = 0x4001D316,            // 8 bytes
    MIVOSDIF_IOC_GET_SD_STATUS = 0x4001D317,      // 64 bytes
    MIVOSDIF_IOC_MNTFS = 0x2000D318,              // no argument
    MIVOSDIF_IOC_UMNTFS = 0x2000D319,             // no argument
    MIVOSDIF_IOC_DIRECT_READ = 0xC010D324,        // direct_parm
    MIVOSDIF_IOC_DIRECT_WRITE = 0x8010D325,       // direct_parm
    MIVOSDIF_IOC_DIRECT_RMW = 0x800CD326,         // fsmiw_req
    MIVOSDIF_IOC_CARD_CMD2 = 0x8001D327,          // the caller's argument
    MIVOSDIF_IOC_CARD_CMD3 = 0x8001D328,
    MIVOSDIF_IOC_CARD_CMD4 = 0x8001D329,
    MIVOSDIF_IOC_FSMI_WRITE = 0x800CD32A,        // fsmiw_req
    MIVOSDIF_IOC_SDCMD_WRITE = 0x8008D32B,       // sdcmd_parm
    MIVOSDIF_IOC_DIRECT_WRITE_ALT = 0x8010D32E,  // direct_parm
    MIVOSDIF_IOC_RESET = 0x2000D32F,             // no argument
};

static_assert(MIVOSDIF_IOC_GET_CARD_STATUS == RequestNumber(RequestDirection::Read, 6, 0xD3, 0x00));
static_assert(MIVOSDIF_IOC_GET_WRITE_PROTECT ==
              RequestNumber(RequestDirection::None, 0, 0xD3, 0x07));
static_assert(MIVOSDIF_IOC_GET_CARD_PARAMS ==
              RequestNumber(RequestDirection::Read, 48, 0xD3, 0x0F));
static_assert(MIVOSDIF_IOC_GET_CID == RequestNumber(RequestDirection::Read, 1, 0xD3, 0x14));
static_assert(MIVOSDIF_IOC_GET_CSD == RequestNumber(RequestDirection::Read, 1, 0xD3, 0x15));
static_assert(MIVOSDIF_IOC_GET_SCR == RequestNumber(RequestDirection::Read, 1, 0xD3, 0x16));
static_assert(MIVOSDIF_IOC_GET_SD_STATUS == RequestNumber(RequestDirection::Read, 1, 0xD3, 0x17));
static_assert(MIVOSDIF_IOC_MNTFS == RequestNumber(RequestDirection::None, 0, 0xD3, 0x18));
static_assert(MIVOSDIF_IOC_UMNTFS == RequestNumber(RequestDirection::None, 0, 0xD3, 0x19));
static_assert(MIVOSDIF_IOC_DIRECT_READ ==
              RequestNumber(RequestDirection::ReadWrite, 16, 0xD3, 0x24));
static_assert(MIVOSDIF_IOC_DIRECT_WRITE == RequestNumber(RequestDirection::Write, 16, 0xD3, 0x25));
static_assert(MIVOSDIF_IOC_DIRECT_RMW == RequestNumber(RequestDirection::Write, 12, 0xD3, 0x26));
static_assert(MIVOSDIF_IOC_CARD_CMD2 == RequestNumber(RequestDirection::Write, 1, 0xD3, 0x27));
static_assert(MIVOSDIF_IOC_CARD_CMD3 == RequestNumber(RequestDirection::Write, 1, 0xD3, 0x28));
static_assert(MIVOSDIF_IOC_CARD_CMD4 == RequestNumber(RequestDirection::Write, 1, 0xD3, 0x29));
static_assert(MIVOSDIF_IOC_FSMI_WRITE == RequestNumber(RequestDirection::Write, 12, 0xD3, 0x2A));
static_assert(MIVOSDIF_IOC_SDCMD_WRITE == RequestNumber(RequestDirection::Write, 8, 0xD3, 0x2B));
static_assert(MIVOSDIF_IOC_DIRECT_WRITE_ALT ==
              RequestNumber(RequestDirection::Write, 16, 0xD3, 0x2E));
static_assert(MIVOSDIF_IOC_RESET == RequestNumber(RequestDirection::None, 0, 0xD3, 0x2F));

// Debuggers know the record by its size on the board.
static_assert(sizeof(void*) != 4 || sizeof(MivoDevice) == 64);

struct MivoCardStatus {
    uint8_t reserved0[3];
    uint8_t present;  // bit n: a card is in unit n
    uint8_t reserved4[2];
};

struct MivoCardParams {
    uint8_t reserved0[20];
    uint32_t au_default;  // allocation unit in sectors, where neither of the next applies
    uint32_t au_uhs;      // where `grades` names one
    uint32_t au_video;    // where `video_class` names one
    uint32_t capacity;    // of the card, in sectors
    uint8_t reserved36[2];
    uint16_t byte2;   // low byte: byte 2 of the speed record
    uint16_t grades;  // low byte: byte 3 of the speed record
    uint8_t reserved42[2];
    uint32_t video_class;  // low byte: byte 0 of the speed record
};

static_assert(sizeof(MivoCardStatus) == 6 && offsetof(MivoCardStatus, present) == 3);
static_assert(sizeof(MivoCardParams) == 48 && offsetof(MivoCardParams, au_default) == 20);
static_assert(offsetof(MivoCardParams, au_uhs) == 24 && offsetof(MivoCardParams, au_video) == 28);
static_assert(offsetof(MivoCardParams, capacity) == 32 && offsetof(MivoCardParams, byte2) == 38);
static_assert(offsetof(MivoCardParams, grades) == 40);
static_assert(offsetof(MivoCardParams, video_class) == 44);

// Null for a handle that is null or not initialised.
inline MivoDevice* MivoDeviceOf(const DrvInfo* handle)
{
    return handle == nullptr ? nullptr : static_cast<MivoDevice*>(handle->priv);
}

typedef SgEntry MivoSgEntry;

#pragma GCC visibility push(hidden)

extern "C" {

// lifecycle.cpp
int32_t Mivo_Init(DrvInfo* handle);
int32_t Mivo_Exit(DrvInfo* handle);
int32_t Mivo_CardInit(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb);
void Mivo_PollClear(int fd);

// checks.cpp: false after a line of the caller's that says why.
void Mivo_ReportNotOpened(const char* caller, unsigned line) __attribute__((cold));
bool Mivo_HasNode(const MivoDevice* dev, const char* caller = __builtin_FUNCTION(),
                  unsigned line = __builtin_LINE());

// events.cpp
void Mivo_CheckEject(MivoDevice* dev);
void __Mivo_CheckEject(MivoDevice* dev) __attribute__((hot));
int Mivo_PollFailed(Failure failure) __attribute__((cold));
int Mivo_PollWait(int fd);

// sg_table.cpp
int32_t Mivo_SetSgEntry(MivoSgEntry* table, int32_t index, uint32_t addr, uint32_t len);
int32_t Mivo_Chunk2Sg(const MemoryChunkArray* chunks, MivoSgEntry* table) __attribute__((hot));

// transfers.cpp
int32_t Mivo_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t word);
int32_t Mivo_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                   uint32_t word);
int32_t Mivo_DrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t sectors,
                      MemoryChunkArray* chunks) __attribute__((hot));
int32_t Mivo_DrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t sectors,
                       MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
    __attribute__((hot));
int32_t Mivo_DrctRMW(DrvInfo* handle, BlockList* list);
int32_t Mivo_FatWrite(DrvInfo* handle, BlockList* list);
int32_t Mivo_SdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                        uint8_t cmd_byte0, uint8_t cmd_byte1);

// card_info.cpp
int32_t Mivo_CardGetInfo(DrvInfo* handle, CardInfo* info);
int32_t Mivo_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status);
int32_t Mivo_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed);
uint32_t Mivo_CardGetSize(DrvInfo* handle);

// card_control.cpp
int32_t Mivo_CardGetStatus(DrvInfo* handle, uint16_t* status);
int32_t Mivo_CardGetR1Status(DrvInfo* handle);
int32_t Mivo_CardGetWriteProtect(DrvInfo* handle);
int32_t Mivo_CardIoctl(DrvInfo* handle, int32_t command, int32_t argument);
int32_t Mivo_Ioctl(DrvInfo* handle, uint32_t request, void* argument);

}  // extern "C"

// Whether there is a record; a line of the caller's where there is none.
__attribute__((always_inline)) inline bool Mivo_IsOpened(const MivoDevice* dev,
                                                         const char* caller = __builtin_FUNCTION(),
                                                         unsigned line = __builtin_LINE())
{
    if (dev == nullptr) {
        Mivo_ReportNotOpened(caller, line);
        return false;
    }
    return true;
}

// Whether the card has gone. Without a callback nobody asked for that to be looked at.
__attribute__((always_inline)) inline bool Mivo_HasGone(MivoDevice* dev)
{
    if (dev->eject_cb != nullptr) {
        __Mivo_CheckEject(dev);
    }
    return IsLatched(&dev->ejected);
}

// Mivo_PollWait, within its caller.
__attribute__((always_inline)) inline int Mivo_WaitDone(int fd)
{
    const Wait wait = WaitForCompletion(fd);
    return wait.IsDone() ? 0 : Mivo_PollFailed(wait.WhyNot());
}

#pragma GCC visibility pop

#endif
