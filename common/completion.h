// SPDX-License-Identifier: MIT
//
// How the drivers tell that a request they have accepted is done: their
// character node signals POLLOUT, and nothing but POLLOUT.
#ifndef CARDDEV_COMMON_COMPLETION_H
#define CARDDEV_COMMON_COMPLETION_H

#include <poll.h>

// Why a wait was in vain. The caller has a message for each.
enum class Failure {
    PollFailed,  // errno tells why
    TimedOut,    // errno is whatever an earlier call left
    NoEvent,     // poll said ready and named no event
    // The first of these that was signalled, with or without POLLOUT:
    HangUp,
    Error,
    InvalidDescriptor,
    Input,
    OtherEvent,
};

constexpr short COMPLETION_EVENTS = POLLIN | POLLOUT | POLLERR | POLLHUP;
constexpr int COMPLETION_MS = 4000;

#pragma GCC visibility push(hidden)

// What poll answered.
struct Wait {
    int ready;
    struct pollfd node;

    bool IsDone() const { return ready > 0 && node.revents == POLLOUT; }
    Failure WhyNot() const __attribute__((cold));  // where it is not done
};

// Wait for a driver's signal on `fd`, at most 4,000 ms. Leaves errno as poll does.
__attribute__((always_inline)) inline Wait WaitForCompletion(int fd)
{
    Wait wait;
    wait.node = {fd, COMPLETION_EVENTS, 0};
    wait.ready = poll(&wait.node, 1, COMPLETION_MS);
    return wait;
}

// Take away a signal that is pending from before; waits 1 ms for one.
void DiscardPendingEvent(int fd);

#pragma GCC visibility pop

#endif
