// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_LATCH_H
#define CARDDEV_COMMON_LATCH_H

#include <stdint.h>

// A byte that goes from 0 to 1 and is looked at by other threads without the
// lock. Relaxed: nothing else is ordered by it, and it costs a plain load or
// store.
// NOLINTNEXTLINE(readability-non-const-parameter): written by the builtin
__attribute__((always_inline)) inline void Latch(uint8_t* latch)
{
    __atomic_store_n(latch, uint8_t{1}, __ATOMIC_RELAXED);
}

__attribute__((always_inline)) inline bool IsLatched(const uint8_t* latch)
{
    return __atomic_load_n(latch, __ATOMIC_RELAXED) != 0;
}

#endif
