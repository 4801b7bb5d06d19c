// SPDX-License-Identifier: MIT
//
// The Zel back-end's events: the card leaving its slot, and the driver signalling
// the end of a request.
#include "tests/zel/transfer_fixture.h"
#include "zel/zel.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kFailed[] = "ioctl(ZEL_GET_CARD_STATUS) is failed(retry=";

// --- the card ---------------------------------------------------------------------

class ZelEject : public ZelTransfer {
protected:
    ZelEject()
    {
        Open();
        RegisterCallback();
    }

    // Answer the status query with these masks, and noise where nothing is read.
    void AnswerMasks(uint8_t changed, uint8_t present, std::optional<int64_t> result = 0)
    {
        Fault fault;
        fault.request = kGetStatus;
        fault.result = result;
        fault.then = [=, this] {
            const uint8_t record[4] = {0xFF, changed, present, 0xFF};
            memcpy(reinterpret_cast<void*>(kernel.Calls().back().argument), record, 4);
        };
        kernel.ClearFaults();
        kernel.Inject(fault);
    }

    Trace Statuses(size_t times) const { return Trace(times, Ioctl(kGetStatus)); }
};

TEST_F(ZelEject, AsksOnceAndFindsTheCard)
{
    errno = EXFULL;
    EXPECT_EQ("", Printed([&] { Zel_CheckEject(&dev); }));
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(Statuses(1), TraceOf(kernel));
    EXPECT_EQ(dev.chr_fd, kernel.Calls().at(0).fd);
    EXPECT_NE(0u, kernel.Calls().at(0).argument);
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(LockIsFree());
}

struct MaskRow {
    uint32_t index;
    uint8_t changed;
    uint8_t present;
    bool gone;
};

TEST_F(ZelEject, JudgesByTheSlotsOwnBits)
{
    const MaskRow rows[] = {
        {0, 0x00, 0x01, false}, {0, 0x00, 0xFE, true},  {0, 0x01, 0x01, true},
        {0, 0xFE, 0x01, false}, {0, 0xFF, 0x00, true},  {1, 0x00, 0x02, false},
        {1, 0x00, 0x01, true},  {1, 0x02, 0x02, true},  {1, 0x01, 0x02, false},
        {5, 0x00, 0x20, false}, {5, 0x20, 0xFF, true},  {5, 0x00, 0xDF, true},
        {5, 0xDF, 0xFF, false}, {7, 0x00, 0x80, false}, {7, 0x80, 0x80, true},
        {7, 0x7F, 0xFF, false}, {8, 0x00, 0xFF, true},  {9, 0x00, 0xFF, true},
        {31, 0x00, 0xFF, true},
    };
    for (const MaskRow& row : rows) {
        SCOPED_TRACE(testing::Message() << "slot " << row.index << ", changed " << int{row.changed}
                                        << ", present " << int{row.present});
        AnswerMasks(row.changed, row.present);
        dev.index = row.index;
        dev.ejected = 0;
        ejects = 0;
        EXPECT_EQ("", Printed([&] { Zel_CheckEject(&dev); }));
        EXPECT_EQ(row.gone ? 1 : 0, dev.ejected);
        EXPECT_EQ(row.gone ? 1 : 0, ejects);
    }
    dev.index = kUnit;
}

TEST_F(ZelEject, FollowsTheDriver)
{
    slots->Insert(3, cardsim::Card::InMemory(64));
    slots->Eject(3);
    Zel_CheckEject(&dev);
    EXPECT_EQ(0, dev.ejected);
    slots->Insert(kUnit, cardsim::Card::InMemory(64));  // another card
    Zel_CheckEject(&dev);
    EXPECT_EQ(1, dev.ejected);
    EXPECT_EQ(1, ejects);
    slots->Eject(kUnit);
    Zel_CheckEject(&dev);
    EXPECT_EQ(2, ejects);
}

