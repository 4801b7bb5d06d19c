// SPDX-License-Identifier: MIT
#include "common/completion.h"

#include <poll.h>

namespace {

constexpr short kEvents = POLLIN | POLLOUT | POLLERR | POLLHUP;
constexpr int kCompletionMs = 4000;
constexpr int kPendingMs = 1;

}  // namespace

Completion WaitForCompletion(int fd)
{
    struct pollfd node = {fd, kEvents, 0};
    const int ready = poll(&node, 1, kCompletionMs);
    if (ready < 0) {
        return Completion::PollFailed;
    }
    if (ready == 0) {
        return Completion::TimedOut;
    }
    if (node.revents == 0) {
        return Completion::NoEvent;
    }
    if (node.revents == POLLOUT) {
        return Completion::Done;
    }
    if ((node.revents & POLLHUP) != 0) {
        return Completion::HangUp;
    }
    if ((node.revents & POLLERR) != 0) {
        return Completion::Error;
    }
    if ((node.revents & POLLNVAL) != 0) {
        return Completion::InvalidDescriptor;
    }
    if ((node.revents & POLLIN) != 0) {
        return Completion::Input;
    }
    return Completion::OtherEvent;
}

void DiscardPendingEvent(int fd)
{
    struct pollfd node = {fd, kEvents, 0};
    poll(&node, 1, kPendingMs);
}
