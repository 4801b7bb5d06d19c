/* SPDX-License-Identifier: MIT */
/* Faults: one line of words each, counted from the moment when they are added. */
#include "cards.h"

#include <linux/ctype.h>
#include <linux/err.h>
#include <linux/kernel.h>
#include <linux/slab.h>

#define MOST_FAULTS 64
#define FOREVER     U32_MAX

struct fault {
    struct list_head list;
    char *line; /* as it was written */
    enum call call;
    enum node node;
    bool has_request;
    u32 request;
    u32 first;
    u32 times;
    u32 seen;
    struct outcome outcome;
};

static DEFINE_SPINLOCK(faults_lock);

/* --- meeting one ---------------------------------------------------------------------- */

static bool matches(const struct fault *fault, enum call call, enum node node, u32 request)
{
    if (fault->call == CALL_ANY ? call == CALL_END : fault->call != call)
        return false;
    /* Nothing but its events can be put into a poll's mouth. */
    if (call == CALL_POLL && fault->outcome.overrules)
        return false;
    if (fault->node != NODE_ANY && fault->node != node)
        return false;
    if (!fault->has_request)
        return true;
    return (call == CALL_IOCTL || call == CALL_END) && fault->request == request;
}

/* Every fault counts every call that it matches; the first one that is due acts. */
bool fault_take(struct place *place, enum call call, enum node node, u32 request,
                struct outcome *outcome)
{
    struct fault *fault;
    bool taken = false;

    spin_lock(&faults_lock);
    list_for_each_entry(fault, &place->faults, list)
    {
        if (!matches(fault, call, node, request) || fault->seen == FOREVER)
            continue;
        fault->seen++;
        if (taken || fault->seen < fault->first || fault->seen - fault->first >= fault->times)
            continue;
        *outcome = fault->outcome;
        if (outcome->other)
            card_get(outcome->other);
        taken = true;
    }
    spin_unlock(&faults_lock);
    return taken;
}

void fault_finish(struct place *place, struct outcome *outcome)
{
    switch (outcome->card) {
    case CARD_STAYS:
        break;
    case CARD_LEAVES:
        place_change(place, NULL);
        break;
    case CARD_EXCHANGED:
        place_change(place, outcome->other);
        outcome->other = NULL;
        break;
    case CARD_PROTECTED:
        place_protect(place, true);
        break;
    }
}

/* --- reading a line --------------------------------------------------------------------- */

static const struct {
    const char *name;
    int number;
} error_names[] = {
    { "EPERM", EPERM },           { "ENOENT", ENOENT },
    { "EINTR", EINTR },           { "EIO", EIO },
    { "ENXIO", ENXIO },           { "EBADF", EBADF },
    { "EAGAIN", EAGAIN },         { "ENOMEM", ENOMEM },
    { "EACCES", EACCES },         { "EFAULT", EFAULT },
    { "EBUSY", EBUSY },           { "ENODEV", ENODEV },
    { "EINVAL", EINVAL },         { "ENFILE", ENFILE },
    { "EMFILE", EMFILE },         { "ENOTTY", ENOTTY },
    { "ENOSPC", ENOSPC },         { "EROFS", EROFS },
    { "EPIPE", EPIPE },           { "ERANGE", ERANGE },
    { "ENOSYS", ENOSYS },         { "ENODATA", ENODATA },
    { "ETIME", ETIME },           { "EPROTO", EPROTO },
    { "EILSEQ", EILSEQ },         { "EREMOTEIO", EREMOTEIO },
    { "EOPNOTSUPP", EOPNOTSUPP }, { "ETIMEDOUT", ETIMEDOUT },
    { "EALREADY", EALREADY },     { "EOVERFLOW", EOVERFLOW },
    { "ENOMEDIUM", ENOMEDIUM },   { "EMEDIUMTYPE", EMEDIUMTYPE },
    { "ECANCELED", ECANCELED },
};

