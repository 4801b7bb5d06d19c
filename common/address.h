// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_ADDRESS_H
#define CARDDEV_COMMON_ADDRESS_H

#include <stdint.h>

// An address as the drivers' records carry it. On a host with 64-bit pointers
// what it points at - stack and heap included - must lie below 4 GiB; this is the
// one place where such a host differs.
__attribute__((always_inline)) inline uint32_t Address32(const void* object)
{
    // The driver reads and writes what stands there, out of the compiler's sight.
    __asm__ volatile("" : : "r"(object) : "memory");
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(object));
}

#endif
