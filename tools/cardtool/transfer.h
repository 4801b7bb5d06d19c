// SPDX-License-Identifier: MIT
//
// Moving many sectors between a card and a file.
#ifndef CARDTOOL_TRANSFER_H
#define CARDTOOL_TRANSFER_H

#include <cstdint>
#include <string>

#include "tools/cardtool/device.h"
#include "tools/cardtool/files.h"
#include "tools/cardtool/progress.h"

// A run of sectors that lies on the card, and how it is moved.
struct Range {
    uint32_t first;
    uint32_t count;
    bool direct = false;                // by the driver's direct memory access
    uint32_t in_file = 0;               // sector of the file where the run stands
    const char* file_option = nullptr;  // what moves that: "--skip" or "--seek"
    bool limited = false;               // an earlier end than the card's was asked for
};

// "1 sector", "2 sectors"
std::string SectorCount(uint64_t count);

// Sectors from `first` to the card's end. A Failure when there are none.
uint32_t SectorsFrom(Device& device, uint32_t first);

// `progress` may be null.
void ReadSectors(Device& device, Range range, Output& output, Progress* progress = nullptr);
void WriteSectors(Device& device, Range range, Input& input, Progress* progress = nullptr);
// Read the sectors again and compare. A Failure that says how many differ.
void CompareSectors(Device& device, Range range, Input& input, Progress* progress = nullptr);

// How long the reads of a run took.
struct Timing {
    uint64_t bytes;
    double seconds;  // above 0
    uint64_t median_us;
    uint64_t longest_us;
};

Timing TimeReads(Device& device, Range range);

#endif
