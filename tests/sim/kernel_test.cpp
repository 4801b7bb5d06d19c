// SPDX-License-Identifier: MIT
//
// The stand-in itself: a test of the library is worth what this is worth. Here
// nodes, open files, the record of calls, and time.
#include "sim/kernel.h"

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "sim/block_driver.h"
#include "tests/sim/probe_driver.h"
#include "tests/support/trace.h"

namespace {

using cardsim::BlockDriver;
using cardsim::Call;
using cardsim::CallKind;
using cardsim::Card;
using cardsim::Driver;
using cardsim::Kernel;
using namespace std::chrono_literals;

constexpr char kBlock[] = "/dev/block";  // a card of 8 sectors
constexpr char kProbe[] = "/dev/probe";  // tells what reached it
constexpr char kPlain[] = "/dev/plain";  // a driver without operations
constexpr uint32_t kSectors = 8;

TEST(KernelLife, ThereIsOneAtATime)
{
    EXPECT_EQ(nullptr, Kernel::Current());
    {
        const Kernel kernel;
        EXPECT_EQ(&kernel, Kernel::Current());
        EXPECT_THROW(Kernel(), std::logic_error);
        EXPECT_EQ(&kernel, Kernel::Current());
    }
    EXPECT_EQ(nullptr, Kernel::Current());
    const Kernel another;
    EXPECT_EQ(&another, Kernel::Current());
}

TEST(KernelLife, ClosesWhatIsLeftOpen)
{
    int fd = -1;
    {
        Kernel kernel;
        kernel.AddNode(kPlain, {S_IFCHR, 1, 2, std::make_shared<Driver>()});
        fd = open64(kPlain, O_RDWR);
        ASSERT_LE(0, fd);
        ASSERT_NE(-1, fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST(KernelPaths, OwnsTheDevicesButNotThoseOfEveryProgram)
{
    for (const char* path : {"/dev/sdcarda", "/dev/x", "/dev/", "/dev/nullx", "/dev/zero0",
                             "/dev/shm", "/dev/mem", "/dev/disk/by-id/x", "/dev/ttyS0"}) {
        EXPECT_TRUE(Kernel::Owns(path)) << path;
    }
    for (const char* path :
         {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty",
          "/dev/fd/3", "/dev/pts/0", "/dev/shm/x", "/dev/stdin", "/dev/stdout", "/dev/stderr",
          "/dev", "/devx", "dev/x", "/tmp/dev/x", "/", ""}) {
        EXPECT_FALSE(Kernel::Owns(path)) << path;
    }
    EXPECT_FALSE(Kernel::Owns(static_cast<const char*>(nullptr)));
}

class KernelTest : public testing::Test {
protected:
    KernelTest()
    {
        kernel.AddNode(kBlock, {S_IFBLK, 240, 17, std::make_shared<BlockDriver>(card)});
        kernel.AddNode(kProbe, {S_IFCHR, 0xABC, 0x12345, probe});
        kernel.AddNode(kPlain, {S_IFCHR, 1, 2, std::make_shared<Driver>()});
    }

    Call Last() { return kernel.Calls().back(); }

    std::shared_ptr<Card> card = Card::InMemory(kSectors);
    std::shared_ptr<ProbeDriver> probe = std::make_shared<ProbeDriver>();
    Kernel kernel;
};

// --- stat ------------------------------------------------------------------------------

TEST_F(KernelTest, TellsANodesTypeAndNumber)
{
    struct stat64 node;
    memset(&node, 0xE1, sizeof node);
    ASSERT_EQ(0, stat64(kBlock, &node));
    EXPECT_TRUE(S_ISBLK(node.st_mode));
    EXPECT_EQ(240u, major(node.st_rdev));
    EXPECT_EQ(17u, minor(node.st_rdev));
    EXPECT_EQ(0, node.st_size);
    ASSERT_EQ(0, stat64(kProbe, &node));
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(0xABCu, major(node.st_rdev));
    EXPECT_EQ(0x12345u, minor(node.st_rdev));
}

TEST_F(KernelTest, KnowsNoOtherNodes)
{
    struct stat64 node;
    EXPECT_EQ(-1, stat64("/dev/none", &node));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(-1, open64("/dev/none", O_RDWR));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0u, kernel.OpenFiles());
    EXPECT_EQ((Trace{"stat64(/dev/none) = -1 ENOENT", "open64(/dev/none, O_RDWR) = -1 ENOENT"}),
              TraceOf(kernel));
}

TEST_F(KernelTest, ReplacesAndRemovesNodes)
{
    struct stat64 node;
    kernel.AddNode(kPlain, {S_IFBLK, 5, 6, std::make_shared<Driver>()});
    ASSERT_EQ(0, stat64(kPlain, &node));
    EXPECT_EQ(5u, major(node.st_rdev));
    const int fd = open64(kBlock, O_RDONLY);
    kernel.RemoveNode(kBlock);
    EXPECT_EQ(-1, stat64(kBlock, &node));
    EXPECT_EQ(-1, open64(kBlock, O_RDONLY));
    // What is open stays usable, as after an unlink.
    uint8_t sector[512];
    EXPECT_EQ(512, read(fd, sector, sizeof sector));
    EXPECT_EQ(0, close(fd));
}

// --- open and close ----------------------------------------------------------------------

TEST_F(KernelTest, GivesOutTheLowestFreeDescriptor)
{
    const int first = open64(kPlain, O_RDWR);
    const int second = open64(kPlain, O_RDWR);
    const int third = open64(kBlock, O_RDONLY);
    ASSERT_LE(0, first);
    EXPECT_LT(first, second);
    EXPECT_LT(second, third);
    EXPECT_EQ(3u, kernel.OpenFiles());
    EXPECT_EQ(0, close(second));
    EXPECT_EQ(2u, kernel.OpenFiles());
    EXPECT_EQ(second, open64(kPlain, O_RDWR));
    // Nobody else is given the number of an open node.
    const int other = open64("/dev/null", O_RDWR);
    EXPECT_NE(first, other);
    EXPECT_NE(second, other);
    EXPECT_NE(third, other);
    EXPECT_EQ(0, close(other));
    EXPECT_EQ(3u, kernel.OpenFiles());
    for (const int fd : {first, second, third}) {
        EXPECT_EQ(0, close(fd));
    }
    EXPECT_EQ(0u, kernel.OpenFiles());
}

TEST_F(KernelTest, KnowsNoClosedDescriptor)
{
    const int fd = open64(kPlain, O_RDWR);
    EXPECT_TRUE(kernel.Owns(fd));
    EXPECT_EQ(0, close(fd));
    EXPECT_FALSE(kernel.Owns(fd));
    EXPECT_EQ(-1, close(fd));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, lseek64(fd, 0, SEEK_SET));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(KernelTest, AnswersForNegativeDescriptors)
{
    uint8_t byte = 0;
    const std::function<int64_t()> calls[] = {
        [] { return close(-1); },
        [] { return lseek64(-1, 0, SEEK_SET); },
        [&] { return read(-1, &byte, 1); },
        [&] { return write(-1, &byte, 1); },
        [&] { return ioctl(-1, 1, &byte); },
    };
    EXPECT_TRUE(kernel.Owns(-1));
    for (const auto& call : calls) {
        errno = 0;
        EXPECT_EQ(-1, call());
        EXPECT_EQ(EBADF, errno);
    }
    EXPECT_EQ((Trace{"close() = -1 EBADF", "lseek64(, 0, SEEK_SET) = -1 EBADF",
                     "read(, 1) = -1 EBADF", "write(, 1) = -1 EBADF", "ioctl(, 0x1) = -1 EBADF"}),
              TraceOf(kernel));
    EXPECT_EQ(-1, Last().fd);
}

TEST_F(KernelTest, OpensNothingWhereTheDriverRefuses)
{
    probe->open_result = -EBUSY;
    EXPECT_EQ(-1, open64(kProbe, O_RDWR));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0u, kernel.OpenFiles());
    probe->open_result = 0;
    const int fd = open64(kProbe, O_RDWR | O_SYNC);
    ASSERT_LE(0, fd);
    EXPECT_EQ(O_RDWR | O_SYNC, probe->flags);
    EXPECT_EQ(kProbe, probe->node);
    EXPECT_EQ(0, close(fd));
}

TEST_F(KernelTest, RunsOutOfDescriptors)
{
    const int next = open64("/dev/null", O_RDONLY);
    ASSERT_LE(0, next);
    close(next);
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {static_cast<rlim_t>(next), before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    const int fd = open64(kPlain, O_RDWR);
    const int error = errno;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ(-1, fd);
    EXPECT_EQ(EMFILE, error);
    EXPECT_EQ(0u, kernel.OpenFiles());
}

// --- block nodes --------------------------------------------------------------------------

TEST_F(KernelTest, SeeksWithinTheCardAndToItsEnd)
{
    const int fd = open64(kBlock, O_RDONLY);
    EXPECT_EQ(0, lseek64(fd, 0, SEEK_CUR));
    EXPECT_EQ(4096, lseek64(fd, 0, SEEK_END));
    EXPECT_EQ(4096, lseek64(fd, 4096, SEEK_SET));
    EXPECT_EQ(1000, lseek64(fd, 1000, SEEK_SET));
    EXPECT_EQ(1500, lseek64(fd, 500, SEEK_CUR));
    EXPECT_EQ(1000, lseek64(fd, -500, SEEK_CUR));
    EXPECT_EQ(4095, lseek64(fd, -1, SEEK_END));
    EXPECT_EQ(700, lseek64(fd, 700, SEEK_SET));
    const std::pair<off64_t, int> outside[] = {
        {4097, SEEK_SET}, {-1, SEEK_SET},    {-701, SEEK_CUR},     {3397, SEEK_CUR},
        {1, SEEK_END},    {-4097, SEEK_END}, {INT64_MIN, SEEK_SET}};
    for (const auto& [offset, whence] : outside) {
        errno = 0;
        EXPECT_EQ(-1, lseek64(fd, offset, whence)) << offset << " " << whence;
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(700, lseek64(fd, 0, SEEK_CUR));
    }
    close(fd);
}

TEST_F(KernelTest, MovesBytesAndThePositionWithThem)
{
    const int fd = open64(kBlock, O_RDWR);
    std::vector<uint8_t> bytes(4096);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<uint8_t>(i * 13 + i / 256);
    }
    EXPECT_EQ(1000, write(fd, bytes.data(), 1000));
    EXPECT_EQ(1000, lseek64(fd, 0, SEEK_CUR));
    EXPECT_EQ(3096, write(fd, bytes.data() + 1000, 5000)) << "cut at the card's end";
    EXPECT_EQ(4096, lseek64(fd, 0, SEEK_CUR));
    EXPECT_EQ(-1, write(fd, bytes.data(), 1));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(0, write(fd, bytes.data(), 0));
    std::vector<uint8_t> back(5000, 0xE1);
    EXPECT_EQ(0, read(fd, back.data(), 1)) << "nothing at the end";
    EXPECT_EQ(0, lseek64(fd, 0, SEEK_SET));
    EXPECT_EQ(10, read(fd, back.data(), 10));
    EXPECT_EQ(10, lseek64(fd, 0, SEEK_CUR));
    EXPECT_EQ(4086, read(fd, back.data() + 10, 4990));
    EXPECT_EQ(0, read(fd, back.data(), 1));
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), back.begin()));
    EXPECT_EQ(0xE1, back[4096]);
    close(fd);
}

