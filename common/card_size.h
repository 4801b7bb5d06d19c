// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_CARD_SIZE_H
#define CARDDEV_COMMON_CARD_SIZE_H

#include "carddev.h"

#pragma GCC visibility push(hidden)

// Size in sectors of the whole card, user area and protected area together, from
// its registers. `capacity` (sectors, as the driver states it) only chooses how
// the CSD is read: above 0x3FFFFF as a high-capacity card's. 32-bit arithmetic
// throughout. The protected area of a smaller card goes in as bytes before
// scaling, that of a larger one as sectors after it: callers know both sums.
uint32_t CardSectors(uint32_t capacity, const uint8_t* csd, const uint8_t* sd_status);

#pragma GCC visibility pop

#endif
