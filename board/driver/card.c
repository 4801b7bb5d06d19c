/* SPDX-License-Identifier: MIT */
#include "cards.h"

#include <linux/err.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#define LARGEST_CARD (256u << 20)

static int read_media(void *context, uint64_t position, void *to, uint32_t length)
{
    struct card *card = context;

    memcpy(to, card->model.media.bytes + (size_t)position, length);
    return 0;
}

static int write_media(void *context, uint64_t position, const void *from, uint32_t length)
{
    struct card *card = context;

    memcpy(card->model.media.bytes + (size_t)position, from, length);
    return 0;
}

/* Ask first: a board that is short of memory would rather end programs. */
static void *get_sectors(size_t size)
{
    if (size / PAGE_SIZE > si_mem_available())
        return NULL;
    return __vmalloc(size, GFP_KERNEL | __GFP_RETRY_MAYFAIL | __GFP_NOWARN);
}

static int read_file(struct file *file, u8 *to, size_t size)
{
    loff_t position = 0;

    while (position < size) {
        ssize_t got = kernel_read(file, to + position, size - position, &position);

        if (got <= 0)
            return got ? got : -EIO;
    }
    return 0;
}

static int load_sectors(struct card *card, struct file *file)
{
    loff_t size = i_size_read(file_inode(file));
    u8 *sectors;
    int failed;

    if (!S_ISREG(file_inode(file)->i_mode) || size <= 0 || size & (SIM_SECTOR_SIZE - 1))
        return -EINVAL;
    if (size > LARGEST_CARD)
        return -EFBIG;
    sectors = get_sectors(size);
    if (!sectors)
        return -ENOMEM;
    failed = read_file(file, sectors, size);
    if (failed) {
        vfree(sectors);
        return failed;
    }
    card->model.media.bytes = sectors;
    sim_card_describe(&card->model, (u32)size / SIM_SECTOR_SIZE);
    return 0;
}

struct card *card_load(const char *path)
{
    struct card *card;
    struct file *file;
    int failed;

    card = kzalloc(sizeof *card, GFP_KERNEL);
    if (!card)
        return ERR_PTR(-ENOMEM);
    refcount_set(&card->references, 1);
    card->model.media.read = read_media;
    card->model.media.write = write_media;
    card->model.media.context = card;
    file = filp_open(path, O_RDONLY | O_LARGEFILE | O_NONBLOCK, 0);
    if (IS_ERR(file)) {
        kfree(card);
        return ERR_CAST(file);
    }
    failed = load_sectors(card, file);
    filp_close(file, NULL);
    if (failed) {
        kfree(card);
        return ERR_PTR(failed);
    }
    return card;
}

void card_get(struct card *card)
{
    refcount_inc(&card->references);
}

void card_put(struct card *card)
{
    if (!card || !refcount_dec_and_test(&card->references))
        return;
    vfree(card->model.media.bytes);
    kfree(card);
}
