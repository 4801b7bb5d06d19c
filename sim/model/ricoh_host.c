/* SPDX-License-Identifier: MIT */
#include "sim/model/ricoh_host.h"

#define RICOH_GET_SD_STATUS 0x400178F4u
#define RICOH_GET_SIZE      0x400478FCu
#define RICOH_GET_CID       0x400178FEu
#define RICOH_GET_CSD       0x400178FFu

/*
 * The CSD goes out as the whole response that the card gave to the command: a
 * leading 3Fh, then the register. Callers point one byte ahead of where they
 * want the register. The CID goes out bare.
 */
static int put_csd_response(const struct sim_card *card, const struct sim_memory *memory,
                            uintptr_t argument)
{
    uint8_t response[17];

    response[0] = 0x3F;
    memcpy(response + 1, card->csd, 16);
    return memory->put(memory->context, argument, response, sizeof response);
}

int sim_ricoh_request(const struct sim_card *card, uint32_t request,
                      const struct sim_memory *memory, uintptr_t argument)
{
    if (!card)
        return -ENODEV;
    switch (request) {
    case RICOH_GET_CSD:
        return put_csd_response(card, memory, argument);
    case RICOH_GET_CID:
        return memory->put(memory->context, argument, card->cid, sizeof card->cid);
    case RICOH_GET_SD_STATUS:
        return memory->put(memory->context, argument, card->sd_status, sizeof card->sd_status);
    case RICOH_GET_SIZE:
        return memory->put(memory->context, argument, &card->sectors, sizeof card->sectors);
    default:
        return -ENOTTY;
    }
}
