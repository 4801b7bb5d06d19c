// SPDX-License-Identifier: MIT
//
// How the drivers tell that a request they have accepted is done: their
// character node signals POLLOUT, and nothing but POLLOUT.
#ifndef CARDDEV_COMMON_COMPLETION_H
#define CARDDEV_COMMON_COMPLETION_H

#include <poll.h>

// What a wait came to. The caller has a message for each but the first.
enum class Completion {
    Done,        // POLLOUT alone
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

// What poll's answer means, where it is not Done.
Completion CompletionFailure(int ready, const struct pollfd* node) __attribute__((cold));

// Wait for a driver's signal on `fd`, at most 4,000 ms. Leaves errno as poll does.
__attribute__((always_inline)) inline Completion WaitForCompletion(int fd)
{
    struct pollfd node = {fd, COMPLETION_EVENTS, 0};
    const int ready = poll(&node, 1, COMPLETION_MS);
    return ready > 0 && node.revents == POLLOUT ? Completion::Done
                                                : CompletionFailure(ready, &node);
}

// Take away a signal that is pending from before; waits 1 ms for one.
void DiscardPendingEvent(int fd);

#pragma GCC visibility pop

#endif
