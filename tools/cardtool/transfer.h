// SPDX-License-Identifier: MIT
//
// Moving many sectors between a card and a file.
#ifndef CARDTOOL_TRANSFER_H
#define CARDTOOL_TRANSFER_H

#include <cstdint>
#include <string>

#include "tools/cardtool/device.h"
#include "tools/cardtool/files.h"

// A run of sectors that lies on the card, and how it is moved.
struct Range {
    uint32_t first;
    uint32_t count;
    bool direct = false;  // by the driver's direct memory access
};

// "1 sector", "2 sectors"
std::string SectorCount(uint64_t count);

// Sectors from `first` to the card's end. A Failure when there are none.
uint32_t SectorsFrom(Device& device, uint32_t first);

void ReadSectors(Device& device, Range range, Output& output);
void WriteSectors(Device& device, Range range, Input& input);

#endif
