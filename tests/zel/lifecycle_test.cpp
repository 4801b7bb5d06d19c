// SPDX-License-Identifier: MIT
//
// The Zel back-end: its table, opening and closing, the callback, and operations
// on a handle that was never opened.
#include <array>
#include <climits>

#include <fcntl.h>
#include <unistd.h>

#include "tests/zel/fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kBanner[] = "Wrapper low-level driver for SD card-CardBus adaptor ver.0.11\n";

// --- table -------------------------------------------------------------------------

TEST(ZelTable, FillsEverySlot)
{
    const DrvOps& ops = zel_ops;
    EXPECT_EQ(&Zel_Init, ops.Init);
    EXPECT_EQ(&Zel_Exit, ops.Exit);
    EXPECT_EQ(&Zel_Read, ops.Read);
    EXPECT_EQ(&Zel_Write, ops.Write);
    EXPECT_EQ(&Zel_Ioctl, ops.Ioctl);
    EXPECT_EQ(&Zel_CardIoctl, ops.CardIoctl);
    EXPECT_EQ(&Zel_CardInit, ops.CardInit);
    EXPECT_EQ(&Zel_CardGetStatus, ops.CardGetStatus);
    EXPECT_EQ(&Zel_CardGetR1Status, ops.CardGetR1Status);
    EXPECT_EQ(&Zel_CardGetInfo, ops.CardGetInfo);
    EXPECT_EQ(&Zel_CardGetSpeedInfo, ops.CardGetSpeedInfo);
    EXPECT_EQ(&Zel_CardSecureGetInfo, ops.CardSecureGetInfo);
    EXPECT_EQ(&Zel_CardGetSize, ops.CardGetSize);
    EXPECT_EQ(&Zel_CardGetWriteProtect, ops.CardGetWriteProtect);
    EXPECT_EQ(&Zel_DrctRead, ops.DrctRead);
    EXPECT_EQ(&Zel_DrctWrite, ops.DrctWrite);
    EXPECT_EQ(&Zel_DrctRMW, ops.DrctRMW);
    EXPECT_EQ(&Zel_FatWrite, ops.FatWrite);
    EXPECT_EQ(&Zel_SdCmdWrite, ops.SdCmdWrite);
    EXPECT_EQ(&Zel_CheckRt, ops.CheckRt);
    EXPECT_EQ(&Zel_CheckDelay, ops.CheckDelay);
    EXPECT_EQ(&Zel_RTOn4Wait, ops.RTOn4Wait);
    EXPECT_EQ(&Zel_LockRTOn, ops.LockRTOn);
    EXPECT_EQ(&Zel_UnlockRTOn, ops.UnlockRTOn);
}

// --- Init --------------------------------------------------------------------------

// What opening does, in order.
Trace Opening(const std::string& path, const std::string& letter)
{
    const std::string blk = "/dev/spd" + letter;
    const std::string chr = "/dev/spdr" + letter;
    return {
        "open64(" + path + ", O_RDWR)",
        "ioctl(" + path + ", 0x2000bc0a) = 0",
        "open64(" + blk + ", O_RDWR)",
        "open64(" + chr + ", O_RDWR)",
        "ioctl(" + chr + ", 0x20007016) = 0",
        "ioctl(" + blk + ", 0x20001260) = 0",
        "ioctl(" + path + ", 0x20007005) = 0",
        "malloc(64)",
        "ioctl(" + path + ", 0x20007005) = 0",
        "ioctl(" + path + ", 0x20007005) = 0",
        "malloc(32)",
        "ioctl(" + chr + ", 0x20007029) = 0",
        "open64(/dev/rtctrl_zel, O_RDWR)",
        "malloc(16392)",
        "poll(" + chr + ", 0x1d, 1 ms) = 0",
    };
}

// Where in it a step stands.
enum Step : size_t {
    kOpenDev = 0,
    kMount = 1,
    kOpenBlk = 2,
    kOpenChr = 3,
    kIdentify = 4,
    kGetSize = 5,
    kSetParams = 11,
    kOpenRt = 12,
    kMalloc = 13,
    kPoll = 14,
};

class ZelInit : public Zel {
protected:
    // A record in which everything that is not written shows.
    void MarkRecords() { memset(zel_dev, 0xE1, sizeof zel_dev); }

    Outcome Init()
    {
        return OutcomeOf([&] { return zel_ops.Init(&handle); });
    }

    // The descriptor that a step of Opening was given or used.
    int FdOf(size_t step) { return kernel.Calls().at(step).fd; }

    // What was closed since the last ClearCalls, in order.
    std::vector<int> Closed()
    {
        std::vector<int> closed;
        for (const Call& call : kernel.Calls()) {
            if (call.kind == CallKind::Close) {
                closed.push_back(call.fd);
            }
        }
        return closed;
    }

    // Memory that a failed Init leaves with its record.
    void FreeCopies()
    {
        free(dev->secure_buf);
        free(dev->reg_buf);
    }

    uint32_t DataStart()
    {
        uint32_t sector = 0;
        slots->With([&](sim_zel& zel) { sector = zel.slot[0].data_start; });
        return sector;
    }
};