TEST_F(KernelTest, GivesEachOpenFileItsOwnPosition)
{
    const int one = open64(kBlock, O_RDONLY);
    const int two = open64(kBlock, O_RDONLY);
    EXPECT_EQ(512, lseek64(one, 512, SEEK_SET));
    EXPECT_EQ(0, lseek64(two, 0, SEEK_CUR));
    close(one);
    close(two);
}

TEST_F(KernelTest, LetsFilesBeUsedAsTheyWereOpened)
{
    uint8_t bytes[4] = {1, 2, 3, 4};
    const int reading = open64(kBlock, O_RDONLY);
    EXPECT_EQ(-1, write(reading, bytes, 4));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(4, read(reading, bytes, 4));
    EXPECT_EQ(0, bytes[0]);
    close(reading);
    const int writing = open64(kBlock, O_WRONLY);
    errno = 0;
    EXPECT_EQ(-1, read(writing, bytes, 4));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(4, write(writing, bytes, 4));
    close(writing);
}

TEST_F(KernelTest, RefusesToOpenAProtectedCardForWriting)
{
    card->model().write_protected = true;
    for (const int flags : {O_RDWR, O_WRONLY, O_RDWR | O_SYNC}) {
        errno = 0;
        EXPECT_EQ(-1, open64(kBlock, flags));
        EXPECT_EQ(EROFS, errno);
    }
    const int fd = open64(kBlock, O_RDONLY);
    EXPECT_LE(0, fd);
    EXPECT_EQ(1u, kernel.OpenFiles());
    close(fd);
}

