// SPDX-License-Identifier: MIT
#include "tools/cardtool/text.h"

#include <algorithm>
#include <charconv>

#include "tools/cardtool/transfer.h"

std::string Line(std::string label, const std::string& value)
{
    label += ':';
    label.resize(kColumn, ' ');
    return label + value + "\n";
}

std::string Digits(unsigned number, int base, size_t width)
{
    char text[32];
    const std::to_chars_result written = std::to_chars(text, text + sizeof text, number, base);
    const std::string digits(text, written.ptr);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
}

std::string Capacity(uint64_t bytes)
{
    return SectorCount(bytes / CARD_SECTOR_SIZE) + ", " + std::to_string(bytes) + " bytes";
}

std::string OnOff(bool on)
{
    return on ? "on" : "off";
}

Json SizeJson(uint32_t sectors)
{
    return {{"size_sectors", sectors}, {"size_bytes", uint64_t{sectors} * CARD_SECTOR_SIZE}};
}
