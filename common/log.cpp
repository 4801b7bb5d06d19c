// SPDX-License-Identifier: MIT
#define LOG_TAG Drv
#include "common/log.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>

namespace {

// As LogTag and LogLevel count them.
constexpr char kTags[][9] = {"drv", "mivosdif", "zel"};
constexpr char kLevels[] = "EW";

// The longest text names a path of 255 bytes and what an errno value means.
constexpr size_t kLongestText = 512;

}  // namespace

void carddev_report(unsigned place, const char* function, const char* text, ...)
{
    const int kept = errno;
    va_list arguments;
    va_start(arguments, text);
    char filled_in[kLongestText];
    vsnprintf(filled_in, sizeof filled_in, text, arguments);
    va_end(arguments);
    // One call for the whole of it: nobody else's output comes between, and a thread that is
    // cancelled while it waits for a reader leaves no lock behind.
    if (function == nullptr) {
        printf("%s", filled_in);
    } else {
        printf("[%s:%s(%u)](%c)%s", kTags[place & 3], function, place >> 3, kLevels[place >> 2 & 1],
               filled_in);
    }
    errno = kept;
}

const char* carddev_errno_text(void)
{
    return strerror(errno);
}
