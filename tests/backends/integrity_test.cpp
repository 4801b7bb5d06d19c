// SPDX-License-Identifier: MIT
//
// Every way to a sector against every other: plain and direct, whole runs and pieces,
// whatever their size and place in memory.
#include "tests/backends/fixture.h"

namespace {

class Ways : public Backends {
protected:
    static constexpr uint32_t kLongest = 200;  // sectors: beyond the 64 KiB of a piece

    // A run of sectors, and where its bytes are: cut anywhere, and not in order of address.
    struct Run {
        uint32_t first;
        uint32_t sectors;
        Chunks chunks;
    };

    Run RandomRun()
    {
        Run run = {};
        run.sectors = 1 + Below(Below(4) == 0 ? kLongest : 16);
        run.first = Below(kSectors - run.sectors + 1);
        run.chunks.count = 1 + Below(4);
        uint32_t left = run.sectors * 512;
        uint32_t areas[4] = {0, 1, 2, 3};
        std::shuffle(areas, areas + 4, random);
        for (uint32_t i = 0; i < run.chunks.count; i++) {
            const bool is_last = i + 1 == run.chunks.count;
            const uint32_t length = is_last ? left : Below(left + 1);
            run.chunks.chunk[i] = {places.address() + areas[i] * kArea + Below(4096), length};
            left -= length;
        }
        return run;
    }

    Bytes Gather(const Run& run)
    {
        Bytes bytes;
        for (const MemoryChunk& piece : Pieces(run.chunks)) {
            bytes.insert(bytes.end(), At(piece.addr), At(piece.addr) + piece.len);
        }
        return bytes;
    }

    void Scatter(const Run& run, const Bytes& bytes)
    {
        size_t done = 0;
        for (const MemoryChunk& piece : Pieces(run.chunks)) {
            memcpy(At(piece.addr), bytes.data() + done, piece.len);
            done += piece.len;
        }
    }

    void ReadDirect()
    {
        Run run = RandomRun();
        memset(places.data(), 0x5A, places.size());
        EXPECT_EQ(static_cast<int32_t>(Length(run.sectors)),
                  DevDrctRead(&handle, run.first, Length(run.sectors), run.chunks.list()));
        EXPECT_TRUE(Slice(shadow, run.first, run.sectors) == Gather(run)) << run.first;
    }

    void WriteDirect()
    {
        Run run = RandomRun();
        const Bytes bytes = Random(run.sectors * 512);
        Scatter(run, bytes);
        uint32_t retried = 5;
        EXPECT_EQ(static_cast<int32_t>(Length(run.sectors)),
                  DevDrctWrite(&handle, run.first, Length(run.sectors), run.chunks.list(), Below(2),
                               &retried));
        EXPECT_EQ(0u, retried);
        Note(run.first, bytes);
    }

    void ReadPlainly()
    {
        const Run run = RandomRun();
        uint8_t* const to = places.data() + Below(4096);
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Read(&handle, to, run.sectors, run.first, 0, &result));
        EXPECT_EQ(0, result.error);
        ASSERT_EQ(static_cast<int32_t>(run.sectors * 512), result.length);
        EXPECT_TRUE(Slice(shadow, run.first, run.sectors) ==
                    BytesAt(Address(to), run.sectors * 512))
            << run.first;
    }

