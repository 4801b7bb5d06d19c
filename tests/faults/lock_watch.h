// SPDX-License-Identifier: MIT
//
// What is done with the units' locks. The linker puts these functions in front of libc's.
// For one thread.
#ifndef CARDDEV_TESTS_FAULTS_LOCK_WATCH_H
#define CARDDEV_TESTS_FAULTS_LOCK_WATCH_H

#include <pthread.h>

namespace faults {

struct LockWatch {
    const pthread_mutex_t* own = nullptr;  // of the unit in question, if it has one
    int held = 0;                          // how often it was taken and not given back
    bool odd = false;      // it was given back though nobody had it, or taken while it was held
    bool foreign = false;  // that of another unit was touched
};

LockWatch& Locks();

}  // namespace faults

#endif