TEST_F(ZelInit, OpensTheNodesInOrder)
{
    MarkRecords();
    const DrvInfo before = handle;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/spda", "a"), TraceOf(kernel));
    EXPECT_EQ(4u, kernel.OpenFiles());
    for (const size_t step : {kOpenDev, kOpenBlk, kOpenChr, kOpenRt}) {
        EXPECT_EQ(O_RDWR, kernel.Calls().at(step).flags);
    }

    EXPECT_EQ(dev, handle.priv);
    handle.priv = before.priv;
    EXPECT_EQ(0, memcmp(&before, &handle, sizeof handle));
    handle.priv = dev;
}

TEST_F(ZelInit, FillsTheRecord)
{
    MarkRecords();
    kernel.FillBlocksWith(0x61);
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(0u, dev->index);
    EXPECT_EQ(FdOf(kOpenDev), dev->dev_fd);
    EXPECT_EQ(FdOf(kOpenBlk), dev->blk_fd);
    EXPECT_EQ(FdOf(kOpenChr), dev->chr_fd);
    EXPECT_EQ(FdOf(kOpenRt), dev->rt_fd);
    EXPECT_NE(nullptr, dev->sg_table);
    // The size query has filled two of the copies.
    ASSERT_NE(nullptr, dev->secure_buf);
    EXPECT_EQ(BytesOf(model().sd_status), BytesAt(AddressOf(dev->secure_buf), 64));
    ASSERT_NE(nullptr, dev->reg_buf);
    EXPECT_EQ(BytesOf(model().csd), BytesOf(dev->reg_buf->csd));
    EXPECT_EQ(nullptr, dev->speed_buf);
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0u, dev->eject_arg);
    EXPECT_EQ(nullptr, dev->eject_cb);
    EXPECT_EQ(0, dev->ejected);
    EXPECT_EQ(3u, kernel.LiveBlocks());
    EXPECT_EQ(Bytes(sizeof zel_dev[1], 0xE1), BytesOf(zel_dev[1]));
}

TEST_F(ZelInit, AsksEachNodeByItsOwnDescriptor)
{
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(dev->dev_fd, FdOf(kMount));
    EXPECT_EQ(dev->chr_fd, FdOf(kIdentify));
    EXPECT_EQ(dev->blk_fd, FdOf(kGetSize));
    for (const size_t step : {6u, 8u, 9u}) {
        EXPECT_EQ(dev->dev_fd, FdOf(step));
    }
    EXPECT_EQ(dev->chr_fd, FdOf(kSetParams));
    EXPECT_EQ(dev->chr_fd, FdOf(kPoll));
    EXPECT_EQ(0u, kernel.Calls().at(kMount).argument);
}

class ZelInitOnUnit : public OnUnit<ZelInit> {};

INSTANTIATE_TEST_SUITE_P(Units, ZelInitOnUnit, kUnits);

// The lock comes when everything else has succeeded; nothing before takes it.
TEST_P(ZelInitOnUnit, CreatesTheLockBehindTheTable)
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

TEST_F(ZelInit, OpensTheNodesOfItsLetter)
{
    for (unsigned unit = 0; unit < ZEL_UNITS; unit++) {
        SCOPED_TRACE(unit);
        Use(unit);
        MarkRecords();
        const std::string letter(1, static_cast<char>('a' + unit));
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ(Opening("/dev/spd" + letter, letter), TraceOf(kernel));
        EXPECT_EQ(&zel_dev[unit], handle.priv);
        EXPECT_EQ(unit, zel_dev[unit].index);
        for (unsigned other = 0; other < ZEL_UNITS; other++) {
            if (other != unit) {
                EXPECT_EQ(Bytes(sizeof zel_dev[other], 0xE1), BytesOf(zel_dev[other]));
            }
        }
        EXPECT_EQ(0, zel_ops.Exit(&handle));
        EXPECT_EQ(0u, kernel.OpenFiles());
    }
}

// The handle's own path is opened as it is; the others are made up.
TEST_F(ZelInit, OpensThePathOfTheHandleBesideTheUnitsNodes)
{
    Use(2);
    slots->Insert(4, cardsim::Card::InMemory(64));
    handle = HandleFor("/dev/spde");
    handle.ops = &zel_ops;
    handle.dev_index = 2;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/spde", "c"), TraceOf(kernel));
    EXPECT_EQ(2u, dev->index);
}

TEST_F(ZelInit, TakesTheLongestPathThatEnds)
{
    const std::string longest = "/dev/" + std::string(250, 'z');
    handle = HandleFor(longest);
    EXPECT_EQ(
        (Outcome{-1,
                 "[zel:Zel_Init(#)](E)open[" + longest + "] failed : No such file or directory\n",
                 ENOENT}),
        Init());
    EXPECT_EQ(Trace{"open64(" + longest + ", O_RDWR) = -1 ENOENT"}, TraceOf(kernel));
}

// The field behind the path must not be taken for more of it.
TEST_F(ZelInit, DoesNotReadPastAPathWithoutAnEnd)
{
    MarkRecords();
    memset(handle.dev_path, 'x', sizeof handle.dev_path);
    handle.dev_index = 0;
    handle.ops = &zel_ops;
    EXPECT_EQ((Outcome{-1,
                       "[zel:Zel_Init(#)](E)open[" + std::string(256, 'x') +
                           "] failed : File name too long\n",
                       ENAMETOOLONG}),
              Init());
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(-1, dev->dev_fd);
    EXPECT_EQ(dev, handle.priv);
}

