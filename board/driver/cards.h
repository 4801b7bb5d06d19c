/* SPDX-License-Identifier: MIT */
/*
 * Simulated cards behind the drivers of three card controllers. What a request means
 * is the model's business (sim/model); here is what a kernel driver has around it:
 * nodes, the program's memory, transfers that take time, faults, the record of calls
 * and the control files.
 *
 * One lock, cards_lock, guards the models' state and what is in which place. It is
 * never held while the program's memory is touched.
 */
#ifndef CARDS_H
#define CARDS_H

#include <linux/fs.h>
#include <linux/hrtimer.h>
#include <linux/list.h>
#include <linux/poll.h>
#include <linux/refcount.h>
#include <linux/seq_file.h>
#include <linux/spinlock.h>
#include <linux/wait.h>
#include <linux/workqueue.h>

#include "sim/model/mivo_adaptor.h"
#include "sim/model/ricoh_host.h"
#include "sim/model/zel_slots.h"

struct block_device;
struct class;
struct disk;
struct place;
struct unit;

extern spinlock_t cards_lock;
extern struct class *cards_class;

/* --- card.c: a card in memory ----------------------------------------------- */

struct card {
    refcount_t references;
    struct sim_card model;
};

/* A card with the image's sectors, or an ERR_PTR: EINVAL for a file that is no whole
 * number of sectors, EFBIG for one that is too large. */
struct card *card_load(const char *path);
void card_get(struct card *card);
/* May sleep. Null is allowed. */
void card_put(struct card *card);

/* --- trace.c: the record of calls ------------------------------------------- */

enum call {
    CALL_ANY,
    CALL_OPEN,
    CALL_CLOSE,
    CALL_READ,
    CALL_WRITE,
    CALL_IOCTL,
    CALL_POLL,
    CALL_END
};
enum node { NODE_ANY, NODE_BLOCK, NODE_CHAR };

extern const char *const call_names[];

struct trace_record {
    u64 time;
    u32 request;
    s32 result;
    u8 call;
    u8 node;
};

struct trace {
    bool on;
    spinlock_t lock;
    struct trace_record *ring;
    u32 calls; /* since the last clear; the ring has the youngest */
};

int trace_init(struct trace *trace);
void trace_free(struct trace *trace);
void trace_add(struct trace *trace, enum node node, enum call call, u32 request, long result);
int trace_show(struct seq_file *file, struct place *place);
/* "off" clears and stops, anything else clears and goes on. */
int trace_write(struct place *place, char *text);

/* --- fault.c: what is to go wrong ------------------------------------------- */

/* What a fault does to the call that it meets. */
struct outcome {
    bool overrules; /* `result` is the answer ... */
    bool reach;     /* ... but the request is carried out */
    bool never;     /* the end of the transfer is not told */
    bool has_events;
    s32 result;
    u16 events;
    enum { CARD_STAYS, CARD_LEAVES, CARD_EXCHANGED, CARD_PROTECTED } card;
    struct card *other; /* CARD_EXCHANGED: referenced */
};

/* Find what is to happen to a call; false: nothing. */
bool fault_take(struct place *place, enum call call, enum node node, u32 request,
                struct outcome *outcome);
/* What happens to the card. Once for each outcome, after the call's work. */
void fault_finish(struct place *place, struct outcome *outcome);
int fault_show(struct seq_file *file, struct place *place);
int fault_write(struct place *place, char *text);
void fault_clear(struct place *place);

/* --- place.c: where cards can be, and calls from there ------------------------ */

struct place {
    const char *name;
    const char *block_node; /* null: there is none */
    const char *char_node;
    bool holds_cards;
    unsigned int index;

    struct card *card;  /* null: empty */
    u32 latency_us;     /* of transfers */
    unsigned int opens; /* so far */
    unsigned int open;  /* files that are open now */
    struct disk *disk;
    struct unit *unit;

    struct list_head faults;
    unsigned int fault_count;
    struct trace trace;

    /* Tell the model, with cards_lock held. */
    void (*inserted)(struct place *place, struct sim_card *card);
    int (*show_state)(struct seq_file *file, struct place *place);
    /* Change what the hardware would tell; may be null. */
    int (*set_state)(struct place *place, const char *key, u32 value);
};

int place_init(struct place *place);
void place_free(struct place *place);

/* The card, referenced, or null. */
struct card *place_card(struct place *place);
struct card *place_card_locked(struct place *place);

