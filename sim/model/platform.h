/* SPDX-License-Identifier: MIT */
/*
 * What the card model needs from its surroundings: types, error numbers and memory
 * functions, so that the same source can be built into a kernel.
 */
#ifndef CARDSIM_MODEL_PLATFORM_H
#define CARDSIM_MODEL_PLATFORM_H

#include <errno.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* The memory of the program that sent a request. */
struct sim_memory {
    /* Copy `length` bytes to the program's address `to`: 0 or -EFAULT. */
    int (*put)(void *context, uintptr_t to, const void *from, uint32_t length);
    /* Copy `length` bytes from the program's address `from`: 0 or -EFAULT. */
    int (*get)(void *context, void *to, uintptr_t from, uint32_t length);
    void *context;
};

#endif
