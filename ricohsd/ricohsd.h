// SPDX-License-Identifier: MIT
//
// The Ricoh SD back-end: an SD card behind a Ricoh SD host controller, whose
// driver offers a block node with plain reads and writes and four requests.
#ifndef CARDDEV_RICOHSD_RICOHSD_H
#define CARDDEV_RICOHSD_RICOHSD_H

#include "carddev.h"
#include "common/request.h"

// The host driver's requests, on the block node. The size fields are the
// driver's own and do not tell how much it writes: 16 and 64 bytes go out under
// a size of 1. BLKGETSIZE is the host driver's, not the block layer's.
enum RicohSdRequest : uint32_t {
    SDCARD_GET_CSD = 0x400178FF,        // pointer to byte 15 of a CardInfo
    SDCARD_GET_CID = 0x400178FE,        // pointer to byte 0 of a CardInfo
    SDCARD_GET_SD_STATUS = 0x400178F4,  // pointer to 64 bytes
    RICOHSD_BLKGETSIZE = 0x400478FC,    // pointer to a uint32_t: sectors
};

static_assert(SDCARD_GET_CSD == RequestNumber(RequestDirection::Read, 1, 'x', 0xFF));
static_assert(SDCARD_GET_CID == RequestNumber(RequestDirection::Read, 1, 'x', 0xFE));
static_assert(SDCARD_GET_SD_STATUS == RequestNumber(RequestDirection::Read, 1, 'x', 0xF4));
static_assert(RICOHSD_BLKGETSIZE == RequestNumber(RequestDirection::Read, 4, 'x', 0xFC));

// State of a unit. A descriptor of 0 counts as not open; the negative number
// that a failed open leaves behind counts as open, and its calls fail.
struct RicohSdDev {
    int32_t index;        // the handle's dev_index
    int32_t read_only;    // 1 when the node could only be opened read-only
    int32_t blk_fd;       // the block node
    uint8_t* secure_buf;  // cached SD status, CARD_SD_STATUS_SIZE bytes, or null
    CardInfo* reg_buf;    // cached registers, or null
};

static_assert(sizeof(void*) != 4 || sizeof(RicohSdDev) == 20);

#pragma GCC visibility push(hidden)

extern "C" {

extern RicohSdDev ricoh_sd_dev[1];

int32_t RicohSD_Init(DrvInfo* handle);
int32_t RicohSD_Exit(DrvInfo* handle);
int32_t RicohSD_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                     uint32_t word);
int32_t RicohSD_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                      uint32_t word);
int32_t RicohSD_Ioctl(DrvInfo* handle, uint32_t request, void* argument);
int32_t RicohSD_CardIoctl(DrvInfo* handle, int32_t command, int32_t argument);
int32_t RicohSD_CardInit(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb);
int32_t RicohSD_CardGetStatus(DrvInfo* handle, uint16_t* status);
int32_t RicohSD_CardGetR1Status(DrvInfo* handle);
int32_t RicohSD_CardGetInfo(DrvInfo* handle, CardInfo* info);
int32_t RicohSD_CardGetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed);
int32_t RicohSD_CardSecureGetInfo(DrvInfo* handle, uint8_t* sd_status);
uint32_t RicohSD_CardGetSize(DrvInfo* handle);
int32_t RicohSD_CardGetWriteProtect(DrvInfo* handle);

}  // extern "C"

#pragma GCC visibility pop

#endif
