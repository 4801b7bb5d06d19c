// SPDX-License-Identifier: MIT
//
// What the direct-transfer requests of the Zel and the Mivo driver point at. The
// layouts are the same; the unit of `length` is not, and stands with each back-end.
// Words are in the processor's own order, addresses are 32 bits on every host.
#ifndef CARDDEV_COMMON_TRANSFER_RECORDS_H
#define CARDDEV_COMMON_TRANSFER_RECORDS_H

#include <stddef.h>
#include <stdint.h>

struct direct_parm {
    uint32_t sector;    // first card sector
    uint32_t sectors;   // how many
    uint32_t sg_table;  // address of the table
    uint32_t sg_bytes;  // length of its used part: entries * 8
};

struct fsmiw_parm {
    uint32_t sector;   // first card sector of the element
    uint32_t length;   // Zel: sectors; Mivo: bytes
    uint32_t sg_addr;  // words of the element's first table entry, as stored there
    uint32_t sg_len;
};

struct fsmiw_req {
    uint32_t count;     // elements, as the list's header says
    uint32_t reserved;  // 0
    uint32_t parms;     // address of the elements
};

struct sdcmd_data {
    uint32_t cmd_arg;
    uint32_t length;    // Zel: sectors; Mivo: bytes
    uint32_t sg_table;  // address of the table
    uint32_t sg_bytes;  // length of its used part: entries * 8
};

struct sdcmd_parm {
    uint8_t cmd_byte0;
    uint8_t cmd_byte1;
    uint8_t padding[2];  // not written
    uint32_t data;       // address of the sdcmd_data behind it
};

struct sdcmd_request {
    sdcmd_parm parm;
    sdcmd_data data;
};

static_assert(sizeof(direct_parm) == 16 && offsetof(direct_parm, sectors) == 4);
static_assert(offsetof(direct_parm, sg_table) == 8 && offsetof(direct_parm, sg_bytes) == 12);
static_assert(sizeof(fsmiw_parm) == 16 && offsetof(fsmiw_parm, length) == 4);
static_assert(offsetof(fsmiw_parm, sg_addr) == 8 && offsetof(fsmiw_parm, sg_len) == 12);
static_assert(sizeof(fsmiw_req) == 12 && offsetof(fsmiw_req, parms) == 8);
static_assert(sizeof(sdcmd_data) == 16 && offsetof(sdcmd_data, length) == 4);
static_assert(offsetof(sdcmd_data, sg_table) == 8 && offsetof(sdcmd_data, sg_bytes) == 12);
static_assert(sizeof(sdcmd_parm) == 8 && offsetof(sdcmd_parm, cmd_byte1) == 1);
static_assert(offsetof(sdcmd_parm, data) == 4);
static_assert(sizeof(sdcmd_request) == 24 && offsetof(sdcmd_request, data) == 8);

#endif
