// SPDX-License-Identifier: MIT
//
// What is done with the units' locks. The linker puts these functions in front of libc's.
// For one thread.
#ifndef CARDDEV_TESTS_FAULTS_LOCK_WATCH_H
#define CARDDEV_TESTS_FAULTS_LOCK_WATCH_H

namespace faults {

struct LockWatch {
    int held = 0;      // locks taken and not given back
    bool odd = false;  // one was given back that nobody had, or taken while it was held
};

LockWatch& Locks();

}  // namespace faults

#endif
