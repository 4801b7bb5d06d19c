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

// printf to standard output that leaves errno alone: the first write to a pipe
// or a file makes libc ask whether it is a terminal, which sets ENOTTY, and
// retry decisions rest on the errno of the driver's answer.
extern "C" void carddev_print(const char* format, ...)
    __attribute__((format(printf, 1, 2), cold, noinline));

#define LOG_ERROR(text, ...) \
    carddev_print("[" LOG_TAG ":%s(%d)](E)" text, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define LOG_WARNING(text, ...) \
    carddev_print("[" LOG_TAG ":%s(%d)](W)" text, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#endif