TEST_F(ZelInit, AnswersAsTheMountRequestDid)
{
    for (const int mounted : {0, 1, 7, INT_MAX}) {
        SCOPED_TRACE(mounted);
        Answer(BLKMNTFS, mounted);
        EXPECT_EQ((Outcome{mounted, kBanner}), OutcomeOf([&] { return DevInit(&handle); }));
        EXPECT_EQ(0, zel_ops.Exit(&handle));
    }
}

// Drivers answer with a positive number, too.
TEST_F(ZelInit, TakesAPositiveAnswerForSuccess)
{
    Answer(ZEL_IDENTIFY_DEVICE, 3);
    Answer(ZEL_BLKGETSIZE, 4);
    Answer(ZEL_SET_CARD_PARAMS, 5);
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/spda", "a").size(), kernel.Calls().size());
}

struct Failure {
    Step step;
    Fault fault;
    std::string line;  // without the errno's text
    std::vector<Step> closed;
};

Fault FaultOf(CallKind kind, uint64_t first)
{
    Fault fault;
    fault.kind = kind;
    fault.first = first;
    return fault;
}

Fault FaultOf(uint32_t request)
{
    Fault fault;
    fault.request = request;
    return fault;
}

std::vector<Failure> Failures()
{
    const std::string init = "[zel:Zel_Init(#)](E)";
    return {
        {kOpenDev, FaultOf(CallKind::Open, 1), init + "open[/dev/spda] failed : ", {}},
        {kMount, FaultOf(BLKMNTFS), init + "BLKMNTFS ioctl[/dev/spda] failed : ", {kOpenDev}},
        {kOpenBlk, FaultOf(CallKind::Open, 2), init + "open[/dev/spda] failed : ", {kOpenDev}},
        {kOpenChr,
         FaultOf(CallKind::Open, 3),
         init + "open[/dev/spdra] failed : ",
         {kOpenBlk, kOpenDev}},
        {kIdentify,
         FaultOf(ZEL_IDENTIFY_DEVICE),
         init + "Identify device[/dev/spdra] failed : ",
         {kOpenChr, kOpenBlk, kOpenDev}},
        {kSetParams,
         FaultOf(ZEL_SET_CARD_PARAMS),
         "[zel:Zel_SetSdParams(#)](E)ioctl(ZEL_SET_CARD_PARAMS) failed : ",
         {kOpenChr, kOpenBlk, kOpenDev}},
        {kOpenRt,
         FaultOf(CallKind::Open, 4),
         init + "open[/dev/rtctrl_zel] failed : ",
         {kOpenChr, kOpenBlk, kOpenDev}},
        {kMalloc,
         FaultOf(CallKind::Malloc, 3),
         init + "Malloc sg table failed : ",
         {kOpenRt, kOpenChr, kOpenBlk, kOpenDev}},
    };
}

std::string Node(Step open)
{
    return open == kOpenChr ? "/dev/spdra" : open == kOpenRt ? "/dev/rtctrl_zel" : "/dev/spda";
}

// Up to the failing step, then what undoes it.
Trace FailingAt(const Failure& failure, int error)
{
    Trace trace = Opening("/dev/spda", "a");
    trace.resize(failure.step + 1);
    std::string& last = trace.back();
    last = last.substr(0, last.find(')') + 1) + " = -1 " + strerrorname_np(error);
    for (const Step open : failure.closed) {
        trace.push_back("close(" + Node(open) + ") = 0");
    }
    return trace;
}

TEST_F(ZelInit, UndoesInReverseOrderWhatAFailureCutsOff)
{
    for (const Failure& failure : Failures()) {
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
            EXPECT_EQ(FailingAt(failure, error), TraceOf(kernel));
            std::vector<int> closed;
            closed.reserve(failure.closed.size());
            for (const Step open : failure.closed) {
                closed.push_back(FdOf(open));
            }
            EXPECT_EQ(closed, Closed());
            EXPECT_EQ(0u, kernel.OpenFiles());
            EXPECT_EQ(dev, handle.priv);
            EXPECT_TRUE(MutexCalls().empty());
            FreeCopies();
        }
    }
}

// The text is the failure's own, whatever closing comes to.
TEST_F(ZelInit, TellsTheFailureAndNotWhatCameAfter)
{
    for (const Failure& failure : Failures()) {
        SCOPED_TRACE(failure.line);
        kernel.ClearFaults();
        Fault fault = failure.fault;
        fault.error = ENXIO;
        kernel.Inject(fault);
        Fault closing;
        closing.kind = CallKind::Close;
        closing.times = Fault::kForEver;
        closing.error = EINTR;
        closing.reach_driver = true;
        kernel.Inject(closing);
        const Outcome outcome = Init();
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(failure.line + strerror(ENXIO) + "\n", outcome.printed);
        EXPECT_EQ(0u, kernel.OpenFiles());
        FreeCopies();
    }
}