/* Put a card in, whose reference goes to the place, or with null take it out. A
 * transfer that is under way ends at once, badly. */
void place_change(struct place *place, struct card *card);
void place_protect(struct place *place, bool protected);
/* A file of the place's nodes was opened, with cards_lock, or closed. */
void place_opened(struct place *place);
void place_closed(struct place *place, enum node node);
/* Wait until what a change of card brings with it has been done. */
void place_settle(struct place *place);

/* A call that reached the driver: `work` does what the driver does. */
struct call_info {
    enum call call;
    enum node node;
    u32 request;
};
typedef long (*call_work)(void *context, const struct outcome *outcome);
long place_call(struct place *place, const struct call_info *info, call_work work, void *context);

/* --- memory.c: the program's memory -------------------------------------------- */

/* For use without a lock, and with cards_lock, which is dropped meanwhile. */
extern const struct sim_memory user_memory;
extern const struct sim_memory user_memory_locked;

/* The memory behind a transfer's pieces, held so that it can be reached later. */
struct pinned {
    struct page **pages;
    size_t count;
    size_t next; /* while they are used */
    bool write;
};

int pinned_get(struct pinned *pinned, const struct sim_transfer *transfer);
struct sim_memory pinned_memory(struct pinned *pinned);
void pinned_put(struct pinned *pinned);

/* --- unit.c: character nodes with direct transfers ----------------------------- */

/* The model of the controller that a unit belongs to. `request` and `start` are called
 * with cards_lock and user_memory_locked, the others with cards_lock. */
struct unit_model {
    bool (*is_transfer)(u32 request);
    int (*request)(unsigned int index, u32 request, const struct sim_memory *memory,
                   uintptr_t argument);
    int (*start)(unsigned int index, u32 request, const struct sim_memory *memory,
                 uintptr_t argument);
    void (*end)(unsigned int index, int failed);
    bool (*fetch_end)(unsigned int index);
    u32 reset;
};

struct unit {
    struct place *place;
    const struct unit_model *model;
    struct sim_transfer *transfer;
    wait_queue_head_t wait;
    struct hrtimer timer;
    struct work_struct work;

    /* with cards_lock */
    bool busy;      /* a transfer is being checked or under way */
    u16 end_events; /* what is to be told of the last one in place of its good end */

    /* of the transfer under way */
    struct card *card;
    struct file *owner;
    u32 request;
    bool never;
    struct pinned pinned;
};

void unit_init(struct unit *unit, struct place *place, const struct unit_model *model,
               struct sim_transfer *transfer);
/* Where a transfer is under way, have it end now. May be called from anywhere that may
 * spin; does not wait for the end. */
void unit_end_now(struct unit *unit);

int unit_open(struct unit *unit, struct file *file);
int unit_release(struct inode *inode, struct file *file);
long unit_ioctl(struct file *file, unsigned int request, unsigned long argument);
__poll_t unit_poll(struct file *file, struct poll_table_struct *wait);
struct unit *unit_of(struct file *file);

/* --- disk.c: block nodes --------------------------------------------------------- */

struct disk_model {
    int major;
    int first_minor;
    /* Whether a protected card's node can be opened for reading only. */
    bool opens_read_only;
    /* With cards_lock and user_memory_locked. */
    int (*request)(struct place *place, u32 request, const struct sim_memory *memory,
                   uintptr_t argument);
};

struct disk *disk_create(struct place *place, const struct disk_model *model);
void disk_remove(struct disk *disk);
/* The card or its protection changed: have the node follow, a little later. */
void disk_follow(struct disk *disk, bool other_card);
void disk_settle(struct disk *disk);
/* Around a transfer past the node: what the node's cache has not written yet goes to the
 * card before, and what it holds of the pieces is dropped after a write. */
void disk_before(struct disk *disk, const struct sim_transfer *transfer);
void disk_after(struct disk *disk, const struct sim_transfer *transfer);
/* All that was written through the node is on the card afterwards; and the card's sectors
 * were changed behind it. */
void disk_flush(struct disk *disk);
void disk_drop(struct disk *disk);

/* --- control.c, and the three drivers ---------------------------------------------- */

void control_init(void);
void control_add(struct place *place);
void control_exit(void);

int zel_init(void);
void zel_exit(void);
int mivo_init(void);
void mivo_exit(void);
int ricoh_init(void);
void ricoh_exit(void);

#endif
