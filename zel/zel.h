// SPDX-License-Identifier: MIT
//
// The Zel back-end: the card slots of the Zel card driver, each with a block node
// and a character node, and one real-time control node for all.
#ifndef CARDDEV_ZEL_ZEL_H
#define CARDDEV_ZEL_ZEL_H

#include <stddef.h>

#include "carddev.h"
#include "carddev_state.h"
#include "common/completion.h"
#include "common/latch.h"
#include "common/request.h"
#include "common/sg_table.h"

// The drivers' requests. Most say "no argument" in their number and take a record
// all the same; the numbers are the drivers' and are used as they are.
enum ZelRequest : uint32_t {
    // On dev_fd.
    BLKMNTFS = 0x2000BC0A,               // no argument
    ZEL_GET_CARD_PARAMS = 0x20007005,    // ZelCardParamsRequest
    ZEL_GET_DEVICE_PARAMS = 0x20007013,  // the caller's 36 bytes
    ZEL_CARD_CMD2 = 0x2000701B,          // the caller's argument
    ZEL_CARD_CMD3 = 0x2000701C,
    ZEL_CARD_CMD4 = 0x2000702B,
    // On blk_fd: the block layer's own.
    ZEL_BLKGETSIZE = 0x20001260,  // uint32_t: sectors
    // On chr_fd.
    ZEL_GET_CARD_STATUS = 0x20007001,      // ZelCardStatus
    ZEL_CHECK_WRITE_PROTECT = 0x20007008,  // no argument; the result is the answer
    ZEL_DIRECT_WRITE = 0x2000700C,         // direct_parm
    ZEL_DIRECT_READ = 0x2000700D,          // direct_parm
    ZEL_IDENTIFY_DEVICE = 0x20007016,      // 512 bytes
    ZEL_DIRECT_SEQ_WRITE = 0x20007018,     // direct_parm
    ZEL_FSMI_WRITE = 0x2000701D,           // fsmiw_req
    ZEL_SDCMD_WRITE = 0x2000701E,          // sdcmd_parm
    ZEL_SET_CARD_PARAMS = 0x20007029,      // ZelSetCardParams
    ZEL_DIRECT_RMW = 0x2000702A,           // fsmiw_req
    ZEL_RESET = 0x20007032,                // no argument
    // On rt_fd.
    RTCTRL_IOC_LOCK_RTON = 0x2000EC0A,           // no argument
    RTCTRL_IOC_UNLOCK_RTON = 0x2000EC0B,         // no argument
    RTCTRL_IOC_14 = 0x8014EC14,                  // the caller's 20 bytes
    RTCTRL_IOC_15 = 0x8004EC15,                  // the channel itself, not its address
    RTCTRL_IOC_18 = 0xC008EC18,                  // the caller's 8 bytes
    RTCTRL_IOC_1B = 0x8004EC1B,                  // the channel itself, not its address
    RTCTRL_IOC_CHECK_RT_STATUS = 0x4001EC1E,     // one byte
    RTCTRL_IOC_CHECK_DELAY_STATUS = 0x4001EC1F,  // one byte
    RTCTRL_IOC_IS_RTON4WAIT = 0x4001EC20,        // one byte
};

