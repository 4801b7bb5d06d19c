/* SPDX-License-Identifier: MIT */
/*
 * The block nodes. Reads and writes come from the page cache, one bio each; the cache is
 * kept in step with what goes past it through the character node.
 */
#include "cards.h"

#include <linux/blkdev.h>
#include <linux/highmem.h>
#include <linux/module.h>
#include <linux/pagemap.h>
#include <linux/slab.h>

#define MINORS_OF_DISK 16

struct disk {
    struct place *place;
    const struct disk_model *model;
    struct gendisk *gendisk;
    struct work_struct follow;
    unsigned long other_card; /* bit 0: the cache holds another card's sectors */
    unsigned int open;        /* with cards_lock */
};

static struct address_space *cache_of(struct disk *disk)
{
    return disk->gendisk->part0->bd_inode->i_mapping;
}

/* --- following the card --------------------------------------------------------------- */

/* A card that has gone keeps its size for those who have the node open: what they get is
 * an error, not the end of the card. */
static void follow_card(struct work_struct *work)
{
    struct disk *disk = container_of(work, struct disk, follow);
    struct card *card = place_card(disk->place);
    bool open;

    spin_lock(&cards_lock);
    open = disk->open;
    spin_unlock(&cards_lock);
    if (test_and_clear_bit(0, &disk->other_card))
        truncate_inode_pages(cache_of(disk), 0);
    set_disk_ro(disk->gendisk, card && card->model.write_protected);
    if (card)
        set_capacity_and_notify(disk->gendisk, card->model.sectors);
    else if (!open)
        set_capacity_and_notify(disk->gendisk, 0);
    card_put(card);
}

/* Not in the call that brought the change, which may be one from the page cache. */
void disk_follow(struct disk *disk, bool other_card)
{
    if (other_card)
        set_bit(0, &disk->other_card);
    queue_work(system_wq, &disk->follow);
}

void disk_settle(struct disk *disk)
{
    flush_work(&disk->follow);
}

/* --- the cache and transfers past it ---------------------------------------------------- */

void disk_before(struct disk *disk, const struct sim_transfer *transfer)
{
    struct address_space *cache = cache_of(disk);
    u32 i;

    if (!READ_ONCE(cache->nrpages))
        return;
    for (i = 0; i < transfer->pieces; i++) {
        const struct sim_piece *piece = &transfer->piece[i];

        filemap_write_and_wait_range(cache, piece->position, piece->position + piece->length - 1);
    }
}

void disk_after(struct disk *disk, const struct sim_transfer *transfer)
{
    struct address_space *cache = cache_of(disk);
    u32 i;

    if (transfer->direction == SIM_FROM_CARD || !READ_ONCE(cache->nrpages))
        return;
    for (i = 0; i < transfer->pieces; i++) {
        const struct sim_piece *piece = &transfer->piece[i];
        u64 last = piece->position + piece->length - 1;

        invalidate_inode_pages2_range(cache, piece->position >> PAGE_SHIFT, last >> PAGE_SHIFT);
    }
}

void disk_flush(struct disk *disk)
{
    filemap_write_and_wait(cache_of(disk));
}

void disk_drop(struct disk *disk)
{
    invalidate_inode_pages2(cache_of(disk));
}

/* --- reads and writes ---------------------------------------------------------------------- */

static int move_segment(struct card *card, struct bio_vec *segment, u64 position, bool write)
{
    void *bytes = bvec_kmap_local(segment);
    s64 moved;

    if (write)
        moved = sim_card_write(&card->model, position, bytes, segment->bv_len);
    else
        moved = sim_card_read(&card->model, position, bytes, segment->bv_len);
    kunmap_local(bytes);
    if (moved < 0)
        return moved;
    if (!write)
        flush_dcache_page(segment->bv_page);
    return moved == segment->bv_len ? 0 : -EIO;
}

static long move_bio(void *context, const struct outcome *outcome)
{
    struct bio *bio = context;
    struct disk *disk = bio->bi_bdev->bd_disk->private_data;
    struct card *card = place_card(disk->place);
    struct bvec_iter position;
    struct bio_vec segment;
    int failed = card ? 0 : -ENXIO;

    if (!failed) {
        bio_for_each_segment(segment, bio, position)
        {
            failed = move_segment(card, &segment, (u64)position.bi_sector * SIM_SECTOR_SIZE,
                                  op_is_write(bio_op(bio)));
            if (failed)
                break;
        }
    }
    card_put(card);
    return failed ? failed : bio->bi_iter.bi_size;
}

