/* SPDX-License-Identifier: MIT */
/*
 * The card-slot driver of the Zel slots and the real-time control driver beside
 * it: their requests on the block nodes, the character nodes and the control node.
 */
#ifndef CARDSIM_MODEL_ZEL_SLOTS_H
#define CARDSIM_MODEL_ZEL_SLOTS_H

#include "sim/model/transfer.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_ZEL_SLOTS 6

struct sim_zel_slot {
    struct sim_card *card;        /* null: the slot is empty */
    bool changed;                 /* removed or replaced since the slot was last opened */
    bool finished;                /* a request has ended and nobody has been told yet */
    uint8_t version;              /* what the identify block says, 0x40 for a card of today */
    uint32_t data_start;          /* from the last format parameters; 0 before any */
    uint32_t resets;              /* reset requests so far */
    uint32_t last_command;        /* the last card command's number (2, 3, 4) ... */
    uint32_t command_word;        /* ... and its argument */
    struct sim_transfer transfer; /* the last one that was accepted */
};

/* The control node. `channel` and `record` are what the last request about one
 * unit carried. */
struct sim_rtctrl {
    uint8_t rt_status;
    uint8_t delay_status;
    uint8_t on_for_wait;
    int locks; /* lock requests less unlock requests */
    uint32_t channel;
    uint8_t record[20];
    uint8_t answer[4]; /* second word of the two-way request's answer */
};

struct sim_zel {
    struct sim_zel_slot slot[SIM_ZEL_SLOTS];
    struct sim_rtctrl rt;
};

/* Empty slots, everything else as after power-up. */
void sim_zel_init(struct sim_zel *zel);

/* Put a card in or, with null, take the card out. The slot counts as changed. */
void sim_zel_insert(struct sim_zel *zel, unsigned int unit, struct sim_card *card);

/* Serve a request: the result, or a negated errno value; -ENOTTY for a request that
 * the node does not know. A transfer is carried out at once and its end is left to
 * be fetched. */
int sim_zel_block_request(struct sim_zel *zel, unsigned int unit, uint32_t request,
                          const struct sim_memory *memory, uintptr_t argument);
int sim_zel_char_request(struct sim_zel *zel, unsigned int unit, uint32_t request,
                         const struct sim_memory *memory, uintptr_t argument);
int sim_rtctrl_request(struct sim_zel *zel, uint32_t request, const struct sim_memory *memory,
                       uintptr_t argument);

/* Whether a character node's request moves data. */
bool sim_zel_is_transfer(uint32_t request);

/* For drivers whose transfers take their time: check such a request and note it in the
 * slot's `transfer` (0, or the negated errno value that answers it), and, once it has
 * been carried out, the end. */
int sim_zel_start(struct sim_zel *zel, unsigned int unit, uint32_t request,
                  const struct sim_memory *memory, uintptr_t argument);
void sim_zel_end(struct sim_zel *zel, unsigned int unit, int failed);

/* Whether a request has ended since the last call. */
bool sim_zel_fetch_end(struct sim_zel *zel, unsigned int unit);

#ifdef __cplusplus
}
#endif

#endif
