// SPDX-License-Identifier: MIT
//
// A back-end outside the library: a card that is a piece of memory.
#ifndef CARDDEV_TESTS_FOURTH_RAMDISK_H
#define CARDDEV_TESTS_FOURTH_RAMDISK_H

#include "carddev.h"

constexpr unsigned RAMDISK_MAJOR = 251;  // a block device; unit = minor
constexpr int32_t RAMDISK_UNITS = 2;
constexpr uint32_t RAMDISK_SECTORS = 2048;
constexpr int32_t RAMDISK_TYPE = 3;  // the first DevType that is free

extern "C" const DrvOps ramdisk_ops;

#endif
