// SPDX-License-Identifier: MIT
//
// The Mivo back-end: its table, its records, opening and closing, the callback, and
// operations on a handle that was never opened.
#include <climits>
#include <cstddef>

#include <fcntl.h>
#include <unistd.h>

#include "tests/mivosdif/fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kBanner[] = "Wrapper low-level driver for SD card-CardBus adaptor ver.0.11\n";

// --- table and records ---------------------------------------------------------------

TEST(MivoTable, FillsTheSlotsUpTo18)
{
    const DrvOps& ops = mivo_ops;
    EXPECT_EQ(&Mivo_Init, ops.Init);
    EXPECT_EQ(&Mivo_Exit, ops.Exit);
    EXPECT_EQ(&Mivo_Read, ops.Read);
    EXPECT_EQ(&Mivo_Write, ops.Write);
    EXPECT_EQ(&Mivo_Ioctl, ops.Ioctl);
    EXPECT_EQ(&Mivo_CardIoctl, ops.CardIoctl);
    EXPECT_EQ(&Mivo_CardInit, ops.CardInit);
    EXPECT_EQ(&Mivo_CardGetStatus, ops.CardGetStatus);
    EXPECT_EQ(&Mivo_CardGetR1Status, ops.CardGetR1Status);
    EXPECT_EQ(&Mivo_CardGetInfo, ops.CardGetInfo);
    EXPECT_EQ(&Mivo_CardGetSpeedInfo, ops.CardGetSpeedInfo);
    EXPECT_EQ(&Mivo_CardSecureGetInfo, ops.CardSecureGetInfo);
    EXPECT_EQ(&Mivo_CardGetSize, ops.CardGetSize);
    EXPECT_EQ(&Mivo_CardGetWriteProtect, ops.CardGetWriteProtect);
    EXPECT_EQ(&Mivo_DrctRead, ops.DrctRead);
    EXPECT_EQ(&Mivo_DrctWrite, ops.DrctWrite);
    EXPECT_EQ(&Mivo_DrctRMW, ops.DrctRMW);
    EXPECT_EQ(&Mivo_FatWrite, ops.FatWrite);
    EXPECT_EQ(&Mivo_SdCmdWrite, ops.SdCmdWrite);
    EXPECT_EQ(nullptr, ops.CheckRt);
    EXPECT_EQ(nullptr, ops.CheckDelay);
    EXPECT_EQ(nullptr, ops.RTOn4Wait);
    EXPECT_EQ(nullptr, ops.LockRTOn);
    EXPECT_EQ(nullptr, ops.UnlockRTOn);
}

TEST(MivoRecords, AreTwoWithTheirFieldsInOrder)
{
    EXPECT_EQ(2 * sizeof(MivoDevice), sizeof mivo_dev);
    const size_t offsets[] = {
        offsetof(MivoDevice, index),      offsetof(MivoDevice, chr_fd),
        offsetof(MivoDevice, lock),       offsetof(MivoDevice, sg_table),
        offsetof(MivoDevice, secure_buf), offsetof(MivoDevice, reg_buf),
        offsetof(MivoDevice, speed_buf),  offsetof(MivoDevice, io_error),
        offsetof(MivoDevice, eject_arg),  offsetof(MivoDevice, eject_cb),
        offsetof(MivoDevice, ejected),
    };
    EXPECT_EQ(0u, offsets[0]);
    EXPECT_TRUE(std::is_sorted(std::begin(offsets), std::end(offsets)));
    // On the board: 64 bytes.
    if (sizeof(void*) == 4) {
        EXPECT_EQ(40 + sizeof(pthread_mutex_t), sizeof(MivoDevice));
    }
}

// --- Init --------------------------------------------------------------------------

// What opening does, in order.
Trace Opening(const std::string& path)
{
    return {
        "open64(" + path + ", O_RDWR)",
        "ioctl(" + path + ", 0x2000d318) = 0",
        "malloc(16392)",
        "poll(" + path + ", 0x1d, 1 ms) = 0",
    };
}

// Where in it a step stands.
enum Step : size_t { kOpen = 0, kMount = 1, kMalloc = 2, kPoll = 3 };

class MivoInit : public Mivo {
protected:
    // A record in which everything that is not written shows.
    void MarkRecords() { memset(mivo_dev, 0xE1, sizeof mivo_dev); }

    Outcome Init()
    {
        return OutcomeOf([&] { return mivo_ops.Init(&handle); });
    }

