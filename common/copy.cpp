// SPDX-License-Identifier: MIT
#include "common/copy.h"

#include <stdlib.h>
#include <string.h>

void* CopyOf(const void* record, size_t size)
{
    void* copy = malloc(size);
    return copy == nullptr ? nullptr : memcpy(copy, record, size);
}
