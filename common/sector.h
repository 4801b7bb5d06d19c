// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_SECTOR_H
#define CARDDEV_COMMON_SECTOR_H

#include <stdint.h>
#include <sys/types.h>

// Lengths are formed in 32 bits and wrap from 0x800000 sectors on; positions are
// formed in 64 bits and do not.
constexpr uint32_t SectorsToBytes(uint32_t sectors)
{
    return sectors << 9;
}

constexpr off64_t SectorPosition(uint32_t sector)
{
    return static_cast<off64_t>(sector) << 9;
}

#endif
