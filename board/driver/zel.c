/* SPDX-License-Identifier: MIT */
/* The Zel slots: a block and a character node for each, and the real-time control node. */
#include "cards.h"

#include <linux/blkdev.h>
#include <linux/cdev.h>
#include <linux/device.h>
#include <linux/err.h>
#include <linux/module.h>
#include <linux/slab.h>

#define BLOCK_MAJOR 240
#define FIRST_MINOR 1
#define CHAR_MAJOR  241
#define RT_MAJOR    242
#define ZEL_RESET   0x20007032u

struct slot {
    struct place place;
    struct unit unit;
    char name[8];
    char block_node[8];
    char char_node[8];
};

static struct sim_zel *zel;
static struct slot *slots;
static struct place rt = { .name = "rtctrl", .char_node = "rtctrl_zel" };
static struct cdev char_nodes;
static struct cdev rt_node;
static bool has_block_major;

/* --- the model ---------------------------------------------------------------------------- */

static int char_request(unsigned int index, u32 request, const struct sim_memory *memory,
                        uintptr_t argument)
{
    return sim_zel_char_request(zel, index, request, memory, argument);
}

static int start(unsigned int index, u32 request, const struct sim_memory *memory,
                 uintptr_t argument)
{
    return sim_zel_start(zel, index, request, memory, argument);
}

static void end(unsigned int index, int failed)
{
    sim_zel_end(zel, index, failed);
}

static bool fetch_end(unsigned int index)
{
    return sim_zel_fetch_end(zel, index);
}

static const struct unit_model unit_model = {
    .is_transfer = sim_zel_is_transfer,
    .request = char_request,
    .start = start,
    .end = end,
    .fetch_end = fetch_end,
    .reset = ZEL_RESET,
};

static int block_request(struct place *place, u32 request, const struct sim_memory *memory,
                         uintptr_t argument)
{
    return sim_zel_block_request(zel, place->index, request, memory, argument);
}

static const struct disk_model disk_model = {
    .major = BLOCK_MAJOR,
    .first_minor = FIRST_MINOR,
    .request = block_request,
};

static void inserted(struct place *place, struct sim_card *card)
{
    sim_zel_insert(zel, place->index, card);
}

/* --- what tests see -------------------------------------------------------------------------- */

static int show_slot(struct seq_file *file, struct place *place)
{
    const struct sim_zel_slot *slot = &zel->slot[place->index];

    seq_printf(file, "changed %d\nfinished %d\nversion 0x%02x\ndata_start %u\n", slot->changed,
               slot->finished, slot->version, slot->data_start);
    seq_printf(file, "resets %u\nlast_command %u\ncommand_word 0x%08x\n", slot->resets,
               slot->last_command, slot->command_word);
    return 0;
}

static int set_slot(struct place *place, const char *key, u32 value)
{
    if (strcmp(key, "version") != 0 || value > 0xFF)
        return -EINVAL;
    zel->slot[place->index].version = value;
    return 0;
}

static int show_rt(struct seq_file *file, struct place *place)
{
    const struct sim_rtctrl *state = &zel->rt;

    seq_printf(file, "rt_status %u\ndelay_status %u\non_for_wait %u\nlocks %d\nchannel %u\n",
               state->rt_status, state->delay_status, state->on_for_wait, state->locks,
               state->channel);
    seq_printf(file, "record %*phN\nanswer 0x%*phN\n", (int)sizeof state->record, state->record,
               (int)sizeof state->answer, state->answer);
    return 0;
}

static int set_rt(struct place *place, const char *key, u32 value)
{
    struct sim_rtctrl *state = &zel->rt;

    if (strcmp(key, "answer") == 0) {
        memcpy(state->answer, &value, sizeof state->answer);
        return 0;
    }
    if (value > 0xFF)
        return -EINVAL;
    if (strcmp(key, "rt_status") == 0)
        state->rt_status = value;
    else if (strcmp(key, "delay_status") == 0)
        state->delay_status = value;
    else if (strcmp(key, "on_for_wait") == 0)
        state->on_for_wait = value;
    else
        return -EINVAL;
    return 0;
}

/* --- character nodes ----------------------------------------------------------------------------
 */

static int char_open(struct inode *inode, struct file *file)
{
    return unit_open(&slots[iminor(inode)].unit, file);
}

static const struct file_operations char_operations = {
    .owner = THIS_MODULE,
    .open = char_open,
    .release = unit_release,
    .unlocked_ioctl = unit_ioctl,
    .poll = unit_poll,
    .llseek = no_llseek,
};

static long do_rt_open(void *context, const struct outcome *outcome)
{
    spin_lock(&cards_lock);
    place_opened(&rt);
    spin_unlock(&cards_lock);
    return 0;
}

static int rt_open(struct inode *inode, struct file *file)
{
    static const struct call_info info = { CALL_OPEN, NODE_CHAR, 0 };

    return place_call(&rt, &info, do_rt_open, NULL);
}

static int rt_release(struct inode *inode, struct file *file)
{
    place_closed(&rt, NODE_CHAR);
    return 0;
}

struct rt_request {
    u32 request;
    unsigned long argument;
};

static long serve_rt(void *context, const struct outcome *outcome)
{
    const struct rt_request *request = context;
    int result;

    spin_lock(&cards_lock);
    result = sim_rtctrl_request(zel, request->request, &user_memory_locked, request->argument);
    spin_unlock(&cards_lock);
    return result;
}

