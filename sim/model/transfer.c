/* SPDX-License-Identifier: MIT */
#include "sim/model/transfer.h"

#define ENTRIES_AT_ONCE 32u

uint32_t sim_get_le32(const uint8_t *bytes)
{
    return (uint32_t)bytes[0] | (uint32_t)bytes[1] << 8 | (uint32_t)bytes[2] << 16 |
           (uint32_t)bytes[3] << 24;
}

/* --- the check ------------------------------------------------------------- */

static void begin(struct sim_transfer *transfer, enum sim_direction direction)
{
    transfer->direction = direction;
    transfer->pieces = 0;
}

/* Add a piece. The caller sees to it that there is room. */
static int add_piece(struct sim_transfer *transfer, const struct sim_card *card, uint64_t position,
                     uint32_t address, uint32_t length)
{
    struct sim_piece *piece = &transfer->piece[transfer->pieces];

    if (transfer->direction == SIM_TO_CARD && card->write_protected)
        return -EROFS;
    if (position + length > (uint64_t)card->sectors * SIM_SECTOR_SIZE)
        return transfer->direction == SIM_TO_CARD ? -ENOSPC : -EIO;
    piece->position = position;
    piece->address = address;
    piece->length = length;
    transfer->pieces++;
    return 0;
}

/* Note the list's entries as pieces, with their lengths as they stand there. */
static int get_entries(struct sim_transfer *transfer, const struct sim_memory *memory,
                       uint32_t list, uint32_t entries)
{
    uint8_t bytes[ENTRIES_AT_ONCE * 8];
    uint32_t i;

    for (i = 0; i < entries; i++) {
        const uint8_t *entry = bytes + (size_t)(i % ENTRIES_AT_ONCE) * 8;
        uint32_t left = entries - i;

        if (i % ENTRIES_AT_ONCE == 0 &&
            memory->get(memory->context, bytes, (uintptr_t)list + (uintptr_t)i * 8,
                        (left < ENTRIES_AT_ONCE ? left : ENTRIES_AT_ONCE) * 8))
            return -EFAULT;
        transfer->piece[i].address = sim_get_le32(entry);
        transfer->piece[i].length = sim_get_le32(entry + 4);
    }
    return 0;
}

static int check_entries(const struct sim_transfer *transfer, uint32_t sectors, uint32_t entries)
{
    uint64_t total = 0;
    uint32_t i;

    for (i = 0; i < entries; i++) {
        uint32_t length = transfer->piece[i].length;

        if (((length & SIM_SG_END) != 0) != (i == entries - 1))
            return -EINVAL;
        length &= ~SIM_SG_END;
        if (length == 0 || length > SIM_SG_MAX_LEN)
            return -EINVAL;
        total += length;
    }
    return total == (uint64_t)sectors * SIM_SECTOR_SIZE ? 0 : -EINVAL;
}