static void disk_submit_bio(struct bio *bio)
{
    struct disk *disk = bio->bi_bdev->bd_disk->private_data;
    struct call_info info = { CALL_READ, NODE_BLOCK, 0 };
    long result;

    switch (bio_op(bio)) {
    case REQ_OP_READ:
        break;
    case REQ_OP_WRITE:
        info.call = CALL_WRITE;
        break;
    default:
        bio->bi_status = BLK_STS_NOTSUPP;
        bio_endio(bio);
        return;
    }
    result = place_call(disk->place, &info, move_bio, bio);
    if (result < 0)
        bio->bi_status = errno_to_blk_status(result);
    bio_endio(bio);
}

/* --- open, close, requests -------------------------------------------------------------------- */

struct opening {
    struct disk *disk;
    fmode_t mode;
};

static long do_open(void *context, const struct outcome *outcome)
{
    struct opening *opening = context;
    struct disk *disk = opening->disk;
    struct place *place = disk->place;
    int failed = 0;

    spin_lock(&cards_lock);
    if (!place->card)
        failed = -ENOMEDIUM;
    else if (disk->model->opens_read_only && (opening->mode & FMODE_WRITE) &&
             place->card->model.write_protected)
        failed = -EROFS;
    if (!failed) {
        place_opened(place);
        disk->open++;
    }
    spin_unlock(&cards_lock);
    return failed;
}

static int disk_open(struct block_device *device, fmode_t mode)
{
    static const struct call_info info = { CALL_OPEN, NODE_BLOCK, 0 };
    struct opening opening = { device->bd_disk->private_data, mode };

    disk_settle(opening.disk);
    return place_call(opening.disk->place, &info, do_open, &opening);
}

static void disk_release(struct gendisk *gendisk, fmode_t mode)
{
    struct disk *disk = gendisk->private_data;

    spin_lock(&cards_lock);
    if (disk->open)
        disk->open--;
    spin_unlock(&cards_lock);
    place_closed(disk->place, NODE_BLOCK);
    disk_follow(disk, false);
}

struct disk_request {
    struct disk *disk;
    u32 request;
    unsigned long argument;
};

static long serve(void *context, const struct outcome *outcome)
{
    const struct disk_request *request = context;
    struct disk *disk = request->disk;
    struct card *card;
    long result;

    spin_lock(&cards_lock);
    card = place_card_locked(disk->place);
    result =
        disk->model->request(disk->place, request->request, &user_memory_locked, request->argument);
    spin_unlock(&cards_lock);
    card_put(card);
    return result;
}

static int disk_ioctl(struct block_device *device, fmode_t mode, unsigned int request,
                      unsigned long argument)
{
    const struct call_info info = { CALL_IOCTL, NODE_BLOCK, request };
    struct disk_request context = { device->bd_disk->private_data, request, argument };

    return place_call(context.disk->place, &info, serve, &context);
}

static const struct block_device_operations disk_operations = {
    .owner = THIS_MODULE,
    .submit_bio = disk_submit_bio,
    .open = disk_open,
    .release = disk_release,
    .ioctl = disk_ioctl,
};

/* --- life ---------------------------------------------------------------------------------------
 */

struct disk *disk_create(struct place *place, const struct disk_model *model)
{
    struct disk *disk = kzalloc(sizeof *disk, GFP_KERNEL);
    struct gendisk *gendisk;
    int failed;

    if (!disk)
        return ERR_PTR(-ENOMEM);
    gendisk = blk_alloc_disk(NUMA_NO_NODE);
    if (!gendisk) {
        kfree(disk);
        return ERR_PTR(-ENOMEM);
    }
    disk->place = place;
    disk->model = model;
    disk->gendisk = gendisk;
    INIT_WORK(&disk->follow, follow_card);
    gendisk->major = model->major;
    gendisk->first_minor = model->first_minor + (int)place->index * MINORS_OF_DISK;
    gendisk->minors = MINORS_OF_DISK;
    gendisk->flags |= GENHD_FL_NO_PART | GENHD_FL_REMOVABLE;
    gendisk->fops = &disk_operations;
    gendisk->private_data = disk;
    strscpy(gendisk->disk_name, place->block_node, sizeof gendisk->disk_name);
    blk_queue_flag_set(QUEUE_FLAG_NONROT, gendisk->queue);
    failed = add_disk(gendisk);
    if (failed) {
        put_disk(gendisk);
        kfree(disk);
        return ERR_PTR(failed);
    }
    place->disk = disk;
    return disk;
}

void disk_remove(struct disk *disk)
{
    disk->place->disk = NULL;
    del_gendisk(disk->gendisk);
    cancel_work_sync(&disk->follow);
    put_disk(disk->gendisk);
    kfree(disk);
}
