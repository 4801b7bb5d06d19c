// SPDX-License-Identifier: MIT
//
// Simulated cards from a description in a file, for programs.
#ifndef CARDSIM_CONFIG_H
#define CARDSIM_CONFIG_H

#include <string>

#include "sim/kernel.h"

namespace cardsim {

// Add what the file describes. A file whose name ends in .json describes cards
// and faults (sim/README.md has the format); any other is the image of one card,
// put behind the Ricoh SD host. Throws std::runtime_error with a text for the
// user when the file cannot be used.
void AddFromFile(Kernel& kernel, const std::string& path);

}  // namespace cardsim

#endif
