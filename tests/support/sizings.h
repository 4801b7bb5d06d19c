// SPDX-License-Identifier: MIT
//
// What cards' registers make of their sizes, for all back-ends that work them out.
#ifndef CARDDEV_TESTS_SIZINGS_H
#define CARDDEV_TESTS_SIZINGS_H

#include <cstddef>
#include <cstdint>

#include "tests/support/outcome.h"

struct Sizing {
    const char* what;
    uint32_t sectors;  // as the driver states them
    uint32_t c_size;
    uint32_t mult;
    uint32_t block_length;  // as a power of two
    uint32_t protected_bytes;
    uint32_t size;
};

// A version 1 CSD; what is not of use is filled with `others`.
inline Bytes StandardCsd(const Sizing& sizing, uint8_t others)
{
    Bytes csd(16, others);
    const auto field = [&](size_t at, uint32_t value, uint32_t mask) {
        csd[at] = static_cast<uint8_t>((value & mask) | (others & ~mask));
    };
    field(5, sizing.block_length, 0x0F);
    field(6, sizing.c_size >> 10, 0x03);
    field(7, sizing.c_size >> 2, 0xFF);
    field(8, sizing.c_size << 6, 0xC0);
    field(9, sizing.mult >> 1, 0x03);
    field(10, sizing.mult << 7, 0x80);
    return csd;
}

// A version 2 CSD.
inline Bytes HighCapacityCsd(const Sizing& sizing, uint8_t others)
{
    Bytes csd(16, others);
    csd[7] = static_cast<uint8_t>(((sizing.c_size >> 16) & 0x3F) | (others & 0xC0));
    csd[8] = static_cast<uint8_t>(sizing.c_size >> 8);
    csd[9] = static_cast<uint8_t>(sizing.c_size);
    return csd;
}

// Cards that are read as high-capacity ones.
constexpr Sizing kLargeSizings[] = {
    {"nothing protected", 0x400000, 15159, 0, 0, 0, 15523840},
    {"the smallest", 0x400000, 0, 0, 0, 0, 1024},
    {"each byte counts", 0x400000, 0x123456, 0, 0, 0, 0x123457 * 1024u},
    {"up to the limit", 0x40000000, 0xFFFFF, 0, 0, 0, 0x40000000},
    {"wraps", 0x400000, 0x3FFFFF, 0, 0, 0, 0},
    {"less than a sector protected", 0x400000, 15159, 0, 0, 511, 15523840},
    {"one sector protected", 0x400000, 15159, 0, 0, 512, 15523841},
    {"64 MiB protected", 0x400000, 15159, 0, 0, 0x04000000, 15523840 + 0x20000},
    {"each byte of it counts", 0x400000, 0, 0, 0, 0x12345678, 1024 + 0x091A2B},
    {"all that can be", 0x400000, 0, 0, 0, 0xFFFFFFFF, 1024 + 0x7FFFFF},
    {"whatever the driver says", 0x80000000, 15159, 0, 0, 0, 15523840},
    {"unsigned", 0xFFFFFFFF, 15159, 0, 0, 0, 15523840},
};

// ... and the others.
constexpr Sizing kSmallSizings[] = {
    {"1 GiB", 0x200000, 4095, 7, 9, 0, 0x200000},
    {"blocks of 1024", 0x200000, 4095, 7, 10, 0, 0x400000},
    {"blocks of 2048", 0x200000, 2047, 7, 11, 0, 0x400000},
    {"the smallest", 0x200000, 0, 0, 9, 0, 4},
    {"each bit of the size counts", 0x200000, 0xA5B, 0, 9, 0, 0xA5C * 4},
    {"and the others", 0x200000, 0x5A4, 0, 9, 0, 0x5A5 * 4},
    {"multiplier 1", 0x200000, 0, 1, 9, 0, 8},
    {"multiplier 2", 0x200000, 0, 2, 9, 0, 16},
    {"multiplier 4", 0x200000, 0, 4, 9, 0, 64},
    {"multiplier 7", 0x200000, 0, 7, 9, 0, 512},
    {"blocks of 256", 0x200000, 4095, 7, 8, 0, 0},
    {"blocks of 1", 0x200000, 4095, 7, 0, 0, 0},
    {"blocks of 32768", 0x200000, 0, 0, 15, 0, 4 * 64},
    {"a byte protected", 0x200000, 9, 2, 9, 1, 11 * 16},
    {"bytes are not scaled first", 0x200000, 9, 0, 9, 512, 522 * 4},
    {"each byte of it counts", 0x200000, 0, 0, 9, 0x01020304, 0x01020305 * 4},
    {"wraps in the sum", 0x200000, 9, 0, 9, 0xFFFFFFFF, 9 * 4},
    {"wraps in the shift", 0x200000, 9, 7, 9, 0x00800000, 10 * 512},
    {"wraps in the product", 0x200000, 0, 7, 15, 0x001FFFFF, 0},
    {"no sectors at all", 0, 4095, 7, 9, 0, 0x200000},
    {"the last smaller one", 0x3FFFFF, 4095, 7, 10, 0, 0x400000},
};

#endif
