// SPDX-License-Identifier: MIT
//
// The Zel back-end's status word, write protection and card commands.
#include <climits>

#include "tests/zel/fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kGetStatus[] = "ioctl(/dev/spdra, 0x20007001) = 0";
constexpr char kBusy[] = "ioctl(/dev/spdra, 0x20007008) = -1 EBUSY";
constexpr char kPause[] = "nanosleep(400000000 ns)";

// --- CARD_Getstatus --------------------------------------------------------------------

class ZelStatus : public Zel {
protected:
    Outcome Get()
    {
        return OutcomeOf([&] { return CARD_Getstatus(&handle, &status); });
    }

    uint16_t status = 0x1234;
};

TEST_F(ZelStatus, CallsAnOpenDevicesCardReady)
{
    Open();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

// Without a callback nobody looks.
TEST_F(ZelStatus, CallsAMissingCardReadyWithoutACallback)
{
    Open();
    slots->Eject(0);
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelStatus, LooksForTheCardWhenThereIsACallback)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(0, ejects);
}

TEST_F(ZelStatus, ReportsAnEjectedCardAndKeepsTheWord)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    EXPECT_EQ((Outcome{65531}), Get());
    EXPECT_EQ(0x1234, status);
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(1, ejects);
    EXPECT_FALSE(eject_saw_lock);
}

TEST_F(ZelStatus, NeedsAWordThenAHandleThenAnOpenDevice)
{
    const Outcome no_word = {10, "[zel:Zel_CardGetStatus(#)](E)Invalid an argument\n"};
    EXPECT_EQ(no_word, OutcomeOf([] { return zel_ops.CardGetStatus(nullptr, nullptr); }));
    EXPECT_EQ(no_word, OutcomeOf([&] { return zel_ops.CardGetStatus(&handle, nullptr); }));
    EXPECT_EQ((Outcome{10, "[zel:Zel_CardGetStatus(#)](E)Cannot get driver info!\n"}),
              OutcomeOf([&] { return zel_ops.CardGetStatus(nullptr, &status); }));
    handle.priv = dev;
    dev->eject_cb = &OnEject;
    dev->ejected = 1;
    EXPECT_EQ((Outcome{10, "[zel:Zel_CardGetStatus(#)](E)Invalid blk_fd!\n"}), Get());
    EXPECT_EQ(0x1234, status);
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.CardGetStatus(&handle, &status); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.CardGetStatus(&handle, nullptr); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- CARD_GetWriteProtect ---------------------------------------------------------------

class ZelProtect : public Zel {
protected:
    Outcome Get()
    {
        return OutcomeOf([&] { return CARD_GetWriteProtect(&handle); });
    }

    static std::string Line(int retry, int error)
    {
        return "[zel:Zel_CardGetWriteProtect(#)](E)ioctl(ZEL_CHECK_WRITE_PROTECT) is "
               "failed(retry=" +
               std::to_string(retry) + ") : " + strerror(error) + "\n";
    }
};

TEST_F(ZelProtect, AsksTheDriver)
{
    Open();
    EXPECT_EQ((Outcome{0}), Get());
    model().write_protected = true;
    EXPECT_EQ((Outcome{1}), Get());
    EXPECT_EQ((Trace{"ioctl(/dev/spdra, 0x20007008) = 0", "ioctl(/dev/spdra, 0x20007008) = 1"}),
              TraceOf(kernel));
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(0u, kernel.Calls().at(0).argument);
    ASSERT_FALSE(IsLocked());
}

TEST_F(ZelProtect, GivesTheLow16BitsSigned)
{
    Open();
    const std::pair<int, int> answers[] = {
        {2, 2},       {0x7FFF, 32767}, {0x8000, -32768}, {0xFFFF, -1},         {0x10000, 0},
        {0x10001, 1}, {0x1FFFF, -1},   {0x7FFF0000, 0},  {0x7FFF8001, -32767}, {INT_MAX, -1},
    };
    for (const auto& [answer, state] : answers) {
        SCOPED_TRACE(answer);
        kernel.ClearFaults();
        Answer(ZEL_CHECK_WRITE_PROTECT, answer);
        EXPECT_EQ((Outcome{state}), Get());
        ASSERT_FALSE(IsLocked());
    }
}

TEST_F(ZelProtect, WaitsForADriverThatIsBusy)
{
    Open();
    const auto before = kernel.Now();
    model().write_protected = true;
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 3);
    EXPECT_EQ((Outcome{1, "", EBUSY}), Get());
    EXPECT_EQ((Trace{kBusy, "nanosleep(400000000 ns) = 0", kBusy, "nanosleep(400000000 ns) = 0",
                     kBusy, "nanosleep(400000000 ns) = 0", "ioctl(/dev/spdra, 0x20007008) = 1"}),
              TraceOf(kernel));
    EXPECT_EQ(std::chrono::milliseconds(1200), kernel.Now() - before);
    ASSERT_FALSE(IsLocked());
}

