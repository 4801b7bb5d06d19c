// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_HANDLE_H
#define CARDDEV_COMMON_HANDLE_H

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "carddev.h"

// The field behind the path must not be taken for more of it.
inline bool PathEnds(const DrvInfo* handle)
{
    return memchr(handle->dev_path, '\0', sizeof handle->dev_path) != nullptr;
}

// Open the node that the handle names. Returns the descriptor, or -1 with errno
// set: ENAMETOOLONG for a path without an end.
inline int OpenDevicePath(const DrvInfo* handle, int flags)
{
    if (!PathEnds(handle)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return open64(handle->dev_path, flags);
}

#endif
