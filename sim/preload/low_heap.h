// SPDX-License-Identifier: MIT
//
// A heap below 4 GiB that stands in for the whole program's: it asks nothing of any other
// heap. Freed blocks serve again for their own size class; that is enough for development.
#ifndef CARDSIM_PRELOAD_LOW_HEAP_H
#define CARDSIM_PRELOAD_LOW_HEAP_H

#include <cstddef>

namespace cardsim {

// Null with errno ENOMEM when there is none left. `alignment` is a power of two.
void* LowHeapAllocate(size_t alignment, size_t length);
// Takes null and blocks of LowHeapAllocate.
void LowHeapFree(void* block);
// The bytes that the block's owner may use.
size_t LowHeapSize(const void* block);

}  // namespace cardsim

#endif