TEST_F(KernelTest, AnswersLikeADriverWithoutOperations)
{
    const int fd = open64(kPlain, O_RDWR);
    uint8_t byte = 0;
    EXPECT_EQ(-1, lseek64(fd, 0, SEEK_SET));
    EXPECT_EQ(ESPIPE, errno);
    EXPECT_EQ(-1, read(fd, &byte, 1));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(-1, write(fd, &byte, 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, ioctl(fd, 0x400178FF, &byte));
    EXPECT_EQ(ENOTTY, errno);
    pollfd asked = {fd, POLLIN | POLLOUT | POLLPRI, 0};
    EXPECT_EQ(1, poll(&asked, 1, 10));
    EXPECT_EQ(POLLIN | POLLOUT, asked.revents);
    close(fd);
}

// --- requests and their record -----------------------------------------------------------------

TEST_F(KernelTest, HandsRequestsToTheDriverUnchanged)
{
    const int fd = open64(kProbe, O_RDWR);
    probe->result = 77;
    int argument = 0;
    EXPECT_EQ(77, ioctl(fd, 0x400178FF, &argument));
    EXPECT_EQ(0x400178FFu, probe->request);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(&argument), probe->argument);
    EXPECT_EQ(77, ioctl(fd, 0xFFFFFFFF, nullptr));
    EXPECT_EQ(0xFFFFFFFFu, probe->request);
    EXPECT_EQ(0u, probe->argument);
    probe->result = -EIO;
    EXPECT_EQ(-1, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EIO, errno);
    close(fd);
}

