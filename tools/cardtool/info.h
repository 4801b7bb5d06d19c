// SPDX-License-Identifier: MIT
//
// The registers of a card, or of none.
#ifndef CARDTOOL_INFO_H
#define CARDTOOL_INFO_H

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/device.h"
#include "tools/cardtool/report.h"

void ShowInfo(const Arguments& arguments, Device& device, Report& report);
void DecodeRegisters(const Arguments& arguments, Report& report);

#endif
