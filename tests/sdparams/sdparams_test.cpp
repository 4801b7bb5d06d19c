// SPDX-License-Identifier: MIT
//
// How a card is to be formatted: examples, every bound, and what holds for every
// capacity.
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <random>
#include <utility>

#include <gtest/gtest.h>

#include "carddev.h"
#include "tests/support/capture.h"

namespace {

constexpr uint32_t kMark = 0xE1E1E1E1;

struct Example {
    uint32_t capacity;
    uint32_t fs_type;
    uint32_t partition_start;
    uint32_t data_start;
};

TEST(SdParams, LaysOutTheExamples)
{
    const Example examples[] = {
        {0, SD_FS_FAT12, 31, 64},
        {15, SD_FS_FAT12, 31, 64},
        {16, SD_FS_FAT12, 29, 64},
        {16384, SD_FS_FAT12, 25, 64},
        {16385, SD_FS_FAT12, 59, 96},
        {60000, SD_FS_FAT12, 51, 96},
        {130687, SD_FS_FAT12, 39, 96},
        {130688, SD_FS_FAT12, 39, 96},
        {130719, SD_FS_FAT12, 39, 96},
        {130720, SD_FS_FAT16, 63, 128},
        {131072, SD_FS_FAT16, 63, 128},
        {131073, SD_FS_FAT16, 127, 192},
        {131104, SD_FS_FAT16, 125, 192},
        {524288, SD_FS_FAT16, 95, 256},
        {524289, SD_FS_FAT16, 223, 384},
        {2097152, SD_FS_FAT16, 223, 768},
        {2097153, SD_FS_FAT16, 223, 512},
        {3896320, SD_FS_FAT16, 131, 640},
        {4194304, SD_FS_FAT16, 223, 768},
        {4194305, SD_FS_FAT32, 8192, 16384},
        {15523840, SD_FS_FAT32, 8192, 16384},
        {67108864, SD_FS_FAT32, 8192, 32768},
        {67108865, SD_FS_EXFAT, 32768, 65536},
        {268435456, SD_FS_EXFAT, 32768, 65536},
        {268435457, SD_FS_EXFAT, 65536, 131072},
        {1073741824, SD_FS_EXFAT, 65536, 131072},
    };
    for (const Example& example : examples) {
        SCOPED_TRACE(example.capacity);
        SdFormatParams params = {kMark, kMark, kMark, kMark};
        EXPECT_EQ("", Printed([&] {
                      errno = EXFULL;
                      EXPECT_EQ(0, CalcSdParams(example.capacity, &params));
                      EXPECT_EQ(EXFULL, errno);
                  }));
        EXPECT_EQ(example.fs_type, params.fs_type);
        EXPECT_EQ(example.partition_start, params.partition_start);
        EXPECT_EQ(example.data_start, params.data_start);
        EXPECT_EQ(32u, params.root_dir_sectors);
    }
}

TEST(SdParams, NumbersTheFileSystemsAndOrdersTheWords)
{
    std::array<uint32_t, 4> words = {};
    static_assert(sizeof words == sizeof(SdFormatParams));
    const auto lay_out = [&](uint32_t capacity) {
        SdFormatParams params;
        EXPECT_EQ(0, CalcSdParams(capacity, &params));
        memcpy(words.data(), &params, sizeof params);
        return words;
    };
    EXPECT_EQ((std::array<uint32_t, 4>{0, 51, 96, 32}), lay_out(60000));
    EXPECT_EQ((std::array<uint32_t, 4>{1, 131, 640, 32}), lay_out(3896320));
    EXPECT_EQ((std::array<uint32_t, 4>{2, 8192, 16384, 32}), lay_out(15523840));
    EXPECT_EQ((std::array<uint32_t, 4>{3, 65536, 131072, 32}), lay_out(1073741824));
}

// What does not depend on the layout has been written by then.
TEST(SdParams, RefusesACardOverTheLimit)
{
    const std::pair<uint32_t, const char*> capacities[] = {
        {1073741825, "** OVER 2TB : 1073741825\n"},
        {0x7FFFFFFF, "** OVER 2TB : 2147483647\n"},
        {0x80000000, "** OVER 2TB : 2147483648\n"},
        {0xFFFFFFFF, "** OVER 2TB : 4294967295\n"},
    };
    for (const auto& [capacity, line] : capacities) {
        SCOPED_TRACE(capacity);
        SdFormatParams params = {kMark, kMark, kMark, kMark};
        int32_t result = 0;
        EXPECT_EQ(line, Printed([&, over = capacity] { result = CalcSdParams(over, &params); }));
        EXPECT_EQ(-1, result);
        EXPECT_EQ(1u, params.fs_type);
        EXPECT_EQ(kMark, params.partition_start);
        EXPECT_EQ(kMark, params.data_start);
        EXPECT_EQ(32u, params.root_dir_sectors);
        EXPECT_EQ(EXFULL,
                  ErrnoAfter(EXFULL, [&, over = capacity] { CalcSdParams(over, &params); }));
    }
}

TEST(SdParams, RefusesANullRecordWithoutAWord)
{
    for (const uint32_t capacity : {0u, 60000u, 1073741824u, 1073741825u, UINT_MAX}) {
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(-22, CalcSdParams(capacity, nullptr)); }));
    }
}

// --- every capacity -----------------------------------------------------------------

