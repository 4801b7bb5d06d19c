// SPDX-License-Identifier: MIT
//
// The commands that move sectors between a card and a file.
#ifndef CARDTOOL_MOVES_H
#define CARDTOOL_MOVES_H

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/device.h"
#include "tools/cardtool/report.h"

void ReadCard(const Arguments& arguments, Device& device, Report& report);    // read, backup
void WriteCard(const Arguments& arguments, Device& device, Report& report);   // write, restore
void VerifyCard(const Arguments& arguments, Device& device, Report& report);  // verify
void BenchCard(const Arguments& arguments, Device& device, Report& report);   // bench

#endif