TEST_F(ZelEject, NeedsARecord)
{
    EXPECT_EQ(ErrorLine("Zel_CheckEject", "Cannot get driver info!"),
              Printed([] { Zel_CheckEject(nullptr); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [] { Zel_CheckEject(nullptr); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelEject, NeverAsksWithoutACallback)
{
    dev.eject_cb = nullptr;
    slots->Eject(kUnit);
    const int chr_fd = dev.chr_fd;
    for (const int fd : {chr_fd, 0}) {
        dev.chr_fd = fd;
        EXPECT_EQ("", Printed([&] { Zel_CheckEject(&dev); }));
    }
    dev.chr_fd = chr_fd;
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, dev.ejected);
}

TEST_F(ZelEject, NeedsTheCharacterNode)
{
    slots->Eject(kUnit);
    const int chr_fd = dev.chr_fd;
    dev.chr_fd = 0;
    EXPECT_EQ(ErrorLine("__Zel_CheckEject", "Invalid chr_fd!"),
              Printed([&] { Zel_CheckEject(&dev); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { Zel_CheckEject(&dev); }));
    dev.chr_fd = chr_fd;
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(LockIsFree());
}

// --- a query that is not answered at once --------------------------------------------

// Answers in order: 'b' busy, 'd' no such device, '+' positive, '.' answered.
struct QueryRow {
    const char* answers;
    int retry;  // in the failure line, or -1 where there is none
    int pauses;
    int error;  // of the failure line
};

TEST_F(ZelEject, AsksABusyDriverTenTimes)
{
    const QueryRow rows[] = {
        {".", -1, 0, 0},
        {"b.", -1, 1, 0},
        {"bbbbbbbbb.", -1, 9, 0},
        {"bbbbbbbbbb", 10, 9, EBUSY},
        {"d", 0, 0, ENODEV},
        {"bd", 1, 1, ENODEV},
        {"bbbbbbbbbd", 9, 9, ENODEV},
        {"+.", -1, 0, 0},
        {"++++++++++++++++++++.", -1, 0, 0},
        {"+b+b+.", -1, 2, 0},
        {"+++d", 0, 0, ENODEV},
        {"b+b+b+b+b+b+b+b+b+b", 10, 9, EBUSY},
        {"bbbbb+bbbb.", -1, 9, 0},
    };
    for (const bool gone : {false, true}) {
        if (gone) {
            slots->Eject(kUnit);
        }
        for (const QueryRow& row : rows) {
            SCOPED_TRACE(testing::Message() << row.answers << (gone ? " gone" : ""));
            kernel.ClearFaults();
            Trace expected;
            const std::string answers = row.answers;
            size_t locked = 0;
            Fault fault;
            fault.request = kGetStatus;
            fault.then = [&] { locked += LockIsFree() ? 0u : 1u; };
            for (const char answer : answers) {
                fault.error = answer == 'b' ? EBUSY : answer == 'd' ? ENODEV : 0;
                fault.result = {};
                if (answer == '+') {
                    fault.result = 3;
                }
                kernel.Inject(fault);
                fault.first++;
                expected.push_back(Ioctl(kGetStatus, answer == '+'      ? "3"
                                                     : fault.error != 0 ? Failed(fault.error)
                                                                        : "0"));
                if (answer == 'b' && fault.first <= answers.size()) {
                    expected.push_back(Pause());
                }
            }
            Fault asleep;
            asleep.kind = CallKind::Sleep;
            asleep.times = Fault::kForEver;
            asleep.then = fault.then;
            kernel.Inject(asleep);
            kernel.ClearCalls();
            dev.ejected = 0;
            ejects = 0;
            const std::chrono::nanoseconds started = kernel.Now();
            const std::string line =
                row.retry < 0 ? ""
                              : ErrorLine("__Zel_CheckEject", kFailed + std::to_string(row.retry) +
                                                                  ") : " + strerror(row.error));
            EXPECT_EQ(line, Printed([&] { Zel_CheckEject(&dev); }));
            EXPECT_EQ(expected, TraceOf(kernel));
            EXPECT_EQ(row.pauses * std::chrono::milliseconds(400), kernel.Now() - started);
            EXPECT_EQ(expected.size(), locked);
            // A query that fails says nothing about the card.
            EXPECT_EQ(gone && row.retry < 0 ? 1 : 0, dev.ejected);
            EXPECT_EQ(gone && row.retry < 0 ? 1 : 0, ejects);
            EXPECT_TRUE(LockIsFree());
        }
    }
}

// Such an answer is no failure, and nothing counts it.
TEST_F(ZelEject, AsksAgainWithoutEnd)
{
    constexpr uint64_t kUnanswered = 100'000;
    for (const bool gone : {false, true}) {
        SCOPED_TRACE(gone);
        if (gone) {
            slots->Eject(kUnit);
        }
        kernel.ClearCalls();
        AnswerRequest(kGetStatus, 3, kUnanswered);
        const std::chrono::nanoseconds started = kernel.Now();
        EXPECT_EQ("", Printed([&] { Zel_CheckEject(&dev); }));
        EXPECT_EQ(kUnanswered + 1, kernel.Calls().size());
        EXPECT_EQ(Ioctl(kGetStatus), TraceOf(kernel).back());
        EXPECT_EQ(started, kernel.Now());
        EXPECT_EQ(gone ? 1 : 0, dev.ejected);
        EXPECT_EQ(gone ? 1 : 0, ejects);
        EXPECT_TRUE(LockIsFree());
    }
}

// The answer counts that came with the result 0, not an earlier one's.
TEST_F(ZelEject, JudgesByTheLastAnswer)
{
    AnswerMasks(0xFF, 0x00, 1);
    Zel_CheckEject(&dev);
    EXPECT_EQ(Trace({Ioctl(kGetStatus, "1"), Ioctl(kGetStatus)}), TraceOf(kernel));
    EXPECT_EQ(0, dev.ejected);
}

TEST_F(ZelEject, LeavesTheFlagWhereTheQueryFails)
{
    for (const uint8_t before : {uint8_t{0}, uint8_t{1}}) {
        dev.ejected = before;
        FailRequest(kGetStatus, EIO);
        Printed([&] { Zel_CheckEject(&dev); });
        EXPECT_EQ(before, dev.ejected);
        EXPECT_EQ(0, ejects);
    }
    // Nor does finding the card take it back.
    dev.ejected = 1;
    Zel_CheckEject(&dev);
    EXPECT_EQ(1, dev.ejected);
    EXPECT_EQ(0, ejects);
}

TEST_F(ZelEject, KeepsTheErrnoOfAFailedQuery)
{
    FailRequest(kGetStatus, ENODEV);
    EXPECT_EQ(ENODEV, ErrnoAfter(EXFULL, [&] { Zel_CheckEject(&dev); }));
    FailRequest(kGetStatus, EBUSY, 1, 10);
    EXPECT_EQ(EBUSY, ErrnoAfter(EXFULL, [&] { Zel_CheckEject(&dev); }));
}

TEST_F(ZelEject, IsNotStoppedByAPauseCutShort)
{
    FailRequest(kGetStatus, EBUSY, 1, 10);
    Fault interrupted;
    interrupted.kind = CallKind::Sleep;
    interrupted.times = Fault::kForEver;
    interrupted.error = EINTR;
    kernel.Inject(interrupted);
    EXPECT_EQ(ErrorLine("__Zel_CheckEject", std::string(kFailed) + "10) : Device or resource busy"),
              Printed([&] { Zel_CheckEject(&dev); }));
    EXPECT_EQ(19u, kernel.Calls().size());
}

// --- the callback -----------------------------------------------------------------

TEST_F(ZelEject, CallsBackOnEveryCheckWhileTheCardIsAway)
{
    slots->Eject(kUnit);
    for (int check = 1; check <= 5; check++) {
        Zel_CheckEject(&dev);
        EXPECT_EQ(check, ejects);
        EXPECT_EQ(static_cast<size_t>(check), kernel.Calls().size());
    }
    slots->Insert(kUnit, card);
    slots->With([](sim_zel& zel) { zel.slot[kUnit].changed = false; });
    Zel_CheckEject(&dev);
    EXPECT_EQ(5, ejects);
    EXPECT_EQ(1, dev.ejected);
}

TEST_F(ZelEject, CallsBackOnTheThreadThatNoticed)
{
    slots->Eject(kUnit);
    pthread_t called = {};
    OnEject() = [&] {
        called = pthread_self();
        ejects++;
    };
    Zel_CheckEject(&dev);
    EXPECT_NE(0, pthread_equal(pthread_self(), called));
    pthread_t other = {};
    {
        const cardsim::LowThread thread([&] {
            other = pthread_self();
            uint16_t status = 0;
            EXPECT_EQ(CARD_CODE_REMOVED, CARD_Getstatus(&handle, &status));
        });
    }
    EXPECT_EQ(2, ejects);
    EXPECT_NE(0, pthread_equal(other, called));
}

TEST_F(ZelEject, MarksTheDeviceAndUnlocksBeforeItCallsBack)
{
    slots->Eject(kUnit);
    OnEject() = [&] {
        ejects++;
        EXPECT_EQ(1, dev.ejected);
        EXPECT_TRUE(LockIsFree());
    };
    Zel_CheckEject(&dev);
    EXPECT_EQ(1, ejects);
}

TEST_F(ZelEject, LetsTheCallbackUseTheLibrary)
{
    slots->Eject(kUnit);
    bool inside = false;
    OnEject() = [&] {
        ejects++;
        if (inside) {
            return;
        }
        inside = true;
        Chunks chunks{{buffer.address(), 512}};
        Elements list{{buffer.address(), 1, 0, nullptr}};
        uint32_t retried = 0;
        uint16_t status = 0;
        EXPECT_EQ(-5, DevDrctRead(&handle, 0, 512, chunks.get()));
        EXPECT_EQ(-5, DevDrctWrite(&handle, 0, 512, chunks.get(), 0, &retried));
        EXPECT_EQ(-5, DevDrctRMW(&handle, list.get()));
        EXPECT_EQ(-5, DevFatWrite(&handle, list.get()));
        EXPECT_EQ(-5, DevSdCmdWrite(&handle, buffer.data(), 1, 0, 0, 0));
        EXPECT_EQ(CARD_CODE_REMOVED, CARD_Getstatus(&handle, &status));
        EXPECT_EQ(0, CARD_Init(&handle, 1, nullptr));
        inside = false;
    };
    Chunks chunks{{buffer.address(), 512}};
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, DevDrctRead(&handle, 0, 512, chunks.get())); }));
    EXPECT_EQ(7, ejects);
    EXPECT_EQ(Statuses(7), TraceOf(kernel));
    EXPECT_TRUE(LockIsFree());
}

