// SPDX-License-Identifier: MIT
//
// Direct transfers: what is moved, when it is moved, and what becomes of a transfer
// whose card, program or memory goes away.
#include <atomic>
#include <csignal>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>

#include "tests/board/driver_nodes.h"

namespace board {
namespace {

class DriverTransfer : public BothDrivers {};
INSTANTIATE_TEST_SUITE_P(Drivers, DriverTransfer, testing::Values(kZel, kMivo), NameOf);

// --- what -----------------------------------------------------------------------

TEST_P(DriverTransfer, MovesWhatItIsAskedTo)
{
    for (const unsigned latency : {0u, 100u, 5000u}) {
        SCOPED_TRACE(latency);
        ASSERT_EQ(0, Insert(kPlace, content));
        Latency(latency);
        memory = Pattern(kSectors, 99);
        ASSERT_EQ(0, Read(3, 200));
        ASSERT_EQ(POLLOUT, Events(node));
        EXPECT_EQ(Slice(content, 3, 200), Slice(memory, 0, 200));
        EXPECT_EQ(Slice(Pattern(kSectors, 99), 200, 100), Slice(memory, 200, 100));
        for (const uint32_t request : {GetParam().write, GetParam().other_write}) {
            memory = Pattern(kSectors, request);
            ASSERT_EQ(0, Direct(node, request, 500, memory.data(), 128));
            ASSERT_EQ(POLLOUT, Events(node));
            EXPECT_EQ(Slice(memory, 0, 128), OnCard(kPlace, 500, 128));
        }
        EXPECT_EQ(Slice(content, 0, 500), OnCard(kPlace, 0, 500));
        EXPECT_EQ(Slice(content, 628, 300), OnCard(kPlace, 628, 300));
    }
}

TEST_P(DriverTransfer, MovesManyOddPieces)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        List list;
        Bytes expected = memory;
        uint32_t at = 0;
        uint32_t on_card = 7 * 512;
        for (uint32_t i = 0; i < 511; i++) {
            const uint32_t length = i == 510 ? 131072 - (on_card - 7 * 512) : i % 300 + 1;
            at += 17;
            list.Add(Address(&memory[at]), length | (i == 510 ? kEnd : 0));
            memcpy(&expected[at], &content[on_card], length);
            at += length;
            on_card += length;
        }
        ASSERT_EQ(0, Direct(node, GetParam().read, 7, 256, list)) << latency;
        ASSERT_EQ(POLLOUT, Events(node));
        EXPECT_EQ(expected, memory);
    }
}

TEST_P(DriverTransfer, WritesElementsAndCommandData)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        for (const uint32_t request : {GetParam().rmw, GetParam().fs_write}) {
            ASSERT_EQ(0, Insert(kPlace, content));
            const List first(&memory[512], 512);
            const List second(&memory[5120], 1024);
            uint32_t elements[8] = {9, GetParam().unit, 0, 0, 700, 2 * GetParam().unit, 0, 0};
            memcpy(&elements[2], reinterpret_cast<const void*>(uintptr_t{first.address()}), 8);
            memcpy(&elements[6], reinterpret_cast<const void*>(uintptr_t{second.address()}), 8);
            const uint32_t record[] = {2, 0, Address(elements)};
            ASSERT_EQ(0, Ask(node, request, record));
            ASSERT_EQ(POLLOUT, Events(node));
            EXPECT_EQ(Slice(memory, 1, 1), OnCard(kPlace, 9, 1));
            EXPECT_EQ(Slice(memory, 10, 2), OnCard(kPlace, 700, 2));
            const uint32_t none[] = {0, 0, 0};
            ASSERT_EQ(0, Ask(node, request, none));
            ASSERT_EQ(POLLOUT, Events(node));
        }
        const List list(memory.data(), 1024);
        const uint32_t data[] = {33, 2 * GetParam().unit, list.address(), list.size()};
        uint32_t record[] = {0x12340000, Address(data)};
        ASSERT_EQ(0, Ask(node, GetParam().command_write, record));
        ASSERT_EQ(POLLOUT, Events(node));
        EXPECT_EQ(Slice(memory, 0, 2), OnCard(kPlace, 33, 2));
    }
}

