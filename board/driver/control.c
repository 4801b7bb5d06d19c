/* SPDX-License-Identifier: MIT */
/* The control files: a folder for each place, below cards in debugfs. */
#include "cards.h"

#include <linux/debugfs.h>
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/slab.h>
#include <linux/string_helpers.h>
#include <linux/uaccess.h>

#define LONGEST_TEXT    4096
#define LONGEST_LATENCY 10000000 /* 10 s */

static struct dentry *root;

struct control {
    const char *name;
    umode_t mode;
    bool of_cards;
    int (*show)(struct seq_file *file, struct place *place);
    int (*write)(struct place *place, char *text);
};

/* --- the card ----------------------------------------------------------------------------- */

static int insert_write(struct place *place, char *text)
{
    struct card *card = card_load(text);

    if (IS_ERR(card))
        return PTR_ERR(card);
    place_change(place, card);
    place_settle(place);
    return 0;
}

static int eject_write(struct place *place, char *text)
{
    place_change(place, NULL);
    place_settle(place);
    return 0;
}

static int protected_show(struct seq_file *file, struct place *place)
{
    struct card *card = place_card(place);

    if (!card)
        return -ENOMEDIUM;
    seq_printf(file, "%d\n", card->model.write_protected);
    card_put(card);
    return 0;
}

static int protected_write(struct place *place, char *text)
{
    struct card *card = place_card(place);
    bool value;

    if (!card)
        return -ENOMEDIUM;
    card_put(card);
    if (kstrtobool(text, &value))
        return -EINVAL;
    place_protect(place, value);
    place_settle(place);
    return 0;
}

/* --- registers ------------------------------------------------------------------------------ */

static int show_register(struct seq_file *file, struct place *place, size_t offset, size_t length)
{
    struct card *card = place_card(place);

    if (!card)
        return -ENOMEDIUM;
    seq_printf(file, "%*phN\n", (int)length, (const u8 *)&card->model + offset);
    card_put(card);
    return 0;
}

static int write_register(struct place *place, char *text, size_t offset, size_t length)
{
    u8 bytes[sizeof_field(struct sim_card, sd_status)];
    struct card *card;

    if (strlen(text) != 2 * length || hex2bin(bytes, text, length))
        return -EINVAL;
    card = place_card(place);
    if (!card)
        return -ENOMEDIUM;
    spin_lock(&cards_lock);
    memcpy((u8 *)&card->model + offset, bytes, length);
    spin_unlock(&cards_lock);
    card_put(card);
    return 0;
}

/* %*ph prints 64 bytes at most, which the SD status is. */
#define REGISTER(name)                                                                             \
    static int name##_show(struct seq_file *file, struct place *place)                             \
    {                                                                                              \
        return show_register(file, place, offsetof(struct sim_card, name),                         \
                             sizeof_field(struct sim_card, name));                                 \
    }                                                                                              \
    static int name##_write(struct place *place, char *text)                                       \
    {                                                                                              \
        return write_register(place, text, offsetof(struct sim_card, name),                        \
                              sizeof_field(struct sim_card, name));                                \
    }

REGISTER(cid)
REGISTER(csd)
REGISTER(scr)
REGISTER(sd_status)

/* --- the driver ------------------------------------------------------------------------------- */

static int latency_show(struct seq_file *file, struct place *place)
{
    seq_printf(file, "%u\n", place->latency_us);
    return 0;
}

static int latency_write(struct place *place, char *text)
{
    u32 value;

    if (kstrtou32(text, 10, &value) || value > LONGEST_LATENCY)
        return -EINVAL;
    WRITE_ONCE(place->latency_us, value);
    return 0;
}

static int state_show(struct seq_file *file, struct place *place)
{
    struct card *card = place_card(place);

    seq_printf(file, "opens %u\nopen %u\n", place->opens, place->open);
    if (place->holds_cards)
        seq_printf(file, "sectors %u\n", card ? card->model.sectors : 0);
    if (place->unit)
        seq_printf(file, "busy %d\n", place->unit->busy);
    card_put(card);
    return place->show_state ? place->show_state(file, place) : 0;
}

/* "KEY VALUE" */
static int state_write(struct place *place, char *text)
{
    char *value = strchr(text, ' ');
    u32 number;

    if (!value || !place->set_state)
        return -EINVAL;
    *value++ = '\0';
    if (kstrtou32(value, 0, &number))
        return -EINVAL;
    return place->set_state(place, text, number);
}

/* --- files ---------------------------------------------------------------------------------------
 */

