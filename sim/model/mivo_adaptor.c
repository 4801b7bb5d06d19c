/* SPDX-License-Identifier: MIT */
#include "sim/model/mivo_adaptor.h"

#define MIVO_GET_STATUS        0x4006D300u
#define MIVO_GET_PROTECT       0x2000D307u
#define MIVO_GET_PARAMS        0x4030D30Fu
#define MIVO_GET_CID           0x4001D314u
#define MIVO_GET_CSD           0x4001D315u
#define MIVO_GET_SCR           0x4001D316u
#define MIVO_GET_SD_STATUS     0x4001D317u
#define MIVO_MOUNT             0x2000D318u
#define MIVO_UNMOUNT           0x2000D319u
#define MIVO_READ              0xC010D324u
#define MIVO_WRITE             0x8010D325u
#define MIVO_RMW               0x800CD326u
#define MIVO_COMMAND2          0x8001D327u
#define MIVO_COMMAND3          0x8001D328u
#define MIVO_COMMAND4          0x8001D329u
#define MIVO_FS_WRITE          0x800CD32Au
#define MIVO_COMMAND_WRITE     0x8008D32Bu
#define MIVO_ALTERNATIVE_WRITE 0x8010D32Eu
#define MIVO_RESET             0x2000D32Fu

#define PARAMS_WORDS 12

#define LENGTH_UNIT 1 /* of elements and command data */

void sim_mivo_init(struct sim_mivo *mivo)
{
    memset(mivo, 0, sizeof *mivo);
}

void sim_mivo_insert(struct sim_mivo *mivo, unsigned int unit, struct sim_card *card)
{
    mivo->unit[unit].card = card;
}

bool sim_mivo_is_transfer(uint32_t request)
{
    return request == MIVO_READ || request == MIVO_WRITE || request == MIVO_ALTERNATIVE_WRITE ||
           request == MIVO_RMW || request == MIVO_FS_WRITE || request == MIVO_COMMAND_WRITE;
}

bool sim_mivo_fetch_end(struct sim_mivo *mivo, unsigned int unit)
{
    bool finished = mivo->unit[unit].finished;

    mivo->unit[unit].finished = false;
    return finished;
}

/* Byte 3 has a bit for each unit with a card. */
static int get_status(const struct sim_mivo *mivo, const struct sim_memory *memory,
                      uintptr_t argument)
{
    uint8_t status[6] = { 0 };
    unsigned int i;

    for (i = 0; i < SIM_MIVO_UNITS; i++) {
        if (mivo->unit[i].card)
            status[3] |= (uint8_t)(1u << i);
    }
    return memory->put(memory->context, argument, status, sizeof status);
}

/* Sectors of the allocation unit that an AU_SIZE code of the SD status names. */
static uint32_t allocation_unit(uint8_t code)
{
    static const uint32_t sectors[16] = { 0,    32,   64,    128,   256,   512,   1024,  2048,
                                          4096, 8192, 16384, 24576, 32768, 49152, 65536, 131072 };

    return sectors[code & 15];
}

static int get_params(const struct sim_card *card, const struct sim_memory *memory,
                      uintptr_t argument)
{
    uint32_t words[PARAMS_WORDS] = { 0 };
    uint16_t halves[2]; /* at 38 and 40 */
    uint8_t record[sizeof words];

    words[5] = allocation_unit(card->sd_status[10] >> 4);
    words[6] = allocation_unit(card->sd_status[14] & 15);
    words[7] = (uint32_t)(card->sd_status[16] & 3) << 8 | card->sd_status[17];
    words[7] *= 2048; /* MiB */
    words[8] = card->sectors;
    words[11] = card->sd_status[15]; /* video speed class */
    halves[0] = card->sd_status[8];
    halves[1] = card->sd_status[14];
    memcpy(record, words, sizeof words);
    memcpy(record + 38, halves, sizeof halves);
    return memory->put(memory->context, argument, record, sizeof record);
}

static int check_transfer(struct sim_transfer *transfer, const struct sim_card *card,
                          uint32_t request, const struct sim_memory *memory, uintptr_t argument)
{
    switch (request) {
    case MIVO_READ:
        return sim_check_direct(transfer, card, SIM_FROM_CARD, memory, argument);
    case MIVO_WRITE:
    case MIVO_ALTERNATIVE_WRITE:
        return sim_check_direct(transfer, card, SIM_TO_CARD, memory, argument);
    case MIVO_RMW:
    case MIVO_FS_WRITE:
        return sim_check_elements(transfer, card, memory, argument, LENGTH_UNIT);
    default:
        return sim_check_command_write(transfer, card, memory, argument, LENGTH_UNIT);
    }
}

/* The driver signals the end of a failed request, too. */
int sim_mivo_start(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                   const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_mivo_unit *unit = &mivo->unit[index];
    int failed;

    if (!unit->card)
        return -ENODEV;
    if (!sim_mivo_is_transfer(request))
        return -ENOTTY;
    failed = check_transfer(&unit->transfer, unit->card, request, memory, argument);
    unit->finished = failed != 0;
    return failed;
}

void sim_mivo_end(struct sim_mivo *mivo, unsigned int index)
{
    mivo->unit[index].finished = true;
}

static int transfer_at_once(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                            const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_mivo_unit *unit = &mivo->unit[index];
    int failed = sim_mivo_start(mivo, index, request, memory, argument);

    if (failed)
        return failed;
    failed = sim_carry_out(&unit->transfer, unit->card, memory);
    sim_mivo_end(mivo, index);
    return failed;
}

static int card_command(struct sim_mivo_unit *unit, uint32_t command, uintptr_t argument)
{
    unit->last_command = command;
    unit->command_word = (uint32_t)argument;
    return 0;
}

/* Requests that need a card in the unit. */
static int card_request(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                        const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_mivo_unit *unit = &mivo->unit[index];
    struct sim_card *card = unit->card;

    switch (request) {
    case MIVO_GET_PROTECT:
        return card->write_protected;
    case MIVO_GET_PARAMS:
        return get_params(card, memory, argument);
    case MIVO_GET_CID:
        return memory->put(memory->context, argument, card->cid, sizeof card->cid);
    case MIVO_GET_CSD:
        return memory->put(memory->context, argument, card->csd, sizeof card->csd);
    case MIVO_GET_SCR:
        return memory->put(memory->context, argument, card->scr, sizeof card->scr);
    case MIVO_GET_SD_STATUS:
        return memory->put(memory->context, argument, card->sd_status, sizeof card->sd_status);
    case MIVO_COMMAND2:
        return card_command(unit, 2, argument);
    case MIVO_COMMAND3:
        return card_command(unit, 3, argument);
    case MIVO_COMMAND4:
        return card_command(unit, 4, argument);
    default:
        return transfer_at_once(mivo, index, request, memory, argument);
    }
}

int sim_mivo_request(struct sim_mivo *mivo, unsigned int index, uint32_t request,
                     const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_mivo_unit *unit = &mivo->unit[index];

    switch (request) {
    case MIVO_GET_STATUS:
        return get_status(mivo, memory, argument);
    case MIVO_UNMOUNT:
        unit->mounted = false;
        return 0;
    case MIVO_RESET:
        unit->resets++;
        unit->finished = false;
        return 0;
    case MIVO_MOUNT:
        unit->mounted = unit->card != NULL;
        return unit->card ? 0 : -ENODEV;
    default:
        return unit->card ? card_request(mivo, index, request, memory, argument) : -ENODEV;
    }
}
