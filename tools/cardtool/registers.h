// SPDX-License-Identifier: MIT
//
// What a card's registers say. Registers are most significant byte first, and
// bit 0 is the last bit of the last byte.
#ifndef CARDTOOL_REGISTERS_H
#define CARDTOOL_REGISTERS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "carddev.h"

using Register = std::array<uint8_t, 16>;

// Host controllers commonly check the CRC themselves and hand out a 0 in its
// place; no card sends that, for the register's last bit is a 1.
enum class Crc { Valid, Absent, Mismatch, NotDelivered };

Crc CheckCrc(const Register& reg);

// The card identification register.
struct Cid {
    unsigned manufacturer;
    std::string oem;      // 2 bytes as they came
    std::string product;  // 5 bytes as they came
    unsigned revision_major;
    unsigned revision_minor;
    uint32_t serial;
    unsigned year;
    unsigned month;
    Crc crc;
};

// The CID as the back-end `dev_type` delivers it, put where it belongs: the Zel
// back-end's lacks the last byte, which comes out as 0.
Register PlaceCid(const CardInfo& info, int32_t dev_type);
Cid DecodeCid(const CardInfo& info, int32_t dev_type);

// The card-specific data register.
struct Csd {
    unsigned version;                  // 1 to 3; 4 is not in use
    std::optional<uint64_t> capacity;  // bytes; none where the version is not known
    Crc crc;
};

Csd DecodeCsd(const Register& reg);

// Whether the driver left the register empty.
bool IsEmpty(const uint8_t* bytes, size_t size);

std::string Hex(const uint8_t* bytes, size_t size);
std::string CrcText(Crc crc);

// A card's string for a terminal: whatever is no plain character, and the
// backslash itself, as \xNN, so that a card cannot send a terminal commands.
std::string Printable(const std::string& text);

#endif
