// SPDX-License-Identifier: MIT
#include "tests/faults/lock_watch.h"

#include <cstdint>

#include "carddev_state.h"

namespace faults {

LockWatch& Locks()
{
    static LockWatch watch;
    return watch;
}

}  // namespace faults

namespace {

template <typename Units>
bool LiesIn(const Units& units, const pthread_mutex_t* mutex)
{
    const auto at = reinterpret_cast<uintptr_t>(mutex);
    const auto first = reinterpret_cast<uintptr_t>(&units);
    return at >= first && at < first + sizeof units;
}

void Note(const pthread_mutex_t* mutex, int change)
{
    faults::LockWatch& watch = faults::Locks();
    if (mutex == watch.own) {
        watch.held += change;
        watch.odd = watch.odd || watch.held < 0 || watch.held > 1;
    } else if (LiesIn(zel_dev, mutex) || LiesIn(mivo_dev, mutex)) {
        watch.foreign = true;
    }
}

}  // namespace

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Note(mutex, 1);
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    Note(mutex, -1);
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
