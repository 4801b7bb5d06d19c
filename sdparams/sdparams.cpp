// SPDX-License-Identifier: MIT
//
// How a card of a given capacity is to be formatted. Sizes are in sectors.
#include "carddev.h"

#define LOG_TAG Drv
#include "common/log.h"

namespace {

constexpr uint32_t kRootDirSectors = 32;
constexpr uint32_t kMostFat12Clusters = 4084;
constexpr uint32_t kFewestReservedSectors = 10;

struct Layout {
    uint32_t capacity;  // the largest card that is laid out so
    uint32_t cluster;
    uint32_t boundary;  // the data area starts on a multiple of it
    uint32_t fs_type;   // FAT12 and FAT16 are told apart by the cluster count
};

constexpr Layout kLayouts[] = {
    {16384, 16, 16, SD_FS_FAT16},           // 8 MiB
    {131072, 32, 32, SD_FS_FAT16},          // 64 MiB
    {524288, 32, 64, SD_FS_FAT16},          // 256 MiB
    {2097152, 32, 128, SD_FS_FAT16},        // 1 GiB
    {4194304, 64, 128, SD_FS_FAT16},        // 2 GiB
    {67108864, 64, 8192, SD_FS_FAT32},      // 32 GiB
    {268435456, 256, 32768, SD_FS_EXFAT},   // 128 GiB
    {1073741824, 512, 65536, SD_FS_EXFAT},  // 512 GiB
};

const Layout* LayoutFor(uint32_t capacity)
{
    for (const Layout& layout : kLayouts) {
        if (capacity <= layout.capacity) {
            return &layout;
        }
    }
    return nullptr;
}

// One copy of the FAT, with `bits` to an entry.
int32_t FatSectors(uint32_t clusters, uint32_t bits)
{
    return static_cast<int32_t>((clusters * bits + 4095) / 4096);
}

// What has to be added to `sectors` to reach the next multiple of `boundary`.
int32_t FillUp(int32_t sectors, int32_t boundary)
{
    int32_t fill = boundary - sectors;
    while (fill < 0) {
        fill += boundary;
    }
    return fill;
}

// The gap goes in front of the partition. There is no upper bound to the clusters
// of a FAT16: at 2 GiB they are 65536.
void LayOutFat16(const Layout& layout, uint32_t capacity, SdFormatParams* params)
{
    const uint32_t clusters = capacity / layout.cluster;
    const bool is_fat12 = clusters <= kMostFat12Clusters;
    params->fs_type = is_fat12 ? SD_FS_FAT12 : SD_FS_FAT16;

    const auto boundary = static_cast<int32_t>(layout.boundary);
    const int32_t system_area =
        2 * FatSectors(clusters, is_fat12 ? 12 : 16) + 1 + static_cast<int32_t>(kRootDirSectors);
    const int32_t gap = FillUp(system_area, boundary);
    const int32_t start = gap == boundary ? gap : gap + boundary;
    params->partition_start = static_cast<uint32_t>(start);
    params->data_start = static_cast<uint32_t>(system_area + start);
}

// The gap goes into the reserved sectors.
void LayOutFat32(const Layout& layout, uint32_t capacity, SdFormatParams* params)
{
    const int32_t fats = 2 * FatSectors(capacity / layout.cluster, 32);
    auto reserved = static_cast<uint32_t>(FillUp(fats, static_cast<int32_t>(layout.boundary)));
    if (reserved < kFewestReservedSectors) {
        reserved += layout.boundary;
    }
    params->fs_type = SD_FS_FAT32;
    params->partition_start = layout.boundary;
    params->data_start = layout.boundary + reserved + static_cast<uint32_t>(fats);
}

void LayOutExfat(const Layout& layout, SdFormatParams* params)
{
    params->fs_type = SD_FS_EXFAT;
    params->partition_start = layout.boundary;
    params->data_start = 2 * layout.boundary;
}

}  // namespace

int32_t CalcSdParams(uint32_t capacity, SdFormatParams* params)
{
    if (params == nullptr) {
        return -EINVAL;
    }
    // Written even where the card is then refused.
    params->fs_type = SD_FS_FAT16;
    params->root_dir_sectors = kRootDirSectors;
    const Layout* layout = LayoutFor(capacity);
    if (layout == nullptr) {
        LOG_PLAIN("** OVER 2TB : %lu\n", static_cast<unsigned long>(capacity));
        return -1;
    }
    if (layout->fs_type == SD_FS_FAT16) {
        LayOutFat16(*layout, capacity, params);
    } else if (layout->fs_type == SD_FS_FAT32) {
        LayOutFat32(*layout, capacity, params);
    } else {
        LayOutExfat(*layout, params);
    }
    return 0;
}
