// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_COMMANDS_H
#define CARDTOOL_COMMANDS_H

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/files.h"

// Carry out the command. Throws Failure.
void RunCommand(const Arguments& arguments, Output& results);

#endif