// The numbers of what has been closed again stay; the rest is blank.
TEST_F(ZelInit, KeepsTheDescriptorsNumbersAfterAFailure)
{
    for (const Failure& failure : Failures()) {
        SCOPED_TRACE(failure.line);
        kernel.ClearCalls();
        kernel.ClearFaults();
        MarkRecords();
        Fault fault = failure.fault;
        fault.error = EIO;
        kernel.Inject(fault);
        EXPECT_EQ(-1, Init().result);
        ZelDevice expected;
        memset(&expected, 0, sizeof expected);
        expected.dev_fd = FdOf(kOpenDev);
        expected.blk_fd = failure.step >= kOpenBlk ? FdOf(kOpenBlk) : 0;
        expected.chr_fd = failure.step >= kOpenChr ? FdOf(kOpenChr) : 0;
        expected.rt_fd = failure.step >= kOpenRt ? FdOf(kOpenRt) : 0;
        if (failure.step >= kSetParams) {
            EXPECT_NE(nullptr, dev->secure_buf);
            EXPECT_NE(nullptr, dev->reg_buf);
            expected.secure_buf = dev->secure_buf;
            expected.reg_buf = dev->reg_buf;
        }
        EXPECT_EQ(BytesOf(expected), BytesOf(*dev));
        FreeCopies();
    }
}

TEST_F(ZelInit, MarksWhatCouldNotBeOpenedAsNegative)
{
    Fail(CallKind::Open, ENXIO);
    EXPECT_EQ(-1, Init().result);
    EXPECT_EQ(-1, dev->dev_fd);
    Fail(CallKind::Open, ENXIO, 2);
    EXPECT_EQ(-1, Init().result);
    EXPECT_EQ(-1, dev->blk_fd);
    Fail(CallKind::Open, ENXIO, 3);
    EXPECT_EQ(-1, Init().result);
    EXPECT_EQ(-1, dev->chr_fd);
    Fail(CallKind::Open, ENXIO, 4);
    EXPECT_EQ(-1, Init().result);
    EXPECT_EQ(-1, dev->rt_fd);
    FreeCopies();
}

TEST_F(ZelInit, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    for (const Failure& failure : Failures()) {
        SCOPED_TRACE(failure.line);
        kernel.ClearFaults();
        Fault fault = failure.fault;
        fault.error = ENXIO;
        kernel.Inject(fault);
        EXPECT_EQ(ENXIO, ErrnoAfter(EXFULL, [&] { zel_ops.Init(&handle); }));
        FreeCopies();
    }
    kernel.ClearFaults();
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.Init(&handle); }));
}

TEST_F(ZelInit, CanBeRunAgainAfterAFailure)
{
    FailRequest(ZEL_IDENTIFY_DEVICE, EIO);
    EXPECT_EQ(-1, Init().result);
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/spda", "a"), TraceOf(kernel));
}

TEST_F(ZelInit, RefusesAUnitThatThereIsNot)
{
    for (const int32_t index : {-1, 6, 7, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(index);
        MarkRecords();
        const Bytes before = BytesOf(zel_dev);
        handle.dev_index = index;
        handle.priv = &handle;
        const DrvInfo handle_before = handle;
        EXPECT_EQ((Outcome{-1, "[zel:Zel_Init(#)](E)Invalid dev_index(" + std::to_string(index) +
                                   ")!\n"}),
                  Init());
        EXPECT_EQ(before, BytesOf(zel_dev));
        EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.Init(&handle); }));
    }
}

TEST_F(ZelInit, RefusesANullHandleWithoutAWord)
{
    EXPECT_EQ((Outcome{-22}), OutcomeOf([] { return zel_ops.Init(nullptr); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// Nothing is freed or closed: what was open before is lost.
TEST_F(ZelInit, StartsAfreshOnADeviceThatIsOpen)
{
    Open();
    WatchForEject();
    dev->io_error = 1;
    dev->ejected = 1;
    const ZelDevice lost = *dev;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(Opening("/dev/spda", "a"), TraceOf(kernel));
    EXPECT_EQ(8u, kernel.OpenFiles());
    EXPECT_EQ(6u, kernel.LiveBlocks());
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0, dev->ejected);
    EXPECT_EQ(nullptr, dev->eject_cb);
    for (const int fd : {lost.dev_fd, lost.blk_fd, lost.chr_fd, lost.rt_fd}) {
        EXPECT_EQ(0, close(fd));
    }
    free(lost.secure_buf);
    free(lost.reg_buf);
    SgFree(lost.sg_table);
}

// A program that has closed its standard input is given descriptor 0: for the first node,
// or for a later one where another thread closed it in between.
TEST_F(ZelInit, TakesDescriptorZeroForNotOpen)
{
    constexpr std::array nodes = {&ZelDevice::dev_fd, &ZelDevice::blk_fd, &ZelDevice::chr_fd,
                                  &ZelDevice::rt_fd};
    for (size_t node = 0; node < nodes.size(); node++) {
        SCOPED_TRACE(node);
        const int input = dup(0);
        ASSERT_LT(0, input);
        kernel.ClearFaults();
        Fault closing = FaultOf(CallKind::Open, node);
        closing.then = [] { EXPECT_EQ(0, close(0)); };
        kernel.Inject(closing);
        const Outcome opening = OutcomeOf([&] {
            EXPECT_EQ(0, node == 0 ? close(0) : 0);
            return zel_ops.Init(&handle);
        });
        // The size query takes the second node for not open, and opening goes on.
        const char* const complaint =
            node == 1 ? "[zel:Zel_CardGetSize(#)](E)Invalid blk_fd!\n" : "";
        EXPECT_EQ((Outcome{0, std::string(complaint) + kBanner}), opening);
        EXPECT_EQ(0, dev->*nodes[node]);
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0, "[zel:Zel_Exit(#)](E)already closed!\n"}),
                  OutcomeOf([&] { return zel_ops.Exit(&handle); }));
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(0, close(0));
        dev->*nodes[node] = -1;
        EXPECT_EQ(0, zel_ops.Exit(&handle));
        ASSERT_EQ(0, dup2(input, 0));
        close(input);
    }
}

