// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_WATCH_H
#define CARDTOOL_WATCH_H

#include "tools/cardtool/arguments.h"
#include "tools/cardtool/device.h"
#include "tools/cardtool/report.h"

// The state first, then each eject and each insertion when it happens, until so many were
// seen, so many looks were taken, or SIGINT or SIGTERM arrives: that is no failure here.
void WatchCard(const Arguments& arguments, const DrvInfo& detected, Report& report);

#endif
