/* SPDX-License-Identifier: MIT */
/*
 * What the card model needs from its surroundings: types, error numbers and memory
 * functions. The same source is built into the stand-in and into the board's drivers.
 */
#ifndef CARDSIM_MODEL_PLATFORM_H
#define CARDSIM_MODEL_PLATFORM_H

#ifdef __KERNEL__
#include <linux/errno.h>
#include <linux/string.h>
#include <linux/types.h>
#else
#include <errno.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#endif

/* The memory of the program that sent a request. */
struct sim_memory {
    /* Copy `length` bytes to the program's address `to`: 0 or -EFAULT. */
    int (*put)(void *context, uintptr_t to, const void *from, uint32_t length);
    /* Copy `length` bytes from the program's address `from`: 0 or -EFAULT. */
    int (*get)(void *context, void *to, uintptr_t from, uint32_t length);
    void *context;
};

#endif