struct Row {
    uint64_t mebibytes;  // the largest card
    uint64_t cluster;
    uint64_t boundary;
    uint32_t entry_bits;  // of a FAT32; 0 for an exFAT; 16 where the clusters decide
};

const Row& RowFor(uint32_t capacity)
{
    static constexpr Row kRows[] = {
        {8, 16, 16, 16},         {64, 32, 32, 16},        {256, 32, 64, 16},
        {1024, 32, 128, 16},     {2048, 64, 128, 16},     {32768, 64, 8192, 32},
        {131072, 256, 32768, 0}, {524288, 512, 65536, 0},
    };
    const Row* row = kRows;
    while (capacity > row->mebibytes * 2048) {
        row++;
    }
    return *row;
}

uint64_t RoundUp(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

// The layout's rules, told from the end: the data area takes the first boundary
// that leaves room for what has to stand in front of it.
Example Expected(uint32_t capacity)
{
    const Row& row = RowFor(capacity);
    const uint64_t clusters = capacity / row.cluster;
    uint64_t partition = row.boundary;
    uint64_t data = 2 * row.boundary;
    uint32_t type = SD_FS_EXFAT;
    if (row.entry_bits == 16) {
        type = clusters < 4085 ? SD_FS_FAT12 : SD_FS_FAT16;
        const uint64_t bits = clusters * (clusters < 4085 ? 12 : 16);
        const uint64_t in_front = 1 + 2 * (RoundUp(bits, 4096) / 4096) + 32;
        data = RoundUp(row.boundary + in_front, row.boundary);
        partition = data - in_front;
    } else if (row.entry_bits == 32) {
        type = SD_FS_FAT32;
        const uint64_t fats = 2 * (RoundUp(clusters * 32, 4096) / 4096);
        data = RoundUp(row.boundary + 10 + fats, row.boundary);
    }
    return {capacity, type, static_cast<uint32_t>(partition), static_cast<uint32_t>(data)};
}

void CheckBounds(uint32_t capacity, const SdFormatParams& params)
{
    const Row& row = RowFor(capacity);
    ASSERT_EQ(0u, params.data_start % row.boundary) << capacity;
    ASSERT_LE(row.boundary, params.partition_start) << capacity;
    ASSERT_GT(2 * row.boundary, params.partition_start) << capacity;
}

// The boot sector, two FATs and the root directory, or at least ten reserved
// sectors, fit in front of the data area; each FAT has an entry for each cluster.
void CheckRoom(uint32_t capacity, const SdFormatParams& params)
{
    const uint32_t entry_bits[] = {12, 16, 32, 0};
    const uint64_t bits = capacity / RowFor(capacity).cluster * entry_bits[params.fs_type];
    const uint64_t others = params.fs_type == SD_FS_FAT32 ? 10 : 1 + 32;
    const uint64_t between = params.data_start - params.partition_start;
    ASSERT_GE(between, others) << capacity;
    ASSERT_GE((between - others) / 2 * 4096, bits) << capacity;
}

void Check(uint32_t capacity)
{
    const Example expected = Expected(capacity);
    SdFormatParams params = {kMark, kMark, kMark, kMark};
    ASSERT_EQ(0, CalcSdParams(capacity, &params)) << capacity;
    ASSERT_EQ(expected.fs_type, params.fs_type) << capacity;
    ASSERT_EQ(expected.partition_start, params.partition_start) << capacity;
    ASSERT_EQ(expected.data_start, params.data_start) << capacity;
    ASSERT_EQ(32u, params.root_dir_sectors) << capacity;
    ASSERT_NO_FATAL_FAILURE(CheckBounds(capacity, params));
    ASSERT_NO_FATAL_FAILURE(CheckRoom(capacity, params));
}

TEST(SdParamsSweep, CoversSmallCardsOneByOne)
{
    for (uint32_t capacity = 0; capacity <= 140000; capacity++) {
        ASSERT_NO_FATAL_FAILURE(Check(capacity));
    }
}

TEST(SdParamsSweep, CoversBothSidesOfEveryBound)
{
    for (const uint32_t bound : {16384u, 130688u, 131072u, 524288u, 2097152u, 4194304u, 67108864u,
                                 268435456u, 1073741824u}) {
        for (uint32_t capacity = bound - 2000; capacity <= bound + 2000; capacity++) {
            if (capacity <= 1073741824) {
                ASSERT_NO_FATAL_FAILURE(Check(capacity));
            }
        }
    }
}

// A FAT32 whose two FATs leave less than ten sectors up to the boundary.
TEST(SdParamsSweep, CoversEveryFatSizeOfAFat32)
{
    for (uint32_t capacity = 4194304 + 8192; capacity <= 67108864; capacity += 8192) {
        ASSERT_NO_FATAL_FAILURE(Check(capacity - 64));
        ASSERT_NO_FATAL_FAILURE(Check(capacity));
        ASSERT_NO_FATAL_FAILURE(Check(capacity - 8192 + 64));
    }
}

TEST(SdParamsSweep, CoversAnyCapacity)
{
    std::mt19937 random(20240116);
    std::uniform_int_distribution<uint32_t> magnitudes(0, 30);
    std::uniform_int_distribution<uint32_t> capacities(0, 1073741824);
    for (int round = 0; round < 100000; round++) {
        const uint32_t capacity = capacities(random) >> magnitudes(random);
        ASSERT_NO_FATAL_FAILURE(Check(capacity));
    }
}

}  // namespace
