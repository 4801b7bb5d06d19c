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

    if (memory->get(memory->context, entry, (uintptr_t)list + (uintptr_t)index * 8, sizeof entry))
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
        uint32_t address = 0;
        uint32_t length = 0;

        failed = get_entry(memory, list, i, &address, &length);
        length &= ~SIM_SG_END;
        if (!failed)
            failed = move_bytes(card, direction, position, memory, address, length);
        position += length;
    }
    return failed;
}

struct direct_record {
    uint32_t sector;
    uint32_t sectors;
    uint32_t list;
    uint32_t list_bytes;
};

struct elements_record {
    uint32_t count;
    uint32_t reserved;
    uint32_t elements;
};

struct element_record {
    uint32_t sector;
    uint32_t length;
    uint8_t sg_address[4];
    uint8_t sg_length[4];
};

struct command_record {
    uint8_t bytes[2];
    uint8_t padding[2];
    uint32_t data;
};

struct command_data_record {
    uint32_t argument;
    uint32_t length;
    uint32_t list;
    uint32_t list_bytes;
};

int sim_direct(struct sim_card *card, enum sim_direction direction, const struct sim_memory *memory,
               uintptr_t record)
{
    struct direct_record direct;

    if (memory->get(memory->context, &direct, record, sizeof direct))
        return -EFAULT;
    return sim_move_list(card, direction, direct.sector, direct.sectors, memory, direct.list,
                         direct.list_bytes);
}

static int write_element(struct sim_card *card, const struct sim_memory *memory, uintptr_t record,
                         uint32_t unit)
{
    struct element_record element;
    uint32_t length;

    if (memory->get(memory->context, &element, record, sizeof element))
        return -EFAULT;
    length = sim_get_le32(element.sg_length) & ~SIM_SG_END;
    if (length > SIM_SG_MAX_LEN || length > (uint64_t)element.length * unit)
        return -EINVAL;
    return sim_move(card, SIM_TO_CARD, element.sector, memory, sim_get_le32(element.sg_address),
                    length);
}

int sim_write_elements(struct sim_card *card, const struct sim_memory *memory, uintptr_t record,
                       uint32_t unit)
{
    struct elements_record list;
    int32_t i;
    int failed = 0;

    if (memory->get(memory->context, &list, record, sizeof list))
        return -EFAULT;
    for (i = 0; !failed && i < (int32_t)list.count; i++)
        failed = write_element(card, memory,
                               list.elements + (uintptr_t)i * sizeof(struct element_record), unit);
    return failed;
}

int sim_command_write(struct sim_card *card, const struct sim_memory *memory, uintptr_t record,
                      uint32_t unit)
{
    struct command_record command;
    struct command_data_record data;
    uint64_t bytes;

    if (memory->get(memory->context, &command, record, sizeof command) ||
        memory->get(memory->context, &data, command.data, sizeof data))
        return -EFAULT;
    bytes = (uint64_t)data.length * unit;
    if (bytes % SIM_SECTOR_SIZE)
        return -EINVAL;
    return sim_move_list(card, SIM_TO_CARD, data.argument, (uint32_t)(bytes / SIM_SECTOR_SIZE),
                         memory, data.list, data.list_bytes);
}
