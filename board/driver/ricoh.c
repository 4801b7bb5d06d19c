/* SPDX-License-Identifier: MIT */
/* The Ricoh SD host: one block node. */
#include "cards.h"

#include <linux/blkdev.h>
#include <linux/err.h>

#define BLOCK_MAJOR 244
#define FIRST_MINOR 1

static int block_request(struct place *place, u32 request, const struct sim_memory *memory,
                         uintptr_t argument)
{
    struct card *card = place->card;

    return sim_ricoh_request(card ? &card->model : NULL, request, memory, argument);
}

/* The node says what card is in; the host has nothing to add. */
static void inserted(struct place *place, struct sim_card *card)
{
}

static const struct disk_model disk_model = {
    .major = BLOCK_MAJOR,
    .first_minor = FIRST_MINOR,
    .opens_read_only = true,
    .request = block_request,
};

static struct place host = {
    .name = "ricoh",
    .block_node = "sdcarda",
    .holds_cards = true,
    .inserted = inserted,
};

int ricoh_init(void)
{
    struct disk *disk;
    int failed = place_init(&host);

    if (failed)
        return failed;
    failed = register_blkdev(BLOCK_MAJOR, "sdcard");
    if (failed)
        goto no_major;
    disk = disk_create(&host, &disk_model);
    if (IS_ERR(disk)) {
        failed = PTR_ERR(disk);
        goto no_disk;
    }
    control_add(&host);
    return 0;

no_disk:
    unregister_blkdev(BLOCK_MAJOR, "sdcard");
no_major:
    place_free(&host);
    return failed;
}

void ricoh_exit(void)
{
    disk_remove(host.disk);
    unregister_blkdev(BLOCK_MAJOR, "sdcard");
    place_free(&host);
}