    // The descriptor that a step of Opening was given or used.
    int FdOf(size_t step) { return kernel.Calls().at(step).fd; }
};

TEST_F(MivoInit, OpensTheNodeThenMountsItsCard)
{
    MarkRecords();
    const DrvInfo before = handle;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/mivosdif0"), TraceOf(kernel));
    EXPECT_EQ(1u, kernel.OpenFiles());
    EXPECT_EQ(O_RDWR, kernel.Calls().at(kOpen).flags);
    EXPECT_EQ(dev->chr_fd, FdOf(kMount));
    EXPECT_EQ(0u, kernel.Calls().at(kMount).argument);
    EXPECT_EQ(dev->chr_fd, FdOf(kPoll));
    units->With([](sim_mivo& mivo) { EXPECT_TRUE(mivo.unit[0].mounted); });

    EXPECT_EQ(dev, handle.priv);
    handle.priv = before.priv;
    EXPECT_EQ(0, memcmp(&before, &handle, sizeof handle));
    handle.priv = dev;
}

TEST_F(MivoInit, FillsTheRecord)
{
    MarkRecords();
    kernel.FillBlocksWith(0x61);
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(0u, dev->index);
    EXPECT_EQ(FdOf(kOpen), dev->chr_fd);
    EXPECT_NE(nullptr, dev->sg_table);
    EXPECT_EQ(nullptr, dev->secure_buf);
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(nullptr, dev->speed_buf);
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0u, dev->eject_arg);
    EXPECT_EQ(nullptr, dev->eject_cb);
    EXPECT_EQ(0, dev->ejected);
    EXPECT_EQ(1u, kernel.LiveBlocks());
    EXPECT_EQ(Bytes(sizeof mivo_dev[1], 0xE1), BytesOf(mivo_dev[1]));
}

class MivoInitOnUnit : public OnUnit<MivoInit> {};

INSTANTIATE_TEST_SUITE_P(Units, MivoInitOnUnit, kUnits);

// The lock comes when everything else has succeeded.
TEST_P(MivoInitOnUnit, CreatesTheLockBehindTheTable)
{
    MarkRecords();
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    ASSERT_EQ(1u, MutexCalls().size());
    EXPECT_EQ(MutexCallKind::Create, MutexCalls()[0].kind);
    EXPECT_EQ(&dev->lock, MutexCalls()[0].mutex);
    EXPECT_EQ(size_t{kMalloc} + 1, MutexCalls()[0].system_calls);
    pthread_mutex_t plain;
    memset(&plain, 0, sizeof plain);
    pthread_mutex_init(&plain, nullptr);
    EXPECT_EQ(BytesOf(plain), BytesOf(dev->lock));
    EXPECT_FALSE(IsLocked());
}

TEST_F(MivoInit, UsesTheRecordOfItsUnit)
{
    for (unsigned unit = 0; unit < MIVO_UNITS; unit++) {
        SCOPED_TRACE(unit);
        Use(unit);
        MarkRecords();
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ(Opening("/dev/mivosdif" + std::to_string(unit)), TraceOf(kernel));
        EXPECT_EQ(&mivo_dev[unit], handle.priv);
        EXPECT_EQ(unit, mivo_dev[unit].index);
        EXPECT_EQ(Bytes(sizeof mivo_dev[0], 0xE1), BytesOf(mivo_dev[1 - unit]));
        EXPECT_EQ(0, mivo_ops.Exit(&handle));
        EXPECT_EQ(0u, kernel.OpenFiles());
    }
}

// The unit chooses the record, the path the node.
TEST_F(MivoInit, OpensThePathOfTheHandleWhateverTheUnit)
{
    Use(1);
    handle.dev_index = 0;
    dev = &mivo_dev[0];
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/mivosdif1"), TraceOf(kernel));
    EXPECT_EQ(&mivo_dev[0], handle.priv);
    EXPECT_EQ(0u, dev->index);
}

TEST_F(MivoInit, PrintsThePathOfANodeThatCannotBeOpened)
{
    const std::string longest = "/dev/" + std::string(250, 'm');
    for (const std::string& path : {std::string("/dev/mivosdif7"), longest}) {
        SCOPED_TRACE(path);
        kernel.ClearCalls();
        handle = HandleFor(path);
        EXPECT_EQ((Outcome{-1,
                           "[mivosdif:Mivo_Init(#)](E)open[" + path +
                               "] failed : No such file or directory\n",
                           ENOENT}),
                  Init());
        EXPECT_EQ(Trace{"open64(" + path + ", O_RDWR) = -1 ENOENT"}, TraceOf(kernel));
    }
}