TEST_F(ZelProtect, TakesTheTenthAnswer)
{
    Open();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 9);
    EXPECT_EQ((Outcome{0, "", EBUSY}), Get());
    EXPECT_EQ(19u, kernel.Calls().size());
}

TEST_F(ZelProtect, GivesUpAtTheTenthBusyAnswer)
{
    Open();
    const auto before = kernel.Now();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, Fault::kForEver);
    EXPECT_EQ((Outcome{-5, Line(10, EBUSY), EBUSY}), Get());
    Trace expected = {kBusy};
    for (int i = 0; i < 9; i++) {
        expected.push_back(std::string(kPause) + " = 0");
        expected.push_back(kBusy);
    }
    EXPECT_EQ(expected, TraceOf(kernel));
    EXPECT_EQ(std::chrono::milliseconds(3600), kernel.Now() - before);
    ASSERT_FALSE(IsLocked());
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0, dev->ejected);
}

TEST_F(ZelProtect, GivesUpAtOnceForAnyOtherError)
{
    Open();
    for (const int error : {EIO, ENODEV, EAGAIN, EINTR, ENOTTY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(ZEL_CHECK_WRITE_PROTECT, error);
        EXPECT_EQ((Outcome{-5, Line(0, error), error}), Get());
        EXPECT_EQ(
            Trace{std::string("ioctl(/dev/spdra, 0x20007008) = -1 ") + strerrorname_np(error)},
            TraceOf(kernel));
        ASSERT_FALSE(IsLocked());
    }
    EXPECT_EQ(0, dev->io_error);
}

TEST_F(ZelProtect, TellsHowOftenItHadWaitedBeforeAnotherError)
{
    Open();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 2);
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EIO, 3);
    EXPECT_EQ((Outcome{-5, Line(2, EIO), EIO}), Get());
    EXPECT_EQ(5u, kernel.Calls().size());
}

// An interrupted pause is not made up for.
TEST_F(ZelProtect, DoesNotMindAnInterruptedPause)
{
    Open();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 2);
    Fail(CallKind::Sleep, EINTR, 1, 2);
    EXPECT_EQ((Outcome{0, "", EINTR}), Get());
    EXPECT_EQ((Trace{kBusy, "nanosleep(400000000 ns) = -1 EINTR", kBusy,
                     "nanosleep(400000000 ns) = -1 EINTR", "ioctl(/dev/spdra, 0x20007008) = 0"}),
              TraceOf(kernel));
}

TEST_F(ZelProtect, StartsToCountAfreshInTheNextCall)
{
    Open();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 9);
    EXPECT_EQ(0, Get().result);
    kernel.ClearFaults();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, 9);
    EXPECT_EQ(0, Get().result);
}

class ZelProtectOnUnit : public OnUnit<ZelProtect> {};

INSTANTIATE_TEST_SUITE_P(Units, ZelProtectOnUnit, kUnits);

