// SPDX-License-Identifier: MIT
#include "tools/cardtool/registers.h"

#include <algorithm>

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

// Bits [high:low] of a register, at most 32 of them.
uint32_t Bits(const Register& reg, unsigned high, unsigned low)
{
    uint32_t value = 0;
    for (unsigned bit = high + 1; bit > low; bit--) {
        const unsigned position = bit - 1;
        const uint32_t byte = reg[15 - position / 8];
        value = value << 1 | (byte >> position % 8 & 1u);
    }
    return value;
}

// x^7 + x^3 + 1 over all bits but the last byte's.
uint32_t Crc7(const Register& reg)
{
    uint32_t crc = 0;
    for (unsigned bit = 127; bit >= 8; bit--) {
        const uint32_t feedback = crc >> 6 ^ Bits(reg, bit, bit);
        crc = (crc << 1 & 0x7Fu) ^ (feedback != 0 ? 0x09u : 0u);
    }
    return crc;
}

// Version 1 says how many blocks of how many bytes.
uint64_t CapacityOfVersion1(const Register& reg)
{
    const uint64_t blocks = uint64_t{Bits(reg, 73, 62) + 1} << (Bits(reg, 49, 47) + 2);
    return blocks << Bits(reg, 83, 80);
}

// The others count units of 512 KiB, in a field that grew upwards.
uint64_t CapacityInUnits(uint32_t c_size)
{
    return (uint64_t{c_size} + 1) << 19;
}

std::string Text(const Register& reg, size_t first, size_t length)
{
    return {reg.begin() + static_cast<ptrdiff_t>(first),
            reg.begin() + static_cast<ptrdiff_t>(first + length)};
}

}  // namespace

Crc CheckCrc(const Register& reg)
{
    if (reg[15] == 0) {
        return Crc::Absent;
    }
    return reg[15] == (Crc7(reg) << 1 | 1u) ? Crc::Valid : Crc::Mismatch;
}

Register PlaceCid(const CardInfo& info, int32_t dev_type)
{
    Register reg = {};
    if (dev_type == DEV_TYPE_ZEL) {
        std::copy(info.cid + 1, info.cid + 16, reg.begin());
    } else {
        std::copy(info.cid, info.cid + 16, reg.begin());
    }
    return reg;
}

Cid DecodeCid(const CardInfo& info, int32_t dev_type)
{
    const Register reg = PlaceCid(info, dev_type);
    Cid cid = {};
    cid.manufacturer = reg[0];
    cid.oem = Text(reg, 1, 2);
    cid.product = Text(reg, 3, 5);
    cid.revision_major = Bits(reg, 63, 60);
    cid.revision_minor = Bits(reg, 59, 56);
    cid.serial = Bits(reg, 55, 24);
    cid.year = 2000 + Bits(reg, 19, 12);
    cid.month = Bits(reg, 11, 8);
    cid.crc = dev_type == DEV_TYPE_ZEL ? Crc::NotDelivered : CheckCrc(reg);
    return cid;
}

Csd DecodeCsd(const Register& reg)
{
    Csd csd = {};
    csd.version = Bits(reg, 127, 126) + 1;
    csd.crc = CheckCrc(reg);
    switch (csd.version) {
        case 1:
            csd.capacity = CapacityOfVersion1(reg);
            break;
        case 2:
            csd.capacity = CapacityInUnits(Bits(reg, 69, 48));
            break;
        case 3:
            csd.capacity = CapacityInUnits(Bits(reg, 75, 48));
            break;
        default:
            break;
    }
    return csd;
}

bool IsEmpty(const uint8_t* bytes, size_t size)
{
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

std::string Hex(const uint8_t* bytes, size_t size)
{
    std::string text;
    for (size_t i = 0; i < size; i++) {
        text += kHexDigits[bytes[i] >> 4];
        text += kHexDigits[bytes[i] & 0xF];
    }
    return text;
}

std::string CrcText(Crc crc)
{
    switch (crc) {
        case Crc::Valid:
            return "valid";
        case Crc::Absent:
            return "absent (the last byte is 00)";
        case Crc::Mismatch:
            return "mismatching";
        default:
            return "not delivered by this back-end";
    }
}

std::string Printable(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte < 0x20 || byte > 0x7E || c == '\\') {
            result += "\\x" + Hex(&byte, 1);
        } else {
            result += c;
        }
    }
    return result;
}
