// SPDX-License-Identifier: MIT
//
// What the checkers of memory are told of bytes without a value: the memory sanitizer, and
// valgrind where its header is there (elsewhere it makes no difference to the program).
#ifndef CARDDEV_FUZZ_CONTENTS_H
#define CARDDEV_FUZZ_CONTENTS_H

#include <stddef.h>

#if defined(__has_feature)
#if __has_feature(memory_sanitizer)
#include <sanitizer/msan_interface.h>
#define FUZZ_MSAN 1
#endif
#endif
#if !defined(FUZZ_MSAN) && defined(__has_include)
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define FUZZ_VALGRIND 1
#endif
#endif

namespace fuzz {

// Fresh memory: nobody has written to it.
inline void HasNoValue([[maybe_unused]] void* at, [[maybe_unused]] size_t length)
{
#if defined(FUZZ_MSAN)
    __msan_poison(at, length);
#elif defined(FUZZ_VALGRIND)
    (void)VALGRIND_MAKE_MEM_UNDEFINED(at, length);
#endif
}

// It may be looked at as it is.
inline void HasValue([[maybe_unused]] void* at, [[maybe_unused]] size_t length)
{
#if defined(FUZZ_MSAN)
    __msan_unpoison(at, length);
#elif defined(FUZZ_VALGRIND)
    (void)VALGRIND_MAKE_MEM_DEFINED(at, length);
#endif
}

}  // namespace fuzz

#endif