static_assert(BLKMNTFS == RequestNumber(RequestDirection::None, 0, 0xBC, 10));
static_assert(ZEL_GET_CARD_PARAMS == RequestNumber(RequestDirection::None, 0, 'p', 5));
static_assert(ZEL_GET_DEVICE_PARAMS == RequestNumber(RequestDirection::None, 0, 'p', 19));
static_assert(ZEL_CARD_CMD2 == RequestNumber(RequestDirection::None, 0, 'p', 27));
static_assert(ZEL_CARD_CMD3 == RequestNumber(RequestDirection::None, 0, 'p', 28));
static_assert(ZEL_CARD_CMD4 == RequestNumber(RequestDirection::None, 0, 'p', 43));
static_assert(ZEL_BLKGETSIZE == RequestNumber(RequestDirection::None, 0, 0x12, 96));
static_assert(ZEL_GET_CARD_STATUS == RequestNumber(RequestDirection::None, 0, 'p', 1));
static_assert(ZEL_CHECK_WRITE_PROTECT == RequestNumber(RequestDirection::None, 0, 'p', 8));
static_assert(ZEL_DIRECT_WRITE == RequestNumber(RequestDirection::None, 0, 'p', 12));
static_assert(ZEL_DIRECT_READ == RequestNumber(RequestDirection::None, 0, 'p', 13));
static_assert(ZEL_IDENTIFY_DEVICE == RequestNumber(RequestDirection::None, 0, 'p', 22));
static_assert(ZEL_DIRECT_SEQ_WRITE == RequestNumber(RequestDirection::None, 0, 'p', 24));
static_assert(ZEL_FSMI_WRITE == RequestNumber(RequestDirection::None, 0, 'p', 29));
static_assert(ZEL_SDCMD_WRITE == RequestNumber(RequestDirection::None, 0, 'p', 30));
static_assert(ZEL_SET_CARD_PARAMS == RequestNumber(RequestDirection::None, 0, 'p', 41));
static_assert(ZEL_DIRECT_RMW == RequestNumber(RequestDirection::None, 0, 'p', 42));
static_assert(ZEL_RESET == RequestNumber(RequestDirection::None, 0, 'p', 50));
static_assert(RTCTRL_IOC_LOCK_RTON == RequestNumber(RequestDirection::None, 0, 0xEC, 0x0A));
static_assert(RTCTRL_IOC_UNLOCK_RTON == RequestNumber(RequestDirection::None, 0, 0xEC, 0x0B));
static_assert(RTCTRL_IOC_14 == RequestNumber(RequestDirection::Write, 20, 0xEC, 0x14));
static_assert(RTCTRL_IOC_15 == RequestNumber(RequestDirection::Write, 4, 0xEC, 0x15));
static_assert(RTCTRL_IOC_18 == RequestNumber(RequestDirection::ReadWrite, 8, 0xEC, 0x18));
static_assert(RTCTRL_IOC_1B == RequestNumber(RequestDirection::Write, 4, 0xEC, 0x1B));
static_assert(RTCTRL_IOC_CHECK_RT_STATUS == RequestNumber(RequestDirection::Read, 1, 0xEC, 0x1E));
static_assert(RTCTRL_IOC_CHECK_DELAY_STATUS ==
              RequestNumber(RequestDirection::Read, 1, 0xEC, 0x1F));
static_assert(RTCTRL_IOC_IS_RTON4WAIT == RequestNumber(RequestDirection::Read, 1, 0xEC, 0x20));

// A bit of each mask stands for a slot, up to the eighth.
struct ZelCardStatus {
    uint8_t reserved0;
    uint8_t changed_mask;  // the card was removed or replaced since it was opened
    uint8_t present_mask;  // a card is there
    uint8_t reserved3;
};

struct ZelSetCardParams {
    uint32_t reserved0;   // 0
    uint32_t reserved1;   // 0
    uint32_t data_start;  // sector where the card's data area begins
};

enum ZelCardItem : uint32_t {
    ZEL_ITEM_SPEED = 33,
    ZEL_ITEM_CID = 48,
    ZEL_ITEM_CSD = 52,
    ZEL_ITEM_SD_STATUS = 60,
};

struct ZelCardParamsRequest {
    uint32_t item;  // ZelCardItem
    uint32_t buf;   // address of ZEL_CARD_PARAMS_SIZE bytes for the answer
};

constexpr uint32_t ZEL_CARD_PARAMS_SIZE = 536;
constexpr uint32_t ZEL_CARD_PARAMS_DATA = 24;  // where the item begins in the answer

static_assert(sizeof(ZelCardStatus) == 4);
static_assert(offsetof(ZelCardStatus, changed_mask) == 1);
static_assert(offsetof(ZelCardStatus, present_mask) == 2);
static_assert(sizeof(ZelSetCardParams) == 12 && offsetof(ZelSetCardParams, data_start) == 8);
static_assert(sizeof(ZelCardParamsRequest) == 8 && offsetof(ZelCardParamsRequest, buf) == 4);

// What a busy driver is granted, the same for every request.
constexpr int ZEL_BUSY_TRIES = 10;             // the tenth busy answer ends it
constexpr long ZEL_BUSY_PAUSE_NS = 400000000;  // 0.4 s before each further try

