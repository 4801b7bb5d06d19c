// SPDX-License-Identifier: MIT
//
// Faults of the stand-in: which calls they hit and what they change.
#include <memory>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/block_driver.h"
#include "tests/sim/probe_driver.h"
#include "tests/support/trace.h"

namespace {

using cardsim::BlockDriver;
using cardsim::CallKind;
using cardsim::Card;
using cardsim::Fault;
using cardsim::Kernel;
using namespace std::chrono_literals;

constexpr char kBlock[] = "/dev/block";
constexpr char kProbe[] = "/dev/probe";

class FaultTest : public testing::Test {
protected:
    FaultTest()
    {
        kernel.AddNode(kBlock, {S_IFBLK, 1, 2, std::make_shared<BlockDriver>(card)});
        kernel.AddNode(kProbe, {S_IFCHR, 3, 4, probe});
        block = open64(kBlock, O_RDWR);
        fd = open64(kProbe, O_RDWR);
        kernel.ClearCalls();
    }
    ~FaultTest() override
    {
        kernel.ClearFaults();
        close(block);
        close(fd);
    }

    static Fault Failing(CallKind kind, int error)
    {
        Fault fault;
        fault.kind = kind;
        fault.error = error;
        return fault;
    }

    // The results of so many requests: '.' for one that went well, 'x' for -1.
    std::string Requests(int count, uint32_t request = 1)
    {
        std::string results;
        for (int i = 0; i < count; i++) {
            results += ioctl(fd, request, nullptr) == 0 ? '.' : 'x';
        }
        return results;
    }

