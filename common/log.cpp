// SPDX-License-Identifier: MIT
#define LOG_TAG Drv
#include "common/log.h"

#include <stdarg.h>
#include <stdio.h>

namespace {

// As LogTag and LogLevel count them.
constexpr char kTags[][9] = {"drv", "mivosdif", "zel"};
constexpr char kLevels[] = "EW";

}  // namespace

void carddev_report(unsigned place, const char* function, const char* text, ...)
{
    const int kept = errno;
    va_list arguments;
    va_start(arguments, text);
    flockfile(stdout);  // no other thread's line between the two parts
    printf("[%s:%s(%u)](%c)", kTags[place & 3], function, place >> 3, kLevels[place >> 2 & 1]);
    vprintf(text, arguments);
    funlockfile(stdout);
    va_end(arguments);
    errno = kept;
}

void carddev_print(const char* format, ...)
{
    const int kept = errno;
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    errno = kept;
}

const char* carddev_errno_text(void)
{
    return strerror(errno);
}
