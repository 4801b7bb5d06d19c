/* SPDX-License-Identifier: MIT */
#include "cards.h"

#include <linux/timekeeping.h>
#include <linux/vmalloc.h>

#define RING_RECORDS 4096u /* a power of 2 */

const char *const call_names[] = {
    [CALL_ANY] = "any",   [CALL_OPEN] = "open",        [CALL_CLOSE] = "close",
    [CALL_READ] = "read", [CALL_WRITE] = "write",      [CALL_IOCTL] = "ioctl",
    [CALL_POLL] = "poll", [CALL_END] = "transfer-end",
};

int trace_init(struct trace *trace)
{
    spin_lock_init(&trace->lock);
    trace->ring = vzalloc(array_size(RING_RECORDS, sizeof *trace->ring));
    trace->on = true;
    return trace->ring ? 0 : -ENOMEM;
}

void trace_free(struct trace *trace)
{
    vfree(trace->ring);
    trace->ring = NULL;
}

void trace_add(struct trace *trace, enum node node, enum call call, u32 request, long result)
{
    struct trace_record *record;

    if (!READ_ONCE(trace->on))
        return;
    spin_lock(&trace->lock);
    record = &trace->ring[trace->calls++ & (RING_RECORDS - 1)];
    record->time = ktime_get_ns();
    record->request = request;
    record->result = result;
    record->call = call;
    record->node = node;
    spin_unlock(&trace->lock);
}

/* Calls may come in meanwhile: every record is taken for itself. */
static bool get_record(struct trace *trace, u32 number, struct trace_record *record)
{
    bool there;

    spin_lock(&trace->lock);
    there = number < trace->calls && trace->calls - number <= RING_RECORDS;
    if (there)
        *record = trace->ring[number & (RING_RECORDS - 1)];
    spin_unlock(&trace->lock);
    return there;
}

static void show_record(struct seq_file *file, const struct place *place,
                        const struct trace_record *record)
{
    const char *node = record->node == NODE_BLOCK ? place->block_node : place->char_node;

    seq_printf(file, "%llu /dev/%s %s", record->time, node, call_names[record->call]);
    if (record->call == CALL_IOCTL)
        seq_printf(file, " 0x%08x", record->request);
    if (record->call == CALL_POLL)
        seq_printf(file, " = 0x%x\n", record->result);
    else
        seq_printf(file, " = %d\n", record->result);
}

int trace_show(struct seq_file *file, struct place *place)
{
    struct trace *trace = &place->trace;
    u32 end = READ_ONCE(trace->calls);
    u32 number = end > RING_RECORDS ? end - RING_RECORDS : 0;
    struct trace_record record;

    if (number)
        seq_printf(file, "%u lines lost\n", number);
    for (; number < end; number++) {
        if (get_record(trace, number, &record))
            show_record(file, place, &record);
    }
    return 0;
}

int trace_write(struct place *place, char *text)
{
    struct trace *trace = &place->trace;

    spin_lock(&trace->lock);
    trace->calls = 0;
    WRITE_ONCE(trace->on, strcmp(text, "off") != 0);
    spin_unlock(&trace->lock);
    return 0;
}
