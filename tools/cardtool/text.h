// SPDX-License-Identifier: MIT
//
// How results look to people.
#ifndef CARDTOOL_TEXT_H
#define CARDTOOL_TEXT_H

#include <cstdint>
#include <string>

#include "tools/cardtool/fields.h"

constexpr size_t kColumn = 20;  // where values stand

// "label:     value" and a line break.
std::string Line(std::string label, const std::string& value);
// A number in `base` with leading zeros up to `width` digits.
std::string Digits(unsigned number, int base, size_t width);
// "8 sectors, 4096 bytes"
std::string Capacity(uint64_t bytes);
std::string OnOff(bool on);

// The size of a card for programs.
Json SizeJson(uint32_t sectors);

#endif