TEST_P(ZelProtectOnUnit, HoldsTheLockFromTheFirstRequestToTheLast)
{
    Open();
    WatchForEject();
    int requests = 0;
    int pauses = 0;
    Fault busy;
    busy.request = ZEL_CHECK_WRITE_PROTECT;
    busy.times = Fault::kForEver;
    busy.error = EBUSY;
    busy.then = [&] { requests += IsLocked(); };
    kernel.Inject(busy);
    Fault pause;
    pause.kind = CallKind::Sleep;
    pause.times = Fault::kForEver;
    pause.then = [&] { pauses += IsLocked(); };
    kernel.Inject(pause);
    EXPECT_EQ(-5, Get().result);
    EXPECT_EQ(10, requests);
    EXPECT_EQ(9, pauses);
    // Once for the eject check, once for all of this.
    ASSERT_EQ(2u, MutexCalls().size());
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(MutexCallKind::Lock, MutexCalls()[i].kind);
        EXPECT_EQ(&dev->lock, MutexCalls()[i].mutex);
        EXPECT_EQ(i, MutexCalls()[i].system_calls);
    }
    ASSERT_FALSE(IsLocked());
}

TEST_F(ZelProtect, LooksForTheCardFirst)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ((Trace{kGetStatus, "ioctl(/dev/spdra, 0x20007008) = 0"}), TraceOf(kernel));
    kernel.ClearCalls();
    slots->Eject(0);
    EXPECT_EQ((Outcome{-5}), Get());
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(1, ejects);
    EXPECT_FALSE(eject_saw_lock);
    ASSERT_FALSE(IsLocked());
}

TEST_F(ZelProtect, NeedsAnOpenCharacterNode)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    const ZelDevice open = *dev;
    dev->chr_fd = 0;
    EXPECT_EQ((Outcome{10, "[zel:Zel_CardGetWriteProtect(#)](E)Invalid chr_fd!\n"}), Get());
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { zel_ops.CardGetWriteProtect(&handle); }));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
    dev->chr_fd = open.chr_fd;
    dev->eject_cb = nullptr;
    // The block node has no part in this.
    dev->blk_fd = 0;
    slots->Insert(0, card);
    EXPECT_EQ((Outcome{0}), Get());
    dev->blk_fd = open.blk_fd;
}

TEST_F(ZelProtect, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    Open();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_GetWriteProtect(&handle); }));
    ASSERT_FALSE(IsLocked());
    kernel.ClearFaults();
    FailRequest(ZEL_CHECK_WRITE_PROTECT, EBUSY, 1, Fault::kForEver);
    EXPECT_EQ(EBUSY, ErrnoAfter(EXFULL, [&] { CARD_GetWriteProtect(&handle); }));
}

// --- CARD_Ioctl -----------------------------------------------------------------------------

class ZelCommand : public Zel {
protected:
    Outcome Send(int32_t command, int32_t argument)
    {
        return OutcomeOf([&] { return CARD_Ioctl(&handle, command, argument); });
    }
};

struct Command {
    int32_t number;
    uint32_t request;
    const char* call;
};

constexpr Command kCommands[] = {
    {2, ZEL_CARD_CMD2, "ioctl(/dev/spda, 0x2000701b)"},
    {3, ZEL_CARD_CMD3, "ioctl(/dev/spda, 0x2000701c)"},
    {4, ZEL_CARD_CMD4, "ioctl(/dev/spda, 0x2000702b)"},
};

TEST_F(ZelCommand, PassesTheArgumentOnAsItIs)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int32_t argument : {0, 1, 0x12345678, -1, INT_MIN}) {
            SCOPED_TRACE(testing::Message() << command.number << " " << argument);
            kernel.ClearCalls();
            EXPECT_EQ((Outcome{0}), Send(command.number, argument));
            EXPECT_EQ(Trace{std::string(command.call) + " = 0"}, TraceOf(kernel));
            EXPECT_EQ(static_cast<uint32_t>(argument), kernel.Calls().at(0).argument);
            EXPECT_EQ(dev->dev_fd, kernel.Calls().at(0).fd);
            slots->With([&](sim_zel& zel) {
                EXPECT_EQ(static_cast<uint32_t>(command.number), zel.slot[0].last_command);
            });
        }
    }
}

