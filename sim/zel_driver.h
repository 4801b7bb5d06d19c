// SPDX-License-Identifier: MIT
//
// The Zel card-slot driver: a block and a character node for each slot in use, and
// the real-time control node.
#ifndef CARDSIM_ZEL_DRIVER_H
#define CARDSIM_ZEL_DRIVER_H

#include <array>
#include <functional>
#include <memory>
#include <mutex>

#include "sim/card.h"
#include "sim/kernel.h"
#include "sim/model/zel_slots.h"

namespace cardsim {

inline constexpr char kRtNode[] = "/dev/rtctrl_zel";

// "/dev/spda" and "/dev/spdra" for unit 0.
std::string ZelBlockNode(unsigned unit);
std::string ZelCharNode(unsigned unit);

// Slots of a Kernel. Nodes appear with a slot's first card and stay.
class ZelSlots : public std::enable_shared_from_this<ZelSlots> {
public:
    static std::shared_ptr<ZelSlots> Create(Kernel& kernel);

    // At any moment, from any thread.
    void Insert(unsigned unit, std::shared_ptr<Card> card);
    void Eject(unsigned unit);

    // Look at, or change, what the driver knows.
    void With(const std::function<void(sim_zel&)>& body);

    // Called at the start of every transfer request of a unit, on the program's
    // thread and without a lock: to see which requests overlap.
    std::function<void(unsigned unit)> during_transfer;

private:
    friend class ZelBlockDriver;
    friend class ZelCharDriver;
    friend class ZelRtDriver;

    explicit ZelSlots(Kernel& kernel);
    std::shared_ptr<Card> CardIn(unsigned unit);

    Kernel& kernel_;
    std::mutex lock_;
    sim_zel model_;
    std::array<std::shared_ptr<Card>, SIM_ZEL_SLOTS> cards_;
};

}  // namespace cardsim

#endif