// A driver may look at the kernel, and take part in other calls, while it works.
TEST_F(KernelTest, HoldsNoLockWhileADriverWorks)
{
    const int fd = open64(kProbe, O_RDWR);
    size_t seen = 0;
    probe->on_request = [&] {
        const int other = open64(kBlock, O_RDONLY);
        seen = kernel.OpenFiles() + kernel.Calls().size();
        close(other);
    };
    EXPECT_EQ(0, ioctl(fd, 1, nullptr));
    EXPECT_EQ(4u, seen);
    EXPECT_EQ((Trace{"open64(/dev/probe, O_RDWR)", "open64(/dev/block, O_RDONLY)",
                     "close(/dev/block) = 0", "ioctl(/dev/probe, 0x1) = 0"}),
              TraceOf(kernel))
        << "in the order of the answers";
    close(fd);
}

TEST_F(KernelTest, RecordsEveryCall)
{
    struct stat64 node;
    uint8_t bytes[700] = {};
    stat64(kBlock, &node);
    EXPECT_EQ(CallKind::Stat, Last().kind);
    EXPECT_EQ(kBlock, Last().node);

    const int fd = open64(kBlock, O_RDWR | O_SYNC);
    EXPECT_EQ(CallKind::Open, Last().kind);
    EXPECT_EQ(kBlock, Last().node);
    EXPECT_EQ(O_RDWR | O_SYNC, Last().flags);
    EXPECT_EQ(fd, Last().fd);
    EXPECT_EQ(fd, Last().result);

    lseek64(fd, -1000, SEEK_END);
    EXPECT_EQ(CallKind::Seek, Last().kind);
    EXPECT_EQ(SEEK_END, Last().flags);
    EXPECT_EQ(static_cast<uint64_t>(-1000), Last().amount);
    EXPECT_EQ(3096, Last().result);
    EXPECT_EQ(fd, Last().fd);
    EXPECT_EQ(kBlock, Last().node);

    write(fd, bytes, 700);
    EXPECT_EQ(CallKind::Write, Last().kind);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes), Last().argument);
    EXPECT_EQ(700u, Last().amount);
    EXPECT_EQ(700, Last().result);

    read(fd, bytes, 400);
    EXPECT_EQ(CallKind::Read, Last().kind);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes), Last().argument);
    EXPECT_EQ(400u, Last().amount);
    EXPECT_EQ(300, Last().result);
    EXPECT_EQ(fd, Last().fd);
    EXPECT_EQ(kBlock, Last().node);

    ioctl(fd, 0x400178FF, bytes);
    EXPECT_EQ(CallKind::Ioctl, Last().kind);
    EXPECT_EQ(0x400178FFu, Last().request);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes), Last().argument);
    EXPECT_EQ(-1, Last().result);
    EXPECT_EQ(ENOTTY, Last().error);

    pollfd asked = {fd, POLLIN, 0};
    poll(&asked, 1, 4000);
    EXPECT_EQ(CallKind::Poll, Last().kind);
    EXPECT_EQ(POLLIN, Last().flags);
    EXPECT_EQ(4000u, Last().amount);
    EXPECT_EQ(1, Last().result);
    EXPECT_EQ(0, Last().error);

    const timespec length = {2, 5};
    nanosleep(&length, nullptr);
    EXPECT_EQ(CallKind::Sleep, Last().kind);
    EXPECT_EQ(2000000005u, Last().amount);
    EXPECT_EQ(0, Last().result);

    close(fd);
    EXPECT_EQ(CallKind::Close, Last().kind);
    EXPECT_EQ(fd, Last().fd);
    EXPECT_EQ(kBlock, Last().node);

    EXPECT_EQ(9u, kernel.Calls().size());
    kernel.ClearCalls();
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(KernelTest, ShowsEachCallBeforeItIsAnswered)
{
    std::vector<std::string> shown;
    kernel.Watch([&](const cardsim::Call& call) {
        shown.push_back(cardsim::Describe(call));
        errno = EXFULL;
    });
    const int fd = open64(kProbe, O_RDWR);
    errno = 0;
    ioctl(fd, 5, nullptr);
    EXPECT_EQ(0, errno);
    kernel.Watch({});
    close(fd);
    EXPECT_EQ(
        (std::vector<std::string>{"open64(/dev/probe, O_RDWR)", "ioctl(/dev/probe, 0x5) = 0"}),
        shown);
}

