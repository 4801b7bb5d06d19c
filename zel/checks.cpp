// SPDX-License-Identifier: MIT
//
// What most operations ask first, in the words that all of them have for it.
#include "zel/zel.h"

#define LOG_TAG Zel
#include "common/log.h"

void Zel_ReportNotOpened(const char* caller, unsigned line)
{
    LOG_ERROR_OF(caller, line, "Cannot get driver info!\n");
}

bool Zel_HasBlockNode(const ZelDevice* dev, const char* caller, unsigned line)
{
    if (!Zel_IsOpened(dev, caller, line)) {
        return false;
    }
    if (dev->blk_fd == 0) {
        LOG_ERROR_OF(caller, line, "Invalid blk_fd!\n");
        return false;
    }
    return true;
}

bool Zel_HasControlNode(const ZelDevice* dev, const char* caller, unsigned line)
{
    if (!Zel_IsOpened(dev, caller, line)) {
        return false;
    }
    if (dev->rt_fd == 0) {
        LOG_ERROR_OF(caller, line, "Invalid rt_fd!\n");
        return false;
    }
    return true;
}
