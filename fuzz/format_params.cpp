// SPDX-License-Identifier: MIT
//
// CalcSdParams for any capacity. What must hold is said here in another way than the
// library works it out: by what makes a layout right.
#include <errno.h>
#include <string.h>

#include "carddev.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/machine.h"

namespace {

using fuzz::Answer;
using fuzz::Machine;
using fuzz::SystemCall;

class NoDriver final : public fuzz::Driver {
public:
    Answer Serve(const SystemCall&) override
    {
        FUZZ_CHECK(false, "a pure computation makes a system call");
        return {};
    }
};

struct Class {
    uint32_t most;          // sectors
    uint32_t cluster;       // sectors
    uint32_t boundary;      // sectors
    uint32_t largest_type;  // FAT16 may turn out as FAT12
};

constexpr Class kClasses[] = {
    {16384, 16, 16, SD_FS_FAT16},         {131072, 32, 32, SD_FS_FAT16},
    {524288, 32, 64, SD_FS_FAT16},        {2097152, 32, 128, SD_FS_FAT16},
    {4194304, 64, 128, SD_FS_FAT16},      {67108864, 64, 8192, SD_FS_FAT32},
    {268435456, 256, 32768, SD_FS_EXFAT}, {1073741824, 512, 65536, SD_FS_EXFAT},
};

constexpr uint32_t kUntouched = 0xA5A5A5A5;

// Whole sectors of one FAT with an entry of so many bits for each cluster.
uint32_t FatSectors(uint32_t clusters, uint32_t bits)
{
    return static_cast<uint32_t>((uint64_t{clusters} * bits + 4095) / 4096);
}

void CheckFat(uint32_t capacity, const Class& row, const SdFormatParams& params)
{
    const uint32_t clusters = capacity / row.cluster;
    const bool fat12 = row.largest_type == SD_FS_FAT16 && clusters <= 4084;
    const bool fat32 = row.largest_type == SD_FS_FAT32;
    FUZZ_CHECK(params.fs_type == (fat12   ? SD_FS_FAT12
                                  : fat32 ? SD_FS_FAT32
                                          : SD_FS_FAT16),
               "type %u for %u", params.fs_type, capacity);
    const uint32_t fat = FatSectors(clusters, fat12 ? 12 : fat32 ? 32 : 16);
    const uint32_t between = params.data_start - params.partition_start;
    if (fat32) {
        // Both FATs, and reserved sectors from 10 on, no more than needed.
        FUZZ_CHECK(params.partition_start == row.boundary, "partition at %u",
                   params.partition_start);
        FUZZ_CHECK(between >= 2 * fat + 10 && between - 2 * fat - 10 < row.boundary,
                   "%u sectors for FATs of %u", between, fat);
    } else {
        // Boot sector, both FATs and the root directory, and nothing else.
        FUZZ_CHECK(between == 2 * fat + 33, "%u sectors for FATs of %u", between, fat);
        FUZZ_CHECK(
            params.partition_start >= row.boundary && params.partition_start < 2 * row.boundary,
            "partition at %u", params.partition_start);
    }
}

void Check(uint32_t capacity, const SdFormatParams& params)
{
    const Class* row = kClasses;
    while (capacity > row->most) {
        row++;
    }
    FUZZ_CHECK(params.data_start % row->boundary == 0, "data at %u for %u", params.data_start,
               capacity);
    if (row->largest_type == SD_FS_EXFAT) {
        FUZZ_CHECK(params.fs_type == SD_FS_EXFAT && params.partition_start == row->boundary &&
                       params.data_start == 2 * row->boundary,
                   "exFAT of %u at %u, %u", capacity, params.partition_start, params.data_start);
    } else {
        CheckFat(capacity, *row, params);
    }
}

// Any, or one near a place where the rules change: a class's end, and where in it FAT12 ends.
uint32_t Capacity(fuzz::Input input)
{
    const uint32_t number = input.Number(4);
    const uint8_t how = input.Byte();
    const Class& row = kClasses[how >> 1 & 7];
    if ((how & 1) == 0) {
        return number;
    }
    return (how & 16 ? row.most : 4084 * row.cluster) + number % 256 - 128;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const uint32_t capacity = Capacity(fuzz::Input(data, size));
    NoDriver driver;
    Machine machine(driver);
    SdFormatParams params = {kUntouched, kUntouched, kUntouched, kUntouched};
    machine.Begin();
    const int32_t result = CalcSdParams(capacity, &params);
    machine.End("CalcSdParams");
    FUZZ_CHECK(params.root_dir_sectors == 32, "root directory of %u", params.root_dir_sectors);
    if (capacity > 1073741824) {
        FUZZ_CHECK(result == -1 && params.fs_type == SD_FS_FAT16, "result %d", result);
        FUZZ_CHECK(params.partition_start == kUntouched && params.data_start == kUntouched,
                   "a refused capacity has a layout");
        return 0;
    }
    FUZZ_CHECK(result == 0, "result %d", result);
    Check(capacity, params);
    FUZZ_CHECK(CalcSdParams(capacity, nullptr) == -EINVAL, "a null record is accepted");
    return 0;
}
