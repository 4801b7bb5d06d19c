// SPDX-License-Identifier: MIT
//
// Which of a card's file systems are in use.
#ifndef CARDTOOL_MOUNTS_H
#define CARDTOOL_MOUNTS_H

#include <istream>
#include <string>

#include "carddev.h"

// Where something of the card of that block device is mounted, whatever its node is
// called; empty when nowhere. `mountinfo` is what /proc/self/mountinfo holds.
std::string MountPointOf(std::istream& mountinfo, const DrvInfo& card);

// A Failure when the card is mounted.
void RefuseMounted(const DrvInfo& card);

#endif
