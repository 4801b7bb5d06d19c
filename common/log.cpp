// SPDX-License-Identifier: MIT
#define LOG_TAG "common"
#include "common/log.h"

#include <stdarg.h>
#include <stdio.h>

void carddev_print(const char* format, ...)
{
    const int kept = errno;
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    errno = kept;
}
