// SPDX-License-Identifier: MIT
//
// The stand-in as a library to preload: before the program's main runs, the cards that
// CARDSIM_CONFIG names are in place.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <unistd.h>

#include "sim/config.h"
#include "sim/kernel.h"
#include "sim/low_memory.h"

namespace {

constexpr int kUnusable = 2;  // exit code

// Nothing was started that would have to be ended: leave at once.
[[noreturn]] void Leave(const char* what)
{
    std::fprintf(stderr,
                 "libcardsim: %s\n"
                 "libcardsim: CARDSIM_CONFIG names a card image, or a description of cards "
                 "(.json)\n",
                 what);
    _exit(kUnusable);
}

__attribute__((constructor)) void PutCardsInPlace()
{
    const char* config = std::getenv("CARDSIM_CONFIG");
    if (config == nullptr || *config == '\0') {
        Leave("CARDSIM_CONFIG is not set");
    }
    try {
        // Serves to the very end, exit handlers included.
        auto* const kernel = new cardsim::Kernel;
        kernel->KeepCalls(false);
        cardsim::AddFromFile(*kernel, config);
    } catch (const std::exception& error) {
        Leave(error.what());
    }
}

}  // namespace

// In a program that the stand-in is linked into, the linker diverts malloc and free to
// sim/heap.cpp and calls libc's by these names. Here nothing is diverted.
extern "C" {

void* __real_malloc(size_t length)
{
    return std::malloc(length);
}

void __real_free(void* block)
{
    std::free(block);
}

}  // extern "C"
