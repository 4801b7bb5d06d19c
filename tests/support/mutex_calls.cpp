// SPDX-License-Identifier: MIT
#include "tests/support/mutex_calls.h"

#include <cstdint>

#include "carddev_state.h"
#include "sim/kernel.h"

std::vector<MutexCall>& MutexCalls()
{
    static std::vector<MutexCall> calls;
    return calls;
}

template <typename Units>
static bool LiesIn(const Units& units, const pthread_mutex_t* mutex)
{
    const auto at = reinterpret_cast<uintptr_t>(mutex);
    const auto first = reinterpret_cast<uintptr_t>(&units);
    return at >= first && at < first + sizeof units;
}

static void Note(MutexCallKind kind, const pthread_mutex_t* mutex)
{
    const cardsim::Kernel* kernel = cardsim::Kernel::Current();
    if (kernel != nullptr && (LiesIn(zel_dev, mutex) || LiesIn(mivo_dev, mutex))) {
        MutexCalls().push_back({kind, mutex, kernel->Calls().size()});
    }
}

extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes)
{
    Note(MutexCallKind::Create, mutex);
    return __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex)
{
    Note(MutexCallKind::Destroy, mutex);
    return __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Note(MutexCallKind::Lock, mutex);
    return __real_pthread_mutex_lock(mutex);
}

}  // extern "C"
