/* SPDX-License-Identifier: MIT */
/*
 * A transfer is checked and answered at once. The memory that it names is pinned then, as
 * for a controller that masters the bus, and the data move when the time is up, in a
 * worker. With a latency of 0 the data move within the request and nothing is pinned.
 */
#include "cards.h"

#include <linux/module.h>
#include <linux/slab.h>

/* An open file of a unit. */
struct unit_file {
    struct unit *unit;
    bool waiting; /* a poll has found nothing and waits */
    bool counted; /* it has met its fault */
};

struct unit *unit_of(struct file *file)
{
    return ((struct unit_file *)file->private_data)->unit;
}

/* --- the end of a transfer -------------------------------------------------------- */

static int carry_out(struct unit *unit, const struct sim_memory *memory)
{
    struct place *place = unit->place;
    int failed;

    if (READ_ONCE(place->card) != unit->card)
        return -ENODEV;
    if (place->disk)
        disk_before(place->disk, unit->transfer);
    failed = sim_carry_out(unit->transfer, &unit->card->model, memory);
    if (place->disk)
        disk_after(place->disk, unit->transfer);
    return failed;
}

/* Nothing of the transfer is left but its end, which is told to the next poll. */
static int finish(struct unit *unit, int failed, bool at_once, const struct outcome *outcome)
{
    bool never = unit->never || (outcome && outcome->never);
    struct card *card = unit->card;

    pinned_put(&unit->pinned);
    spin_lock(&cards_lock);
    if (unit->place->card != card && !failed)
        failed = -ENODEV;
    unit->model->end(unit->place->index, failed);
    if (never || (failed && !at_once) || (outcome && outcome->has_events))
        unit->model->fetch_end(unit->place->index);
    unit->end_events = 0;
    if (!never && outcome && outcome->has_events)
        unit->end_events = outcome->events;
    else if (!never && failed && !at_once)
        unit->end_events = POLLERR;
    unit->card = NULL;
    unit->owner = NULL;
    unit->busy = false;
    spin_unlock(&cards_lock);
    card_put(card);
    wake_up_all(&unit->wait);
    return failed;
}

/* `at_once`: the request is still there to be answered. */
static int end_transfer(struct unit *unit, const struct sim_memory *memory, bool at_once)
{
    struct place *place = unit->place;
    struct outcome outcome;
    bool fault = READ_ONCE(place->fault_count) &&
                 fault_take(place, CALL_END, NODE_CHAR, unit->request, &outcome);
    int failed;

    if (!fault)
        return finish(unit, carry_out(unit, memory), at_once, NULL);
    fault_finish(place, &outcome);
    if (outcome.overrules && !outcome.reach)
        failed = outcome.result;
    else
        failed = carry_out(unit, memory);
    if (outcome.overrules)
        failed = outcome.result;
    return finish(unit, failed, at_once, &outcome);
}

static void end_later(struct work_struct *work)
{
    struct unit *unit = container_of(work, struct unit, work);
    struct sim_memory memory = pinned_memory(&unit->pinned);

    end_transfer(unit, &memory, false);
}

static enum hrtimer_restart time_is_up(struct hrtimer *timer)
{
    struct unit *unit = container_of(timer, struct unit, timer);

    queue_work(system_highpri_wq, &unit->work);
    return HRTIMER_NORESTART;
}

void unit_end_now(struct unit *unit)
{
    if (hrtimer_cancel(&unit->timer))
        queue_work(system_highpri_wq, &unit->work);
}

/* Give up what is under way: no data move, no end is told. */
static void abort_transfer(struct unit *unit)
{
    struct card *card;

    if (!hrtimer_cancel(&unit->timer)) {
        flush_work(&unit->work);
        return;
    }
    pinned_put(&unit->pinned);
    spin_lock(&cards_lock);
    card = unit->card;
    unit->card = NULL;
    unit->owner = NULL;
    unit->busy = false;
    spin_unlock(&cards_lock);
    card_put(card);
    wake_up_all(&unit->wait);
}

/* --- requests --------------------------------------------------------------------- */

struct request {
    struct file *file;
    u32 request;
    unsigned long argument;
};

static int take_up(struct unit *unit, const struct request *request)
{
    unsigned int index = unit->place->index;
    struct card *card;
    int failed;

    spin_lock(&cards_lock);
    if (unit->busy) {
        spin_unlock(&cards_lock);
        return -EBUSY;
    }
    unit->busy = true;
    unit->end_events = 0;
    card = place_card_locked(unit->place);
    failed = unit->model->start(index, request->request, &user_memory_locked, request->argument);
    if (failed) {
        unit->busy = false;
    } else {
        unit->card = card;
        unit->owner = request->file;
        unit->request = request->request;
    }
    spin_unlock(&cards_lock);
    if (failed)
        card_put(card);
    return failed;
}

