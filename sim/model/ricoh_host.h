/* SPDX-License-Identifier: MIT */
/* The requests of the Ricoh SD host's driver on its block node. */
#ifndef CARDSIM_MODEL_RICOH_HOST_H
#define CARDSIM_MODEL_RICOH_HOST_H

#include "sim/model/sd_card.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Serve `request` with the program's `argument`: 0, or a negated errno value (-ENODEV
 * without a card, -ENOTTY for a request that the driver does not know). */
int sim_ricoh_request(const struct sim_card *card, uint32_t request,
                      const struct sim_memory *memory, uintptr_t argument);

#ifdef __cplusplus
}
#endif

#endif