// --- Init: what the driver tells ----------------------------------------------------

TEST_F(ZelInit, RefusesAnOldVersion)
{
    const std::pair<uint8_t, const char*> versions[] = {
        {0x00, "00"}, {0x01, "01"}, {0x0A, "0A"}, {0x20, "20"}, {0x3F, "3F"}};
    for (const auto& [version, text] : versions) {
        SCOPED_TRACE(text);
        kernel.ClearCalls();
        MarkRecords();
        slots->With([&, old = version](sim_zel& zel) { zel.slot[0].version = old; });
        EXPECT_EQ((Outcome{-1, std::string("[zel:Zel_Init(#)](E)Not support Spec") + text +
                                   " : /dev/spdra\n"}),
                  Init());
        Trace expected = Opening("/dev/spda", "a");
        expected.resize(kIdentify + 1);
        for (const char* node : {"/dev/spdra", "/dev/spda", "/dev/spda"}) {
            expected.push_back(std::string("close(") + node + ") = 0");
        }
        EXPECT_EQ(expected, TraceOf(kernel));
        EXPECT_EQ((std::vector<int>{FdOf(kOpenChr), FdOf(kOpenBlk), FdOf(kOpenDev)}), Closed());
        EXPECT_EQ(FdOf(kOpenChr), dev->chr_fd);
        EXPECT_EQ(0, dev->rt_fd);
        EXPECT_EQ(nullptr, dev->sg_table);
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.Init(&handle); }));
    }
}

TEST_F(ZelInit, NamesTheCharacterNodeOfARefusedVersion)
{
    Use(5);
    slots->With([](sim_zel& zel) { zel.slot[5].version = 0x3F; });
    EXPECT_EQ((Outcome{-1, "[zel:Zel_Init(#)](E)Not support Spec3F : /dev/spdrf\n"}), Init());
}

TEST_F(ZelInit, AcceptsVersionsFrom40On)
{
    for (const uint8_t version : Bytes{0x40, 0x41, 0x7F, 0x80, 0xFF}) {
        SCOPED_TRACE(testing::Message() << int{version});
        slots->With([&](sim_zel& zel) { zel.slot[0].version = version; });
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ(0, zel_ops.Exit(&handle));
    }
}

// There is room for 512 bytes, of which one is looked at.
TEST_F(ZelInit, ReadsTheVersionAtByte271)
{
    uint8_t others = 0;
    uint8_t version = 0;
    During(ZEL_IDENTIFY_DEVICE, [&](const Call& call) {
        auto* block = reinterpret_cast<uint8_t*>(call.argument);
        memset(block, others, 512);
        block[271] = version;
    });
    others = 0xFF;
    version = 0x3F;
    EXPECT_EQ((Outcome{-1, "[zel:Zel_Init(#)](E)Not support Spec3F : /dev/spdra\n"}), Init());
    others = 0;
    version = 0x40;
    EXPECT_EQ((Outcome{0, kBanner}), Init());
}

TEST_F(ZelInit, HandsTheDriverTheStartOfTheDataArea)
{
    const std::pair<uint32_t, uint32_t> cards[] = {
        {16384, 64},       {1048576, 512},     {3896320, 640},       {15523840, 16384},
        {67108864, 32768}, {268435456, 65536}, {1073741824, 131072},
    };
    std::vector<uint32_t> words;
    During(ZEL_SET_CARD_PARAMS, [&](const Call& call) { words = WordsAt(call.argument, 3); });
    for (const auto& [sectors, data_start] : cards) {
        SCOPED_TRACE(sectors);
        sim_card_describe(&model(), sectors);
        EXPECT_EQ((Outcome{0, kBanner}), Init());
        EXPECT_EQ((std::vector<uint32_t>{0, 0, data_start}), words);
        EXPECT_EQ(data_start, DataStart());
        EXPECT_EQ(0, zel_ops.Exit(&handle));
    }
}

