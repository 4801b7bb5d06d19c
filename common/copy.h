// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_COPY_H
#define CARDDEV_COMMON_COPY_H

#include <stddef.h>

#pragma GCC visibility push(hidden)

// A copy of `size` bytes, for the caller to free, or null with errno set.
void* CopyOf(const void* record, size_t size);

#pragma GCC visibility pop

#endif
