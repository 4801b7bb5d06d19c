/* SPDX-License-Identifier: MIT */
#include "cards.h"

#define DEFAULT_LATENCY_US 100

int place_init(struct place *place)
{
    INIT_LIST_HEAD(&place->faults);
    place->latency_us = DEFAULT_LATENCY_US;
    return trace_init(&place->trace);
}

void place_free(struct place *place)
{
    fault_clear(place);
    card_put(place->card);
    place->card = NULL;
    trace_free(&place->trace);
}

struct card *place_card_locked(struct place *place)
{
    if (place->card)
        card_get(place->card);
    return place->card;
}

struct card *place_card(struct place *place)
{
    struct card *card;

    spin_lock(&cards_lock);
    card = place_card_locked(place);
    spin_unlock(&cards_lock);
    return card;
}

void place_change(struct place *place, struct card *card)
{
    struct card *before;

    spin_lock(&cards_lock);
    before = place->card;
    place->card = card;
    place->inserted(place, card ? &card->model : NULL);
    spin_unlock(&cards_lock);
    if (place->disk)
        disk_follow(place->disk, true);
    if (place->unit)
        unit_end_now(place->unit);
    card_put(before);
}

void place_protect(struct place *place, bool protected)
{
    struct card *card = place_card(place);

    if (!card)
        return;
    WRITE_ONCE(card->model.write_protected, protected);
    if (place->disk)
        disk_follow(place->disk, false);
    card_put(card);
}

void place_opened(struct place *place)
{
    place->opens++;
    place->open++;
}

void place_closed(struct place *place, enum node node)
{
    spin_lock(&cards_lock);
    place->open--;
    spin_unlock(&cards_lock);
    trace_add(&place->trace, node, CALL_CLOSE, 0, 0);
}

void place_settle(struct place *place)
{
    if (place->disk)
        disk_settle(place->disk);
    if (place->unit)
        flush_work(&place->unit->work);
}

/* The usual call meets no fault, so that is the short way. */
long place_call(struct place *place, const struct call_info *info, call_work work, void *context)
{
    struct outcome outcome;
    bool fault = READ_ONCE(place->fault_count) &&
                 fault_take(place, info->call, info->node, info->request, &outcome);
    long result = 0;

    if (!fault || !outcome.overrules || outcome.reach)
        result = work(context, fault ? &outcome : NULL);
    if (fault && outcome.overrules)
        result = outcome.result;
    trace_add(&place->trace, info->node, info->call, info->request, result);
    if (fault)
        fault_finish(place, &outcome);
    return result;
}
