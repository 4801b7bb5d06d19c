// SPDX-License-Identifier: MIT
//
// The linker (--wrap=DevDetect) puts this in front of the library's own detection: one more
// device number, and everything else as it was.
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "tests/fourth/ramdisk.h"

extern "C" {

int32_t __real_DevDetect(DrvInfo* handle);

int32_t __wrap_DevDetect(DrvInfo* handle)
{
    struct stat64 node;
    const bool is_ours = handle != nullptr &&
                         memchr(handle->dev_path, '\0', sizeof handle->dev_path) != nullptr &&
                         stat64(handle->dev_path, &node) == 0 && S_ISBLK(node.st_mode) &&
                         major(node.st_rdev) == RAMDISK_MAJOR;
    if (!is_ours) {
        return __real_DevDetect(handle);
    }
    handle->dev_type = RAMDISK_TYPE;
    handle->dev_index = static_cast<int32_t>(minor(node.st_rdev));
    handle->ops = &ramdisk_ops;
    return 0;
}

}  // extern "C"