// The size is the registers', and theirs may go beyond every limit.
TEST_F(ZelInit, RefusesACardOverTheLimit)
{
    sim_card_describe(&model(), 1073741824);
    model().csd[7] = 0x10;
    model().csd[8] = 0;
    model().csd[9] = 0;
    EXPECT_EQ((Outcome{-1,
                       "** OVER 2TB : 1073742848\n"
                       "[zel:Zel_SetSdParams(#)](E)CalcSdParams failed\n"}),
              Init());
    Trace expected = Opening("/dev/spda", "a");
    expected.resize(kSetParams);
    for (const char* node : {"/dev/spdra", "/dev/spda", "/dev/spda"}) {
        expected.push_back(std::string("close(") + node + ") = 0");
    }
    EXPECT_EQ(expected, TraceOf(kernel));
    EXPECT_EQ((std::vector<int>{FdOf(kOpenChr), FdOf(kOpenBlk), FdOf(kOpenDev)}), Closed());
    EXPECT_EQ(FdOf(kOpenDev), dev->dev_fd);
    EXPECT_EQ(FdOf(kOpenBlk), dev->blk_fd);
    EXPECT_EQ(FdOf(kOpenChr), dev->chr_fd);
    EXPECT_EQ(0, dev->rt_fd);
    EXPECT_EQ(0u, DataStart());
    FreeCopies();
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.Init(&handle); }));
    FreeCopies();
}

// A failed size query answers 10, and that is a size.
TEST_F(ZelInit, TakesAFailedSizeQueryForTenSectors)
{
    FailRequest(ZEL_BLKGETSIZE, EIO);
    EXPECT_EQ((Outcome{0,
                       std::string("[zel:Zel_CardGetSize(#)](E)ioctl(BLKGETSIZE) failed : "
                                   "Input/output error\n") +
                           kBanner,
                       EIO}),
              Init());
    EXPECT_EQ(64u, DataStart());
    EXPECT_EQ(0, zel_ops.Exit(&handle));

    sim_card_describe(&model(), 15523840);
    FailRequest(ZEL_GET_CARD_PARAMS, EIO);
    EXPECT_EQ(
        (Outcome{
            0, std::string("[zel:Zel_CardSecureGetInfo(#)](E)Cannot get card params!\n") + kBanner,
            EIO}),
        Init());
    EXPECT_EQ(64u, DataStart());
}

TEST_F(ZelInit, DiscardsAnEventThatIsPending)
{
    slots->With([](sim_zel& zel) { zel.slot[0].finished = true; });
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ("poll(/dev/spdra, 0x1d, 1 ms) = 1", TraceOf(kernel).back());
    slots->With([](sim_zel& zel) { EXPECT_FALSE(zel.slot[0].finished); });
    EXPECT_EQ(0, kernel.Now().count());
}

TEST_F(ZelInit, WaitsAMillisecondForAnEvent)
{
    EXPECT_EQ((Outcome{0, kBanner}), Init());
    EXPECT_EQ(std::chrono::milliseconds(1), kernel.Now());
}

TEST_F(ZelInit, DoesNotMindAFailedPoll)
{
    Fail(CallKind::Poll, EINTR);
    const Outcome outcome = Init();
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(kBanner, outcome.printed);
}

// --- Exit ---------------------------------------------------------------------------

class ZelExit : public Zel {
protected:
    Outcome Exit()
    {
        return OutcomeOf([&] { return zel_ops.Exit(&handle); });
    }
};

constexpr char kAlreadyClosed[] = "[zel:Zel_Exit(#)](E)already closed!\n";

TEST_F(ZelExit, DrainsThenFreesThenClosesThenClears)
{
    Open();
    CardSpeedInfo speed;
    ASSERT_EQ(0, zel_ops.CardGetSpeedInfo(&handle, &speed));
    WatchForEject();
    zel_ops.CardInit(&handle, 0x1234, nullptr);
    dev->io_error = 1;
    dev->ejected = 1;
    kernel.ClearCalls();
    const ZelDevice before = *dev;
    const DrvInfo handle_before = handle;
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ((Trace{
                  "poll(/dev/spdra, 0x1d, 1 ms) = 0",
                  "free() = 0",
                  "free() = 0",
                  "free() = 0",
                  "free() = 0",
                  "close(/dev/rtctrl_zel) = 0",
                  "close(/dev/spdra) = 0",
                  "close(/dev/spda) = 0",
                  "close(/dev/spda) = 0",
              }),
              TraceOf(kernel));
    const std::vector<Call> calls = kernel.Calls();
    EXPECT_EQ(before.chr_fd, calls.at(0).fd);
    EXPECT_EQ(AddressOf(before.sg_table) - 8, calls.at(1).argument);
    EXPECT_EQ(AddressOf(before.secure_buf), calls.at(2).argument);
    EXPECT_EQ(AddressOf(before.reg_buf), calls.at(3).argument);
    EXPECT_EQ(AddressOf(before.speed_buf), calls.at(4).argument);
    EXPECT_EQ(before.rt_fd, calls.at(5).fd);
    EXPECT_EQ(before.chr_fd, calls.at(6).fd);
    EXPECT_EQ(before.blk_fd, calls.at(7).fd);
    EXPECT_EQ(before.dev_fd, calls.at(8).fd);
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
    EXPECT_EQ(0, memcmp(&handle_before, &handle, sizeof handle));
    EXPECT_EQ(std::chrono::milliseconds(2), kernel.Now());
    EXPECT_TRUE(MutexCalls().empty());
    EXPECT_EQ(0, ejects);
}

