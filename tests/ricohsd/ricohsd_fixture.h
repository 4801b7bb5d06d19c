// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_RICOHSD_FIXTURE_H
#define CARDDEV_TESTS_RICOHSD_FIXTURE_H

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ricohsd/ricohsd.h"
#include "sim/ricoh_driver.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/trace.h"

// A handle on a card behind the Ricoh SD host. The static state of the back-end
// is blank at the start of each test, and no memory or descriptor of the
// library's is left at its end.
class RicohSd : public testing::Test {
protected:
    static constexpr uint32_t kSectors = 64;

    RicohSd()
    {
        memset(ricoh_sd_dev, 0, sizeof ricoh_sd_dev);
        cardsim::AddRicohCard(kernel, card);
        handle.dev_type = DEV_TYPE_RICOH_SD;
        handle.ops = &ricoh_sd_ops;
    }

    ~RicohSd() override
    {
        if (dev.blk_fd != 0) {
            ricoh_sd_ops.Exit(&handle);
        }
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, kernel.LiveBlocks());
    }

    // Opened, with the calls up to there forgotten.
    void Open()
    {
        Printed([&] { ASSERT_EQ(0, ricoh_sd_ops.Init(&handle)); });
        kernel.ClearCalls();
    }

    // Opened without success: the node's number is negative from then on.
    void FailToOpen()
    {
        Fail(cardsim::CallKind::Open, ENXIO);
        Printed([&] { ASSERT_EQ(-1, ricoh_sd_ops.Init(&handle)); });
        kernel.ClearFaults();
        kernel.ClearCalls();
    }

    void Fail(cardsim::CallKind kind, int error, uint64_t first = 1, uint64_t times = 1)
    {
        cardsim::Fault fault;
        fault.kind = kind;
        fault.first = first;
        fault.times = times;
        fault.error = error;
        kernel.Inject(fault);
    }

    void FailRequest(uint32_t request, int error, bool reach_driver = false)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.error = error;
        fault.reach_driver = reach_driver;
        kernel.Inject(fault);
    }

    sim_card& model() { return card->model(); }

    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    DrvInfo handle = HandleFor(cardsim::kRicohNode);
    RicohSdDev& dev = ricoh_sd_dev[0];
};

inline void ExpectBlank(const RicohSdDev& dev)
{
    EXPECT_EQ(0, dev.index);
    EXPECT_EQ(0, dev.read_only);
    EXPECT_EQ(0, dev.blk_fd);
    EXPECT_EQ(nullptr, dev.secure_buf);
    EXPECT_EQ(nullptr, dev.reg_buf);
}

#endif