// The field behind the path must not be taken for more of it.
TEST_F(MivoInit, DoesNotReadPastAPathWithoutAnEnd)
{
    MarkRecords();
    memset(handle.dev_path, 'x', sizeof handle.dev_path);
    EXPECT_EQ((Outcome{-1,
                       "[mivosdif:Mivo_Init(#)](E)open[" + std::string(256, 'x') +
                           "] failed : File name too long\n",
                       ENAMETOOLONG}),
              Init());
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(-1, dev->chr_fd);
    EXPECT_EQ(dev, handle.priv);
}

TEST_F(MivoInit, AnswersAsTheMountRequestDid)
{
    for (const int mounted : {0, 1, 7, INT_MAX}) {
        SCOPED_TRACE(mounted);
        Answer(MIVOSDIF_IOC_MNTFS, mounted);
        EXPECT_EQ((Outcome{mounted, kBanner}), OutcomeOf([&] { return DevInit(&handle); }));
        EXPECT_EQ(0, mivo_ops.Exit(&handle));
    }
}

struct Failure {
    Step step;
    Fault fault;
    std::string line;  // without the errno's text
};

std::vector<Failure> Failures(const std::string& path)
{
    const std::string init = "[mivosdif:Mivo_Init(#)](E)";
    Fault open;
    open.kind = CallKind::Open;
    Fault mount;
    mount.request = MIVOSDIF_IOC_MNTFS;
    Fault memory;
    memory.kind = CallKind::Malloc;
    return {
        {kOpen, open, init + "open[" + path + "] failed : "},
        {kMount, mount, init + "MIVOSDIF_IOC_MNTFS ioctl[" + path + "] failed : "},
        {kMalloc, memory, init + "Malloc sg table failed : "},
    };
}

// Up to the failing step, then what undoes it.
Trace FailingAt(Step step, const std::string& path, int error)
{
    Trace trace = Opening(path);
    trace.resize(step + 1);
    std::string& last = trace.back();
    last = last.substr(0, last.find(')') + 1) + " = -1 " + strerrorname_np(error);
    if (step > kOpen) {
        trace.push_back("close(" + path + ") = 0");
    }
    return trace;
}

// The number of what has been closed again stays, and the unit's; the rest is blank.
TEST_F(MivoInit, ClosesAndReportsWhereItFails)
{
    for (unsigned unit = 0; unit < MIVO_UNITS; unit++) {
        Use(unit);
        const std::string path = cardsim::MivoNode(unit);
        for (const Failure& failure : Failures(path)) {
            for (const int error : {EIO, EBUSY, ENOMEM}) {
                SCOPED_TRACE(failure.line + strerror(error));
                kernel.ClearCalls();
                kernel.ClearFaults();
                MutexCalls().clear();
                MarkRecords();
                handle.priv = nullptr;
                Fault fault = failure.fault;
                fault.error = error;
                kernel.Inject(fault);
                EXPECT_EQ((Outcome{-1, failure.line + strerror(error) + "\n", error}), Init());
                EXPECT_EQ(FailingAt(failure.step, path, error), TraceOf(kernel));
                EXPECT_EQ(FdOf(kOpen), kernel.Calls().back().fd);
                EXPECT_EQ(0u, kernel.OpenFiles());
                EXPECT_EQ(0u, kernel.LiveBlocks());
                EXPECT_EQ(dev, handle.priv);
                EXPECT_TRUE(MutexCalls().empty());
                MivoDevice expected;
                memset(&expected, 0, sizeof expected);
                expected.index = unit;
                expected.chr_fd = failure.step == kOpen ? -1 : FdOf(kOpen);
                EXPECT_EQ(BytesOf(expected), BytesOf(*dev));
            }
        }
    }
}

// The driver's own refusal.
TEST_F(MivoInit, NeedsACard)
{
    units->Eject(0);
    EXPECT_EQ((Outcome{-1,
                       "[mivosdif:Mivo_Init(#)](E)MIVOSDIF_IOC_MNTFS ioctl[/dev/mivosdif0] failed "
                       ": No such device\n",
                       ENODEV}),
              Init());
    EXPECT_EQ(FailingAt(kMount, "/dev/mivosdif0", ENODEV), TraceOf(kernel));
}