TEST_F(ZelExit, FreesWhatThereIs)
{
    OpenWithoutCopies();
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ((Trace{
                  "poll(/dev/spdra, 0x1d, 1 ms) = 0",
                  "free() = 0",
                  "close(/dev/rtctrl_zel) = 0",
                  "close(/dev/spdra) = 0",
                  "close(/dev/spda) = 0",
                  "close(/dev/spda) = 0",
              }),
              TraceOf(kernel));
}

TEST_F(ZelExit, LeavesTheOtherUnitsAlone)
{
    Open();
    const DrvInfo first = handle;
    Use(3);
    Open();
    const Bytes before = BytesOf(zel_dev[0]);
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ(before, BytesOf(zel_dev[0]));
    EXPECT_EQ(4u, kernel.OpenFiles());
    handle = first;
    dev = &zel_dev[0];
    EXPECT_EQ((Outcome{0}), Exit());
}

TEST_F(ZelExit, TakesAnyZeroFieldForClosed)
{
    Open();
    const ZelDevice open = *dev;
    for (const int field : {0, 1, 2, 3, 4}) {
        SCOPED_TRACE(field);
        *dev = open;
        int32_t* const fds[] = {&dev->blk_fd, &dev->dev_fd, &dev->chr_fd, &dev->rt_fd};
        if (field < 4) {
            *fds[field] = 0;
        } else {
            dev->sg_table = nullptr;
        }
        const Bytes before = BytesOf(*dev);
        EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
        EXPECT_EQ(before, BytesOf(*dev));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.Exit(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    *dev = open;
}

TEST_F(ZelExit, SaysSoTheSecondTime)
{
    Open();
    EXPECT_EQ((Outcome{0}), Exit());
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelExit, FindsNothingToCloseAfterAFailedInit)
{
    Fail(CallKind::Open, ENXIO, 4);
    Printed([&] { ASSERT_EQ(-1, zel_ops.Init(&handle)); });
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kAlreadyClosed}), Exit());
    EXPECT_TRUE(kernel.Calls().empty());
    free(dev->secure_buf);
    free(dev->reg_buf);
}

TEST_F(ZelExit, DiscardsAnEventThatIsPending)
{
    Open();
    slots->With([](sim_zel& zel) { zel.slot[0].finished = true; });
    EXPECT_EQ((Outcome{0}), Exit());
    EXPECT_EQ("poll(/dev/spdra, 0x1d, 1 ms) = 1", TraceOf(kernel).front());
    slots->With([](sim_zel& zel) { EXPECT_FALSE(zel.slot[0].finished); });
}

TEST_F(ZelExit, GoesOnWhereCallsFail)
{
    Open();
    Fail(CallKind::Poll, EINTR);
    Fault failed;
    failed.kind = CallKind::Close;
    failed.times = Fault::kForEver;
    failed.error = EIO;
    failed.reach_driver = true;
    kernel.Inject(failed);
    const Outcome outcome = Exit();
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ("", outcome.printed);
    EXPECT_EQ((Trace{
                  "poll(/dev/spdra, 0x1d, 1 ms) = -1 EINTR",
                  "free() = 0",
                  "free() = 0",
                  "free() = 0",
                  "close(/dev/rtctrl_zel) = -1 EIO",
                  "close(/dev/spdra) = -1 EIO",
                  "close(/dev/spda) = -1 EIO",
                  "close(/dev/spda) = -1 EIO",
              }),
              TraceOf(kernel));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
}

TEST_F(ZelExit, CanBeFollowedByInit)
{
    Open();
    EXPECT_EQ((Outcome{0}), Exit());
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{0, kBanner}), OutcomeOf([&] { return zel_ops.Init(&handle); }));
    EXPECT_EQ(Opening("/dev/spda", "a"), TraceOf(kernel));
}

TEST_F(ZelExit, IsReachedThroughTheFrame)
{
    Open();
    EXPECT_EQ("", Printed([&] { DevExit(&handle); }));
    EXPECT_EQ(Bytes(sizeof handle, 0), BytesOf(handle));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
}

// --- CardInit -------------------------------------------------------------------------

class ZelCardInit : public Zel {
protected:
    Outcome Register(uint32_t eject_arg, CardEjectCallback eject_cb)
    {
        return OutcomeOf([&] { return zel_ops.CardInit(&handle, eject_arg, eject_cb); });
    }
};

TEST_F(ZelCardInit, StoresWhatIsNotZero)
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

TEST_F(ZelCardInit, AsksNobodyAndTakesNoLock)
{
    Open();
    slots->Eject(0);
    EXPECT_EQ((Outcome{0}), Register(1, &OnEject));
    EXPECT_EQ((Outcome{0}), Register(2, &OnEject));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
    EXPECT_EQ(0, ejects);
}

// Whether the card has gone is not asked here, and not remembered either.
TEST_F(ZelCardInit, WorksOnAnEjectedCard)
{
    Open();
    dev->ejected = 1;
    EXPECT_EQ((Outcome{0}), Register(3, &OnEject));
    EXPECT_EQ(3u, dev->eject_arg);
    EXPECT_EQ(1, dev->ejected);
}

