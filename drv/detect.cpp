// SPDX-License-Identifier: MIT
//
// Which back-end serves a device node.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "common/handle.h"
#include "drv/drv.h"

namespace {

constexpr unsigned kSdDiskMajor = 8;      // SCSI disks: an SM331 card reader
constexpr unsigned kMmcBlockMajor = 179;  // an eSDHC host's cards
constexpr unsigned kZelMajor = 240;
constexpr unsigned kRicohSdMajor = 244;
constexpr unsigned kMivoMajor = 248;  // a character device, unlike the others

// The Zel driver gives each unit 16 minors, counted from minor 1. Minor 0 lies
// before the first unit and comes out as -1.
int32_t ZelUnit(unsigned minor_number)
{
    return (static_cast<int32_t>(minor_number) - 1) >> 4;
}

int Examine(const DrvInfo* handle, struct stat64* node)
{
    if (!PathEnds(handle)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return stat64(handle->dev_path, node);
}

void Bind(DrvInfo* handle, DevType type, int32_t index, const DrvOps* ops)
{
    handle->dev_type = type;
    handle->dev_index = index;
    handle->ops = ops;
}

}  // namespace

int32_t DevDetect(DrvInfo* handle)
{
    if (handle == nullptr) {
        LOG_ERROR("info is null\n");
        return -EINVAL;
    }
    struct stat64 node;
    const int examined = Examine(handle, &node);
    if (examined < 0) {
        LOG_ERROR("stat[%.256s] failed : %s\n", handle->dev_path, carddev_errno_text());
        return examined;
    }
    const bool is_block = S_ISBLK(node.st_mode);
    if (!is_block && !S_ISCHR(node.st_mode)) {
        LOG_ERROR("%s is not device file\n", handle->dev_path);
        return -EINVAL;
    }
    const unsigned major_number = major(node.st_rdev);
    const unsigned minor_number = minor(node.st_rdev);
    if (is_block && major_number == kZelMajor) {
        Bind(handle, DEV_TYPE_ZEL, ZelUnit(minor_number), &zel_ops);
        return 0;
    }
    if (is_block && major_number == kRicohSdMajor) {
        Bind(handle, DEV_TYPE_RICOH_SD, 0, &ricoh_sd_ops);
        return 0;
    }
    if (is_block && major_number == kSdDiskMajor) {
        LOG_ERROR("Not support SM331-SD!\n");
        return -ENODEV;
    }
    if (is_block && major_number == kMmcBlockMajor) {
        LOG_ERROR("Not support eSDHC-SD!\n");
        return -ENODEV;
    }
    if (!is_block && major_number == kMivoMajor) {
        Bind(handle, DEV_TYPE_MIVO, static_cast<int32_t>(minor_number), &mivo_ops);
        return 0;
    }
    LOG_ERROR("Unknown device number(%d:%d)!\n", static_cast<int>(major_number),
              static_cast<int>(minor_number));
    return -ENODEV;
}