static int read_error(const char *word, struct outcome *outcome)
{
    unsigned int number;
    size_t i;

    for (i = 0; i < ARRAY_SIZE(error_names); i++) {
        if (strcmp(word, error_names[i].name) == 0) {
            outcome->result = -error_names[i].number;
            return 0;
        }
    }
    if (kstrtouint(word, 0, &number) || number < 1 || number > MAX_ERRNO)
        return -EINVAL;
    outcome->result = -(int)number;
    return 0;
}

static int read_call(const char *word, enum call *call)
{
    static const enum call known[] = { CALL_OPEN,  CALL_READ, CALL_WRITE,
                                       CALL_IOCTL, CALL_POLL, CALL_END };
    size_t i;

    for (i = 0; i < ARRAY_SIZE(known); i++) {
        if (strcmp(word, call_names[known[i]]) == 0) {
            *call = known[i];
            return 0;
        }
    }
    return -EINVAL;
}

static int read_node(const struct place *place, const char *word, enum node *node)
{
    if (!place->block_node || !place->char_node)
        return -EINVAL;
    if (strcmp(word, "block") == 0)
        *node = NODE_BLOCK;
    else if (strcmp(word, "char") == 0)
        *node = NODE_CHAR;
    else
        return -EINVAL;
    return 0;
}

static int read_count(const char *word, u32 *count)
{
    return kstrtou32(word, 10, count) || *count == 0 ? -EINVAL : 0;
}

static int read_times(const char *word, u32 *times)
{
    if (strcmp(word, "forever") != 0)
        return read_count(word, times);
    *times = FOREVER;
    return 0;
}

static int read_overrule(struct outcome *outcome, int failed)
{
    if (outcome->overrules)
        return -EINVAL;
    outcome->overrules = true;
    return failed;
}

static int read_exchange(const struct place *place, const char *path, struct outcome *outcome)
{
    struct card *card;

    if (!place->holds_cards || outcome->card != CARD_STAYS)
        return -EINVAL;
    card = card_load(path);
    if (IS_ERR(card))
        return PTR_ERR(card);
    outcome->card = CARD_EXCHANGED;
    outcome->other = card;
    return 0;
}

static int read_pair(const struct place *place, struct fault *fault, const char *key,
                     const char *value)
{
    struct outcome *outcome = &fault->outcome;

    if (strcmp(key, "call") == 0)
        return read_call(value, &fault->call);
    if (strcmp(key, "node") == 0)
        return read_node(place, value, &fault->node);
    if (strcmp(key, "first") == 0)
        return read_count(value, &fault->first);
    if (strcmp(key, "times") == 0)
        return read_times(value, &fault->times);
    if (strcmp(key, "request") == 0) {
        fault->has_request = true;
        return kstrtou32(value, 0, &fault->request);
    }
    if (strcmp(key, "errno") == 0)
        return read_overrule(outcome, read_error(value, outcome));
    if (strcmp(key, "result") == 0)
        return read_overrule(outcome, kstrtos32(value, 0, &outcome->result));
    if (strcmp(key, "revents") == 0) {
        outcome->has_events = true;
        return kstrtou16(value, 0, &outcome->events);
    }
    if (strcmp(key, "exchange") == 0)
        return read_exchange(place, value, outcome);
    return -EINVAL;
}

static int read_change(const struct place *place, struct outcome *outcome, int change)
{
    if (!place->holds_cards || outcome->card != CARD_STAYS)
        return -EINVAL;
    outcome->card = change;
    return 0;
}

static int read_word(const struct place *place, struct fault *fault, char *word)
{
    struct outcome *outcome = &fault->outcome;
    char *value = strchr(word, '=');

    if (value) {
        *value++ = '\0';
        return read_pair(place, fault, word, value);
    }
    if (strcmp(word, "eject") == 0)
        return read_change(place, outcome, CARD_LEAVES);
    if (strcmp(word, "protect") == 0)
        return read_change(place, outcome, CARD_PROTECTED);
    if (strcmp(word, "never") == 0)
        outcome->never = true;
    else if (strcmp(word, "reach") == 0)
        outcome->reach = true;
    else
        return -EINVAL;
    return 0;
}

/* Narrow a fault for any call down to what its words can be about, and refuse words
 * that cannot come together. */
