// SPDX-License-Identifier: MIT
//
// libc's calls that a direct transfer makes, as ones that do nothing: a program's own come
// first in the search for names, for the shared library, too.
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>

extern "C" {

int ioctl(int /*fd*/, unsigned long /*request*/, ...) noexcept
{
    return 0;
}

int poll(struct pollfd* nodes, nfds_t /*count*/, int /*timeout*/)
{
    nodes[0].revents = POLLOUT;
    return 1;
}

int pthread_mutex_lock(pthread_mutex_t* /*mutex*/) noexcept
{
    return 0;
}

int pthread_mutex_unlock(pthread_mutex_t* /*mutex*/) noexcept
{
    return 0;
}

}  // extern "C"