TEST_F(ZelCommand, TakesAPositiveAnswerForSuccess)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int answer : {1, INT_MAX}) {
            kernel.ClearFaults();
            Answer(command.request, answer);
            EXPECT_EQ((Outcome{0}), Send(command.number, 0)) << command.number;
        }
    }
}

TEST_F(ZelCommand, HasACodeOfItsOwnForAFailure)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int error : {EIO, EBUSY, ENODEV}) {
            SCOPED_TRACE(testing::Message() << command.number << " " << strerror(error));
            kernel.ClearCalls();
            kernel.ClearFaults();
            FailRequest(command.request, error);
            EXPECT_EQ((Outcome{43271, "", error}), Send(command.number, 7));
            EXPECT_EQ(Trace{std::string(command.call) + " = -1 " + strerrorname_np(error)},
                      TraceOf(kernel));
            ASSERT_FALSE(IsLocked());
        }
    }
    EXPECT_EQ(0, dev->io_error);
}

TEST_F(ZelCommand, HasNoOtherCommands)
{
    Open();
    for (const int32_t command : {-1, 0, 1, 5, 6, INT_MAX, INT_MIN, 0x2000701B}) {
        EXPECT_EQ((Outcome{0}), Send(command, 9)) << command;
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

class ZelCommandOnUnit : public OnUnit<ZelCommand> {};

INSTANTIATE_TEST_SUITE_P(Units, ZelCommandOnUnit, kUnits);

TEST_P(ZelCommandOnUnit, HoldsTheLockForTheRequest)
{
    Open();
    WatchForEject();
    for (const Command& command : kCommands) {
        SCOPED_TRACE(command.number);
        bool locked = false;
        During(command.request, [&](const Call&) { locked = IsLocked(); });
        MutexCalls().clear();
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0}), Send(command.number, 0));
        EXPECT_TRUE(locked);
        ASSERT_FALSE(IsLocked());
        // Behind the eject check, which has it for itself.
        ASSERT_EQ(2u, MutexCalls().size());
        for (size_t i = 0; i < 2; i++) {
            EXPECT_EQ(MutexCallKind::Lock, MutexCalls()[i].kind);
            EXPECT_EQ(&dev->lock, MutexCalls()[i].mutex);
            EXPECT_EQ(i, MutexCalls()[i].system_calls);
        }
    }
}

TEST_F(ZelCommand, LooksForTheCardFirst)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Send(3, 0));
    EXPECT_EQ((Trace{kGetStatus, "ioctl(/dev/spda, 0x2000701c) = 0"}), TraceOf(kernel));
    slots->Eject(0);
    for (const int32_t command : {1, 2, 3, 4, 5}) {
        SCOPED_TRACE(command);
        kernel.ClearCalls();
        ejects = 0;
        EXPECT_EQ((Outcome{65531}), Send(command, 0));
        EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
        EXPECT_EQ(1, ejects);
    }
    EXPECT_FALSE(eject_saw_lock);
}

// Whether the nodes are open is not asked.
TEST_F(ZelCommand, ReachesTheKernelWithAnyDescriptor)
{
    Open();
    const ZelDevice open = *dev;
    dev->blk_fd = 0;
    dev->chr_fd = 0;
    EXPECT_EQ((Outcome{0}), Send(2, 0));
    dev->dev_fd = -1;
    EXPECT_EQ((Outcome{43271, "", EBADF}), Send(2, 0));
    dev->blk_fd = open.blk_fd;
    dev->chr_fd = open.chr_fd;
    dev->dev_fd = open.dev_fd;
}

}  // namespace