    void WritePlainly()
    {
        const Run run = RandomRun();
        const Bytes bytes = Random(run.sectors * 512);
        uint8_t* const from = places.data() + Below(4096);
        memcpy(from, bytes.data(), bytes.size());
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Write(&handle, from, run.sectors, run.first, 0, &result));
        EXPECT_EQ(0, result.error);
        ASSERT_EQ(static_cast<int32_t>(run.sectors * 512), result.length);
        Note(run.first, bytes);
    }

    // Two runs that do not overlap, neither longer than one piece of the driver's.
    void WriteRuns()
    {
        const uint32_t sectors[2] = {1 + Below(128), 1 + Below(128)};
        const uint32_t first = Below(kSectors - sectors[0] - sectors[1]);
        const Bytes bytes = Random((sectors[0] + sectors[1]) * 512);
        memcpy(places.data(), bytes.data(), bytes.size());
        const uint32_t at = places.address();
        BlockListEntry after = {at + sectors[0] * 512, sectors[1], first + sectors[0], nullptr};
        BlockListEntry before = {at, sectors[0], first, &after};
        BlockList list = {2, &before};
        EXPECT_EQ(0, Below(2) == 0 ? DevDrctRMW(&handle, &list) : DevFatWrite(&handle, &list));
        Note(first, bytes);
    }

    void WriteByCommand()
    {
        const uint32_t sectors = 1 + Below(kLongest);
        const uint32_t first = Below(kSectors - sectors + 1);
        const Bytes bytes = Random(sectors * 512);
        uint8_t* const from = places.data() + Below(4096);
        memcpy(from, bytes.data(), bytes.size());
        EXPECT_EQ(0, DevSdCmdWrite(&handle, from, sectors, first, 25, 0));
        Note(first, bytes);
    }

    void Note(uint32_t first, const Bytes& bytes)
    {
        memcpy(&shadow[size_t{first} * 512], bytes.data(), bytes.size());
    }

    static constexpr uint32_t kArea = kLongest * 512 + 8192;
    Bytes shadow = Bytes(size_t{kSectors} * 512);
    cardsim::LowBuffer places{size_t{4} * kArea};
};

INSTANTIATE_TEST_SUITE_P(Direct, Ways, testing::Values(kZel, kMivo), NameOf);

TEST_P(Ways, AllSeeTheSameSectors)
{
    Open();
    EXPECT_EQ("", Printed([&] {
                  for (int step = 0; step < 250 && !HasFailure(); step++) {
                      SCOPED_TRACE(step);
                      switch (Below(6)) {
                          case 0:
                              ReadDirect();
                              break;
                          case 1:
                              WriteDirect();
                              break;
                          case 2:
                              ReadPlainly();
                              break;
                          case 3:
                              WritePlainly();
                              break;
                          case 4:
                              WriteRuns();
                              break;
                          default:
                              WriteByCommand();
                              break;
                      }
                  }
              }));
    EXPECT_TRUE(shadow == OnCard(0, kSectors));
}

// One way writes the whole card, the other reads it, and the reverse.
TEST_P(Ways, ReadBackTheWholeCard)
{
    Open();
    for (const bool direct : {true, false}) {
        uint32_t sectors = 0;
        for (uint32_t first = 0; first < kSectors; first += sectors) {
            sectors = std::min(1 + Below(kLongest), kSectors - first);
            const Bytes bytes = Random(sectors * 512);
            memcpy(places.data(), bytes.data(), bytes.size());
            Note(first, bytes);
            CardIoResult result = {};
            if (direct) {
                Chunks chunks = {1, {{places.address(), sectors * 512}}};
                uint32_t retried = 0;
                EXPECT_EQ(
                    static_cast<int32_t>(Length(sectors)),
                    DevDrctWrite(&handle, first, Length(sectors), chunks.list(), 0, &retried));
            } else {
                EXPECT_EQ(0, CARD_Write(&handle, places.data(), sectors, first, 0, &result));
                EXPECT_EQ(static_cast<int32_t>(sectors * 512), result.length);
            }
        }
        for (uint32_t first = 0; first < kSectors && !HasFailure(); first += sectors) {
            sectors = std::min(1 + Below(kLongest), kSectors - first);
            memset(places.data(), 0, places.size());
            CardIoResult result = {};
            if (direct) {
                EXPECT_EQ(0, CARD_Read(&handle, places.data(), sectors, first, 0, &result));
                EXPECT_EQ(static_cast<int32_t>(sectors * 512), result.length);
            } else {
                Chunks chunks = {1, {{places.address(), sectors * 512}}};
                EXPECT_EQ(static_cast<int32_t>(Length(sectors)),
                          DevDrctRead(&handle, first, Length(sectors), chunks.list()));
            }
            EXPECT_TRUE(Slice(shadow, first, sectors) == BytesAt(places.address(), sectors * 512))
                << first;
        }
    }
    EXPECT_TRUE(shadow == OnCard(0, kSectors));
}

}  // namespace