static int check_fault(const struct place *place, struct fault *fault)
{
    const struct outcome *outcome = &fault->outcome;
    bool answers = outcome->overrules && outcome->result >= 0;
    enum call call = fault->call;

    if (!outcome->overrules && !outcome->never && !outcome->has_events &&
        outcome->card == CARD_STAYS)
        return -EINVAL;
    if (call == CALL_ANY) {
        if (fault->has_request || answers || outcome->reach || outcome->never)
            call = CALL_IOCTL;
        else if (outcome->has_events)
            call = CALL_POLL;
    }
    fault->call = call;
    if (fault->has_request && call != CALL_IOCTL && call != CALL_END)
        return -EINVAL;
    if (answers && call != CALL_IOCTL)
        return -EINVAL;
    if (outcome->reach && (call != CALL_IOCTL || !outcome->overrules))
        return -EINVAL;
    if (outcome->never && call != CALL_IOCTL && call != CALL_END)
        return -EINVAL;
    if (outcome->has_events && call != CALL_POLL && call != CALL_END)
        return -EINVAL;
    if (call == CALL_POLL && outcome->overrules)
        return -EINVAL;
    if ((call == CALL_POLL || call == CALL_END) && (!place->unit || fault->node == NODE_BLOCK))
        return -EINVAL;
    return 0;
}

static void free_fault(struct fault *fault)
{
    card_put(fault->outcome.other);
    kfree(fault->line);
    kfree(fault);
}

static int read_fault(const struct place *place, struct fault *fault, char *line)
{
    char *word;

    while ((word = strsep(&line, " \t")) != NULL) {
        int failed = *word ? read_word(place, fault, word) : 0;

        if (failed)
            return failed;
    }
    return check_fault(place, fault);
}

static int add_fault(struct place *place, char *line)
{
    struct fault *fault = kzalloc(sizeof *fault, GFP_KERNEL);
    int failed = -ENOMEM;

    if (!fault)
        return -ENOMEM;
    fault->first = 1;
    fault->times = 1;
    fault->line = kstrdup(line, GFP_KERNEL);
    if (fault->line)
        failed = read_fault(place, fault, line);
    if (failed) {
        free_fault(fault);
        return failed;
    }
    spin_lock(&faults_lock);
    if (place->fault_count < MOST_FAULTS) {
        list_add_tail(&fault->list, &place->faults);
        WRITE_ONCE(place->fault_count, place->fault_count + 1);
    } else {
        failed = -ENOSPC;
    }
    spin_unlock(&faults_lock);
    if (failed)
        free_fault(fault);
    return failed;
}

/* --- the control file ------------------------------------------------------------------------ */

static bool is_over(const struct fault *fault)
{
    return fault->times != FOREVER && (u64)fault->seen + 1 >= (u64)fault->first + fault->times;
}

/* Forget the faults that are over, or all. */
static void forget(struct place *place, bool all)
{
    struct fault *fault;
    struct fault *next;
    LIST_HEAD(gone);

    spin_lock(&faults_lock);
    list_for_each_entry_safe(fault, next, &place->faults, list)
    {
        if (!all && !is_over(fault))
            continue;
        list_move_tail(&fault->list, &gone);
        WRITE_ONCE(place->fault_count, place->fault_count - 1);
    }
    spin_unlock(&faults_lock);
    list_for_each_entry_safe(fault, next, &gone, list) free_fault(fault);
}

void fault_clear(struct place *place)
{
    forget(place, true);
}

int fault_show(struct seq_file *file, struct place *place)
{
    struct fault *fault;

    spin_lock(&faults_lock);
    list_for_each_entry(fault, &place->faults, list)
    {
        if (!is_over(fault))
            seq_printf(file, "%s\n", fault->line);
    }
    spin_unlock(&faults_lock);
    return 0;
}

int fault_write(struct place *place, char *text)
{
    char *line;

    if (strcmp(text, "clear") == 0) {
        forget(place, true);
        return 0;
    }
    forget(place, false);
    while ((line = strsep(&text, "\n")) != NULL) {
        int failed = *line ? add_fault(place, line) : 0;

        if (failed)
            return failed;
    }
    return 0;
}