TEST_F(KernelTest, KeepsNoRecordOnRequest)
{
    kernel.KeepCalls(false);
    const int fd = open64(kBlock, O_RDWR);
    EXPECT_EQ(512, lseek64(fd, 512, SEEK_SET));
    EXPECT_TRUE(kernel.Calls().empty());
    kernel.KeepCalls(true);
    close(fd);
    EXPECT_EQ(Trace{"close(/dev/block) = 0"}, TraceOf(kernel));
}

TEST_F(KernelTest, DescribesEveryKindOfCall)
{
    struct stat64 node;
    uint8_t bytes[8];
    stat64(kBlock, &node);
    const int fd = open64(kBlock, O_RDWR | O_SYNC);
    const int appending = open64(kBlock, O_WRONLY | O_APPEND);
    open64("/dev/none", O_RDONLY);
    lseek64(fd, 4096, SEEK_SET);
    lseek64(fd, 0, SEEK_CUR);
    lseek64(fd, 0, SEEK_END);
    read(fd, bytes, 8);
    write(fd, bytes, 8);
    ioctl(fd, 0xAB, nullptr);
    pollfd asked = {fd, POLLOUT, 0};
    poll(&asked, 1, -1);
    const timespec length = {0, 400000000};
    nanosleep(&length, nullptr);
    close(appending);
    close(fd);
    EXPECT_EQ((Trace{
                  "stat64(/dev/block) = 0",
                  "open64(/dev/block, O_RDWR|O_SYNC)",
                  "open64(/dev/block, O_WRONLY|1024)",
                  "open64(/dev/none, O_RDONLY) = -1 ENOENT",
                  "lseek64(/dev/block, 4096, SEEK_SET) = 4096",
                  "lseek64(/dev/block, 0, SEEK_CUR) = 4096",
                  "lseek64(/dev/block, 0, SEEK_END) = 4096",
                  "read(/dev/block, 8) = 0",
                  "write(/dev/block, 8) = -1 ENOSPC",
                  "ioctl(/dev/block, 0xab) = -1 ENOTTY",
                  "poll(/dev/block, 0x4, -1 ms) = 1",
                  "nanosleep(400000000 ns) = 0",
                  "close(/dev/block) = 0",
                  "close(/dev/block) = 0",
              }),
              TraceOf(kernel));
}

