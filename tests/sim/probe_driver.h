// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_PROBE_DRIVER_H
#define CARDDEV_TESTS_PROBE_DRIVER_H

#include <functional>
#include <string>

#include "sim/kernel.h"

// Keeps what reached it and answers as it is told.
class ProbeDriver : public cardsim::Driver {
public:
    int Open(cardsim::File& file) override
    {
        node = file.node;
        flags = file.flags;
        return open_result;
    }

    int Ioctl(cardsim::File&, uint32_t asked, uintptr_t with) override
    {
        requests++;
        request = asked;
        argument = with;
        if (on_request) {
            on_request();
        }
        return result;
    }

    short Poll(cardsim::File&) override
    {
        polls++;
        return events;
    }

    std::string node;
    int flags = 0;
    int open_result = 0;
    int requests = 0;
    uint32_t request = 0;
    uintptr_t argument = 0;
    std::function<void()> on_request;
    int result = 0;
    int polls = 0;
    short events = 0;
};

#endif
