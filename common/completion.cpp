// SPDX-License-Identifier: MIT
#include "common/completion.h"

namespace {

constexpr int kPendingMs = 1;

}  // namespace

Completion CompletionFailure(int ready, const struct pollfd* node)
{
    const int events = node->revents;
    if (ready < 0) {
        return Completion::PollFailed;
    }
    if (ready == 0) {
        return Completion::TimedOut;
    }
    if (events == 0) {
        return Completion::NoEvent;
    }
    if ((events & POLLHUP) != 0) {
        return Completion::HangUp;
    }
    if ((events & POLLERR) != 0) {
        return Completion::Error;
    }
    if ((events & POLLNVAL) != 0) {
        return Completion::InvalidDescriptor;
    }
    if ((events & POLLIN) != 0) {
        return Completion::Input;
    }
    return Completion::OtherEvent;
}

void DiscardPendingEvent(int fd)
{
    struct pollfd node = {fd, COMPLETION_EVENTS, 0};
    poll(&node, 1, kPendingMs);
}
