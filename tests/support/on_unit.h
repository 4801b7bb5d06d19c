// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_ON_UNIT_H
#define CARDDEV_TESTS_ON_UNIT_H

#include <gtest/gtest.h>

#include "tests/support/mutex_calls.h"

// A back-end's fixture on the unit of the parameter, with nothing recorded so far.
template <typename Fixture>
class OnUnit : public Fixture, public testing::WithParamInterface<unsigned> {
protected:
    OnUnit()
    {
        this->Use(GetParam());
        MutexCalls().clear();
    }
};

#endif
