// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_HANDLE_H
#define CARDDEV_TESTS_HANDLE_H

#include <cstring>
#include <string>

#include "carddev.h"

// A handle with its path written and nothing else, as a caller makes it.
inline DrvInfo HandleFor(const std::string& path)
{
    DrvInfo handle = {};
    path.copy(handle.dev_path, sizeof handle.dev_path - 1);
    return handle;
}

#endif