// --- when -----------------------------------------------------------------------

TEST_P(DriverTransfer, ReadsLater)
{
    Latency(100000);
    const Bytes before = memory;
    const int64_t start = NowUs();
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(before, memory);
    EXPECT_EQ(-1, Events(node, 0));
    EXPECT_EQ("1", State(kPlace, "busy"));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    const int64_t took = NowUs() - start;
    EXPECT_LE(100000, took);
    EXPECT_GT(1000000, took);
    EXPECT_EQ(Slice(content, 0, 8), Slice(memory, 0, 8));
    // Once.
    EXPECT_EQ(-1, Events(node, 1));
    EXPECT_EQ("0", State(kPlace, "busy"));
}

TEST_P(DriverTransfer, WritesLater)
{
    Latency(100000);
    ASSERT_EQ(0, Write(0, 8));
    EXPECT_EQ(Slice(content, 0, 8), OnCard(kPlace, 0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(memory, 0, 8), OnCard(kPlace, 0, 8));
}

TEST_P(DriverTransfer, IsBusyWithOneAtATime)
{
    Latency(50000);
    const Fd other(GetParam().node, O_RDWR);
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(-EBUSY, Read(0, 8));
    EXPECT_EQ(-EBUSY, Direct(other, GetParam().write, 8, memory.data(), 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(content, 8, 8), OnCard(kPlace, 8, 8));
    EXPECT_EQ(0, Read(0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
}

TEST_P(DriverTransfer, OtherRequestsGoOn)
{
    Latency(100000);
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(-ENOTTY, Ask(node, 0x1234));
    uint8_t status[6];
    EXPECT_EQ(0, Ask(node, kPlace == "zel1" ? kZelStatus : kMivoStatus, status));
    EXPECT_EQ("1", State(kPlace, "busy"));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
}

TEST_P(DriverTransfer, WithoutLatencyIsDoneAtOnce)
{
    Latency(0);
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(Slice(content, 0, 8), Slice(memory, 0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 0));
    EXPECT_EQ(-1, Events(node, 0));
}

TEST_P(DriverTransfer, TakesTheListAsItWas)
{
    Latency(50000);
    List list(memory.data(), 512);
    ASSERT_EQ(0, Direct(node, GetParam().read, 5, 1, list));
    memset(list.data(), 0xFF, 8);
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(content, 5, 1), Slice(memory, 0, 1));
}

TEST_P(DriverTransfer, IsGivenUpOnReset)
{
    Latency(100000);
    const Bytes before = memory;
    ASSERT_EQ(0, Read(0, 8));
    ASSERT_EQ(0, Ask(node, GetParam().reset));
    EXPECT_EQ("0", State(kPlace, "busy"));
    EXPECT_EQ(-1, Events(node, 300));
    EXPECT_EQ(before, memory);
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
}

// --- what goes away -------------------------------------------------------------

TEST_P(DriverTransfer, EndsBadlyWhenTheCardLeaves)
{
    Latency(2000000);
    const Bytes before = memory;
    const int64_t start = NowUs();
    ASSERT_EQ(0, Read(0, 8));
    ASSERT_EQ(0, Put(kPlace, "eject", "1"));
    EXPECT_EQ(POLLERR, Events(node, 4000));
    EXPECT_GT(1000000, NowUs() - start);
    EXPECT_EQ(before, memory);
    EXPECT_EQ(-1, Events(node, 1));
    EXPECT_EQ(-ENODEV, Read(0, 8));
    // The end wakes a poll that waits.
    ASSERT_EQ(0, Insert(kPlace, content));
    ASSERT_EQ(0, Write(0, 8));
    std::thread leaving([&] {
        usleep(20000);
        EXPECT_EQ(0, Put(kPlace, "eject", "1"));
    });
    EXPECT_EQ(POLLERR, Events(node, 4000));
    leaving.join();
}

TEST_P(DriverTransfer, EndsBadlyWhenTheCardIsExchanged)
{
    Latency(2000000);
    const Bytes other = Pattern(kSectors, 55);
    ASSERT_EQ(0, Write(0, 8));
    ASSERT_EQ(0, Insert(kPlace, other));
    EXPECT_EQ(POLLERR, Events(node, 4000));
    EXPECT_EQ(other, OnCard(kPlace, 0, kSectors));
    Latency(100);
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(other, 0, 8), Slice(memory, 0, 8));
}

TEST_P(DriverTransfer, EndsWithItsFile)
{
    Latency(2000000);
    const int64_t start = NowUs();
    {
        const Fd closing(GetParam().node, O_RDWR);
        ASSERT_EQ(0, Direct(closing, GetParam().write, 0, memory.data(), 8));
    }
    EXPECT_GT(1000000, NowUs() - start);
    EXPECT_EQ(Slice(memory, 0, 8), OnCard(kPlace, 0, 8));
    EXPECT_EQ("0", State(kPlace, "busy"));
}

// Another file's transfer does not.
TEST_P(DriverTransfer, OutlivesOtherFiles)
{
    Latency(100000);
    ASSERT_EQ(0, Read(0, 8));
    {
        const Fd other(GetParam().node, O_RDWR);
    }
    EXPECT_EQ("1", State(kPlace, "busy"));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
}

TEST_P(DriverTransfer, OutlivesItsProgram)
{
    for (const unsigned latency : {100u, 200000u}) {
        Latency(latency);
        for (const bool killed : {true, false}) {
            const pid_t child = fork();
            if (child == 0) {
                const Fd own(GetParam().node, O_RDWR);
                Bytes bytes(64 * 512);
                Direct(own, GetParam().read, 0, bytes.data(), 64);
                if (killed) {
                    kill(getpid(), SIGKILL);
                }
                _exit(0);
            }
            int status = 0;
            ASSERT_EQ(child, waitpid(child, &status, 0));
            EXPECT_EQ("0", State(kPlace, "busy"));
        }
    }
    ForgetEnd();
}

TEST_P(DriverTransfer, OutlivesItsMemory)
{
    Latency(50000);
    constexpr size_t kSize = 65536;
    for (const uint32_t request : {GetParam().read, GetParam().write}) {
        void* room =
            mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, room);
        memset(room, 0x5A, kSize);
        ASSERT_EQ(0, Direct(node, request, 0, room, 128));
        ASSERT_EQ(0, munmap(room, kSize));
        EXPECT_EQ(POLLOUT, Events(node, 4000));
    }
    EXPECT_EQ(Bytes(kSize, 0x5A), OnCard(kPlace, 0, 128));
}

TEST_P(DriverTransfer, OutlivesAFork)
{
    Latency(50000);
    ASSERT_EQ(0, Read(0, 64));
    const pid_t child = fork();
    if (child == 0) {
        memory[0] = 1;
        _exit(0);
    }
    memory[64 * 512] = 2;
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(content, 0, 64), Slice(memory, 0, 64));
    waitpid(child, nullptr, 0);
}