// --- the end of a request ------------------------------------------------------------

class ZelWait : public ZelTransfer {
protected:
    ZelWait() { Open(); }

    struct Outcome {
        int result;
        int left;
        std::string printed;
    };

    Outcome Wait(int before)
    {
        Outcome outcome = {};
        outcome.printed = Printed([&] {
            errno = before;
            outcome.result = Zel_PollWait(dev.chr_fd);
            outcome.left = errno;
        });
        return outcome;
    }

    void Answer(std::optional<int64_t> result, std::optional<short> revents, int error)
    {
        kernel.ClearFaults();
        Fault fault;
        fault.kind = CallKind::Poll;
        fault.times = Fault::kForEver;
        fault.result = result;
        fault.revents = revents;
        fault.error = error;
        kernel.Inject(fault);
        kernel.ClearCalls();
    }
};

TEST_F(ZelWait, AsksForFourEventsForFourSeconds)
{
    slots->With([](sim_zel& zel) { zel.slot[kUnit].finished = true; });
    int looked = 0;
    Fault look;
    look.kind = CallKind::Poll;
    look.then = [&] {
        EXPECT_TRUE(LockIsFree());
        looked++;
    };
    kernel.Inject(look);
    const std::chrono::nanoseconds started = kernel.Now();
    const Outcome outcome = Wait(EXFULL);
    EXPECT_EQ(started, kernel.Now());
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(EXFULL, outcome.left);
    EXPECT_EQ("", outcome.printed);
    EXPECT_EQ(Trace{"poll(/dev/spdrc, 0x1d, 4000 ms) = 1"}, TraceOf(kernel));
    EXPECT_EQ(1, looked);
}

