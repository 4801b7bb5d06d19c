/* SPDX-License-Identifier: MIT */
#include "sim/model/zel_slots.h"

/* Block nodes. */
#define BLK_GET_SIZE       0x20001260u
#define BLK_MOUNT          0x2000BC0Au
#define ZEL_GET_PARAMS     0x20007005u
#define ZEL_GET_DEV_PARAMS 0x20007013u
#define ZEL_COMMAND2       0x2000701Bu
#define ZEL_COMMAND3       0x2000701Cu
#define ZEL_COMMAND4       0x2000702Bu

/* Character nodes. */
#define ZEL_GET_STATUS    0x20007001u
#define ZEL_GET_PROTECT   0x20007008u
#define ZEL_WRITE         0x2000700Cu
#define ZEL_READ          0x2000700Du
#define ZEL_IDENTIFY      0x20007016u
#define ZEL_SEQ_WRITE     0x20007018u
#define ZEL_FS_WRITE      0x2000701Du
#define ZEL_COMMAND_WRITE 0x2000701Eu
#define ZEL_SET_PARAMS    0x20007029u
#define ZEL_RMW           0x2000702Au
#define ZEL_RESET         0x20007032u

/* The control node. */
#define RT_LOCK        0x2000EC0Au
#define RT_UNLOCK      0x2000EC0Bu
#define RT_RECORD      0x8014EC14u
#define RT_CHANNEL_15  0x8004EC15u
#define RT_EXCHANGE    0xC008EC18u
#define RT_CHANNEL_1B  0x8004EC1Bu
#define RT_STATUS      0x4001EC1Eu
#define RT_DELAY       0x4001EC1Fu
#define RT_ON_FOR_WAIT 0x4001EC20u

#define IDENTIFY_SIZE    512
#define IDENTIFY_VERSION 271
#define VERSION_TODAY    0x40
#define PARAMS_SIZE      536
#define PARAMS_DATA      24

#define LENGTH_UNIT SIM_SECTOR_SIZE /* of elements and command data */

/* Records, in the processor's own byte order. */
struct params_request {
    uint32_t item;
    uint32_t buffer;
};

void sim_zel_init(struct sim_zel *zel)
{
    unsigned int i;

    memset(zel, 0, sizeof *zel);
    for (i = 0; i < SIM_ZEL_SLOTS; i++)
        zel->slot[i].version = VERSION_TODAY;
}

void sim_zel_insert(struct sim_zel *zel, unsigned int unit, struct sim_card *card)
{
    zel->slot[unit].card = card;
    zel->slot[unit].changed = true;
}

bool sim_zel_is_transfer(uint32_t request)
{
    return request == ZEL_READ || request == ZEL_WRITE || request == ZEL_SEQ_WRITE ||
           request == ZEL_RMW || request == ZEL_FS_WRITE || request == ZEL_COMMAND_WRITE;
}

bool sim_zel_fetch_end(struct sim_zel *zel, unsigned int unit)
{
    bool finished = zel->slot[unit].finished;

    zel->slot[unit].finished = false;
    return finished;
}

/* --- block nodes --------------------------------------------------------- */

/* 24 bytes stand ahead of every item. */
static int get_params(const struct sim_card *card, const struct sim_memory *memory,
                      uintptr_t argument)
{
    struct params_request request;
    uint8_t answer[PARAMS_SIZE] = { 0 };

    if (memory->get(memory->context, &request, argument, sizeof request))
        return -EFAULT;
    switch (request.item) {
    case 33: /* speed: five values, ready-made */
        answer[148] = card->sd_status[8];
        answer[152] = card->sd_status[9];
        answer[157] = card->sd_status[12];
        answer[158] = card->sd_status[13];
        answer[163] = card->sd_status[10] >> 4;
        break;
    case 48:
        memcpy(answer + PARAMS_DATA, card->cid, sizeof card->cid);
        break;
    case 52:
        memcpy(answer + PARAMS_DATA, card->csd, sizeof card->csd);
        break;
    case 60:
        memcpy(answer + PARAMS_DATA, card->sd_status, sizeof card->sd_status);
        break;
    default:
        return -EINVAL;
    }
    return memory->put(memory->context, request.buffer, answer, sizeof answer);
}

static int get_device_params(const struct sim_card *card, const struct sim_memory *memory,
                             uintptr_t argument)
{
    uint32_t words[9] = { 0 };

    words[0] = card->sectors;
    words[1] = SIM_SECTOR_SIZE;
    return memory->put(memory->context, argument, words, sizeof words);
}

static int card_command(struct sim_zel_slot *slot, uint32_t command, uintptr_t argument)
{
    slot->last_command = command;
    slot->command_word = (uint32_t)argument;
    return 0;
}

int sim_zel_block_request(struct sim_zel *zel, unsigned int unit, uint32_t request,
                          const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_zel_slot *slot = &zel->slot[unit];

    if (!slot->card)
        return -ENODEV;
    switch (request) {
    case BLK_GET_SIZE:
        return memory->put(memory->context, argument, &slot->card->sectors,
                           sizeof slot->card->sectors);
    case BLK_MOUNT:
        slot->changed = false;
        return 0;
    case ZEL_GET_PARAMS:
        return get_params(slot->card, memory, argument);
    case ZEL_GET_DEV_PARAMS:
        return get_device_params(slot->card, memory, argument);
    case ZEL_COMMAND2:
        return card_command(slot, 2, argument);
    case ZEL_COMMAND3:
        return card_command(slot, 3, argument);
    case ZEL_COMMAND4:
        return card_command(slot, 4, argument);
    default:
        return -ENOTTY;
    }
}

