/* SPDX-License-Identifier: MIT */
#include "cards.h"

#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

/* --- in the call itself --------------------------------------------------------- */

static int put_user_bytes(void *context, uintptr_t to, const void *from, uint32_t length)
{
    return copy_to_user((void __user *)to, from, length) ? -EFAULT : 0;
}

static int get_user_bytes(void *context, void *to, uintptr_t from, uint32_t length)
{
    return copy_from_user(to, (const void __user *)from, length) ? -EFAULT : 0;
}

/* The program's memory may have to be fetched first, from one of these cards even. */
static int put_user_bytes_locked(void *context, uintptr_t to, const void *from, uint32_t length)
{
    int failed;

    spin_unlock(&cards_lock);
    failed = put_user_bytes(context, to, from, length);
    spin_lock(&cards_lock);
    return failed;
}

static int get_user_bytes_locked(void *context, void *to, uintptr_t from, uint32_t length)
{
    int failed;

    spin_unlock(&cards_lock);
    failed = get_user_bytes(context, to, from, length);
    spin_lock(&cards_lock);
    return failed;
}

const struct sim_memory user_memory = { put_user_bytes, get_user_bytes, NULL };
const struct sim_memory user_memory_locked = { put_user_bytes_locked, get_user_bytes_locked, NULL };

/* --- later ------------------------------------------------------------------------ */

static size_t pages_of(const struct sim_piece *piece)
{
    return DIV_ROUND_UP(offset_in_page(piece->address) + piece->length, PAGE_SIZE);
}

static int pin_pieces(struct pinned *pinned, const struct sim_transfer *transfer)
{
    unsigned int flags = pinned->write ? FOLL_WRITE : 0;
    u32 i;

    for (i = 0; i < transfer->pieces; i++) {
        const struct sim_piece *piece = &transfer->piece[i];
        size_t wanted = pages_of(piece);
        int got = pin_user_pages_fast(piece->address & PAGE_MASK, wanted, flags,
                                      pinned->pages + pinned->count);

        if (got > 0)
            pinned->count += got;
        if (got != wanted)
            return -EFAULT;
        cond_resched();
    }
    return 0;
}

int pinned_get(struct pinned *pinned, const struct sim_transfer *transfer)
{
    size_t pages = 0;
    int failed;
    u32 i;

    for (i = 0; i < transfer->pieces; i++)
        pages += pages_of(&transfer->piece[i]);
    pinned->pages = kvmalloc_array(pages, sizeof *pinned->pages, GFP_KERNEL);
    if (!pinned->pages)
        return -ENOMEM;
    pinned->count = 0;
    pinned->next = 0;
    pinned->write = transfer->direction == SIM_FROM_CARD;
    failed = pin_pieces(pinned, transfer);
    if (failed)
        pinned_put(pinned);
    return failed;
}

void pinned_put(struct pinned *pinned)
{
    if (!pinned->pages)
        return;
    unpin_user_pages_dirty_lock(pinned->pages, pinned->count, pinned->write);
    kvfree(pinned->pages);
    pinned->pages = NULL;
}

/* Called once for each piece, in order: every piece begins with a page of its own. */
static int put_pinned(void *context, uintptr_t to, const void *from, uint32_t length)
{
    struct pinned *pinned = context;

    while (length) {
        size_t offset = offset_in_page(to);
        size_t step = min_t(size_t, PAGE_SIZE - offset, length);

        memcpy_to_page(pinned->pages[pinned->next++], offset, from, step);
        to += step;
        from += step;
        length -= step;
    }
    cond_resched();
    return 0;
}

static int get_pinned(void *context, void *to, uintptr_t from, uint32_t length)
{
    struct pinned *pinned = context;

    while (length) {
        size_t offset = offset_in_page(from);
        size_t step = min_t(size_t, PAGE_SIZE - offset, length);

        memcpy_from_page(to, pinned->pages[pinned->next++], offset, step);
        to += step;
        from += step;
        length -= step;
    }
    cond_resched();
    return 0;
}

struct sim_memory pinned_memory(struct pinned *pinned)
{
    struct sim_memory memory = { put_pinned, get_pinned, pinned };

    return memory;
}
