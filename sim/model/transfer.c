/* SPDX-License-Identifier: MIT */
#include "sim/model/transfer.h"

#define MOST_SG_ENTRIES 2048u

uint32_t sim_get_le32(const uint8_t *bytes)
{
    return (uint32_t)bytes[0] | (uint32_t)bytes[1] << 8 | (uint32_t)bytes[2] << 16 |
           (uint32_t)bytes[3] << 24;
}

/* As sim_move, from a byte position on, through a buffer of one sector. */
static int move_bytes(struct sim_card *card, enum sim_direction direction, uint64_t position,
                      const struct sim_memory *memory, uint32_t address, uint32_t length)
{
    uint8_t buffer[SIM_SECTOR_SIZE];

    while (length) {
        uint32_t step = length < SIM_SECTOR_SIZE ? length : SIM_SECTOR_SIZE;
        int64_t moved;

        if (direction == SIM_TO_CARD) {
            if (memory->get(memory->context, buffer, address, step))
                return -EFAULT;
            moved = sim_card_write(card, position, buffer, step);
        } else {
            moved = sim_card_read(card, position, buffer, step);
        }
        if (moved < 0)
            return (int)moved;
        if (moved != step)
            return -EIO; /* past the card's end */
        if (direction == SIM_FROM_CARD && memory->put(memory->context, address, buffer, step))
            return -EFAULT;
        position += step;
        address += step;
        length -= step;
    }
    return 0;
}

int sim_move(struct sim_card *card, enum sim_direction direction, uint32_t sector,
             const struct sim_memory *memory, uint32_t address, uint32_t length)
{
    return move_bytes(card, direction, (uint64_t)sector * SIM_SECTOR_SIZE, memory, address, length);
}

static int get_entry(const struct sim_memory *memory, uint32_t list, uint32_t index,
                     uint32_t *address, uint32_t *length)
{
    uint8_t entry[8];

    if (memory->get(memory->context, entry, (uintptr_t)list + index * 8, sizeof entry))
        return -EFAULT;
    *address = sim_get_le32(entry);
    *length = sim_get_le32(entry + 4);
    return 0;
}

static int check_list(uint32_t sectors, const struct sim_memory *memory, uint32_t list,
                      uint32_t entries)
{
    uint64_t total = 0;
    uint32_t i;

    for (i = 0; i < entries; i++) {
        uint32_t address, length;
        int failed = get_entry(memory, list, i, &address, &length);

        if (failed)
            return failed;
        if (((length & SIM_SG_END) != 0) != (i == entries - 1))
            return -EINVAL;
        length &= ~SIM_SG_END;
        if (length == 0 || length > SIM_SG_MAX_LEN)
            return -EINVAL;
        total += length;
    }
    return total == (uint64_t)sectors * SIM_SECTOR_SIZE ? 0 : -EINVAL;
}

int sim_move_list(struct sim_card *card, enum sim_direction direction, uint32_t sector,
                  uint32_t sectors, const struct sim_memory *memory, uint32_t list,
                  uint32_t list_bytes)
{
    uint64_t position = (uint64_t)sector * SIM_SECTOR_SIZE;
    uint32_t entries = list_bytes / 8;
    uint32_t i;
    int failed;

    if (list_bytes % 8 || entries > MOST_SG_ENTRIES)
        return -EINVAL;
    failed = check_list(sectors, memory, list, entries);
    for (i = 0; !failed && i < entries; i++) {
        uint32_t address, length;

        failed = get_entry(memory, list, i, &address, &length);
        length &= ~SIM_SG_END;
        if (!failed)
            failed = move_bytes(card, direction, position, memory, address, length);
        position += length;
    }
    return failed;
}