TEST_F(KernelTest, LeavesErrnoWhereACallSucceeds)
{
    struct stat64 node;
    uint8_t bytes[8] = {};
    int fd = -1;
    pollfd asked = {-1, POLLOUT, 0};
    const timespec length = {1, 0};
    const std::function<int64_t()> calls[] = {
        [&] { return stat64(kBlock, &node); },
        [&] { return fd = open64(kBlock, O_RDWR); },
        [&] { return lseek64(fd, 8, SEEK_SET); },
        [&] { return read(fd, bytes, 8); },
        [&] { return write(fd, bytes, 8); },
        [&] { return poll(&asked, 1, 10); },
        [&] {
            asked.fd = fd;
            return poll(&asked, 1, 10);
        },
        [&] { return nanosleep(&length, nullptr); },
        [&] { return close(fd); },
        [&] { return fd = open64(kProbe, O_RDWR); },
        [&] { return ioctl(fd, 1, bytes); },
        [&] { return close(fd); },
    };
    for (const auto& call : calls) {
        errno = EXFULL;
        const int64_t result = call();
        const int error = errno;
        EXPECT_LE(0, result);
        EXPECT_EQ(EXFULL, error);
    }
}

// --- time ---------------------------------------------------------------------------------------

TEST_F(KernelTest, SleepsOnItsOwnClock)
{
    EXPECT_EQ(0ns, kernel.Now());
    const auto before = std::chrono::steady_clock::now();
    const timespec hour = {3600, 1};
    timespec remaining = {7, 8};
    EXPECT_EQ(0, nanosleep(&hour, &remaining));
    EXPECT_EQ(1h + 1ns, kernel.Now());
    const timespec short_time = {0, 400000000};
    EXPECT_EQ(0, nanosleep(&short_time, nullptr));
    EXPECT_EQ(1h + 400ms + 1ns, kernel.Now());
    EXPECT_EQ(7, remaining.tv_sec);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1min);
}

TEST_F(KernelTest, WaitsOnItsOwnClockForEventsThatDoNotCome)
{
    const int fd = open64(kProbe, O_RDWR);
    pollfd asked = {fd, POLLOUT, 77};
    EXPECT_EQ(0, poll(&asked, 1, 4000));
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(4s, kernel.Now());
    EXPECT_EQ(0, poll(&asked, 1, 0));
    EXPECT_EQ(4s, kernel.Now());
    // An event that nobody asked for.
    probe->events = POLLIN;
    EXPECT_EQ(0, poll(&asked, 1, 1000));
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(5s, kernel.Now());
    close(fd);
}

