// SPDX-License-Identifier: MIT
//
// Tests run on a stack below 4 GiB: on a 64-bit host the drivers' records still
// carry 32-bit addresses.
#include <gtest/gtest.h>

#include "sim/low_memory.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    return cardsim::RunOnLowStack([] { return RUN_ALL_TESTS(); });
}
