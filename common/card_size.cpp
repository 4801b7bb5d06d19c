// SPDX-License-Identifier: MIT
#include "common/card_size.h"

namespace {

constexpr uint32_t kLargestStandardCapacity = 0x3FFFFF;

uint32_t HighCapacitySectors(const uint8_t* csd, uint32_t protected_bytes)
{
    const uint32_t c_size = (csd[7] & 0x3Fu) << 16 | uint32_t{csd[8]} << 8 | csd[9];
    return ((c_size + 1) << 10) + (protected_bytes >> 9);
}

// Blocks shorter than a sector give 0.
uint32_t StandardCapacitySectors(const uint8_t* csd, uint32_t protected_bytes)
{
    const uint32_t c_size = (csd[6] & 3u) << 10 | uint32_t{csd[7]} << 2 | uint32_t{csd[8]} >> 6;
    const uint32_t mult = (csd[9] & 3u) << 1 | uint32_t{csd[10]} >> 7;
    const uint32_t block_length = csd[5] & 15u;
    return ((c_size + 1 + protected_bytes) << (mult + 2)) * ((1u << block_length) >> 9);
}

}  // namespace

uint32_t CardSectors(uint32_t capacity, const uint8_t* csd, const uint8_t* sd_status)
{
    const uint32_t protected_bytes = uint32_t{sd_status[4]} << 24 | uint32_t{sd_status[5]} << 16 |
                                     uint32_t{sd_status[6]} << 8 | sd_status[7];
    return capacity > kLargestStandardCapacity ? HighCapacitySectors(csd, protected_bytes)
                                               : StandardCapacitySectors(csd, protected_bytes);
}