static long transfer(struct unit *unit, const struct request *request,
                     const struct outcome *outcome)
{
    u32 latency_us = READ_ONCE(unit->place->latency_us);
    int failed = take_up(unit, request);

    if (failed)
        return failed;
    unit->never = outcome && outcome->never;
    if (latency_us == 0)
        return end_transfer(unit, &user_memory, true);
    failed = pinned_get(&unit->pinned, unit->transfer);
    if (failed)
        return finish(unit, failed, true, NULL);
    hrtimer_start(&unit->timer, ns_to_ktime((u64)latency_us * NSEC_PER_USEC), HRTIMER_MODE_REL);
    return 0;
}

static long other_request(struct unit *unit, const struct request *request)
{
    struct card *card;
    long result;

    if (request->request == unit->model->reset)
        abort_transfer(unit);
    spin_lock(&cards_lock);
    if (request->request == unit->model->reset)
        unit->end_events = 0;
    card = place_card_locked(unit->place);
    result = unit->model->request(unit->place->index, request->request, &user_memory_locked,
                                  request->argument);
    spin_unlock(&cards_lock);
    card_put(card);
    return result;
}

static long serve(void *context, const struct outcome *outcome)
{
    const struct request *request = context;
    struct unit *unit = unit_of(request->file);

    if (unit->model->is_transfer(request->request))
        return transfer(unit, request, outcome);
    return other_request(unit, request);
}

long unit_ioctl(struct file *file, unsigned int request, unsigned long argument)
{
    const struct call_info info = { CALL_IOCTL, NODE_CHAR, request };
    struct request context = { file, request, argument };

    return place_call(unit_of(file)->place, &info, serve, &context);
}

/* --- poll --------------------------------------------------------------------------- */

/* Events that are there now. The end of a transfer is told once, to a poll that wants to
 * hear of it. */
static u16 take_events(struct unit *unit, __poll_t wanted)
{
    u16 events = 0;

    if (unit->end_events)
        events = unit->end_events;
    else if ((wanted & EPOLLOUT) && unit->model->fetch_end(unit->place->index))
        events = POLLOUT;
    unit->end_events = 0;
    return events;
}

/*
 * One poll of the program's can come here several times: when it begins, and after every
 * wake-up. It meets its fault once, when no transfer is under way (any more), and has one
 * line in the record, when it has its answer.
 */
__poll_t unit_poll(struct file *file, struct poll_table_struct *wait)
{
    struct unit_file *opened = file->private_data;
    struct unit *unit = opened->unit;
    struct place *place = unit->place;
    __poll_t wanted = poll_requested_events(wait) | EPOLLERR | EPOLLHUP;
    bool may_wait = !poll_does_not_wait(wait);
    struct outcome outcome;
    bool fault = false;
    bool busy;
    u16 events = 0;

    poll_wait(file, &unit->wait, wait);
    spin_lock(&cards_lock);
    if (may_wait || !opened->waiting)
        opened->counted = false;
    busy = unit->busy;
    if (!busy)
        events = take_events(unit, wanted);
    spin_unlock(&cards_lock);
    if (!busy && !opened->counted && READ_ONCE(place->fault_count)) {
        fault = fault_take(place, CALL_POLL, NODE_CHAR, 0, &outcome);
        if (fault && outcome.has_events)
            events = outcome.events;
    }
    opened->counted |= !busy;
    events &= (__force u16)wanted;
    opened->waiting = may_wait && !events;
    if (!opened->waiting)
        trace_add(&place->trace, NODE_CHAR, CALL_POLL, 0, events);
    if (fault)
        fault_finish(place, &outcome);
    return (__force __poll_t)events;
}

/* --- open and close ------------------------------------------------------------------- */

static long do_open(void *context, const struct outcome *outcome)
{
    struct unit *unit = context;

    spin_lock(&cards_lock);
    place_opened(unit->place);
    spin_unlock(&cards_lock);
    return 0;
}

int unit_open(struct unit *unit, struct file *file)
{
    static const struct call_info info = { CALL_OPEN, NODE_CHAR, 0 };
    struct unit_file *opened = kzalloc(sizeof *opened, GFP_KERNEL);
    int failed;

    if (!opened)
        return -ENOMEM;
    opened->unit = unit;
    file->private_data = opened;
    failed = place_call(unit->place, &info, do_open, unit);
    if (failed)
        kfree(opened);
    return failed;
}

/* What the closing program has under way ends before its file is gone. */
int unit_release(struct inode *inode, struct file *file)
{
    struct unit *unit = unit_of(file);
    bool under_way;

    spin_lock(&cards_lock);
    under_way = unit->owner == file;
    spin_unlock(&cards_lock);
    if (under_way) {
        unit_end_now(unit);
        flush_work(&unit->work);
    }
    place_closed(unit->place, NODE_CHAR);
    kfree(file->private_data);
    return 0;
}

void unit_init(struct unit *unit, struct place *place, const struct unit_model *model,
               struct sim_transfer *transfer)
{
    unit->place = place;
    unit->model = model;
    unit->transfer = transfer;
    init_waitqueue_head(&unit->wait);
    hrtimer_init(&unit->timer, CLOCK_MONOTONIC, HRTIMER_MODE_REL);
    unit->timer.function = time_is_up;
    INIT_WORK(&unit->work, end_later);
    place->unit = unit;
}
