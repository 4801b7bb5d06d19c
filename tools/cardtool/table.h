// SPDX-License-Identifier: MIT
//
// What the tool can be asked: one table from which the parser, the help texts, the
// manual page and the shells' completions come.
#ifndef CARDTOOL_TABLE_H
#define CARDTOOL_TABLE_H

#include <span>
#include <string>

#include "tools/cardtool/arguments.h"

// What stands behind a command's name.
enum class Operand {
    None,
    Device,  // node of a card
    Card,    // node of a card, or a number of sectors
};

struct Option {
    const char* names;  // "-o,--output": short form first
    const char* value;  // what its value is called; null for a flag
    const char* help;   // one line
    bool required;
    const char* choices;  // the values that there are, with blanks between; null for any
    void (*take)(Arguments& arguments, const std::string& value);
};

struct Example {
    const char* line;
    const char* what;
};

struct CommandEntry {
    Command command;
    const char* name;
    const char* purpose;
    Operand operand;
    std::span<const Option> options;
    std::span<const Example> examples;
    const char* details = nullptr;  // sentences that the purpose has no room for
};

std::span<const CommandEntry> Commands();
// Options that go with every command.
std::span<const Option> GlobalOptions();

// "DEVICE"; empty where there is none.
std::string OperandName(Operand operand);
std::string OperandHelp(Operand operand);
void TakeOperand(Operand operand, Arguments& arguments, const std::string& value);
// "--output" of "-o,--output", and "-o"; empty where there is no short form.
std::string LongName(const Option& option);
std::string ShortName(const Option& option);

// Texts that stand in --help and on the manual page.
extern const char kOutputText[];
extern const char kSimulationText[];
extern const char kSimulationExample[];
extern const char kSimulationNodes[];

#endif
