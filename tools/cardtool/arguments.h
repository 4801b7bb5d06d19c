// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_ARGUMENTS_H
#define CARDTOOL_ARGUMENTS_H

#include <cstdint>
#include <optional>
#include <string>

#include "tools/cardtool/files.h"

enum class Command { Detect, Info, Size, Status, FormatParams, Read, Write };

struct Arguments {
    Command command = Command::Detect;
    std::string device;                // FormatParams: empty when a capacity is given
    std::optional<uint32_t> capacity;  // FormatParams: sectors of a card that is not there
    std::string sim;                   // file that describes simulated cards, or empty
    std::string file;                  // Read, Write: the other side; "-" is standard
    uint32_t first = 0;                // Read, Write: where on the card
    std::optional<uint32_t> count;     // Read: how much; to the card's end when not set
    bool direct = false;               // Read, Write: by the driver's direct memory access
    bool yes = false;                  // Write: without asking
};

// None when --help or --version was all there was to do: its text is in
// `results`. A Failure for a command line that cannot be understood.
std::optional<Arguments> ParseArguments(int argc, char** argv, Output& results);

#endif
