/* SPDX-License-Identifier: MIT */
#include "sim/model/sd_card.h"

#define SECTORS_OF_LARGEST_V1_CARD 0x400000u /* 2 GiB */

uint8_t sim_crc7(const uint8_t *bytes, uint32_t length)
{
    uint8_t crc = 0;
    uint32_t i;
    int bit;

    for (i = 0; i < length; i++) {
        crc ^= bytes[i];
        for (bit = 0; bit < 8; bit++)
            crc = (uint8_t)((crc & 0x80) ? (crc << 1) ^ (0x09 << 1) : crc << 1);
    }
    return crc | 1;
}

/* Put `value` into the bits [high:low] of a 128-bit register. */
static void set_bits(uint8_t *reg, int high, int low, uint32_t value)
{
    int bit;

    for (bit = low; bit <= high; bit++, value >>= 1) {
        uint8_t mask = (uint8_t)(1u << (bit % 8));

        if (value & 1)
            reg[15 - bit / 8] |= mask;
        else
            reg[15 - bit / 8] &= (uint8_t)~mask;
    }
}

static void describe_cid(struct sim_card *card)
{
    /* No maker has number 0; "CD" and "SIM01" name the simulated card. */
    static const uint8_t cid[15] = { 0x00, 'C',  'D',  'S',  'I',  'M',  '0', '1',
                                     0x10, 0x20, 0x24, 0x00, 0x01, 0x01, 0x86 };

    memcpy(card->cid, cid, sizeof cid);
    card->cid[15] = sim_crc7(card->cid, 15);
}

/* Version 1 counts blocks of 512 to 2048 bytes in (C_SIZE + 1) << (MULT + 2).
 * The finest unit that reaches the capacity wastes least of it. */
static void describe_csd_v1(struct sim_card *card)
{
    uint32_t block_length = 9;
    uint32_t mult = 0;
    uint32_t units;

    while ((card->sectors >> (mult + 2) >> (block_length - 9)) > 4096) {
        if (mult < 7)
            mult++;
        else
            block_length++;
    }
    units = card->sectors >> (mult + 2) >> (block_length - 9);
    set_bits(card->csd, 119, 112, 0x26);
    set_bits(card->csd, 103, 96, 0x32);
    set_bits(card->csd, 95, 84, 0x5B5);
    set_bits(card->csd, 83, 80, block_length);
    set_bits(card->csd, 79, 79, 1);
    set_bits(card->csd, 73, 62, units ? units - 1 : 0);
    set_bits(card->csd, 49, 47, mult);
    set_bits(card->csd, 46, 46, 1);
    set_bits(card->csd, 45, 39, 0x7F);
    set_bits(card->csd, 28, 26, 4);
    set_bits(card->csd, 25, 22, block_length);
}

static void describe_csd_v2(struct sim_card *card)
{
    set_bits(card->csd, 127, 126, 1);
    set_bits(card->csd, 119, 112, 0x0E);
    set_bits(card->csd, 103, 96, 0x32);
    set_bits(card->csd, 95, 84, 0x5B5);
    set_bits(card->csd, 83, 80, 9);
    set_bits(card->csd, 69, 48, (card->sectors >> 10) - 1);
    set_bits(card->csd, 46, 46, 1);
    set_bits(card->csd, 45, 39, 0x7F);
    set_bits(card->csd, 28, 26, 2);
    set_bits(card->csd, 25, 22, 9);
}

static void describe_scr_and_status(struct sim_card *card)
{
    /* Physical layer 3.0x, 1 and 4 data lines. */
    static const uint8_t scr[8] = { 0x02, 0x35, 0x80, 0x00 };

    memcpy(card->scr, scr, sizeof scr);
    memset(card->sd_status, 0, sizeof card->sd_status);
    card->sd_status[0] = 0x80;  /* 4 data lines in use */
    card->sd_status[8] = 0x04;  /* speed class 10 */
    card->sd_status[10] = 0x90; /* allocation unit 4 MiB */
    card->sd_status[12] = 0x01; /* erase size 1 unit */
}

void sim_card_describe(struct sim_card *card, uint32_t sectors)
{
    card->sectors = sectors;
    memset(card->csd, 0, sizeof card->csd);
    if (sectors <= SECTORS_OF_LARGEST_V1_CARD)
        describe_csd_v1(card);
    else
        describe_csd_v2(card);
    card->csd[15] = sim_crc7(card->csd, 15);
    describe_cid(card);
    describe_scr_and_status(card);
}

/* How much of a transfer lies inside the card. */
static uint32_t inside(const struct sim_card *card, uint64_t position, uint32_t length)
{
    uint64_t end = (uint64_t)card->sectors * SIM_SECTOR_SIZE;

    if (position >= end)
        return 0;
    return end - position < length ? (uint32_t)(end - position) : length;
}

int64_t sim_card_read(struct sim_card *card, uint64_t position, void *to, uint32_t length)
{
    uint32_t moved = inside(card, position, length);
    int failed = moved ? card->media.read(card->media.context, position, to, moved) : 0;

    return failed ? failed : (int64_t)moved;
}

int64_t sim_card_write(struct sim_card *card, uint64_t position, const void *from, uint32_t length)
{
    uint32_t moved = inside(card, position, length);
    int failed;

    if (card->write_protected)
        return -EROFS;
    if (moved == 0)
        return length ? -ENOSPC : 0;
    failed = card->media.write(card->media.context, position, from, moved);
    return failed ? failed : (int64_t)moved;
}
