// SPDX-License-Identifier: MIT
//
// Block nodes: what they hold of a card, and that it is the card's.
#include <thread>

#include <sys/mman.h>

#include "tests/board/driver_nodes.h"

namespace board {
namespace {

constexpr uint32_t kSectors = 512;

class BlockNode : public Places {
protected:
    BlockNode() { EXPECT_EQ(0, Insert("zel0", content)); }

    static Bytes ReadBlock(const Fd& node, uint32_t sector, uint32_t sectors)
    {
        Bytes bytes(sectors * 512);
        EXPECT_EQ(static_cast<int>(bytes.size()),
                  Outcome(pread64(node.get(), bytes.data(), bytes.size(), off64_t{sector} * 512)));
        return bytes;
    }
    static void WriteBlock(const Fd& node, uint32_t sector, const Bytes& bytes)
    {
        EXPECT_EQ(static_cast<int>(bytes.size()),
                  Outcome(pwrite64(node.get(), bytes.data(), bytes.size(), off64_t{sector} * 512)));
    }

    const Bytes content = Pattern(kSectors, 1);
};

TEST_F(BlockNode, ReadsAndWritesTheCard)
{
    for (const auto& [place, path] : {std::pair{"zel0", "/dev/spda"}, {"ricoh", "/dev/sdcarda"}}) {
        ASSERT_EQ(0, Insert(place, content));
        Bytes expected = content;
        {
            const Fd node(path, O_RDWR | O_SYNC);
            EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
            const Bytes written = Pattern(5, 9);
            WriteBlock(node, 3, written);
            std::copy(written.begin(), written.end(), expected.begin() + 3 * 512);
            EXPECT_EQ(expected, OnCard(place, 0, kSectors));
            // At the card's end.
            Bytes bytes(1024);
            const off64_t end = kSectors * 512;
            EXPECT_EQ(512, Outcome(pread64(node.get(), bytes.data(), 1024, end - 512)));
            EXPECT_EQ(0, Outcome(pread64(node.get(), bytes.data(), 1024, end)));
            EXPECT_EQ(-ENOSPC, Outcome(pwrite64(node.get(), bytes.data(), 512, end)));
            EXPECT_EQ(-EINVAL,
                      Outcome(static_cast<ssize_t>(lseek64(node.get(), end + 1, SEEK_SET))));
        }
        EXPECT_EQ(expected, OnCard(place, 0, kSectors));
    }
}

TEST_F(BlockNode, WritesReachTheCardWithTheLastClose)
{
    const Bytes written = Pattern(5, 9);
    {
        const Fd node("/dev/spda", O_RDWR);
        WriteBlock(node, 3, written);
    }
    EXPECT_EQ(written, OnCard("zel0", 3, 5));
}

TEST_F(BlockNode, SeesDirectWrites)
{
    const Fd block("/dev/spda", O_RDWR);
    const Fd direct("/dev/spdra", O_RDWR);
    for (const char* latency : {"0", "100"}) {
        ASSERT_EQ(0, Put("zel0", "latency_us", latency));
        for (const uint32_t sectors : {1u, 3u, 16u, 100u}) {
            EXPECT_EQ(OnCard("zel0", 0, kSectors), ReadBlock(block, 0, kSectors));
            Bytes written = Pattern(sectors, sectors + static_cast<uint8_t>(*latency));
            ASSERT_EQ(0, Direct(direct, kZelWrite, 5, written.data(), sectors));
            ASSERT_EQ(POLLOUT, Events(direct));
            EXPECT_EQ(written, ReadBlock(block, 5, sectors));
        }
    }
    EXPECT_EQ(OnCard("zel0", 0, kSectors), ReadBlock(block, 0, kSectors));
}

TEST_F(BlockNode, ShowsItsWritesToDirectReads)
{
    const Fd block("/dev/spda", O_RDWR);
    const Fd direct("/dev/spdra", O_RDWR);
    for (const char* latency : {"0", "100"}) {
        ASSERT_EQ(0, Put("zel0", "latency_us", latency));
        const Bytes written = Pattern(9, static_cast<uint8_t>(*latency));
        WriteBlock(block, 50, written);
        Bytes got(9 * 512);
        ASSERT_EQ(0, Direct(direct, kZelRead, 50, got.data(), 9));
        ASSERT_EQ(POLLOUT, Events(direct));
        EXPECT_EQ(written, got);
    }
}

// A sector that waits to be written shares its page with others.
TEST_F(BlockNode, DoesNotUndoDirectWritesBesideItsOwn)
{
    Bytes expected = content;
    {
        const Fd block("/dev/spda", O_RDWR);
        const Fd direct("/dev/spdra", O_RDWR);
        WriteBlock(block, 8, Bytes(512, 0x11));
        Bytes written(512, 0x22);
        ASSERT_EQ(0, Direct(direct, kZelWrite, 10, written.data(), 1));
        ASSERT_EQ(POLLOUT, Events(direct));
        WriteBlock(block, 12, Bytes(512, 0x33));
        std::fill_n(expected.begin() + 8 * 512, 512, 0x11);
        std::fill_n(expected.begin() + 10 * 512, 512, 0x22);
        std::fill_n(expected.begin() + 12 * 512, 512, 0x33);
        EXPECT_EQ(Slice(expected, 0, 32), ReadBlock(block, 0, 32));
    }
    EXPECT_EQ(expected, OnCard("zel0", 0, kSectors));
}

// The control file shows what waits to be written, too, and what it changes is seen.
TEST_F(BlockNode, KeepsStepWithTheControlFile)
{
    const Fd node("/dev/spda", O_RDWR);
    const Bytes written = Pattern(3, 66);
    WriteBlock(node, 20, written);
    EXPECT_EQ(written, OnCard("zel0", 20, 3));
    WriteBlock(node, 24, written);
    const Fd media(Control("zel0", "media"), O_RDWR);
    const Bytes changed(512, 0x44);
    ASSERT_EQ(512, Outcome(pwrite64(media.get(), changed.data(), 512, 22 * 512)));
    EXPECT_EQ(Slice(written, 0, 2), ReadBlock(node, 20, 2));
    EXPECT_EQ(changed, ReadBlock(node, 22, 1));
    EXPECT_EQ(written, ReadBlock(node, 24, 3));
}

TEST_F(BlockNode, FollowsAnExchange)
{
    const Fd node("/dev/spda", O_RDWR);
    EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
    WriteBlock(node, 0, Bytes(512, 0x77));
    const Bytes other = Pattern(100, 33);
    ASSERT_EQ(0, Insert("zel0", other));
    uint32_t sectors = 0;
    ASSERT_EQ(0, Ask(node, kBlkGetSize, &sectors));
    EXPECT_EQ(100u, sectors);
    EXPECT_EQ(other, ReadBlock(node, 0, 100));
    EXPECT_EQ(other, OnCard("zel0", 0, 100));
}

// A card that has gone is an error, not the end of a card.
TEST_F(BlockNode, FailsWithoutItsCard)
{
    {
        const Fd node("/dev/spda", O_RDWR | O_SYNC);
        EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
        ASSERT_EQ(0, Put("zel0", "eject", "1"));
        Bytes bytes(512);
        EXPECT_EQ(-EIO, Outcome(pread64(node.get(), bytes.data(), 512, 0)));
        EXPECT_EQ(-EIO, Outcome(pread64(node.get(), bytes.data(), 512, 5120)));
        EXPECT_EQ(-EIO, Outcome(pwrite64(node.get(), bytes.data(), 512, 0)));
        EXPECT_EQ(-ENODEV, Ask(node, kBlkMount));
        EXPECT_EQ(-ENOMEDIUM, OpenOutcome("/dev/spda", O_RDONLY));
        ASSERT_EQ(0, Insert("zel0", content));
        EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
        ASSERT_EQ(0, Put("zel0", "eject", "1"));
    }
    EXPECT_EQ(-ENOMEDIUM, OpenOutcome("/dev/spda", O_RDONLY));
}

TEST_F(BlockNode, ProtectsTheCard)
{
    ASSERT_EQ(0, Put("zel0", "protected", "1"));
    Bytes bytes(512);
    {
        // This driver leaves it to a request to tell.
        const Fd node("/dev/spda", O_RDWR);
        ASSERT_LE(0, node.get());
        EXPECT_EQ(-EPERM, Outcome(pwrite64(node.get(), bytes.data(), 512, 0)));
        ASSERT_EQ(0, Put("zel0", "protected", "0"));
        EXPECT_EQ(512, Outcome(pwrite64(node.get(), bytes.data(), 512, 0)));
    }
    ASSERT_EQ(0, Insert("ricoh", content));
    ASSERT_EQ(0, Put("ricoh", "protected", "1"));
    EXPECT_EQ(-EROFS, OpenOutcome("/dev/sdcarda", O_RDWR | O_SYNC));
    const Fd node("/dev/sdcarda", O_RDONLY);
    EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
    EXPECT_EQ(content, OnCard("ricoh", 0, kSectors));
}

// The program's memory may be the very node's.
TEST_F(BlockNode, TransfersIntoItsOwnMapping)
{
    const Fd block("/dev/spda", O_RDWR);
    const Fd direct("/dev/spdra", O_RDWR);
    for (const char* latency : {"0", "100"}) {
        ASSERT_EQ(0, Put("zel0", "latency_us", latency));
        void* map = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED, block.get(), 0);
        ASSERT_NE(MAP_FAILED, map);
        auto* bytes = static_cast<uint8_t*>(map);
        // Elsewhere on the card, and onto the very sectors.
        EXPECT_EQ(0, Direct(direct, kZelWrite, 256, bytes, 8));
        EXPECT_EQ(POLLOUT, Events(direct));
        EXPECT_EQ(Slice(content, 0, 8), OnCard("zel0", 256, 8));
        EXPECT_EQ(0, Direct(direct, kZelRead, 300, bytes + 8192, 8));
        EXPECT_EQ(POLLOUT, Events(direct));
        EXPECT_EQ(Slice(content, 300, 8), Bytes(bytes + 8192, bytes + 8192 + 4096));
        EXPECT_EQ(0, Direct(direct, kZelWrite, 8, bytes + 4096, 8));
        EXPECT_EQ(POLLOUT, Events(direct));
        EXPECT_EQ(Slice(content, 8, 8), OnCard("zel0", 8, 8));
        ASSERT_EQ(0, munmap(map, 65536));
        ASSERT_EQ(0, Insert("zel0", content));
    }
}

TEST_F(BlockNode, SurvivesEjectsWhileItIsRead)
{
    const std::string image = ImageFile(content);
    bool stop = false;
    std::thread reading([&] {
        while (!__atomic_load_n(&stop, __ATOMIC_ACQUIRE)) {
            const Fd node("/dev/spda", O_RDWR);
            Bytes bytes(65536);
            for (int i = 0; i < 5 && node.get() >= 0; i++) {
                pread64(node.get(), bytes.data(), bytes.size(), i * 4096);
                pwrite64(node.get(), bytes.data(), 512, i * 8192);
            }
        }
    });
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(0, Put("zel0", "insert", image));
        usleep(2000);
        EXPECT_EQ(0, Put("zel0", i % 2 ? "eject" : "insert", image));
        if (i % 5 == 0) {
            EXPECT_EQ(0, Put("zel0", "faults", "call=read node=block eject first=3"));
            usleep(2000);
        }
    }
    __atomic_store_n(&stop, true, __ATOMIC_RELEASE);
    reading.join();
    unlink(image.c_str());
    ASSERT_EQ(0, Put("zel0", "faults", "clear"));
    ASSERT_EQ(0, Insert("zel0", content));
    const Fd node("/dev/spda", O_RDWR);
    EXPECT_EQ(content, ReadBlock(node, 0, kSectors));
}

}  // namespace
}  // namespace board
