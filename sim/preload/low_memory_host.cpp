// SPDX-License-Identifier: MIT
//
// Only for hosts with 64-bit pointers: there the drivers' 32-bit addresses reach what lies
// below 4 GiB. So main runs on a stack that does, and the program's heap is there, too.
// Its static data are there when it is linked at a fixed address (-no-pie).
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sim/low_memory.h"
#include "sim/preload/low_heap.h"

#if UINTPTR_MAX > UINT32_MAX

#include <dlfcn.h>

namespace {

using Main = int (*)(int, char**, char**);

Main program_main;
constexpr size_t kPage = 4096;

int MainOnLowStack(int argc, char** argv, char** environment)
{
    return cardsim::RunOnLowStack([&] { return program_main(argc, argv, environment); });
}

}  // namespace

// libc's own parameter names are reserved ones.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

// What a program's first instructions call. The arguments behind main pass through.
int __libc_start_main(Main main, int argc, char** argv, void (*init)(), void (*fini)(),
                      void (*rtld_fini)(), void* stack_end)
{
    using Start = int(Main, int, char**, void (*)(), void (*)(), void (*)(), void*);
    program_main = main;
    auto* const start = reinterpret_cast<Start*>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(MainOnLowStack, argc, argv, init, fini, rtld_fini, stack_end);
}

void* malloc(size_t length)
{
    return cardsim::LowHeapAllocate(16, length);
}

void free(void* block)
{
    cardsim::LowHeapFree(block);
}

void* calloc(size_t count, size_t size)
{
    size_t length = 0;
    if (__builtin_mul_overflow(count, size, &length)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* block = cardsim::LowHeapAllocate(16, length);
    return block == nullptr ? nullptr : memset(block, 0, length);
}

void* realloc(void* block, size_t length)
{
    void* moved = cardsim::LowHeapAllocate(16, length);
    if (block != nullptr && moved != nullptr) {
        const size_t before = cardsim::LowHeapSize(block);
        memcpy(moved, block, before < length ? before : length);
        cardsim::LowHeapFree(block);
    }
    return moved;
}

void* memalign(size_t alignment, size_t length)
{
    return cardsim::LowHeapAllocate(alignment, length);
}

void* aligned_alloc(size_t alignment, size_t length)
{
    return cardsim::LowHeapAllocate(alignment, length);
}

void* valloc(size_t length)
{
    return cardsim::LowHeapAllocate(kPage, length);
}

void* pvalloc(size_t length)
{
    return cardsim::LowHeapAllocate(kPage, (length + kPage - 1) / kPage * kPage);
}

int posix_memalign(void** block, size_t alignment, size_t length)
{
    void* found = cardsim::LowHeapAllocate(alignment, length);
    if (found == nullptr) {
        return ENOMEM;
    }
    *block = found;
    return 0;
}

size_t malloc_usable_size(void* block)
{
    return block == nullptr ? 0 : cardsim::LowHeapSize(block);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#endif
