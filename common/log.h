// SPDX-License-Identifier: MIT
//
// Diagnostics. A file defines LOG_TAG before it includes this header, and each
// line then names the function and source line that it stands in:
//
//     LOG_ERROR("Invalid blk_fd!\n")  ->  [zel:RicohSD_Read(81)](E)Invalid blk_fd!
#ifndef CARDDEV_COMMON_LOG_H
#define CARDDEV_COMMON_LOG_H

#ifndef LOG_TAG
#error "define LOG_TAG before including common/log.h"
#endif

#include <errno.h>
#include <string.h>

enum class LogTag : unsigned { Drv, Mivosdif, Zel };
enum class LogLevel : unsigned { Error, Warning };

// Whose a line is, its level and its source line, in one word: up to source line 4095
// the processor needs one instruction to hand it over.
constexpr unsigned LogPlace(LogTag tag, LogLevel level, unsigned line)
{
    return line << 3 | static_cast<unsigned>(level) << 2 | static_cast<unsigned>(tag);
}

// Hidden where they are declared, not only where they are defined: the compiler then
// calls them directly, and their callers need no global offset table for it. The
// headers of the library's other parts do the same.
#pragma GCC visibility push(hidden)

// A line with its prefix, or without one where no function is named; use the macros below.
//
// Prints to standard output and leaves errno alone: the first write to a pipe or a file
// makes libc ask whether it is a terminal, which sets ENOTTY, and retry decisions rest on
// the errno of the driver's answer.
extern "C" void carddev_report(unsigned place, const char* function, const char* text, ...)
    __attribute__((format(printf, 3, 4), cold, noinline));

// The text of errno, as an argument for a line.
extern "C" const char* carddev_errno_text(void) __attribute__((cold, noinline));

#pragma GCC visibility pop

// For a function that prints in the name of another.
#define LOG_ERROR_OF(function, line, text, ...)                                \
    carddev_report(LogPlace(LogTag::LOG_TAG, LogLevel::Error, line), function, \
                   text __VA_OPT__(, ) __VA_ARGS__)

#define LOG_WARNING_OF(function, line, text, ...)                                \
    carddev_report(LogPlace(LogTag::LOG_TAG, LogLevel::Warning, line), function, \
                   text __VA_OPT__(, ) __VA_ARGS__)

#define LOG_ERROR(text, ...) \
    LOG_ERROR_OF(__builtin_FUNCTION(), __LINE__, text __VA_OPT__(, ) __VA_ARGS__)

#define LOG_WARNING(text, ...) \
    LOG_WARNING_OF(__builtin_FUNCTION(), __LINE__, text __VA_OPT__(, ) __VA_ARGS__)

// A line without a prefix.
#define LOG_PLAIN(text, ...) carddev_report(0, nullptr, text __VA_OPT__(, ) __VA_ARGS__)

#endif
