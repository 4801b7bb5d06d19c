// SPDX-License-Identifier: MIT
//
// The Ricoh SD host's driver: one block node.
#ifndef CARDSIM_RICOH_DRIVER_H
#define CARDSIM_RICOH_DRIVER_H

#include <memory>
#include <mutex>

#include "sim/card.h"
#include "sim/kernel.h"

namespace cardsim {

inline constexpr char kRicohNode[] = "/dev/sdcarda";

// The host of a Kernel. Its node appears with the first card and stays.
class RicohHost : public std::enable_shared_from_this<RicohHost> {
public:
    static std::shared_ptr<RicohHost> Create(Kernel& kernel);

    // At any moment, from any thread.
    void Insert(std::shared_ptr<Card> card);
    void Eject();

private:
    friend class RicohDriver;

    explicit RicohHost(Kernel& kernel) : kernel_(kernel) {}
    std::shared_ptr<Card> CardIn();

    Kernel& kernel_;
    std::mutex lock_;
    std::shared_ptr<Card> card_;
};

// A host with a card that stays.
void AddRicohCard(Kernel& kernel, std::shared_ptr<Card> card);

}  // namespace cardsim

#endif
