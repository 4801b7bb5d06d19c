// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_ARGUMENTS_H
#define CARDTOOL_ARGUMENTS_H

#include <cstdint>
#include <optional>
#include <string>

#include "tools/cardtool/files.h"

enum class Command {
    None,
    List,
    Detect,
    Info,
    Decode,
    Size,
    Status,
    WriteProtect,
    FormatParams,
    Read,
    Write,
    Verify,
    Backup,
    Restore,
    Bench,
    Watch,
    Rt,
    Ioctl,
};

struct Arguments {
    Command command = Command::None;
    std::string device;                // FormatParams: empty when a capacity is given
    std::optional<uint32_t> capacity;  // FormatParams: sectors of a card that is not there
    std::string sim;                   // file that describes simulated cards, or empty
    std::string file;                  // Read, Write: the other side; "-" is standard
    uint32_t first = 0;                // Read, Write: where on the card
    std::optional<uint32_t> count;     // Read: how much; to the card's end when not set
    bool direct = false;               // Read, Write: by the driver's direct memory access
    bool yes = false;                  // Write, Ioctl: without asking
    uint32_t in_file = 0;              // transfers: sector of the file to begin at
    bool verify = true;                // Write, Backup, Restore: compare afterwards
    std::string progress = "auto";     // transfers: how it is shown
    bool json = false;                 // one document instead of lines for people
    bool fields = false;               // Info: every field of the registers
    std::string cid;                   // Decode: registers in hexadecimal digits
    std::string csd;
    std::string scr;
    std::string sd_status;
    std::optional<std::string> rt;   // Rt: "lock" or "unlock"; only look when not set
    std::optional<uint32_t> looks;   // Watch: how many; no end when not set
    std::optional<uint32_t> events;  // Watch: how many ejects and insertions; the same
    uint32_t interval = 500;         // Watch: milliseconds between two
    uint32_t number = 0;             // Ioctl: which command
    uint32_t argument = 0;           // Ioctl: its argument
};

// Whether --json is among them, for failures to understand the rest.
bool WantsJson(int argc, char** argv);

// None when --help or --version was all there was to do: its text is in
// `results`. A Failure for a command line that cannot be understood.
std::optional<Arguments> ParseArguments(int argc, char** argv, Output& results);

#endif
