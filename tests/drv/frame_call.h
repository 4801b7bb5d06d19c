// SPDX-License-Identifier: MIT
//
// What every call of the frame has in common: it refuses a handle that is bound
// to nothing, forwards to one slot, and answers itself where the slot is empty.
#ifndef CARDDEV_TESTS_FRAME_CALL_H
#define CARDDEV_TESTS_FRAME_CALL_H

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/drv/recording_ops.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"

struct FrameCall {
    const char* name;
    size_t slot;
    // The call with fixed arguments; results are widened, a call without one
    // gives 0.
    std::function<int64_t(DrvInfo*)> call;
    std::vector<uint64_t> arguments;  // what must reach the slot of them
    int64_t unbound;                  // result for a null handle
    std::string unbound_printed;
    int64_t empty;  // result for an empty slot
    std::string empty_printed;
};

// A handle whose every field shows whether it was written.
inline DrvInfo MarkedHandle(const DrvOps* ops)
{
    DrvInfo handle = HandleFor("/dev/marked");
    handle.dev_type = 77;
    handle.dev_index = 88;
    handle.ops = ops;
    handle.priv = &handle;
    return handle;
}

inline void ExpectUnchanged(const DrvInfo& handle, const DrvInfo& before)
{
    EXPECT_EQ(0, memcmp(&handle, &before, sizeof handle));
}

inline void ExpectRefusesAnUnboundHandle(const FrameCall& row)
{
    SCOPED_TRACE(row.name);
    recording::Reset();
    int64_t result = 4711;
    EXPECT_EQ(row.unbound_printed, Printed([&] { result = row.call(nullptr); }));
    EXPECT_EQ(row.unbound, result);

    DrvInfo unbound = MarkedHandle(nullptr);
    const DrvInfo before = unbound;
    result = 4711;
    EXPECT_EQ(row.unbound_printed, Printed([&] { result = row.call(&unbound); }));
    EXPECT_EQ(row.unbound, result);
    ExpectUnchanged(unbound, before);
    EXPECT_TRUE(recording::arrivals.empty());

    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { row.call(nullptr); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { row.call(&unbound); }));
}

inline void ExpectAnswersForAnEmptySlot(const FrameCall& row)
{
    SCOPED_TRACE(row.name);
    recording::Reset();
    const DrvOps ops = recording::Without(row.slot);
    DrvInfo handle = MarkedHandle(&ops);
    const DrvInfo before = handle;
    int64_t result = 4711;
    EXPECT_EQ(row.empty_printed, Printed([&] { result = row.call(&handle); }));
    EXPECT_EQ(row.empty, result);
    ExpectUnchanged(handle, before);
    EXPECT_TRUE(recording::arrivals.empty());

    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { row.call(&handle); }));
}

// The slot is called once with every argument, and what it answers is the
// result. `widened` is how the API's type shows an answer of the slot's.
inline void ExpectForwards(const FrameCall& row, const std::function<int64_t(int32_t)>& widened)
{
    SCOPED_TRACE(row.name);
    DrvInfo handle = MarkedHandle(&recording::kOps);
    const DrvInfo before = handle;
    for (const int32_t answer :
         {0, 1, 10, 0x8000, 43271, 65517, 65531, -1, -5, -12, -19, -22, -25, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(answer);
        recording::Reset();
        recording::answer = answer;
        recording::on_arrival = [](DrvInfo*) { errno = EXFULL; };
        int64_t result = 4711;
        int error = 0;
        errno = 0;
        EXPECT_EQ("", Printed([&] {
                      result = row.call(&handle);
                      error = errno;
                  }));
        EXPECT_EQ(widened(answer), result);
        EXPECT_EQ(EXFULL, error);
        EXPECT_EQ((std::vector<recording::Arrival>{{row.slot, &handle, row.arguments}}),
                  recording::arrivals);
        ExpectUnchanged(handle, before);
    }
    recording::Reset();
}

inline int64_t AsItStands(int32_t answer)
{
    return answer;
}

#endif
