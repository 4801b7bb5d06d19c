// SPDX-License-Identifier: MIT
//
// The stand-in itself: a test of the library is worth what this is worth.
#include "sim/kernel.h"
#include <gtest/gtest.h>
TEST(Kernel, ThereIsOne)
{
    EXPECT_EQ(nullptr, cardsim::Kernel::Current());
    const cardsim::Kernel kernel;
    EXPECT_EQ(&kernel, cardsim::Kernel::Current());
}