TEST_F(MivoInit, TakesAnyNegativeAnswerOfTheMountForAFailure)
{
    Answer(MIVOSDIF_IOC_MNTFS, -7);
    EXPECT_EQ(-1, Init().result);
    EXPECT_EQ(0u, kernel.OpenFiles());
}

TEST_F(MivoInit, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    for (const Failure& failure : Failures("/dev/mivosdif0")) {
        SCOPED_TRACE(failure.line);
        kernel.ClearFaults();
        Fault fault = failure.fault;
        fault.error = ENXIO;
        kernel.Inject(fault);
        EXPECT_EQ(ENXIO, ErrnoAfter(EXFULL, [&] { mivo_ops.Init(&handle); }));
    }
    kernel.ClearFaults();
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.Init(&handle); }));
}

TEST_F(MivoInit, CanBeRunAgainAfterAFailure)
{
    for (const Failure& failure : Failures("/dev/mivosdif0")) {
        SCOPED_TRACE(failure.line);
        Fault fault = failure.fault;
        fault.error = EIO;
        kernel.Inject(fault);
        EXPECT_EQ(-1, Init().result);
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ(Opening("/dev/mivosdif0"), TraceOf(kernel));
        EXPECT_EQ(0, mivo_ops.Exit(&handle));
    }
}

TEST_F(MivoInit, RefusesAUnitThatThereIsNot)
{
    for (const int32_t index : {-1, 2, 3, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(index);
        MarkRecords();
        const Bytes before = BytesOf(mivo_dev);
        handle.dev_index = index;
        handle.priv = &handle;
        const DrvInfo handle_before = handle;
        EXPECT_EQ((Outcome{-1, "[mivosdif:Mivo_Init(#)](E)Invalid dev_index(" +
                                   std::to_string(index) + ")!\n"}),
                  Init());
        EXPECT_EQ(before, BytesOf(mivo_dev));
        EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.Init(&handle); }));
    }
}

TEST_F(MivoInit, RefusesANullHandleWithoutAWord)
{
    EXPECT_EQ((Outcome{-22}), OutcomeOf([] { return mivo_ops.Init(nullptr); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// Nothing is freed or closed: what was open before is lost.
TEST_F(MivoInit, StartsAfreshOnADeviceThatIsOpen)
{
    Open();
    CardInfo info;
    ASSERT_EQ(0, mivo_ops.CardGetInfo(&handle, &info));
    WatchForEject();
    mivo_ops.CardInit(&handle, 5, nullptr);
    dev->io_error = 1;
    dev->ejected = 1;
    kernel.ClearCalls();
    const MivoDevice lost = *dev;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/mivosdif0"), TraceOf(kernel));
    EXPECT_EQ(2u, kernel.OpenFiles());
    EXPECT_EQ(3u, kernel.LiveBlocks());
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0, dev->ejected);
    EXPECT_EQ(0u, dev->eject_arg);
    EXPECT_EQ(nullptr, dev->eject_cb);
    EXPECT_EQ(nullptr, dev->reg_buf);
    EXPECT_EQ(0, close(lost.chr_fd));
    free(lost.reg_buf);
    SgFree(lost.sg_table);
}

// A program that has closed its standard input is given descriptor 0.
TEST_F(MivoInit, TakesDescriptorZeroForNotOpen)
{
    const int input = dup(0);
    ASSERT_LT(0, input);
    EXPECT_EQ((Outcome{0, kBanner}), OutcomeOf([&] {
                  EXPECT_EQ(0, close(0));
                  return mivo_ops.Init(&handle);
              }));
    EXPECT_EQ(0, dev->chr_fd);
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, "[mivosdif:Mivo_Exit(#)](E)already closed!\n"}),
              OutcomeOf([&] { return mivo_ops.Exit(&handle); }));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, close(dev->chr_fd));
    dev->chr_fd = -1;
    Printed([&] { EXPECT_EQ(0, mivo_ops.Exit(&handle)); });
    ASSERT_EQ(0, dup2(input, 0));
    close(input);
}

// --- PollClear ------------------------------------------------------------------------

