// SPDX-License-Identifier: MIT
//
// What goes wrong in a driver, chosen at random.
#ifndef CARDDEV_TESTS_TORTURE_FAULTS_H
#define CARDDEV_TESTS_TORTURE_FAULTS_H

#include "tests/torture/unit.h"

struct Planned {
    bool any = false;
    bool moves_card = false;  // or protects it
};

// Where a fault may strike: after how many calls at most, and whether several threads are
// about, some of which read what a protection changes.
struct FaultScope {
    uint32_t latest;
    bool alone;
};

// Add one fault to what waits in a unit's drivers.
Planned PlanFault(Unit& unit, Random& random, const FaultScope& scope);

#endif