// --- what is refused ------------------------------------------------------------

TEST_P(DriverTransfer, RefusesBadLists)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        const uint32_t data = Address(memory.data());
        const Bytes before = memory;
        const auto read = [&](uint32_t sectors, const List& list) {
            return Direct(node, GetParam().read, 0, sectors, list);
        };
        EXPECT_EQ(-EINVAL, read(1, List().Add(data, 512)));
        EXPECT_EQ(-EINVAL, read(2, List().Add(data, 512 | kEnd).Add(data, 512)));
        EXPECT_EQ(-EINVAL, read(2, List().Add(data, 512 | kEnd).Add(data, 512 | kEnd)));
        EXPECT_EQ(-EINVAL, read(1, List().Add(data, 0).Add(data, 512 | kEnd)));
        EXPECT_EQ(-EINVAL, read(0, List().Add(data, kEnd)));
        EXPECT_EQ(-EINVAL, read(129, List().Add(data, 66048 | kEnd)));
        EXPECT_EQ(-EINVAL, read(1, List().Add(data, 0xFFFFFFFF)));
        EXPECT_EQ(-EINVAL, read(2, List().Add(data, 512 | kEnd)));
        EXPECT_EQ(-EINVAL, read(0xFFFFFFFF, List().Add(data, 512 | kEnd)));
        EXPECT_EQ(-EINVAL, read(1, List()));
        const List good(memory.data(), 512);
        for (const uint32_t bytes : {1u, 7u, 9u, 16384u + 8, 0xFFFFFFF8u, 0xFFFFFFFFu}) {
            const uint32_t record[] = {0, 1, good.address(), bytes};
            EXPECT_EQ(-EINVAL, Ask(node, GetParam().read, record)) << bytes;
        }
        // The list ends where the address space does.
        for (const uint32_t address : {0u, 0xFFFFFFF8u, 0xC0000000u, 0xBFFFFFFCu}) {
            const uint32_t record[] = {0, 1, address, 8};
            EXPECT_EQ(-EFAULT, Ask(node, GetParam().read, record)) << address;
            const uint32_t long_record[] = {0, 1, address, 16384};
            EXPECT_EQ(-EFAULT, Ask(node, GetParam().write, long_record)) << address;
        }
        EXPECT_EQ(before, memory);
        EXPECT_EQ(content, OnCard(kPlace, 0, kSectors));
        ForgetEnd();
    }
}

