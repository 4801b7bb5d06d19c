// SPDX-License-Identifier: MIT
//
// What the checkers of memory are told of bytes that have no owner or no value: the address
// and the memory sanitizer, and valgrind where its header is there (elsewhere it makes no
// difference to the program).
#ifndef CARDSIM_CONTENTS_H
#define CARDSIM_CONTENTS_H

#include <stddef.h>

#if defined(__has_include) && __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, length)
#define ASAN_UNPOISON_MEMORY_REGION(address, length)
#endif
#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define CARDSIM_MSAN 1
#endif
#endif
#if !defined(CARDSIM_MSAN) && defined(__has_include)
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define CARDSIM_VALGRIND 1
#endif
#endif

namespace cardsim {

// Nobody's: not to be touched.
inline void IsOffLimits([[maybe_unused]] void* at, [[maybe_unused]] size_t length)
{
    ASAN_POISON_MEMORY_REGION(at, length);
#if defined(CARDSIM_VALGRIND)
    (void)VALGRIND_MAKE_MEM_NOACCESS(at, length);
#endif
}

// Fresh memory: somebody's, and nobody has written to it.
inline void HasNoValue([[maybe_unused]] void* at, [[maybe_unused]] size_t length)
{
    ASAN_UNPOISON_MEMORY_REGION(at, length);
#if defined(CARDSIM_MSAN)
    __msan_poison(at, length);
#elif defined(CARDSIM_VALGRIND)
    (void)VALGRIND_MAKE_MEM_UNDEFINED(at, length);
#endif
}

// It may be looked at as it is.
inline void HasValue([[maybe_unused]] const void* at, [[maybe_unused]] size_t length)
{
#if defined(CARDSIM_MSAN)
    __msan_unpoison(at, length);
#elif defined(CARDSIM_VALGRIND)
    (void)VALGRIND_MAKE_MEM_DEFINED(at, length);
#endif
}

}  // namespace cardsim

#endif
