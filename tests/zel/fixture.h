// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_ZEL_FIXTURE_H
#define CARDDEV_TESTS_ZEL_FIXTURE_H

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "sim/zel_driver.h"
#include "tests/support/handle.h"
#include "tests/support/mutex_calls.h"
#include "tests/support/on_unit.h"
#include "tests/support/outcome.h"
#include "tests/support/trace.h"
#include "zel/zel.h"

// A handle on a card in slot 0 of the Zel driver, detected. The static state of
// the back-end is blank at the start of each test, and no memory or descriptor of
// the library's is left at its end.
class Zel : public testing::Test {
protected:
    static constexpr uint32_t kSectors = 2048;

    Zel()
    {
        memset(zel_dev, 0, sizeof zel_dev);
        ejects = 0;
        eject_saw_lock = false;
        Use(0);
        MutexCalls().clear();
    }

    ~Zel() override
    {
        kernel.ClearFaults();
        if (handle.priv == dev && dev->sg_table != nullptr) {
            zel_ops.Exit(&handle);
        }
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, kernel.LiveBlocks());
    }

    // Go on with that unit, with a card in its slot and a handle of its own.
    void Use(unsigned unit)
    {
        slots->Insert(unit, card);
        handle = HandleFor(cardsim::ZelBlockNode(unit));
        ASSERT_EQ(0, DevDetect(&handle));
        ASSERT_EQ(&zel_ops, handle.ops);
        ASSERT_EQ(static_cast<int32_t>(unit), handle.dev_index);
        dev = watched = &zel_dev[unit];
        kernel.ClearCalls();
    }

    // Opened, with the calls up to there forgotten.
    void Open()
    {
        Printed([&] { ASSERT_EQ(0, zel_ops.Init(&handle)); });
        kernel.ClearCalls();
        MutexCalls().clear();
    }

    // Opened without the copies of registers and SD status that a successful size
    // query makes on the way.
    void OpenWithoutCopies()
    {
        FailRequest(ZEL_BLKGETSIZE, EIO);
        Open();
        kernel.ClearFaults();
        ASSERT_EQ(nullptr, dev->secure_buf);
        ASSERT_EQ(nullptr, dev->reg_buf);
    }

    // From here on the card is looked for.
    void WatchForEject() { ASSERT_EQ(0, zel_ops.CardInit(&handle, 0, &OnEject)); }

    static void OnEject()
    {
        ejects++;
        eject_saw_lock = eject_saw_lock || IsHeld(&watched->lock);
    }

    // --- faults ---------------------------------------------------------------

    void Fail(cardsim::CallKind kind, int error, uint64_t first = 1, uint64_t times = 1)
    {
        cardsim::Fault fault;
        fault.kind = kind;
        fault.first = first;
        fault.times = times;
        fault.error = error;
        kernel.Inject(fault);
    }

    void FailRequest(uint32_t request, int error, uint64_t first = 1, uint64_t times = 1,
                     bool reach_driver = false)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.first = first;
        fault.times = times;
        fault.error = error;
        fault.reach_driver = reach_driver;
        kernel.Inject(fault);
    }

    void Answer(uint32_t request, int64_t result, bool reach_driver = true, uint64_t times = 1)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.times = times;
        fault.result = result;
        fault.reach_driver = reach_driver;
        kernel.Inject(fault);
    }

    // Look at every such call when the driver has done its work, before the
    // program gets the answer.
    void During(uint32_t request, const std::function<void(const cardsim::Call&)>& body)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.times = cardsim::Fault::kForEver;
        fault.then = [this, body] { body(kernel.Calls().back()); };
        kernel.Inject(fault);
    }

    // --- locks ----------------------------------------------------------------

    static bool IsHeld(pthread_mutex_t* lock)
    {
        if (pthread_mutex_trylock(lock) != 0) {
            return true;
        }
        pthread_mutex_unlock(lock);
        return false;
    }

    bool IsLocked() { return IsHeld(&dev->lock); }

    sim_card& model() { return card->model(); }

    static uintptr_t AddressOf(const void* object) { return reinterpret_cast<uintptr_t>(object); }

    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    std::shared_ptr<cardsim::ZelSlots> slots = cardsim::ZelSlots::Create(kernel);
    DrvInfo handle = {};
    ZelDevice* dev = nullptr;

    inline static int ejects = 0;               // how often the callback ran
    inline static bool eject_saw_lock = false;  // ... and whether ever with the lock held
    inline static ZelDevice* watched = nullptr;
};

// What is said of a unit's lock holds for any unit: the first and the last.
inline const auto kUnits = testing::Values(0u, 5u);

#endif