TEST_P(DriverTransfer, RefusesBadMemory)
{
    void* read_only = mmap(nullptr, 8192, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void* none = mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* half = static_cast<uint8_t*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(0, munmap(half + 4096, 4096));
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        SCOPED_TRACE(latency);
        for (const uint32_t address : {0u, 1u, 0xC0000000u, 0xFFFFFFFFu, 0xFFFFFE00u, 0xBFFFFFFFu,
                                       Address(none), Address(half + 3600)}) {
            const List list = List().Add(address, 1024 | kEnd);
            EXPECT_EQ(-EFAULT, Direct(node, GetParam().read, 0, 2, list)) << address;
            EXPECT_EQ(-EFAULT, Direct(node, GetParam().write, 2, 2, list)) << address;
        }
        EXPECT_EQ(-EFAULT, Direct(node, GetParam().read, 0, read_only, 2));
        EXPECT_EQ(0, Direct(node, GetParam().write, 100, read_only, 2));
        EXPECT_EQ(POLLOUT, Events(node));
        // The first piece is good, the second is not.
        const List list = List().Add(Address(memory.data()), 512).Add(Address(none), 512 | kEnd);
        EXPECT_EQ(-EFAULT, Direct(node, GetParam().read, 0, 2, list));
        ForgetEnd();
        EXPECT_EQ("0", State(kPlace, "busy"));
    }
    munmap(read_only, 8192);
    munmap(none, 8192);
    munmap(half, 4096);
}

TEST_P(DriverTransfer, RefusesWhatIsNotOnTheCard)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        const Bytes before = memory;
        for (const auto& [sector, sectors] :
             {std::pair{kSectors, 1u}, {kSectors - 1, 2u}, {0xFFFFFFFFu, 1u}, {0u, kSectors + 1}}) {
            List list;
            for (uint32_t left = sectors * 512; left > 0;) {
                const uint32_t length = std::min(left, 65536u);
                left -= length;
                list.Add(Address(memory.data()), length | (left == 0 ? kEnd : 0));
            }
            EXPECT_EQ(-EIO, Direct(node, GetParam().read, sector, sectors, list)) << sector;
            EXPECT_EQ(-ENOSPC, Direct(node, GetParam().write, sector, sectors, list)) << sector;
        }
        ASSERT_EQ(0, Put(kPlace, "protected", "1"));
        EXPECT_EQ(-EROFS, Write(0, 1));
        ASSERT_EQ(0, Put(kPlace, "protected", "0"));
        EXPECT_EQ(before, memory);
        EXPECT_EQ(content, OnCard(kPlace, 0, kSectors));
        ForgetEnd();
    }
}

