// SPDX-License-Identifier: MIT
//
// What most operations ask first, in the words that all of them have for it.
#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

void Mivo_ReportNotOpened(const char* caller, unsigned line)
{
    LOG_ERROR_OF(caller, line, "Cannot get driver info!\n");
}

bool Mivo_HasNode(const MivoDevice* dev, const char* caller, unsigned line)
{
    if (!Mivo_IsOpened(dev, caller, line)) {
        return false;
    }
    if (dev->chr_fd == 0) {
        LOG_ERROR_OF(caller, line, "Invalid chr_fd!\n");
        return false;
    }
    return true;
}
