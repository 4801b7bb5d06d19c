// SPDX-License-Identifier: MIT
//
// What else the table of commands is told by: the manual page and the completions
// of the shells.
#ifndef CARDTOOL_GENERATE_H
#define CARDTOOL_GENERATE_H

#include <string>
#include <vector>

#include "tools/cardtool/table.h"

// "man", "bash", "zsh" and "fish".
std::vector<std::string> GeneratedKinds();
std::string Generate(const std::string& kind);

// The words between blanks.
std::vector<std::string> Words(const std::string& text);

// A command's examples for --help, with what each is for below it.
std::string ExampleText(const CommandEntry& entry);

#endif