TEST_F(KernelTest, ReturnsEventsAtOnce)
{
    const int fd = open64(kProbe, O_RDWR);
    pollfd asked = {fd, POLLOUT | POLLPRI, 0};
    probe->events = POLLOUT | POLLIN;
    EXPECT_EQ(1, poll(&asked, 1, 4000));
    EXPECT_EQ(POLLOUT, asked.revents);
    // Errors come unasked.
    asked.events = 0;
    probe->events = POLLERR | POLLHUP | POLLNVAL | POLLIN | POLLOUT;
    EXPECT_EQ(1, poll(&asked, 1, 4000));
    EXPECT_EQ(POLLERR | POLLHUP | POLLNVAL, asked.revents);
    EXPECT_EQ(0ns, kernel.Now());
    close(fd);
}

// As poll has it for entries that are to be left out.
TEST_F(KernelTest, WaitsInVainForANegativeDescriptor)
{
    pollfd asked = {-1, POLLOUT, 77};
    EXPECT_EQ(0, poll(&asked, 1, 30));
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(30ms, kernel.Now());
}

// --- threads
// ---------------------------------------------------------------------------------------

TEST_F(KernelTest, ServesManyThreads)
{
    constexpr size_t kThreads = 4;
    constexpr size_t kRounds = 50;
    std::vector<size_t> failures(kThreads);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; i++) {
        threads.emplace_back([&failures, i] {
            for (size_t round = 0; round < kRounds; round++) {
                uint8_t sector[512];
                const int fd = open64(kBlock, O_RDWR);
                const timespec length = {0, 1000};
                memset(sector, static_cast<int>(i), sizeof sector);
                bool good = fd >= 0;
                good = lseek64(fd, static_cast<off64_t>(i) * 512, SEEK_SET) >= 0 && good;
                good = write(fd, sector, sizeof sector) == 512 && good;
                good = lseek64(fd, static_cast<off64_t>(i) * 512, SEEK_SET) >= 0 && good;
                good = read(fd, sector, sizeof sector) == 512 && good;
                good = sector[511] == i && good;
                good = nanosleep(&length, nullptr) == 0 && good;
                good = close(fd) == 0 && good;
                failures[i] += good ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<size_t>(kThreads, 0), failures);
    EXPECT_EQ(kThreads * kRounds * 7, kernel.Calls().size());
    EXPECT_EQ(kThreads * kRounds * 1us, kernel.Now());
    EXPECT_EQ(0u, kernel.OpenFiles());
}

// A file's position is the file's: every byte is read by one thread only.
TEST_F(KernelTest, SharesAFilesPositionAmongThreads)
{
    constexpr size_t kThreads = 4;
    const std::shared_ptr<Card> large = Card::InMemory(32);
    std::vector<uint8_t> bytes(32 * 512);
    for (size_t i = 0; i < bytes.size(); i += 64) {
        bytes[i] = static_cast<uint8_t>(i / 64);
    }
    ASSERT_EQ(32 * 512, sim_card_write(&large->model(), 0, bytes.data(), 32 * 512));
    kernel.AddNode(kPlain, {S_IFBLK, 1, 2, std::make_shared<BlockDriver>(large)});
    const int fd = open64(kPlain, O_RDONLY);
    std::vector<std::vector<uint8_t>> seen(kThreads);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; i++) {
        threads.emplace_back([&seen, fd, i] {
            uint8_t part[64];
            while (read(fd, part, sizeof part) == 64) {
                seen[i].push_back(part[0]);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::multiset<uint8_t> all;
    for (const std::vector<uint8_t>& some : seen) {
        all.insert(some.begin(), some.end());
    }
    EXPECT_EQ(256u, all.size());
    EXPECT_EQ(256u, std::set<uint8_t>(all.begin(), all.end()).size());
    close(fd);
}

}  // namespace
