/* SPDX-License-Identifier: MIT */
/* The driver of the Mivo SD-card-to-CardBus adaptor: its requests on the units'
 * character nodes. */
#ifndef CARDSIM_MODEL_MIVO_ADAPTOR_H
#define CARDSIM_MODEL_MIVO_ADAPTOR_H

#include "sim/model/transfer.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SIM_MIVO_UNITS 2

struct sim_mivo_unit {
    struct sim_card *card;        /* null: the unit is empty */
    bool mounted;                 /* between the mount and the unmount request */
    bool finished;                /* a request has ended and nobody has been told yet */
    uint32_t resets;              /* reset requests so far */
    uint32_t last_command;        /* the last card command's number (2, 3, 4) ... */
    uint32_t command_word;        /* ... and its argument */
    struct sim_transfer transfer; /* the last one that was accepted */
};

struct sim_mivo {
    struct sim_mivo_unit unit[SIM_MIVO_UNITS];
};

/* Empty units, as after power-up. */
void sim_mivo_init(struct sim_mivo *mivo);

/* Put a card in or, with null, take the card out. */
void sim_mivo_insert(struct sim_mivo *mivo, unsigned int unit, struct sim_card *card);

/* Serve a request: the result, or a negated errno value; -ENOTTY for a request that
 * the driver does not know. A transfer is carried out at once and its end is left to
 * be fetched. */
int sim_mivo_request(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                     const struct sim_memory *memory, uintptr_t argument);

/* Whether a request moves data. */
bool sim_mivo_is_transfer(uint32_t request);

/* For drivers whose transfers take their time: check such a request and note it in the
 * unit's `transfer` (0, or the negated errno value that answers it), and, once it has
 * been carried out, the end. */
int sim_mivo_start(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                   const struct sim_memory *memory, uintptr_t argument);
void sim_mivo_end(struct sim_mivo *mivo, unsigned int index);

/* Whether a request has ended since the last call. */
bool sim_mivo_fetch_end(struct sim_mivo *mivo, unsigned int unit);

#ifdef __cplusplus
}
#endif

#endif