TEST_F(MivoInit, DiscardsAnEventThatIsPending)
{
    units->With([](sim_mivo& mivo) { mivo.unit[0].finished = true; });
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ("poll(/dev/mivosdif0, 0x1d, 1 ms) = 1", TraceOf(kernel).back());
    units->With([](sim_mivo& mivo) { EXPECT_FALSE(mivo.unit[0].finished); });
    EXPECT_EQ(0, kernel.Now().count());
}

TEST_F(MivoInit, WaitsAMillisecondForAnEvent)
{
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(std::chrono::milliseconds(1), kernel.Now());
}

TEST_F(MivoInit, DoesNotMindAFailedPoll)
{
    Fail(CallKind::Poll, EINTR);
    EXPECT_EQ((Outcome{0, kBanner, EINTR}), Init());
}

TEST_F(MivoInit, DoesNotMindAnyEvent)
{
    for (const short events : std::initializer_list<short>{POLLHUP, POLLERR, POLLNVAL, POLLIN}) {
        SCOPED_TRACE(events);
        Fault fault;
        fault.kind = CallKind::Poll;
        fault.revents = events;
        kernel.Inject(fault);
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ(0, mivo_ops.Exit(&handle));
    }
}

// --- Exit ---------------------------------------------------------------------------

class MivoExit : public Mivo {
protected:
    Outcome Exit()
    {
        return OutcomeOf([&] { return mivo_ops.Exit(&handle); });
    }

    // Have each of the three copies made.
    void FillCopies()
    {
        CardInfo info;
        CardSpeedInfo speed;
        uint8_t sd_status[CARD_SD_STATUS_SIZE];
        ASSERT_EQ(0, mivo_ops.CardGetInfo(&handle, &info));
        ASSERT_EQ(0, mivo_ops.CardGetSpeedInfo(&handle, &speed));
        ASSERT_EQ(0, mivo_ops.CardSecureGetInfo(&handle, sd_status));
        kernel.ClearCalls();
    }
};

constexpr char kAlreadyClosed[] = "[mivosdif:Mivo_Exit(#)](E)already closed!\n";

const Trace kClosing = {
    "ioctl(/dev/mivosdif0, 0x2000d319) = 0",
    "poll(/dev/mivosdif0, 0x1d, 1 ms) = 0",
    "free() = 0",
    "close(/dev/mivosdif0) = 0",
};

TEST_F(MivoExit, UnmountsDrainsFreesClosesAndClears)
{
    Open();
    FillCopies();
    WatchForEject();
    mivo_ops.CardInit(&handle, 0x1234, nullptr);
    dev->io_error = 1;
    dev->ejected = 1;
    const MivoDevice before = *dev;
    const DrvInfo handle_before = handle;
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ((Trace{
                  "ioctl(/dev/mivosdif0, 0x2000d319) = 0",
                  "poll(/dev/mivosdif0, 0x1d, 1 ms) = 0",
                  "free() = 0",
                  "free() = 0",
                  "free() = 0",
                  "free() = 0",
                  "close(/dev/mivosdif0) = 0",
              }),
              TraceOf(kernel));
    const std::vector<Call> calls = kernel.Calls();
    EXPECT_EQ(before.chr_fd, calls.at(0).fd);
    EXPECT_EQ(before.chr_fd, calls.at(1).fd);
    EXPECT_EQ(AddressOf(before.sg_table) - 8, calls.at(2).argument);
    EXPECT_EQ(AddressOf(before.secure_buf), calls.at(3).argument);
    EXPECT_EQ(AddressOf(before.reg_buf), calls.at(4).argument);
    EXPECT_EQ(AddressOf(before.speed_buf), calls.at(5).argument);
    EXPECT_EQ(before.chr_fd, calls.at(6).fd);
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
    EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
    EXPECT_EQ(std::chrono::milliseconds(2), kernel.Now());
    // The lock is neither taken nor destroyed.
    EXPECT_TRUE(MutexCalls().empty());
    EXPECT_EQ(0, ejects);
    units->With([](sim_mivo& mivo) { EXPECT_FALSE(mivo.unit[0].mounted); });
}

TEST_F(MivoExit, FreesWhatThereIs)
{
    Open();
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ(kClosing, TraceOf(kernel));
}

