// SPDX-License-Identifier: MIT
//
// The Mivo adaptor's driver: a character node for each unit in use, with plain
// reads and writes, too.
#ifndef CARDSIM_MIVO_DRIVER_H
#define CARDSIM_MIVO_DRIVER_H

#include <array>
#include <functional>
#include <memory>
#include <mutex>

#include "sim/card.h"
#include "sim/kernel.h"
#include "sim/model/mivo_adaptor.h"

namespace cardsim {

// "/dev/mivosdif0" for unit 0.
std::string MivoNode(unsigned unit);

// The units of a Kernel's adaptor. A node appears with a unit's first card and
// stays.
class MivoUnits : public std::enable_shared_from_this<MivoUnits> {
public:
    static std::shared_ptr<MivoUnits> Create(Kernel& kernel);

    // At any moment, from any thread.
    void Insert(unsigned unit, std::shared_ptr<Card> card);
    void Eject(unsigned unit);

    // Look at, or change, what the driver knows.
    void With(const std::function<void(sim_mivo&)>& body);

    // Called at the start of every transfer request of a unit, on the program's
    // thread and without a lock: to see which requests overlap.
    std::function<void(unsigned unit)> during_transfer;

private:
    friend class MivoDriver;

    explicit MivoUnits(Kernel& kernel);
    std::shared_ptr<Card> CardIn(unsigned unit);

    Kernel& kernel_;
    std::mutex lock_;
    sim_mivo model_;
    std::array<std::shared_ptr<Card>, SIM_MIVO_UNITS> cards_;
};

}  // namespace cardsim

#endif
