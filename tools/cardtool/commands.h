// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_COMMANDS_H
#define CARDTOOL_COMMANDS_H

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/report.h"

// Carry out the command. Throws Failure.
void RunCommand(const Arguments& arguments, Report& report);

#endif