TEST_F(MivoExit, GoesOnWhereTheUnmountFails)
{
    for (const int error : {EIO, ENODEV}) {
        SCOPED_TRACE(strerror(error));
        Open();
        FillCopies();
        FailRequest(MIVOSDIF_IOC_UMNTFS, error);
        EXPECT_EQ((Outcome{0,
                           std::string("[mivosdif:Mivo_Exit(#)](E)MIVOSDIF_IOC_UMNTFS "
                                       "ioctl[/dev/mivosdif0] failed : ") +
                               strerror(error) + "\n",
                           error}),
                  Exit());
        EXPECT_EQ(
            (Trace{
                std::string("ioctl(/dev/mivosdif0, 0x2000d319) = -1 ") + strerrorname_np(error),
                "poll(/dev/mivosdif0, 0x1d, 1 ms) = 0",
                "free() = 0",
                "free() = 0",
                "free() = 0",
                "free() = 0",
                "close(/dev/mivosdif0) = 0",
            }),
            TraceOf(kernel));
        EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
        kernel.ClearFaults();
    }
    Open();
    FailRequest(MIVOSDIF_IOC_UMNTFS, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { mivo_ops.Exit(&handle); }));
}

// The path may have been written over meanwhile; the field behind it is no part of it.
TEST_F(MivoExit, PrintsThePathOfTheHandleAndNoMore)
{
    Open();
    memset(handle.dev_path, 'x', sizeof handle.dev_path);
    FailRequest(MIVOSDIF_IOC_UMNTFS, EIO);
    EXPECT_EQ((Outcome{0,
                       "[mivosdif:Mivo_Exit(#)](E)MIVOSDIF_IOC_UMNTFS ioctl[" +
                           std::string(256, 'x') + "] failed : Input/output error\n",
                       EIO}),
              Exit());
}

TEST_F(MivoExit, TakesAPositiveAnswerOfTheUnmountForSuccess)
{
    Open();
    Answer(MIVOSDIF_IOC_UMNTFS, 3);
    EXPECT_EQ((Outcome{0}), Exit());
}

TEST_F(MivoExit, LeavesTheOtherUnitAlone)
{
    Open();
    const DrvInfo first = handle;
    Use(1);
    Open();
    const Bytes before = BytesOf(mivo_dev[0]);
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ(before, BytesOf(mivo_dev[0]));
    EXPECT_EQ(1u, kernel.OpenFiles());
    handle = first;
    dev = &mivo_dev[0];
    EXPECT_EQ((Outcome{0}), Exit());
}

TEST_F(MivoExit, TakesNoDescriptorOrNoTableForClosed)
{
    Open();
    const MivoDevice open = *dev;
    for (const bool without_table : {false, true}) {
        SCOPED_TRACE(without_table);
        *dev = open;
        if (without_table) {
            dev->sg_table = nullptr;
        } else {
            dev->chr_fd = 0;
        }
        const Bytes before = BytesOf(*dev);
        EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
        EXPECT_EQ(before, BytesOf(*dev));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.Exit(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    *dev = open;
}

TEST_F(MivoExit, SaysSoTheSecondTime)
{
    Open();
    EXPECT_EQ((Outcome{0}), Exit());
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(MivoExit, FindsNothingToCloseAfterAFailedInit)
{
    for (const Failure& failure : Failures("/dev/mivosdif0")) {
        SCOPED_TRACE(failure.line);
        Fault fault = failure.fault;
        fault.error = EIO;
        kernel.Inject(fault);
        Printed([&] { ASSERT_EQ(-1, mivo_ops.Init(&handle)); });
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
        EXPECT_TRUE(kernel.Calls().empty());
    }
}

TEST_F(MivoExit, DiscardsAnEventThatIsPending)
{
    Open();
    units->With([](sim_mivo& mivo) { mivo.unit[0].finished = true; });
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ("poll(/dev/mivosdif0, 0x1d, 1 ms) = 1", TraceOf(kernel).at(1));
    units->With([](sim_mivo& mivo) { EXPECT_FALSE(mivo.unit[0].finished); });
}

TEST_F(MivoExit, GoesOnWhereCallsFail)
{
    Open();
    Fail(CallKind::Poll, EINTR);
    Fault failed;
    failed.kind = CallKind::Close;
    failed.error = EIO;
    failed.reach_driver = true;
    kernel.Inject(failed);
    const Outcome outcome = Exit();
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ("", outcome.printed);
    EXPECT_EQ((Trace{
                  "ioctl(/dev/mivosdif0, 0x2000d319) = 0",
                  "poll(/dev/mivosdif0, 0x1d, 1 ms) = -1 EINTR",
                  "free() = 0",
                  "close(/dev/mivosdif0) = -1 EIO",
              }),
              TraceOf(kernel));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
}

// A card that has gone does not keep the device open.
TEST_F(MivoExit, ClosesAnEmptyUnit)
{
    Open();
    WatchForEject();
    units->Eject(0);
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ(kClosing, TraceOf(kernel));
    EXPECT_EQ(0, ejects);
}

TEST_F(MivoExit, CanBeFollowedByInit)
{
    Open();
    EXPECT_EQ((Outcome{0}), Exit());
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kBanner}), OutcomeOf([&] { return mivo_ops.Init(&handle); }));
    EXPECT_EQ(Opening("/dev/mivosdif0"), TraceOf(kernel));
}