int sim_check_list(struct sim_transfer *transfer, const struct sim_card *card,
                   enum sim_direction direction, uint32_t sector, uint32_t sectors,
                   const struct sim_memory *memory, uint32_t list, uint32_t list_bytes)
{
    uint64_t position = (uint64_t)sector * SIM_SECTOR_SIZE;
    uint32_t entries = list_bytes / 8;
    uint32_t i;
    int failed;

    if (list_bytes % 8 || entries > SIM_MOST_PIECES)
        return -EINVAL;
    begin(transfer, direction);
    failed = get_entries(transfer, memory, list, entries);
    if (!failed)
        failed = check_entries(transfer, sectors, entries);
    for (i = 0; !failed && i < entries; i++) {
        uint32_t length = transfer->piece[i].length & ~SIM_SG_END;

        failed = add_piece(transfer, card, position, transfer->piece[i].address, length);
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

int sim_check_direct(struct sim_transfer *transfer, const struct sim_card *card,
                     enum sim_direction direction, const struct sim_memory *memory,
                     uintptr_t record)
{
    struct direct_record direct;

    if (memory->get(memory->context, &direct, record, sizeof direct))
        return -EFAULT;
    return sim_check_list(transfer, card, direction, direct.sector, direct.sectors, memory,
                          direct.list, direct.list_bytes);
}

static int check_element(struct sim_transfer *transfer, const struct sim_card *card,
                         const struct sim_memory *memory, uintptr_t record, uint32_t unit)
{
    struct element_record element;
    uint32_t length;

    if (memory->get(memory->context, &element, record, sizeof element))
        return -EFAULT;
    length = sim_get_le32(element.sg_length) & ~SIM_SG_END;
    if (length > SIM_SG_MAX_LEN || length > (uint64_t)element.length * unit)
        return -EINVAL;
    if (length == 0)
        return 0;
    return add_piece(transfer, card, (uint64_t)element.sector * SIM_SECTOR_SIZE,
                     sim_get_le32(element.sg_address), length);
}

int sim_check_elements(struct sim_transfer *transfer, const struct sim_card *card,
                       const struct sim_memory *memory, uintptr_t record, uint32_t unit)
{
    struct elements_record list;
    int32_t i;
    int failed = 0;

    if (memory->get(memory->context, &list, record, sizeof list))
        return -EFAULT;
    if ((int32_t)list.count > (int32_t)SIM_MOST_PIECES)
        return -EINVAL;
    begin(transfer, SIM_TO_CARD);
    for (i = 0; !failed && i < (int32_t)list.count; i++)
        failed = check_element(transfer, card, memory,
                               list.elements + (uintptr_t)i * sizeof(struct element_record), unit);
    return failed;
}

int sim_check_command_write(struct sim_transfer *transfer, const struct sim_card *card,
                            const struct sim_memory *memory, uintptr_t record, uint32_t unit)
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
    return sim_check_list(transfer, card, SIM_TO_CARD, data.argument,
                          (uint32_t)(bytes / SIM_SECTOR_SIZE), memory, data.list, data.list_bytes);
}

/* --- carrying out ------------------------------------------------------------ */

/* Through a buffer of one sector. */
static int move_by_sector(struct sim_card *card, enum sim_direction direction,
                          struct sim_piece piece, const struct sim_memory *memory)
{
    uint8_t buffer[SIM_SECTOR_SIZE];

    while (piece.length) {
        uint32_t step = piece.length < SIM_SECTOR_SIZE ? piece.length : SIM_SECTOR_SIZE;
        int64_t moved;

        if (direction == SIM_TO_CARD) {
            if (memory->get(memory->context, buffer, piece.address, step))
                return -EFAULT;
            moved = sim_card_write(card, piece.position, buffer, step);
        } else {
            moved = sim_card_read(card, piece.position, buffer, step);
        }
        if (moved < 0)
            return (int)moved;
        if (direction == SIM_FROM_CARD && memory->put(memory->context, piece.address, buffer, step))
            return -EFAULT;
        piece.position += step;
        piece.address += step;
        piece.length -= step;
    }
    return 0;
}

static int move_piece(struct sim_card *card, enum sim_direction direction,
                      const struct sim_piece *piece, const struct sim_memory *memory)
{
    uint8_t *bytes = card->media.bytes;

    if (!bytes)
        return move_by_sector(card, direction, *piece, memory);
    bytes += (size_t)piece->position;
    if (direction == SIM_TO_CARD)
        return memory->get(memory->context, bytes, piece->address, piece->length);
    return memory->put(memory->context, piece->address, bytes, piece->length);
}

int sim_carry_out(const struct sim_transfer *transfer, struct sim_card *card,
                  const struct sim_memory *memory)
{
    uint32_t i;
    int failed = 0;

    for (i = 0; !failed && i < transfer->pieces; i++)
        failed = move_piece(card, transfer->direction, &transfer->piece[i], memory);
    return failed;
}
