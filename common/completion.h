// SPDX-License-Identifier: MIT
//
// How the drivers tell that a request they have accepted is done: their
// character node signals POLLOUT, and nothing but POLLOUT.
#ifndef CARDDEV_COMMON_COMPLETION_H
#define CARDDEV_COMMON_COMPLETION_H

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

// Wait for a driver's signal on `fd`, at most 4,000 ms. Leaves errno as poll does.
Completion WaitForCompletion(int fd);

// Take away a signal that is pending from before; waits 1 ms for one.
void DiscardPendingEvent(int fd);

#endif
