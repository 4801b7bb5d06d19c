// SPDX-License-Identifier: MIT
//
// What the C++ face takes for a mistake of its caller's. The checks are there where asserts
// are; a program of its own, as all of a program has to see the same header.
#undef NDEBUG
#include <gtest/gtest.h>

#include "carddev.hpp"
#include "sim/ricoh_driver.h"
#include "tests/support/capture.h"

namespace {

using carddev::Error;
using carddev::Result;

struct Pair {
    int first;
    int second;
};

TEST(CppAssertDeathTest, AFailureHasAReason)
{
    EXPECT_DEATH(static_cast<void>(Result<Pair>(Error(0))), "code_ != 0");
    EXPECT_EQ(Error(-1), Result<Pair>(Error(-1)).error());
    EXPECT_EQ(Error(1), Result<Pair>(Error(1)).error());
}

TEST(CppAssertDeathTest, AFailureHasNoValue)
{
    for (const int32_t code : {-5, 1, 10}) {
        Result<Pair> failed{Error(code)};
        const Result<Pair>& constant = failed;
        EXPECT_DEATH(static_cast<void>(*failed), "code_ == 0");
        EXPECT_DEATH(static_cast<void>(*constant), "code_ == 0");
        EXPECT_DEATH(static_cast<void>(failed->first), "code_ == 0");
        EXPECT_DEATH(static_cast<void>(constant->second), "code_ == 0");
    }
}

TEST(CppAssert, AValueIsThere)
{
    Result<Pair> done{Pair{3, 4}};
    const Result<Pair>& constant = done;
    EXPECT_EQ(3, (*done).first);
    EXPECT_EQ(4, (*constant).second);
    done->first = 5;
    EXPECT_EQ(5, constant->first);
}

// Zero is an answer.
TEST(CppAssert, ZeroIsNoFailure)
{
    cardsim::Kernel kernel;
    AddRicohCard(kernel, cardsim::Card::InMemory(64));
    Printed([] {
        auto device = carddev::Device::Open("/dev/sdcarda");
        EXPECT_TRUE(device);
        EXPECT_EQ(0, *device->RealTimeOnForWait());
    });
}

}  // namespace