TEST_F(MivoExit, IsReachedThroughTheFrame)
{
    Open();
    EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
    EXPECT_EQ(kClosing, TraceOf(kernel));
    EXPECT_EQ(Bytes(sizeof handle, 0), BytesOf(handle));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
}

// --- CardInit -------------------------------------------------------------------------

class MivoCardInit : public Mivo {
protected:
    Outcome Register(uint32_t eject_arg, CardEjectCallback eject_cb)
    {
        return OutcomeOf([&] { return mivo_ops.CardInit(&handle, eject_arg, eject_cb); });
    }
};

TEST_F(MivoCardInit, StoresWhatIsNotZero)
{
    Open();
    const CardEjectCallback other = [] {};
    EXPECT_EQ((Outcome{0}), Register(0, nullptr));
    EXPECT_EQ(0u, dev->eject_arg);
    EXPECT_EQ(nullptr, dev->eject_cb);
    EXPECT_EQ((Outcome{0}), Register(0xFEDCBA98, nullptr));
    EXPECT_EQ(0xFEDCBA98u, dev->eject_arg);
    EXPECT_EQ(nullptr, dev->eject_cb);
    EXPECT_EQ((Outcome{0}), Register(0, &OnEject));
    EXPECT_EQ(0xFEDCBA98u, dev->eject_arg);
    EXPECT_EQ(&OnEject, dev->eject_cb);
    EXPECT_EQ((Outcome{0}), Register(1, other));
    EXPECT_EQ(1u, dev->eject_arg);
    EXPECT_EQ(other, dev->eject_cb);
    const Bytes before = BytesOf(*dev);
    EXPECT_EQ((Outcome{0}), Register(0, nullptr));
    EXPECT_EQ(before, BytesOf(*dev));
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return CARD_Init(&handle, 2, &OnEject); }));
    EXPECT_EQ(2u, dev->eject_arg);
    EXPECT_EQ(&OnEject, dev->eject_cb);
}

TEST_F(MivoCardInit, AsksNobodyAndTakesNoLock)
{
    Open();
    units->Eject(0);
    EXPECT_EQ((Outcome{0}), Register(1, &OnEject));
    EXPECT_EQ((Outcome{0}), Register(2, &OnEject));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
    EXPECT_EQ(0, ejects);
}

// Whether the card has gone is not asked here, and not remembered either.
TEST_F(MivoCardInit, WorksOnAnEjectedCard)
{
    Open();
    dev->ejected = 1;
    EXPECT_EQ((Outcome{0}), Register(3, &OnEject));
    EXPECT_EQ(3u, dev->eject_arg);
    EXPECT_EQ(1, dev->ejected);
}

TEST_F(MivoCardInit, NeedsAnOpenDevice)
{
    handle.priv = dev;
    EXPECT_EQ((Outcome{10, "[mivosdif:Mivo_CardInit(#)](E)Invalid chr_fd!\n"}),
              Register(1, &OnEject));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.CardInit(&handle, 1, nullptr); }));
    // Only 0 counts as not open.
    dev->chr_fd = -1;
    EXPECT_EQ((Outcome{0}), Register(1, &OnEject));
    EXPECT_EQ(1u, dev->eject_arg);
}

// --- R1 status ------------------------------------------------------------------------

TEST_F(MivoCardInit, HasNoR1Status)
{
    EXPECT_EQ((Outcome{0}), OutcomeOf([] { return mivo_ops.CardGetR1Status(nullptr); }));
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return mivo_ops.CardGetR1Status(&handle); }));
    Open();
    WatchForEject();
    units->Eject(0);
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return mivo_ops.CardGetR1Status(&handle); }));
    dev->ejected = 1;
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return CARD_GetR1Status(&handle); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- a handle that was never opened -----------------------------------------------------