TEST_P(DriverTransfer, RefusesBadElements)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        uint32_t element[4] = {0, GetParam().unit, 0, 0};
        const auto ask = [&](uint32_t count, uint32_t address) {
            const uint32_t record[] = {count, 0, address};
            return Ask(node, GetParam().rmw, record);
        };
        const auto with = [&](uint32_t address, uint32_t length) {
            List list;
            list.Add(address, length);
            memcpy(&element[2], list.data(), 8);
            return ask(1, Address(element));
        };
        EXPECT_EQ(-EINVAL, with(Address(memory.data()), 513));
        EXPECT_EQ(-EINVAL, with(Address(memory.data()), 0x7FFFFFFF));
        EXPECT_EQ(-EFAULT, with(0, 512));
        EXPECT_EQ(-EFAULT, with(0xC0000000, 512));
        EXPECT_EQ(0, with(0, 0));
        EXPECT_EQ(POLLOUT, Events(node));
        // As many as there may be, each of them good, and one more.
        List good;
        for (uint32_t i = 0; i < 2049; i++) {
            good.Add(0, __builtin_bswap32(GetParam().unit)).Add(Address(memory.data()), 512);
        }
        EXPECT_EQ(0, ask(2048, good.address()));
        EXPECT_EQ(POLLOUT, Events(node));
        EXPECT_EQ(-EINVAL, ask(2049, good.address()));
        for (const uint32_t count : {0x10000000u, 0x7FFFFFFFu}) {
            EXPECT_EQ(-EINVAL, ask(count, Address(element))) << count;
        }
        EXPECT_EQ(-EFAULT, ask(1, 0));
        EXPECT_EQ(-EFAULT, ask(2048, 0xFFFFFFF0));
        ForgetEnd();
        for (const uint32_t count : {0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(0, ask(count, 0)) << count;
            EXPECT_EQ(POLLOUT, Events(node));
        }
        const uint32_t nowhere[] = {0, 0xC0000000};
        EXPECT_EQ(-EFAULT, Ask(node, GetParam().command_write, nowhere));
        ForgetEnd();
    }
}

// --- all at once ----------------------------------------------------------------

// Programs, cards and resets come and go; what is asked for here is a kernel that has
// nothing to say about it.
TEST_P(DriverTransfer, SurvivesAllAtOnce)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back([&, i] {
            Bytes bytes(16 * 512);  // until the transfers into it have ended with the file
            const Fd own(GetParam().node, O_RDWR);
            while (!stop.load()) {
                Direct(own, i % 2 ? GetParam().write : GetParam().read, 0, bytes.data(), 16);
                Events(own, 2);
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop.load()) {
            Ask(node, GetParam().reset);
            usleep(1500);
        }
    });
    threads.emplace_back([&] {
        while (!stop.load()) {
            Bytes bytes(64 * 512);
            const Fd own(GetParam().node, O_RDWR);
            Direct(own, GetParam().read, 0, bytes.data(), 64);
        }
    });
    const std::string image = ImageFile(content);
    for (int i = 0; i < 60; i++) {
        EXPECT_EQ(0, Put(kPlace, "insert", image));
        EXPECT_EQ(0, Put(kPlace, "latency_us", i % 3 ? "300" : "0"));
        usleep(5000);
        EXPECT_EQ(0, Put(kPlace, "eject", "1"));
    }
    stop.store(true);
    for (std::thread& thread : threads) {
        thread.join();
    }
    unlink(image.c_str());
    EXPECT_EQ(0, Insert(kPlace, content));
    Latency(100);
    ForgetEnd();
    ASSERT_EQ(0, Read(0, 8));
    EXPECT_EQ(POLLOUT, Events(node, 4000));
    EXPECT_EQ(Slice(OnCard(kPlace, 0, 8), 0, 8), Slice(memory, 0, 8));
}

}  // namespace
}  // namespace board