    std::shared_ptr<Card> card = Card::InMemory(8);
    std::shared_ptr<ProbeDriver> probe = std::make_shared<ProbeDriver>();
    Kernel kernel;
    int block = -1;
    int fd = -1;
    uint8_t bytes[512] = {};
};

// --- which calls ---------------------------------------------------------------------------

TEST_F(FaultTest, HitsTheNextCallOnce)
{
    kernel.Inject(Failing(CallKind::Ioctl, EIO));
    EXPECT_EQ("x...", Requests(4));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(3, probe->requests);
}

TEST_F(FaultTest, HitsFromTheFirstForSoManyTimes)
{
    Fault fault = Failing(CallKind::Ioctl, EIO);
    fault.first = 3;
    fault.times = 2;
    kernel.Inject(fault);
    EXPECT_EQ("..xx..", Requests(6));
    fault.times = Fault::kForEver;
    kernel.Inject(fault);
    EXPECT_EQ("..xxxxxx", Requests(8));
}

TEST_F(FaultTest, CountsFromItsInjection)
{
    EXPECT_EQ("...", Requests(3));
    Fault fault = Failing(CallKind::Ioctl, EIO);
    fault.first = 2;
    kernel.Inject(fault);
    EXPECT_EQ(".x.", Requests(3));
}

TEST_F(FaultTest, CanBeTakenBack)
{
    Fault fault = Failing(CallKind::Ioctl, EIO);
    fault.times = Fault::kForEver;
    kernel.Inject(fault);
    EXPECT_EQ("xx", Requests(2));
    kernel.ClearFaults();
    EXPECT_EQ("..", Requests(2));
}

TEST_F(FaultTest, CanBeTakenBackForOneNode)
{
    Fault of_probe = Failing(CallKind::Ioctl, EIO);
    of_probe.node = kProbe;
    of_probe.times = Fault::kForEver;
    kernel.Inject(of_probe);
    Fault of_block = Failing(CallKind::Seek, EINTR);
    of_block.node = kBlock;
    kernel.Inject(of_block);
    kernel.ClearFaults(kBlock);
    EXPECT_EQ(0, lseek64(block, 0, SEEK_SET));
    EXPECT_EQ("xx", Requests(2));
    kernel.ClearFaults(kProbe);
    EXPECT_EQ("..", Requests(2));
}

TEST_F(FaultTest, ChoosesByKindNodeAndRequest)
{
    kernel.Inject(Failing(CallKind::Seek, EIO));
    EXPECT_EQ(0, read(block, bytes, 0));
    EXPECT_EQ("..", Requests(2));
    EXPECT_EQ(-1, lseek64(block, 0, SEEK_SET));

    Fault elsewhere;
    elsewhere.node = kBlock;
    elsewhere.error = EIO;
    kernel.Inject(elsewhere);
    EXPECT_EQ("..", Requests(2));
    EXPECT_EQ(-1, read(block, bytes, 1));

    Fault chosen;
    chosen.request = 5;
    chosen.error = EIO;
    chosen.times = 2;
    kernel.Inject(chosen);
    EXPECT_EQ("..", Requests(2, 4));
    EXPECT_EQ(0, lseek64(block, 0, SEEK_SET));
    EXPECT_EQ("x", Requests(1, 5));
    EXPECT_EQ(-1, ioctl(block, 5, nullptr)) << "the request's number on any node";

    // A call that is no request has none, not request 0.
    chosen.request = 0;
    kernel.Inject(chosen);
    EXPECT_EQ(0, lseek64(block, 0, SEEK_SET));
    EXPECT_EQ("x", Requests(1, 0));
}

TEST_F(FaultTest, HitsAnyCallWhereNothingIsChosen)
{
    Fault any;
    any.error = EIO;
    any.times = Fault::kForEver;
    kernel.Inject(any);
    struct stat64 node;
    pollfd asked = {fd, POLLIN, 0};
    const timespec length = {1, 0};
    void* (*volatile allocate)(size_t) = malloc;
    EXPECT_EQ(-1, stat64(kBlock, &node));
    EXPECT_EQ(-1, open64(kBlock, O_RDWR));
    EXPECT_EQ(-1, lseek64(block, 0, SEEK_SET));
    EXPECT_EQ(-1, read(block, bytes, 1));
    EXPECT_EQ(-1, write(block, bytes, 1));
    EXPECT_EQ(-1, ioctl(fd, 1, nullptr));
    EXPECT_EQ(-1, poll(&asked, 1, 1000));
    EXPECT_EQ(-1, nanosleep(&length, nullptr));
    EXPECT_EQ(nullptr, allocate(16));
    EXPECT_EQ(-1, close(block));
    EXPECT_EQ((Trace{"stat64(/dev/block) = -1 EIO", "open64(/dev/block, O_RDWR) = -1 EIO",
                     "lseek64(/dev/block, 0, SEEK_SET) = -1 EIO", "read(/dev/block, 1) = -1 EIO",
                     "write(/dev/block, 1) = -1 EIO", "ioctl(/dev/probe, 0x1) = -1 EIO",
                     "poll(/dev/probe, 0x1, 1000 ms) = -1 EIO", "nanosleep(1000000000 ns) = -1 EIO",
                     "malloc(16) = -1 EIO", "close(/dev/block) = -1 EIO"}),
              TraceOf(kernel));
    EXPECT_EQ(2u, kernel.OpenFiles());
    EXPECT_EQ(0u, kernel.LiveBlocks());
    EXPECT_EQ(0ns, kernel.Now());
}

TEST_F(FaultTest, HitsCallsThatFailAnyway)
{
    kernel.Inject(Failing(CallKind::Stat, EACCES));
    struct stat64 node;
    EXPECT_EQ(-1, stat64("/dev/none", &node));
    EXPECT_EQ(EACCES, errno);
    kernel.Inject(Failing(CallKind::Read, EACCES));
    EXPECT_EQ(-1, read(-1, bytes, 1));
    EXPECT_EQ(EACCES, errno);
}

// Each counts every call that it matches, also those where another one acts.
TEST_F(FaultTest, CountsEachOnItsOwn)
{
    Fault first = Failing(CallKind::Ioctl, EIO);
    Fault second = Failing(CallKind::Ioctl, EBUSY);
    first.first = 2;
    second.first = 2;
    second.times = 2;
    kernel.Inject(first);
    kernel.Inject(second);
    std::vector<int> errors;
    for (int i = 0; i < 4; i++) {
        errno = 0;
        ioctl(fd, 1, nullptr);
        errors.push_back(errno);
    }
    EXPECT_EQ((std::vector<int>{0, EIO, EBUSY, 0}), errors);
}

// --- what they change ------------------------------------------------------------------------

TEST_F(FaultTest, AnswersAResultWithoutAnError)
{
    Fault fault;
    fault.kind = CallKind::Ioctl;
    fault.result = 77;
    kernel.Inject(fault);
    errno = EXFULL;
    EXPECT_EQ(77, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(0, probe->requests) << "the driver is not reached";

    fault.result = -1;
    kernel.Inject(fault);
    errno = EXFULL;
    EXPECT_EQ(-1, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EXFULL, errno) << "errno is stale";
    EXPECT_EQ("ioctl(/dev/probe, 0x1) = -1", TraceOf(kernel).back());
}

TEST_F(FaultTest, AnswersAResultWithAnError)
{
    Fault fault = Failing(CallKind::Ioctl, EIO);
    fault.result = -5;
    kernel.Inject(fault);
    errno = 0;
    EXPECT_EQ(-5, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(EIO, kernel.Calls().back().error);
    EXPECT_EQ(-5, kernel.Calls().back().result);
}

TEST_F(FaultTest, LeavesAnErrnoWhereACallSucceeds)
{
    Fault fault;
    fault.stray_error = EBUSY;
    fault.times = 3;
    kernel.Inject(fault);
    errno = 0;
    EXPECT_EQ(0, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EBUSY, errno);
    errno = 0;
    uint8_t byte = 0;
    EXPECT_EQ(1, read(block, &byte, 1));
    EXPECT_EQ(EBUSY, errno);
    // One that fails says so itself.
    EXPECT_EQ(-1, lseek64(block, -1, SEEK_SET));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, kernel.Calls().front().error);
}

TEST_F(FaultTest, AnswersWideResults)
{
    Fault fault;
    fault.kind = CallKind::Seek;
    fault.result = 0x1FFFFFFFE00;
    kernel.Inject(fault);
    EXPECT_EQ(0x1FFFFFFFE00, lseek64(block, 0, SEEK_SET));
}

TEST_F(FaultTest, DoesTheWorkAllTheSameOnRequest)
{
    Fault fault = Failing(CallKind::Ioctl, EIO);
    fault.reach_driver = true;
    kernel.Inject(fault);
    EXPECT_EQ(-1, ioctl(fd, 9, nullptr));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(9u, probe->request);

    bytes[0] = 42;
    fault.kind = CallKind::Write;
    kernel.Inject(fault);
    EXPECT_EQ(-1, write(block, bytes, 512));
    EXPECT_EQ(512, lseek64(block, 0, SEEK_CUR)) << "the position has moved";
    bytes[0] = 0;
    EXPECT_EQ(512, sim_card_read(&card->model(), 0, bytes, 512));
    EXPECT_EQ(42, bytes[0]);

    fault.kind = CallKind::Close;
    kernel.Inject(fault);
    EXPECT_EQ(-1, close(block));
    EXPECT_EQ(1u, kernel.OpenFiles());
}

TEST_F(FaultTest, KeepsTheFileOpenWhereCloseFails)
{
    kernel.Inject(Failing(CallKind::Close, EINTR));
    EXPECT_EQ(-1, close(block));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(2u, kernel.OpenFiles());
    EXPECT_EQ(0, close(block));
    EXPECT_EQ(1u, kernel.OpenFiles());
}

TEST_F(FaultTest, LetsOnlySoManyBytesThrough)
{
    Fault fault;
    fault.kind = CallKind::Write;
    fault.at_most = 100;
    kernel.Inject(fault);
    memset(bytes, 7, sizeof bytes);
    EXPECT_EQ(100, write(block, bytes, 512));
    EXPECT_EQ(512u, kernel.Calls().back().amount);
    EXPECT_EQ(100, lseek64(block, 0, SEEK_CUR));
    fault.kind = CallKind::Read;
    fault.times = 4;
    kernel.Inject(fault);
    lseek64(block, 0, SEEK_SET);
    memset(bytes, 0, sizeof bytes);
    EXPECT_EQ(100, read(block, bytes, 512));
    EXPECT_EQ(7, bytes[99]);
    EXPECT_EQ(0, bytes[100]);
    EXPECT_EQ(60, read(block, bytes, 60)) << "fewer than the limit";
    fault.at_most = 0;
    kernel.ClearFaults();
    kernel.Inject(fault);
    EXPECT_EQ(0, read(block, bytes, 512));
}

// The call is on record, and the work done, before the hook runs; the program
// has its answer after.
TEST_F(FaultTest, RunsAHookBeforeTheAnswer)
{
    Fault fault;
    fault.kind = CallKind::Ioctl;
    fault.times = 2;
    size_t calls = 0;
    int requests = 0;
    fault.then = [&] {
        calls = kernel.Calls().size();
        requests = probe->requests;
        kernel.RemoveNode(kProbe);
        kernel.Inject(Failing(CallKind::Seek, EIO));
        errno = EXFULL;
    };
    kernel.Inject(fault);
    probe->result = 5;
    errno = 0;
    EXPECT_EQ(5, ioctl(fd, 1, nullptr)) << "the call itself goes through";
    EXPECT_EQ(0, errno);
    EXPECT_EQ(1u, calls);
    EXPECT_EQ(1, requests);
    EXPECT_EQ(-1, open64(kProbe, O_RDWR));
    EXPECT_EQ(-1, lseek64(block, 0, SEEK_SET));
    EXPECT_EQ(5, ioctl(fd, 1, nullptr));
    EXPECT_EQ(2, requests);
    EXPECT_EQ(5, ioctl(fd, 1, nullptr));
    EXPECT_EQ(2, requests) << "no more than so many times";

    fault.error = EIO;
    fault.times = 1;
    kernel.Inject(fault);
    EXPECT_EQ(-1, ioctl(fd, 1, nullptr));
    EXPECT_EQ(EIO, errno);
}

// --- waiting -----------------------------------------------------------------------------------

TEST_F(FaultTest, AnswersOtherEvents)
{
    probe->events = POLLOUT;
    Fault fault;
    fault.kind = CallKind::Poll;
    fault.revents = POLLPRI | POLLERR;
    kernel.Inject(fault);
    pollfd asked = {fd, POLLOUT, 0};
    EXPECT_EQ(1, poll(&asked, 1, 1000));
    EXPECT_EQ(POLLPRI | POLLERR, asked.revents);
    EXPECT_EQ(1, probe->polls);

    fault.revents = short{0};
    kernel.Inject(fault);
    EXPECT_EQ(0, poll(&asked, 1, 1000));
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(1s, kernel.Now());
}

TEST_F(FaultTest, MakesAPollTimeOutOrFail)
{
    probe->events = POLLOUT;
    Fault fault;
    fault.kind = CallKind::Poll;
    fault.result = 0;
    kernel.Inject(fault);
    pollfd asked = {fd, POLLOUT, 77};
    errno = EXFULL;
    EXPECT_EQ(0, poll(&asked, 1, 1000));
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(1s, kernel.Now());
    EXPECT_EQ(0, probe->polls);

    kernel.Inject(Failing(CallKind::Poll, EINTR));
    EXPECT_EQ(-1, poll(&asked, 1, 1000));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, asked.revents);
    EXPECT_EQ(1s, kernel.Now()) << "no time passes";
}

TEST_F(FaultTest, InterruptsASleepAtItsBeginning)
{
    kernel.Inject(Failing(CallKind::Sleep, EINTR));
    const timespec length = {1, 0};
    EXPECT_EQ(-1, nanosleep(&length, nullptr));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0ns, kernel.Now());
    EXPECT_EQ(0, nanosleep(&length, nullptr));
    EXPECT_EQ(1s, kernel.Now());
}

}  // namespace
