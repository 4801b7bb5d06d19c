/* SPDX-License-Identifier: MIT */
/*
 * Direct transfers: data between a card and the pieces of a program's memory that
 * a scatter-gather list names. A list is 8-byte entries, least significant byte
 * first: address, then length with bit 31 set on the last.
 *
 * A transfer has two steps. The check reads the request's records and lists and says
 * whether it can be done; all that it needs to know is in struct sim_transfer then,
 * and what the program does to its records no longer matters. Carrying it out moves
 * the data.
 */
#ifndef CARDSIM_MODEL_TRANSFER_H
#define CARDSIM_MODEL_TRANSFER_H

#include "sim/model/sd_card.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_SG_END      0x80000000u
#define SIM_SG_MAX_LEN  65536u
#define SIM_MOST_PIECES 2048u

enum sim_direction { SIM_FROM_CARD, SIM_TO_CARD };

/* Never empty, and inside the card that it was checked against. */
struct sim_piece {
    uint64_t position; /* on the card, in bytes */
    uint32_t address;  /* in the program's memory */
    uint32_t length;
};

struct sim_transfer {
    enum sim_direction direction;
    uint32_t pieces;
    struct sim_piece piece[SIM_MOST_PIECES];
};

/* Bytes at `bytes`, least significant first. */
uint32_t sim_get_le32(const uint8_t *bytes);

/*
 * The checks return 0 or a negated errno value: -EFAULT for a record or a list that
 * cannot be read, -EINVAL for a bad one, -EROFS for a write to a protected card, -EIO
 * for a read past the card's end and -ENOSPC for a write.
 */

/* `sectors` sectors from `sector` on and the pieces of a list of `list_bytes` bytes:
 * at most SIM_MOST_PIECES entries, every length from 1 to 65536, the end mark on the
 * last entry and nowhere else, the lengths adding up to the sectors. */
int sim_check_list(struct sim_transfer *transfer, const struct sim_card *card,
                   enum sim_direction direction, uint32_t sector, uint32_t sectors,
                   const struct sim_memory *memory, uint32_t list, uint32_t list_bytes);

/*
 * The records of the Zel and the Mivo driver's transfer requests are the same, in the
 * processor's own byte order. Lengths in them count units of `unit` bytes: a sector
 * for the one, a byte for the other; where that matters it is given.
 */

/* {sector, sectors, list, list bytes} */
int sim_check_direct(struct sim_transfer *transfer, const struct sim_card *card,
                     enum sim_direction direction, const struct sim_memory *memory,
                     uintptr_t record);

/* {count, 0, address of {sector, length, address word, length word}[count]}, the last
 * two as they stood in a list. Each element has one piece of memory; where the element
 * is longer, its first 64 KiB are written. At most SIM_MOST_PIECES elements. */
int sim_check_elements(struct sim_transfer *transfer, const struct sim_card *card,
                       const struct sim_memory *memory, uintptr_t record, uint32_t unit);

/* {two bytes, padding, address of {argument, length, list, list bytes}}. The argument
 * is taken as the card's sector, as write commands of today's cards have it. */
int sim_check_command_write(struct sim_transfer *transfer, const struct sim_card *card,
                            const struct sim_memory *memory, uintptr_t record, uint32_t unit);

/* Move the data of a transfer that was checked against this card: 0 or a negated errno
 * value. Where the card's sectors lie in memory, `memory` is called once for each
 * piece, in order. */
int sim_carry_out(const struct sim_transfer *transfer, struct sim_card *card,
                  const struct sim_memory *memory);

#ifdef __cplusplus
}
#endif

#endif