TEST_F(ZelCardInit, NeedsAnOpenDevice)
{
    handle.priv = dev;
    EXPECT_EQ((Outcome{10, "[zel:Zel_CardInit(#)](E)Invalid blk_fd!\n"}), Register(1, &OnEject));
    EXPECT_EQ(Bytes(sizeof *dev, 0), BytesOf(*dev));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.CardInit(&handle, 1, nullptr); }));
    dev->blk_fd = -1;
    EXPECT_EQ((Outcome{0}), Register(1, &OnEject));
    EXPECT_EQ(1u, dev->eject_arg);
}

// --- R1 status ------------------------------------------------------------------------

TEST_F(ZelCardInit, HasNoR1Status)
{
    EXPECT_EQ((Outcome{0}), OutcomeOf([] { return zel_ops.CardGetR1Status(nullptr); }));
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return zel_ops.CardGetR1Status(&handle); }));
    Open();
    WatchForEject();
    slots->Eject(0);
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return zel_ops.CardGetR1Status(&handle); }));
    EXPECT_EQ((Outcome{0}), OutcomeOf([&] { return CARD_GetR1Status(&handle); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- a handle that was never opened -----------------------------------------------------

struct Operation {
    const char* name;  // who reports it
    int64_t result;
    std::function<int64_t(DrvInfo*)> run;
};

std::vector<Operation> Operations()
{
    static uint8_t buffer[512];
    static uint16_t status;
    static uint32_t retried;
    static CardInfo info;
    static CardSpeedInfo speed;
    static MemoryChunkArray chunks;
    static BlockList list;
    const DrvOps& ops = zel_ops;
    return {
        {"Zel_Exit", 0, [&](DrvInfo* h) { return ops.Exit(h); }},
        {"Zel_Read", -19, [&](DrvInfo* h) { return ops.Read(h, buffer, 1, 0, 0); }},
        {"Zel_Write", -19, [&](DrvInfo* h) { return ops.Write(h, buffer, 1, 0, 0); }},
        {"Zel_CheckEject", -19,
         [&](DrvInfo* h) { return ops.Ioctl(h, DEV_IOCTL_DEVICE_PARAMS, buffer); }},
        {"Zel_CheckEject", -19, [&](DrvInfo* h) { return ops.Ioctl(h, 0, nullptr); }},
        {"Zel_CheckEject", 10, [&](DrvInfo* h) { return ops.CardIoctl(h, 2, 0); }},
        {"Zel_CheckEject", 10, [&](DrvInfo* h) { return ops.CardIoctl(h, 1, 0); }},
        {"Zel_CardInit", 10, [&](DrvInfo* h) { return ops.CardInit(h, 1, [] {}); }},
        {"Zel_CardGetStatus", 10, [&](DrvInfo* h) { return ops.CardGetStatus(h, &status); }},
        {"Zel_CardGetInfo", 10, [&](DrvInfo* h) { return ops.CardGetInfo(h, &info); }},
        {"Zel_CardGetSpeedInfo", 10, [&](DrvInfo* h) { return ops.CardGetSpeedInfo(h, &speed); }},
        {"Zel_CardSecureGetInfo", 10, [&](DrvInfo* h) { return ops.CardSecureGetInfo(h, buffer); }},
        {"Zel_CardGetSize", 10, [&](DrvInfo* h) { return ops.CardGetSize(h); }},
        {"Zel_CardGetWriteProtect", 10, [&](DrvInfo* h) { return ops.CardGetWriteProtect(h); }},
        {"Zel_CheckEject", -19, [&](DrvInfo* h) { return ops.DrctRead(h, 0, 512, &chunks); }},
        {"Zel_DrctWrite", -19,
         [&](DrvInfo* h) { return ops.DrctWrite(h, 0, 512, &chunks, 0, &retried); }},
        {"Zel_CheckEject", -19, [&](DrvInfo* h) { return ops.DrctRMW(h, &list); }},
        {"Zel_FatWrite", -19, [&](DrvInfo* h) { return ops.FatWrite(h, &list); }},
        {"Zel_SdCmdWrite", -19, [&](DrvInfo* h) { return ops.SdCmdWrite(h, buffer, 1, 2, 3, 4); }},
        {"Zel_CheckRt", -19, [&](DrvInfo* h) { return ops.CheckRt(h); }},
        {"Zel_CheckDelay", -19, [&](DrvInfo* h) { return ops.CheckDelay(h); }},
        {"Zel_RTOn4Wait", -19, [&](DrvInfo* h) { return ops.RTOn4Wait(h); }},
        {"Zel_LockRTOn", 0, [&](DrvInfo* h) { return ops.LockRTOn(h), 0; }},
        {"Zel_UnlockRTOn", 0, [&](DrvInfo* h) { return ops.UnlockRTOn(h), 0; }},
    };
}

class ZelUnopened : public Zel {};

TEST_F(ZelUnopened, IsToldOnceByEveryOperation)
{
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.name);
        const Outcome told = {operation.result, std::string("[zel:") + operation.name +
                                                    "(#)](E)Cannot get driver info!\n"};
        EXPECT_EQ(told, OutcomeOf([&] { return operation.run(&handle); }));
        EXPECT_EQ(told, OutcomeOf([&] { return operation.run(nullptr); }));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { operation.run(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(Bytes(sizeof zel_dev, 0), BytesOf(zel_dev));
}

}  // namespace