static const struct control controls[] = {
    { "insert", 0200, true, NULL, insert_write },
    { "eject", 0200, true, NULL, eject_write },
    { "protected", 0600, true, protected_show, protected_write },
    { "cid", 0600, true, cid_show, cid_write },
    { "csd", 0600, true, csd_show, csd_write },
    { "scr", 0600, true, scr_show, scr_write },
    { "sd_status", 0600, true, sd_status_show, sd_status_write },
    { "latency_us", 0600, true, latency_show, latency_write },
    { "faults", 0600, false, fault_show, fault_write },
    { "trace", 0600, false, trace_show, trace_write },
    { "state", 0600, false, state_show, state_write },
};

/* Which of the controls a file is, its data do not say, but its name does. */
static const struct control *control_of(const struct file *file)
{
    const char *name = file->f_path.dentry->d_name.name;
    size_t i;

    for (i = 0; i < ARRAY_SIZE(controls); i++) {
        if (strcmp(controls[i].name, name) == 0)
            return &controls[i];
    }
    return NULL;
}

static int control_show(struct seq_file *file, void *unused)
{
    const struct control *control = control_of(file->file);

    return control && control->show ? control->show(file, file->private) : -EINVAL;
}

static int control_open(struct inode *inode, struct file *file)
{
    return single_open(file, control_show, inode->i_private);
}

static ssize_t control_write(struct file *file, const char __user *from, size_t length,
                             loff_t *position)
{
    const struct control *control = control_of(file);
    char *text;
    int failed;

    if (!control || !control->write || length > LONGEST_TEXT)
        return -EINVAL;
    text = memdup_user_nul(from, length);
    if (IS_ERR(text))
        return PTR_ERR(text);
    failed = control->write(file_inode(file)->i_private, strim(text));
    kfree(text);
    return failed ? failed : length;
}

static const struct file_operations control_files = {
    .owner = THIS_MODULE,
    .open = control_open,
    .read = seq_read,
    .write = control_write,
    .llseek = seq_lseek,
    .release = single_release,
};

/* --- the card's sectors -------------------------------------------------------------------------
 */

/* An open file stays with the card that was in when it was opened: what is on a card that was
 * pulled out can still be seen. */
struct media {
    struct place *place;
    struct card *card;
};

static int media_open(struct inode *inode, struct file *file)
{
    struct media *media = kzalloc(sizeof *media, GFP_KERNEL);

    if (!media)
        return -ENOMEM;
    media->place = inode->i_private;
    media->card = place_card(media->place);
    file->private_data = media;
    return 0;
}

static int media_release(struct inode *inode, struct file *file)
{
    struct media *media = file->private_data;

    card_put(media->card);
    kfree(media);
    return 0;
}

/* Null where the card's sectors are in no cache: it has gone, or nothing caches them. */
static struct disk *media_disk(const struct media *media)
{
    return READ_ONCE(media->place->card) == media->card ? media->place->disk : NULL;
}

static ssize_t media_read(struct file *file, char __user *to, size_t length, loff_t *position)
{
    struct media *media = file->private_data;
    struct sim_card *model = &media->card->model;
    struct disk *disk = media_disk(media);

    if (!media->card)
        return -ENOMEDIUM;
    if (disk)
        disk_flush(disk);
    return simple_read_from_buffer(to, length, position, model->media.bytes,
                                   (size_t)model->sectors * SIM_SECTOR_SIZE);
}

static ssize_t media_write(struct file *file, const char __user *from, size_t length,
                           loff_t *position)
{
    struct media *media = file->private_data;
    struct sim_card *model = &media->card->model;
    struct disk *disk = media_disk(media);
    size_t size;
    ssize_t moved;

    if (!media->card)
        return -ENOMEDIUM;
    size = (size_t)model->sectors * SIM_SECTOR_SIZE;
    if (disk)
        disk_flush(disk);
    if (*position < size)
        moved = simple_write_to_buffer(model->media.bytes, size, position, from, length);
    else
        moved = length ? -ENOSPC : 0;
    if (disk)
        disk_drop(disk);
    return moved;
}

static const struct file_operations media_file = {
    .owner = THIS_MODULE,
    .open = media_open,
    .read = media_read,
    .write = media_write,
    .llseek = default_llseek,
    .release = media_release,
};

void control_init(void)
{
    root = debugfs_create_dir("cards", NULL);
}

void control_add(struct place *place)
{
    struct dentry *folder = debugfs_create_dir(place->name, root);
    size_t i;

    for (i = 0; i < ARRAY_SIZE(controls); i++) {
        if (place->holds_cards || !controls[i].of_cards)
            debugfs_create_file(controls[i].name, controls[i].mode, folder, place, &control_files);
    }
    if (place->holds_cards)
        debugfs_create_file("media", 0600, folder, place, &media_file);
}

void control_exit(void)
{
    debugfs_remove(root);
}
