// SPDX-License-Identifier: MIT
//
// malloc and free of the library under test, put in their place by the linker
// (--wrap): counted, made to fail on request, and below 4 GiB.
#include "sim/kernel.h"
#include "sim/libc.h"
#include "sim/low_memory.h"

extern "C" {

void __real_free(void* block);

void* __wrap_malloc(size_t length)
{
    cardsim::Kernel* kernel = cardsim::Kernel::Current();
    return kernel != nullptr ? kernel->Malloc(length) : cardsim::LowAllocate(length);
}

void __wrap_free(void* block)
{
    const cardsim::ErrnoKeeper keeper;
    cardsim::Kernel* kernel = cardsim::Kernel::Current();
    if (kernel != nullptr) {
        kernel->Free(block);
    }
    // A wrapped file may free what other means allocated (strdup, say).
    if (cardsim::IsLowBlock(block)) {
        cardsim::LowFree(block);
    } else {
        __real_free(block);
    }
}

}  // extern "C"
