// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_TRACE_H
#define CARDDEV_TESTS_TRACE_H

#include <string>
#include <vector>

#include "sim/kernel.h"

using Trace = std::vector<std::string>;

// The calls that the library made since the last ClearCalls, a line each, in
// order. Allocations are calls, too.
inline Trace TraceOf(const cardsim::Kernel& kernel)
{
    Trace trace;
    for (const cardsim::Call& call : kernel.Calls()) {
        trace.push_back(cardsim::Describe(call));
    }
    return trace;
}

#endif