// Who reports it: those that look for the card first leave it to the check, and
// three of them report it again.
enum class Reporter { Itself, Check, Both };

struct Operation {
    const char* name;
    Reporter reporter;
    int64_t result;
    std::function<int64_t(DrvInfo*)> run;
};

std::vector<Operation> Operations()
{
    using enum Reporter;
    static uint8_t buffer[512];
    static uint16_t status;
    static uint32_t retried;
    static CardInfo info;
    static CardSpeedInfo speed;
    static MemoryChunkArray chunks;
    static BlockList list;
    const DrvOps& ops = mivo_ops;
    return {
        {"Mivo_Exit", Itself, 0, [&](DrvInfo* h) { return ops.Exit(h); }},
        {"Mivo_Read", Itself, -19, [&](DrvInfo* h) { return ops.Read(h, buffer, 1, 0, 0); }},
        {"Mivo_Write", Itself, -19, [&](DrvInfo* h) { return ops.Write(h, buffer, 1, 0, 0); }},
        {"Mivo_Ioctl", Check, -19,
         [&](DrvInfo* h) { return ops.Ioctl(h, DEV_IOCTL_DEVICE_PARAMS, buffer); }},
        {"Mivo_Ioctl", Check, -19, [&](DrvInfo* h) { return ops.Ioctl(h, 0, nullptr); }},
        {"Mivo_CardIoctl", Check, 10, [&](DrvInfo* h) { return ops.CardIoctl(h, 2, 0); }},
        {"Mivo_CardIoctl", Check, 10, [&](DrvInfo* h) { return ops.CardIoctl(h, 1, 0); }},
        {"Mivo_CardInit", Itself, 10, [&](DrvInfo* h) { return ops.CardInit(h, 1, [] {}); }},
        {"Mivo_CardGetStatus", Both, 10, [&](DrvInfo* h) { return ops.CardGetStatus(h, &status); }},
        {"Mivo_CardGetInfo", Both, 10, [&](DrvInfo* h) { return ops.CardGetInfo(h, &info); }},
        {"Mivo_CardGetSpeedInfo", Both, 10,
         [&](DrvInfo* h) { return ops.CardGetSpeedInfo(h, &speed); }},
        {"Mivo_CardSecureGetInfo", Check, 10,
         [&](DrvInfo* h) { return ops.CardSecureGetInfo(h, buffer); }},
        {"Mivo_CardGetSize", Check, 10, [&](DrvInfo* h) { return ops.CardGetSize(h); }},
        {"Mivo_CardGetWriteProtect", Itself, 10,
         [&](DrvInfo* h) { return ops.CardGetWriteProtect(h); }},
        {"Mivo_DrctRead", Check, -19, [&](DrvInfo* h) { return ops.DrctRead(h, 0, 1, &chunks); }},
        {"Mivo_DrctWrite", Itself, -19,
         [&](DrvInfo* h) { return ops.DrctWrite(h, 0, 1, &chunks, 0, &retried); }},
        {"Mivo_DrctRMW", Check, -19, [&](DrvInfo* h) { return ops.DrctRMW(h, &list); }},
        {"Mivo_FatWrite", Itself, -19, [&](DrvInfo* h) { return ops.FatWrite(h, &list); }},
        {"Mivo_SdCmdWrite", Itself, -19,
         [&](DrvInfo* h) { return ops.SdCmdWrite(h, buffer, 1, 2, 3, 4); }},
    };
}

class MivoUnopened : public Mivo {
protected:
    static std::string LineOf(const std::string& function)
    {
        return "[mivosdif:" + function + "(#)](E)Cannot get driver info!\n";
    }
};

TEST_F(MivoUnopened, IsReportedByEveryOperation)
{
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        std::string lines;
        if (operation.reporter != Reporter::Itself) {
            lines += LineOf("Mivo_CheckEject");
        }
        if (operation.reporter != Reporter::Check) {
            lines += LineOf(operation.name);
        }
        const Outcome told = {operation.result, lines};
        EXPECT_EQ(told, OutcomeOf([&] { return operation.run(&handle); }));
        EXPECT_EQ(told, OutcomeOf([&] { return operation.run(nullptr); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { operation.run(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(Bytes(sizeof mivo_dev, 0), BytesOf(mivo_dev));
}

}  // namespace
