// SPDX-License-Identifier: MIT
//
// How the kernel drivers number their requests: the PowerPC layout of ioctl
// numbers. The host's own _IO macros lay them out differently on other
// processors, so none of them is used here.
#ifndef CARDDEV_COMMON_REQUEST_H
#define CARDDEV_COMMON_REQUEST_H

#include <stdint.h>

enum class RequestDirection : uint32_t { None = 1, Read = 2, Write = 4, ReadWrite = 6 };

// Direction in bits 29-31, size of the argument in bits 16-28, type in bits
// 8-15, number in bits 0-7.
constexpr uint32_t RequestNumber(RequestDirection direction, uint32_t size, uint32_t type,
                                 uint32_t number)
{
    return static_cast<uint32_t>(direction) << 29 | size << 16 | type << 8 | number;
}

#endif