static long rt_ioctl(struct file *file, unsigned int request, unsigned long argument)
{
    const struct call_info info = { CALL_IOCTL, NODE_CHAR, request };
    struct rt_request context = { request, argument };

    return place_call(&rt, &info, serve_rt, &context);
}

static const struct file_operations rt_operations = {
    .owner = THIS_MODULE,
    .open = rt_open,
    .release = rt_release,
    .unlocked_ioctl = rt_ioctl,
    .llseek = no_llseek,
};

/* --- life ----------------------------------------------------------------------------------------
 */

static void describe_slot(struct slot *slot, unsigned int index)
{
    snprintf(slot->name, sizeof slot->name, "zel%u", index);
    snprintf(slot->block_node, sizeof slot->block_node, "spd%c", 'a' + index);
    snprintf(slot->char_node, sizeof slot->char_node, "spdr%c", 'a' + index);
    slot->place.name = slot->name;
    slot->place.block_node = slot->block_node;
    slot->place.char_node = slot->char_node;
    slot->place.holds_cards = true;
    slot->place.index = index;
    slot->place.inserted = inserted;
    slot->place.show_state = show_slot;
    slot->place.set_state = set_slot;
}

static int add_slot(struct slot *slot, unsigned int index)
{
    struct device *node;
    struct disk *disk;
    int failed;

    describe_slot(slot, index);
    failed = place_init(&slot->place);
    if (failed)
        return failed;
    unit_init(&slot->unit, &slot->place, &unit_model, &zel->slot[index].transfer);
    disk = disk_create(&slot->place, &disk_model);
    if (IS_ERR(disk))
        return PTR_ERR(disk);
    node = device_create(cards_class, NULL, MKDEV(CHAR_MAJOR, index), NULL, "%s", slot->char_node);
    if (IS_ERR(node))
        return PTR_ERR(node);
    control_add(&slot->place);
    return 0;
}

static int add_rt(void)
{
    struct device *node;
    int failed;

    rt.show_state = show_rt;
    rt.set_state = set_rt;
    failed = place_init(&rt);
    if (failed)
        return failed;
    node = device_create(cards_class, NULL, MKDEV(RT_MAJOR, 0), NULL, "%s", rt.char_node);
    if (IS_ERR(node))
        return PTR_ERR(node);
    control_add(&rt);
    return 0;
}

static int add_nodes(struct cdev *nodes, const struct file_operations *operations, dev_t first,
                     unsigned int count)
{
    int failed = register_chrdev_region(first, count, "zel");

    if (failed)
        return failed;
    cdev_init(nodes, operations);
    nodes->owner = THIS_MODULE;
    failed = cdev_add(nodes, first, count);
    if (failed) {
        nodes->ops = NULL;
        unregister_chrdev_region(first, count);
    }
    return failed;
}

static void remove_nodes(struct cdev *nodes, dev_t first, unsigned int count)
{
    if (!nodes->ops)
        return;
    cdev_del(nodes);
    unregister_chrdev_region(first, count);
    nodes->ops = NULL;
}

static void remove_slot(struct slot *slot)
{
    if (slot->place.disk)
        disk_remove(slot->place.disk);
    if (slot->place.trace.ring)
        place_free(&slot->place);
}

/* Undoes what has been done, however far zel_init came. */
void zel_exit(void)
{
    unsigned int i;

    remove_nodes(&rt_node, MKDEV(RT_MAJOR, 0), 1);
    remove_nodes(&char_nodes, MKDEV(CHAR_MAJOR, 0), SIM_ZEL_SLOTS);
    device_destroy(cards_class, MKDEV(RT_MAJOR, 0));
    for (i = 0; i < SIM_ZEL_SLOTS; i++)
        device_destroy(cards_class, MKDEV(CHAR_MAJOR, i));
    for (i = 0; slots && i < SIM_ZEL_SLOTS; i++)
        remove_slot(&slots[i]);
    if (rt.trace.ring)
        place_free(&rt);
    if (has_block_major)
        unregister_blkdev(BLOCK_MAJOR, "spd");
    kfree(slots);
    kvfree(zel);
}

static int add_all(void)
{
    unsigned int i;
    int failed;

    zel = kvzalloc(sizeof *zel, GFP_KERNEL);
    slots = kcalloc(SIM_ZEL_SLOTS, sizeof *slots, GFP_KERNEL);
    if (!zel || !slots)
        return -ENOMEM;
    sim_zel_init(zel);
    failed = register_blkdev(BLOCK_MAJOR, "spd");
    if (failed)
        return failed;
    has_block_major = true;
    for (i = 0; !failed && i < SIM_ZEL_SLOTS; i++)
        failed = add_slot(&slots[i], i);
    if (!failed)
        failed = add_rt();
    if (!failed)
        failed = add_nodes(&char_nodes, &char_operations, MKDEV(CHAR_MAJOR, 0), SIM_ZEL_SLOTS);
    if (!failed)
        failed = add_nodes(&rt_node, &rt_operations, MKDEV(RT_MAJOR, 0), 1);
    return failed;
}

int zel_init(void)
{
    int failed = add_all();

    if (failed) {
        control_exit();
        zel_exit();
    }
    return failed;
}