struct EventRow {
    short revents;
    const char* line;
};

TEST_F(ZelWait, TakesAnythingBesidePolloutForAFailure)
{
    const EventRow rows[] = {
        {POLLHUP, "poll returns POLLHUP"},
        {POLLERR, "poll returns POLLERR"},
        {POLLNVAL, "poll returns POLLNVAL"},
        {POLLIN, "poll returns POLLIN"},
        {POLLPRI, "poll returns another event POLL???"},
        {POLLOUT | POLLHUP, "poll returns POLLHUP"},
        {POLLOUT | POLLERR, "poll returns POLLERR"},
        {POLLOUT | POLLNVAL, "poll returns POLLNVAL"},
        {POLLOUT | POLLIN, "poll returns POLLIN"},
        {POLLOUT | POLLPRI, "poll returns another event POLL???"},
        {POLLOUT | POLLWRNORM, "poll returns another event POLL???"},
        {POLLHUP | POLLERR | POLLNVAL | POLLIN | POLLOUT, "poll returns POLLHUP"},
        {POLLERR | POLLNVAL | POLLIN, "poll returns POLLERR"},
        {POLLNVAL | POLLIN | POLLPRI, "poll returns POLLNVAL"},
        {POLLIN | POLLPRI, "poll returns POLLIN"},
        {0x4000, "poll returns another event POLL???"},
    };
    for (const EventRow& row : rows) {
        for (const int before : {0, EIO, EBUSY, EXFULL}) {
            SCOPED_TRACE(testing::Message() << row.revents << " errno " << before);
            Answer({}, row.revents, 0);
            const Outcome outcome = Wait(before);
            EXPECT_EQ(before != 0 ? -before : -5, outcome.result);
            EXPECT_EQ(before, outcome.left);
            EXPECT_EQ(ErrorLine("Zel_PollWait", row.line), outcome.printed);
            EXPECT_EQ(Trace{Poll()}, TraceOf(kernel));
            EXPECT_EQ(before, ErrnoAfter(before, [&] { Zel_PollWait(dev.chr_fd); }));
        }
        Answer(1, row.revents, EBUSY);
        EXPECT_EQ(-16, Wait(0).result);
    }
}

