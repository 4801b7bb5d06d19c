// SPDX-License-Identifier: MIT
//
// What is done to the units' locks. The linker puts these functions in front of
// libc's.
#ifndef CARDDEV_TESTS_MUTEX_CALLS_H
#define CARDDEV_TESTS_MUTEX_CALLS_H

#include <cstddef>
#include <vector>

#include <pthread.h>

enum class MutexCallKind { Create, Destroy, Lock };

struct MutexCall {
    MutexCallKind kind;
    const pthread_mutex_t* mutex;
    size_t system_calls;  // how many system calls the kernel had recorded by then
};

// Calls that concern a unit's lock, in order, until the list is cleared. For one
// thread.
std::vector<MutexCall>& MutexCalls();

#endif
