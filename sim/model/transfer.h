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

/*
 * The records of the Zel and the Mivo driver's transfer requests are the same, in the
 * processor's own byte order. Lengths in them count units of `unit` bytes: a sector
 * for the one, a byte for the other; where that matters it is given.
 */

/* {sector, sectors, list, list bytes} */
int sim_direct(struct sim_card *card, enum sim_direction direction, const struct sim_memory *memory,
               uintptr_t record);

/* {count, 0, address of {sector, length, address word, length word}[count]}, the last
 * two as they stood in a list. Each element has one piece of memory; where the element
 * is longer, its first 64 KiB are written. */
int sim_write_elements(struct sim_card *card, const struct sim_memory *memory, uintptr_t record,
                       uint32_t unit);

/* {two bytes, padding, address of {argument, length, list, list bytes}}. The argument
 * is taken as the card's sector, as write commands of today's cards have it. */
int sim_command_write(struct sim_card *card, const struct sim_memory *memory, uintptr_t record,
                      uint32_t unit);

#ifdef __cplusplus
}
#endif

#endif
