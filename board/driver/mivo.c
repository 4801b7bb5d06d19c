/* SPDX-License-Identifier: MIT */
/* The Mivo adaptor: a character node for each unit, with plain reads and writes, too. */
#include "cards.h"

#include <linux/cdev.h>
#include <linux/device.h>
#include <linux/err.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/uaccess.h>

#define CHAR_MAJOR 248
#define MIVO_RESET 0x2000D32Fu

struct adaptor_unit {
    struct place place;
    struct unit unit;
    char name[8];
    char char_node[16];
};

static struct sim_mivo *mivo;
static struct adaptor_unit *units;
static struct cdev nodes;

/* --- the model ------------------------------------------------------------------------------ */

static int request(unsigned int index, u32 number, const struct sim_memory *memory,
                   uintptr_t argument)
{
    return sim_mivo_request(mivo, index, number, memory, argument);
}

static int start(unsigned int index, u32 number, const struct sim_memory *memory,
                 uintptr_t argument)
{
    return sim_mivo_start(mivo, index, number, memory, argument);
}

static void end(unsigned int index, int failed)
{
    sim_mivo_end(mivo, index);
}

static bool fetch_end(unsigned int index)
{
    return sim_mivo_fetch_end(mivo, index);
}

static const struct unit_model unit_model = {
    .is_transfer = sim_mivo_is_transfer,
    .request = request,
    .start = start,
    .end = end,
    .fetch_end = fetch_end,
    .reset = MIVO_RESET,
};

static void inserted(struct place *place, struct sim_card *card)
{
    sim_mivo_insert(mivo, place->index, card);
}

static int show_unit(struct seq_file *file, struct place *place)
{
    const struct sim_mivo_unit *unit = &mivo->unit[place->index];

    seq_printf(file, "mounted %d\nfinished %d\nresets %u\nlast_command %u\ncommand_word 0x%08x\n",
               unit->mounted, unit->finished, unit->resets, unit->last_command, unit->command_word);
    return 0;
}

/* --- plain reads and writes --------------------------------------------------------------------
 */

struct plain {
    struct card *card;
    char __user *bytes;
    size_t length;
    loff_t *position;
};

static loff_t size_of(const struct card *card)
{
    return (loff_t)card->model.sectors * SIM_SECTOR_SIZE;
}

static long move_in(void *context, const struct outcome *outcome)
{
    struct plain *plain = context;

    if (!plain->card)
        return -ENXIO;
    return simple_read_from_buffer(plain->bytes, plain->length, plain->position,
                                   plain->card->model.media.bytes, size_of(plain->card));
}

static long move_out(void *context, const struct outcome *outcome)
{
    struct plain *plain = context;

    if (!plain->card)
        return -ENXIO;
    if (plain->card->model.write_protected)
        return -EROFS;
    if (plain->length && *plain->position >= size_of(plain->card))
        return -ENOSPC;
    return simple_write_to_buffer(plain->card->model.media.bytes, size_of(plain->card),
                                  plain->position, plain->bytes, plain->length);
}

static ssize_t move_plain(struct file *file, enum call call, struct plain *plain)
{
    const struct call_info info = { call, NODE_CHAR, 0 };
    struct place *place = unit_of(file)->place;
    ssize_t result;

    plain->card = place_card(place);
    result = place_call(place, &info, call == CALL_READ ? move_in : move_out, plain);
    card_put(plain->card);
    return result;
}

static ssize_t char_read(struct file *file, char __user *to, size_t length, loff_t *position)
{
    struct plain plain = { NULL, to, length, position };

    return move_plain(file, CALL_READ, &plain);
}

static ssize_t char_write(struct file *file, const char __user *from, size_t length,
                          loff_t *position)
{
    struct plain plain = { NULL, (char __user *)from, length, position };

    return move_plain(file, CALL_WRITE, &plain);
}

static loff_t char_seek(struct file *file, loff_t offset, int whence)
{
    struct card *card = place_card(unit_of(file)->place);
    loff_t result = fixed_size_llseek(file, offset, whence, card ? size_of(card) : 0);

    card_put(card);
    return result;
}

static int char_open(struct inode *inode, struct file *file)
{
    return unit_open(&units[iminor(inode)].unit, file);
}

static const struct file_operations char_operations = {
    .owner = THIS_MODULE,
    .open = char_open,
    .release = unit_release,
    .unlocked_ioctl = unit_ioctl,
    .poll = unit_poll,
    .read = char_read,
    .write = char_write,
    .llseek = char_seek,
};

/* --- life ----------------------------------------------------------------------------------------
 */

static int add_unit(struct adaptor_unit *unit, unsigned int index)
{
    struct device *node;
    int failed;

    snprintf(unit->name, sizeof unit->name, "mivo%u", index);
    snprintf(unit->char_node, sizeof unit->char_node, "mivosdif%u", index);
    unit->place.name = unit->name;
    unit->place.char_node = unit->char_node;
    unit->place.holds_cards = true;
    unit->place.index = index;
    unit->place.inserted = inserted;
    unit->place.show_state = show_unit;
    failed = place_init(&unit->place);
    if (failed)
        return failed;
    unit_init(&unit->unit, &unit->place, &unit_model, &mivo->unit[index].transfer);
    node = device_create(cards_class, NULL, MKDEV(CHAR_MAJOR, index), NULL, "%s", unit->char_node);
    if (IS_ERR(node))
        return PTR_ERR(node);
    control_add(&unit->place);
    return 0;
}

/* Undoes what has been done, however far mivo_init came. */
void mivo_exit(void)
{
    unsigned int i;

    if (nodes.ops) {
        cdev_del(&nodes);
        unregister_chrdev_region(MKDEV(CHAR_MAJOR, 0), SIM_MIVO_UNITS);
        nodes.ops = NULL;
    }
    for (i = 0; i < SIM_MIVO_UNITS; i++)
        device_destroy(cards_class, MKDEV(CHAR_MAJOR, i));
    for (i = 0; units && i < SIM_MIVO_UNITS; i++) {
        if (units[i].place.trace.ring)
            place_free(&units[i].place);
    }
    kfree(units);
    kvfree(mivo);
}

static int add_nodes(void)
{
    dev_t first = MKDEV(CHAR_MAJOR, 0);
    int failed = register_chrdev_region(first, SIM_MIVO_UNITS, "mivosdif");

    if (failed)
        return failed;
    cdev_init(&nodes, &char_operations);
    nodes.owner = THIS_MODULE;
    failed = cdev_add(&nodes, first, SIM_MIVO_UNITS);
    if (failed) {
        nodes.ops = NULL;
        unregister_chrdev_region(first, SIM_MIVO_UNITS);
    }
    return failed;
}

static int add_all(void)
{
    unsigned int i;
    int failed = 0;

    mivo = kvzalloc(sizeof *mivo, GFP_KERNEL);
    units = kcalloc(SIM_MIVO_UNITS, sizeof *units, GFP_KERNEL);
    if (!mivo || !units)
        return -ENOMEM;
    sim_mivo_init(mivo);
    for (i = 0; !failed && i < SIM_MIVO_UNITS; i++)
        failed = add_unit(&units[i], i);
    return failed ? failed : add_nodes();
}

int mivo_init(void)
{
    int failed = add_all();

    if (failed) {
        control_exit();
        mivo_exit();
    }
    return failed;
}