TEST_F(ZelWait, TakesReadinessWithoutAnEventForAnInvalidAnswer)
{
    for (const int before : {0, EIO, EBUSY}) {
        Answer(1, short{0}, 0);
        const Outcome outcome = Wait(before);
        EXPECT_EQ(-22, outcome.result);
        EXPECT_EQ(before, outcome.left);
        EXPECT_EQ(ErrorLine("Zel_PollWait", "Unknown poll events: 0x00000000"), outcome.printed);
    }
}

TEST_F(ZelWait, PassesAFailedPollOn)
{
    for (const int error : {EINTR, EBUSY, EINVAL, EIO}) {
        Answer({}, {}, error);
        const Outcome outcome = Wait(EXFULL);
        EXPECT_EQ(-error, outcome.result);
        EXPECT_EQ(error, outcome.left);
        EXPECT_EQ(ErrorLine("Zel_PollWait", std::string("poll error : ") + strerror(error)),
                  outcome.printed);
        EXPECT_EQ(Trace{Poll(Failed(error))}, TraceOf(kernel));
    }
    Answer(-1, {}, 0);
    const Outcome outcome = Wait(0);
    EXPECT_EQ(-5, outcome.result);
    EXPECT_EQ(ErrorLine("Zel_PollWait", "poll error : Success"), outcome.printed);
}

TEST_F(ZelWait, TimesOutWithWhateverErrnoHolds)
{
    for (const int before : {0, EIO, EBUSY, EXFULL}) {
        kernel.ClearCalls();
        const std::chrono::nanoseconds started = kernel.Now();
        const Outcome outcome = Wait(before);
        EXPECT_EQ(before != 0 ? -before : -5, outcome.result);
        EXPECT_EQ(before, outcome.left);
        EXPECT_EQ(ErrorLine("Zel_PollWait", std::string("poll timeout: ") + strerror(before)),
                  outcome.printed);
        EXPECT_EQ(Trace{Poll("0")}, TraceOf(kernel));
        EXPECT_EQ(std::chrono::seconds(4), kernel.Now() - started);
        EXPECT_EQ(before, ErrnoAfter(before, [&] { Zel_PollWait(dev.chr_fd); }));
    }
}

TEST_F(ZelWait, FindsADescriptorThatIsNotOpen)
{
    EXPECT_EQ(ErrorLine("Zel_PollWait", "poll returns POLLNVAL"), Printed([] {
                  errno = 0;
                  EXPECT_EQ(-5, Zel_PollWait(1000));
              }));
}

// --- an end that is pending from before ------------------------------------------------

TEST_F(ZelWait, DiscardsAPendingEnd)
{
    slots->With([](sim_zel& zel) { zel.slot[kUnit].finished = true; });
    EXPECT_EQ("", Printed([&] { Zel_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/spdrc, 0x1d, 1 ms) = 1"}, TraceOf(kernel));
    Printed([&] { EXPECT_GT(0, Zel_PollWait(dev.chr_fd)); });
}

TEST_F(ZelWait, IgnoresWhatDiscardingAnswers)
{
    const std::chrono::nanoseconds started = kernel.Now();
    EXPECT_EQ("", Printed([&] { Zel_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/spdrc, 0x1d, 1 ms) = 0"}, TraceOf(kernel));
    EXPECT_EQ(std::chrono::milliseconds(1), kernel.Now() - started);
    Answer({}, {}, EIO);
    EXPECT_EQ("", Printed([&] { Zel_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/spdrc, 0x1d, 1 ms) = -1 EIO"}, TraceOf(kernel));
    Answer({}, short{POLLHUP | POLLERR}, 0);
    EXPECT_EQ("", Printed([&] { Zel_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/spdrc, 0x1d, 1 ms) = 1"}, TraceOf(kernel));
}

}  // namespace