// Null for a handle that is null or not initialised.
inline ZelDevice* ZelDeviceOf(const DrvInfo* handle)
{
    return handle == nullptr ? nullptr : static_cast<ZelDevice*>(handle->priv);
}

typedef SgEntry ZelSgEntry;

#pragma GCC visibility push(hidden)

extern "C" {

// lifecycle.cpp
int32_t Zel_Init(DrvInfo* handle);
int32_t Zel_Exit(DrvInfo* handle);
int32_t Zel_CardInit(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb);
int32_t Zel_SetSdParams(DrvInfo* handle);
void Zel_PollClear(int fd);

// checks.cpp: false after a line of the caller's that says why.
void Zel_ReportNotOpened(const char* caller, unsigned line) __attribute__((cold));
bool Zel_HasBlockNode(const ZelDevice* dev, const char* caller = __builtin_FUNCTION(),
                      unsigned line = __builtin_LINE());
bool Zel_HasControlNode(const ZelDevice* dev, const char* caller = __builtin_FUNCTION(),
                        unsigned line = __builtin_LINE());

// events.cpp
void Zel_Pause(void);  // give a busy driver time
void Zel_CheckEject(ZelDevice* dev);
void __Zel_CheckEject(ZelDevice* dev) __attribute__((hot));
int Zel_PollFailed(Failure failure) __attribute__((cold));
int Zel_PollWait(int fd);

// sg_table.cpp
int32_t Zel_SetSgEntry(ZelSgEntry* table, int32_t index, uint32_t addr, uint32_t len);
int32_t Zel_Chunk2Sg(const MemoryChunkArray* chunks, ZelSgEntry* table) __attribute__((hot));

// transfers.cpp
int32_t Zel_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                 uint32_t word);
int32_t Zel_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t word);
int32_t Zel_DrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                     MemoryChunkArray* chunks) __attribute__((hot));
int32_t Zel_DrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                      MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried)
    __attribute__((hot));
int32_t Zel_DrctRMW(DrvInfo* handle, BlockList* list);
int32_t Zel_FatWrite(DrvInfo* handle, BlockList* list);
int32_t Zel_SdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                       uint8_t cmd_byte0, uint8_t cmd_byte1);

// card_info.cpp
int32_t Zel_CardGetInfo(DrvInfo* handle, CardInfo* info);
int32_t Zel_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed);
int32_t Zel_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status);
uint32_t Zel_CardGetSize(DrvInfo* handle);

// card_control.cpp
int32_t Zel_CardGetStatus(DrvInfo* handle, uint16_t* status);
int32_t Zel_CardGetR1Status(DrvInfo* handle);
int32_t Zel_CardGetWriteProtect(DrvInfo* handle);
int32_t Zel_CardIoctl(DrvInfo* handle, int32_t command, int32_t argument);

// realtime.cpp
int32_t Zel_Ioctl(DrvInfo* handle, uint32_t request, void* argument);
int32_t Zel_CheckRt(DrvInfo* handle);
int32_t Zel_CheckDelay(DrvInfo* handle);
int32_t Zel_RTOn4Wait(DrvInfo* handle);
void Zel_LockRTOn(DrvInfo* handle);
void Zel_UnlockRTOn(DrvInfo* handle);

}  // extern "C"

// Whether there is a record; a line of the caller's where there is none.
__attribute__((always_inline)) inline bool Zel_IsOpened(const ZelDevice* dev,
                                                        const char* caller = __builtin_FUNCTION(),
                                                        unsigned line = __builtin_LINE())
{
    if (dev == nullptr) {
        Zel_ReportNotOpened(caller, line);
        return false;
    }
    return true;
}

// Whether the card has gone. Without a callback nobody asked for that to be looked at.
__attribute__((always_inline)) inline bool Zel_HasGone(ZelDevice* dev)
{
    if (dev->eject_cb != nullptr) {
        __Zel_CheckEject(dev);
    }
    return IsLatched(&dev->ejected);
}

// Zel_PollWait, within its caller.
__attribute__((always_inline)) inline int Zel_WaitDone(int fd)
{
    const Wait wait = WaitForCompletion(fd);
    return wait.IsDone() ? 0 : Zel_PollFailed(wait.WhyNot());
}

#pragma GCC visibility pop

#endif
