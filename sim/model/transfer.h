/* SPDX-License-Identifier: MIT */
/*
 * Direct transfers: data between a card and the pieces of a program's memory that
 * a scatter-gather list names. A list is 8-byte entries, least significant byte
 * first: address, then length with bit 31 set on the last.
 */
#ifndef CARDSIM_MODEL_TRANSFER_H
#define CARDSIM_MODEL_TRANSFER_H

#include "sim/model/sd_card.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_SG_END     0x80000000u
#define SIM_SG_MAX_LEN 65536u

enum sim_direction { SIM_FROM_CARD, SIM_TO_CARD };

/* Bytes at `bytes`, least significant first. */
uint32_t sim_get_le32(const uint8_t *bytes);

/* Move `length` bytes between the card, from sector `sector` on, and the program's
 * memory at `address`. 0 or a negated errno value. */
int sim_move(struct sim_card *card, enum sim_direction direction, uint32_t sector,
             const struct sim_memory *memory, uint32_t address, uint32_t length);

/* Move `sectors` sectors between the card and the pieces of a list of `list_bytes`
 * bytes. The whole list is checked before anything is moved: every length from 1 to
 * 65536, the end mark on the last entry and nowhere else, the lengths adding up to
 * the sectors - or -EINVAL. */
int sim_move_list(struct sim_card *card, enum sim_direction direction, uint32_t sector,
                  uint32_t sectors, const struct sim_memory *memory, uint32_t list,
                  uint32_t list_bytes);

#ifdef __cplusplus
}
#endif

#endif
