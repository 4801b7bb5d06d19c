/* SPDX-License-Identifier: MIT */
/*
 * An SD card as every host controller sees it: sectors and registers. What the
 * controllers make of them - requests, records, completion - stands with each
 * controller's own model.
 */
#ifndef CARDSIM_MODEL_SD_CARD_H
#define CARDSIM_MODEL_SD_CARD_H

#include "sim/model/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_SECTOR_SIZE 512

/* Where the sectors are kept. Both return 0 or a negated errno value; positions
 * and lengths are in bytes and lie inside the card. */
struct sim_media {
    int (*read)(void *context, uint64_t position, void *to, uint32_t length);
    int (*write)(void *context, uint64_t position, const void *from, uint32_t length);
    void *context;
    uint8_t *bytes; /* the sectors where they lie in memory as they are, or null */
};

/* Registers are most significant byte first. */
struct sim_card {
    uint32_t sectors;
    uint8_t cid[16];
    uint8_t csd[16];
    uint8_t scr[8];
    uint8_t sd_status[64];
    bool write_protected;
    struct sim_media media;
};

/* CRC7 of `length` bytes, as it stands in a register's last byte: shifted left,
 * with the end bit set. */
uint8_t sim_crc7(const uint8_t *bytes, uint32_t length);

/* Give the card a capacity and the registers of an ordinary card of that
 * capacity: a version 1 CSD up to 2 GiB, version 2 above. The CSD's own capacity
 * is `sectors` rounded down to what its fields can say, 4 sectors at least. Media
 * and protection are untouched. */
void sim_card_describe(struct sim_card *card, uint32_t sectors);

/* Bytes moved, 0 at the end of the card, or a negated errno value. A transfer is
 * cut at the card's end; a write beyond it is -ENOSPC and to a protected card
 * -EROFS, as a block device answers. */
int64_t sim_card_read(struct sim_card *card, uint64_t position, void *to, uint32_t length);
int64_t sim_card_write(struct sim_card *card, uint64_t position, const void *from, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif
