// SPDX-License-Identifier: MIT
#include "tools/cardtool/interrupt.h"

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include <poll.h>

namespace {

volatile std::sig_atomic_t caught = 0;

void Note(int)
{
    caught = 1;
}

}  // namespace

void HoldSignals()
{
    struct sigaction action = {};
    action.sa_handler = Note;  // no SA_RESTART: what waits is to end
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM}) {
        struct sigaction before = {};
        sigaction(signal, nullptr, &before);
        // What the shell has us ignore, as in the background, must not be held back:
        // it would count as waiting.
        if (before.sa_handler != SIG_IGN) {
            sigset_t one;
            sigemptyset(&one);
            sigaddset(&one, signal);
            pthread_sigmask(SIG_BLOCK, &one, nullptr);
            sigaction(signal, &action, nullptr);
        }
    }
}

bool Interrupted()
{
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return caught != 0 || sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1;
}

// The signals get through during the wait and at no other moment, so none is lost
// between a look and a wait.
bool WaitFor(int fd, short events, int milliseconds)
{
    sigset_t during;
    pthread_sigmask(SIG_BLOCK, nullptr, &during);
    sigdelset(&during, SIGINT);
    sigdelset(&during, SIGTERM);
    struct pollfd asked = {fd, events, 0};
    const struct timespec limit = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
    const struct timespec* at_most = milliseconds < 0 ? nullptr : &limit;
    if (events != 0 && (fd < 0 || poll(&asked, 1, 0) != 0)) {
        return true;  // ready, or to fail at once
    }
    while (!Interrupted()) {
        if (ppoll(&asked, 1, at_most, &during) >= 0 || errno != EINTR) {
            return true;
        }
    }
    return false;
}
