// SPDX-License-Identifier: MIT
//
// The ways for each kind of call to end that are not the driver's own.
#ifndef CARDDEV_TESTS_FAULTS_ODDITIES_H
#define CARDDEV_TESTS_FAULTS_ODDITIES_H

#include <vector>

#include "tests/faults/rules.h"

namespace faults {

// All of them: for single faults.
const std::vector<Oddity>& AllOf(const ExpectedCall& call);

// Each errno there is, where a call can have one that decides what follows.
const std::vector<Oddity>& AllErrors(const ExpectedCall& call);

// One for each way that is told from the others: for pairs.
const std::vector<Oddity>& SomeOf(const ExpectedCall& call);

// What can befall the card at any call.
const std::vector<Oddity>& CardMoves();

// How often it may befall a call and those like it: a driver that says "not yet" for ever is
// asked for ever.
uint64_t MostTimes(const Oddity& oddity);

}  // namespace faults

#endif
