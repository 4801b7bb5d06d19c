// SPDX-License-Identifier: MIT
#include "common/completion.h"

namespace {

constexpr int kPendingMs = 1;

}  // namespace

Failure Wait::WhyNot() const
{
    const int events = node.revents;
    if (ready < 0) {
        return Failure::PollFailed;
    }
    if (ready == 0) {
        return Failure::TimedOut;
    }
    if (events == 0) {
        return Failure::NoEvent;
    }
    if ((events & POLLHUP) != 0) {
        return Failure::HangUp;
    }
    if ((events & POLLERR) != 0) {
        return Failure::Error;
    }
    if ((events & POLLNVAL) != 0) {
        return Failure::InvalidDescriptor;
    }
    if ((events & POLLIN) != 0) {
        return Failure::Input;
    }
    return Failure::OtherEvent;
}

void DiscardPendingEvent(int fd)
{
    struct pollfd node = {fd, COMPLETION_EVENTS, 0};
    poll(&node, 1, kPendingMs);
}