/* --- character nodes ------------------------------------------------------ */

/* Masks with a bit for each slot: byte 1 changed, byte 2 present. */
static int get_status(const struct sim_zel *zel, const struct sim_memory *memory,
                      uintptr_t argument)
{
    uint8_t status[4] = { 0 };
    unsigned int i;

    for (i = 0; i < SIM_ZEL_SLOTS; i++) {
        if (zel->slot[i].changed)
            status[1] |= (uint8_t)(1u << i);
        if (zel->slot[i].card)
            status[2] |= (uint8_t)(1u << i);
    }
    return memory->put(memory->context, argument, status, sizeof status);
}

static int identify(const struct sim_zel_slot *slot, const struct sim_memory *memory,
                    uintptr_t argument)
{
    uint8_t block[IDENTIFY_SIZE] = { 0 };

    block[IDENTIFY_VERSION] = slot->version;
    return memory->put(memory->context, argument, block, sizeof block);
}

static int set_params(struct sim_zel_slot *slot, const struct sim_memory *memory,
                      uintptr_t argument)
{
    uint32_t words[3];

    if (memory->get(memory->context, words, argument, sizeof words))
        return -EFAULT;
    slot->data_start = words[2];
    return 0;
}

static int check_transfer(struct sim_transfer *transfer, const struct sim_card *card,
                          uint32_t request, const struct sim_memory *memory, uintptr_t argument)
{
    switch (request) {
    case ZEL_READ:
        return sim_check_direct(transfer, card, SIM_FROM_CARD, memory, argument);
    case ZEL_WRITE:
    case ZEL_SEQ_WRITE:
        return sim_check_direct(transfer, card, SIM_TO_CARD, memory, argument);
    case ZEL_RMW:
    case ZEL_FS_WRITE:
        return sim_check_elements(transfer, card, memory, argument, LENGTH_UNIT);
    default:
        return sim_check_command_write(transfer, card, memory, argument, LENGTH_UNIT);
    }
}

/* A request that fails takes an end away that nobody has been told. */
int sim_zel_start(struct sim_zel *zel, unsigned int unit, uint32_t request,
                  const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_zel_slot *slot = &zel->slot[unit];

    if (!slot->card)
        return -ENODEV;
    if (!sim_zel_is_transfer(request))
        return -ENOTTY;
    slot->finished = false;
    return check_transfer(&slot->transfer, slot->card, request, memory, argument);
}

void sim_zel_end(struct sim_zel *zel, unsigned int unit, int failed)
{
    zel->slot[unit].finished = !failed;
}

static int transfer_at_once(struct sim_zel *zel, unsigned int unit, uint32_t request,
                            const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_zel_slot *slot = &zel->slot[unit];
    int failed = sim_zel_start(zel, unit, request, memory, argument);

    if (failed)
        return failed;
    failed = sim_carry_out(&slot->transfer, slot->card, memory);
    sim_zel_end(zel, unit, failed);
    return failed;
}

int sim_zel_char_request(struct sim_zel *zel, unsigned int unit, uint32_t request,
                         const struct sim_memory *memory, uintptr_t argument)
{
    struct sim_zel_slot *slot = &zel->slot[unit];

    switch (request) {
    case ZEL_GET_STATUS:
        return get_status(zel, memory, argument);
    case ZEL_GET_PROTECT:
        return slot->card ? slot->card->write_protected : -ENODEV;
    case ZEL_IDENTIFY:
        return slot->card ? identify(slot, memory, argument) : -ENODEV;
    case ZEL_SET_PARAMS:
        return set_params(slot, memory, argument);
    case ZEL_RESET:
        slot->resets++;
        slot->finished = false;
        return 0;
    default:
        return transfer_at_once(zel, unit, request, memory, argument);
    }
}

/* --- the control node ------------------------------------------------------- */

static int put_byte(const struct sim_memory *memory, uintptr_t argument, uint8_t byte)
{
    return memory->put(memory->context, argument, &byte, 1);
}

static int rt_record(struct sim_rtctrl *rt, const struct sim_memory *memory, uintptr_t argument)
{
    if (memory->get(memory->context, rt->record, argument, sizeof rt->record))
        return -EFAULT;
    memcpy(&rt->channel, rt->record, sizeof rt->channel);
    return 0;
}

static int rt_exchange(struct sim_rtctrl *rt, const struct sim_memory *memory, uintptr_t argument)
{
    uint8_t record[8];

    if (memory->get(memory->context, record, argument, sizeof record))
        return -EFAULT;
    memcpy(&rt->channel, record, sizeof rt->channel);
    memcpy(record + 4, rt->answer, sizeof rt->answer);
    return memory->put(memory->context, argument, record, sizeof record);
}

int sim_rtctrl_request(struct sim_zel *zel, uint32_t request, const struct sim_memory *memory,
                       uintptr_t argument)
{
    struct sim_rtctrl *rt = &zel->rt;

    switch (request) {
    case RT_LOCK:
        rt->locks++;
        return 0;
    case RT_UNLOCK:
        rt->locks--;
        return 0;
    case RT_STATUS:
        return put_byte(memory, argument, rt->rt_status);
    case RT_DELAY:
        return put_byte(memory, argument, rt->delay_status);
    case RT_ON_FOR_WAIT:
        return put_byte(memory, argument, rt->on_for_wait);
    case RT_RECORD:
        return rt_record(rt, memory, argument);
    case RT_EXCHANGE:
        return rt_exchange(rt, memory, argument);
    case RT_CHANNEL_15:
    case RT_CHANNEL_1B:
        rt->channel = (uint32_t)argument; /* by value */
        return 0;
    default:
        return -ENOTTY;
    }
}
