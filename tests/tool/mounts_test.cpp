// SPDX-License-Identifier: MIT
//
// Which mounts are the card's.
#include "tools/cardtool/mounts.h"

#include <sstream>

#include <gtest/gtest.h>

namespace {

constexpr char kMounts[] =
    "22 1 8:1 / / rw - ext4 /dev/root rw\n"
    "30 22 240:18 / /mnt/b\\040one rw,noatime shared:1 - vfat /dev/spdb1 rw\n"
    "31 22 240:33 / /mnt/c rw - exfat /dev/mycard rw\n"
    "32 22 244:1 / /mnt/r rw - vfat /dev/sdcarda1 rw\n";

std::string PointOf(int32_t type, int32_t unit)
{
    std::istringstream mounts(kMounts);
    DrvInfo card = {};
    card.dev_type = type;
    card.dev_index = unit;
    return MountPointOf(mounts, card);
}

TEST(Mounts, FindsTheCardAndItsPartitionsByNumber)
{
    EXPECT_EQ("", PointOf(DEV_TYPE_ZEL, 0));
    EXPECT_EQ("/mnt/b\\040one", PointOf(DEV_TYPE_ZEL, 1));
    EXPECT_EQ("/mnt/c", PointOf(DEV_TYPE_ZEL, 2));
    EXPECT_EQ("", PointOf(DEV_TYPE_ZEL, 3));
    EXPECT_EQ("/mnt/r", PointOf(DEV_TYPE_RICOH_SD, 0));
    EXPECT_EQ("", PointOf(DEV_TYPE_MIVO, 0));
}

TEST(Mounts, BearsLinesThatAreNone)
{
    std::istringstream mounts("\nnonsense\n1 2 240 / /x\n");
    DrvInfo card = {};
    card.dev_type = DEV_TYPE_ZEL;
    EXPECT_EQ("", MountPointOf(mounts, card));
}

}  // namespace
