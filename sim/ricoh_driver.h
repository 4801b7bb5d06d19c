// SPDX-License-Identifier: MIT
//
// The Ricoh SD host's driver: one block node.
#ifndef CARDSIM_RICOH_DRIVER_H
#define CARDSIM_RICOH_DRIVER_H

#include "sim/block_driver.h"

namespace cardsim {

inline constexpr char kRicohNode[] = "/dev/sdcarda";

// Put the card behind the host: its node appears.
void AddRicohCard(Kernel& kernel, std::shared_ptr<Card> card);

}  // namespace cardsim

#endif
