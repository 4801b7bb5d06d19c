// SPDX-License-Identifier: MIT
//
// The Mivo back-end's events: the card leaving its unit, and the driver signalling
// the end of a request.
#include "mivosdif/mivosdif.h"
#include "tests/mivosdif/transfer_fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr char kFailed[] = "ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is failed : ";

// --- the card ---------------------------------------------------------------------

class MivoEject : public MivoTransfer {
protected:
    MivoEject()
    {
        Open();
        RegisterCallback();
    }

    // Answer the status query with this result and byte 3, and with its opposite
    // where nothing is read.
    void AnswerStatus(int64_t result, uint8_t present)
    {
        Fault fault;
        fault.request = kGetStatus;
        fault.result = result;
        fault.then = [=, this] {
            uint8_t record[6];
            memset(record, ~present, sizeof record);
            record[3] = present;
            memcpy(reinterpret_cast<void*>(kernel.Calls().back().argument), record, 6);
        };
        kernel.ClearFaults();
        kernel.Inject(fault);
        kernel.ClearCalls();
    }

    // One check, and what it says.
    void ExpectCheck(bool gone)
    {
        dev.ejected = 0;
        ejects = 0;
        EXPECT_EQ("", Printed([&] { Mivo_CheckEject(&dev); }));
        EXPECT_EQ(gone ? 1 : 0, dev.ejected);
        EXPECT_EQ(gone ? 1 : 0, ejects);
        EXPECT_EQ(1u, kernel.Calls().size());
        EXPECT_TRUE(LockIsFree());
    }

    Trace Statuses(size_t times) const { return Trace(times, Ioctl(kGetStatus)); }
};

TEST_F(MivoEject, AsksOnceAndFindsTheCard)
{
    errno = EXFULL;
    EXPECT_EQ("", Printed([&] { Mivo_CheckEject(&dev); }));
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(Statuses(1), TraceOf(kernel));
    EXPECT_EQ(dev.chr_fd, kernel.Calls().at(0).fd);
    EXPECT_NE(0u, kernel.Calls().at(0).argument);
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(LockIsFree());
}

struct StatusRow {
    uint32_t index;
    uint8_t present;
    bool gone;
};

TEST_F(MivoEject, JudgesByTheUnitsOwnBit)
{
    const StatusRow rows[] = {
        {0, 0x01, false},         {0, 0xFE, true},  {0, 0xFF, false}, {0, 0x00, true},
        {0, 0x02, true},          {1, 0x02, false}, {1, 0xFD, true},  {1, 0x01, true},
        {5, 0x20, false},         {5, 0xDF, true},  {7, 0x80, false}, {7, 0x7F, true},
        {8, 0xFF, true},          {9, 0xFF, true},  {31, 0xFF, true}, {32, 0xFF, true},
        {33, 0xFF, true},         {39, 0xFF, true}, {64, 0xFF, true}, {0x80000000, 0xFF, true},
        {0xFFFFFFFF, 0xFF, true},
    };
    for (const StatusRow& row : rows) {
        SCOPED_TRACE(testing::Message() << "unit " << row.index << ", byte " << int{row.present});
        dev.index = row.index;
        AnswerStatus(0, row.present);
        ExpectCheck(row.gone);
    }
    dev.index = kUnit;
}

// 1 is the driver's word for a card that has gone; other numbers say nothing.
TEST_F(MivoEject, JudgesByTheResultBeforeTheBit)
{
    for (const uint8_t present : {uint8_t{0x00}, uint8_t{0x02}, uint8_t{0xFD}, uint8_t{0xFF}}) {
        SCOPED_TRACE(int{present});
        AnswerStatus(1, present);
        ExpectCheck(true);
        EXPECT_EQ(Trace{Ioctl(kGetStatus, "1")}, TraceOf(kernel));
        for (const int result : {2, 3, 16, 0x101, INT32_MAX}) {
            SCOPED_TRACE(result);
            AnswerStatus(result, present);
            ExpectCheck(false);
            EXPECT_EQ(Trace{Ioctl(kGetStatus, std::to_string(result))}, TraceOf(kernel));
        }
    }
}

// Where the driver answers without filling the record, no card is there.
TEST_F(MivoEject, TakesARecordLeftAloneForAnEmptyOne)
{
    AnswerRequest(kGetStatus, 0);
    ExpectCheck(true);
}

TEST_F(MivoEject, FollowsTheDriver)
{
    units->Insert(0, cardsim::Card::InMemory(64));
    units->Eject(0);
    Mivo_CheckEject(&dev);
    EXPECT_EQ(0, dev.ejected);
    units->Insert(kUnit, cardsim::Card::InMemory(64));  // another card: not noticed
    Mivo_CheckEject(&dev);
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    units->Insert(0, cardsim::Card::InMemory(64));
    units->Eject(kUnit);
    Mivo_CheckEject(&dev);
    EXPECT_EQ(1, dev.ejected);
    EXPECT_EQ(1, ejects);
}

TEST_F(MivoEject, NeedsARecord)
{
    EXPECT_EQ(ErrorLine("Mivo_CheckEject", "Cannot get driver info!"),
              Printed([] { Mivo_CheckEject(nullptr); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [] { Mivo_CheckEject(nullptr); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(MivoEject, NeverAsksWithoutACallback)
{
    dev.eject_cb = nullptr;
    units->Eject(kUnit);
    const int chr_fd = dev.chr_fd;
    for (const int fd : {chr_fd, 0}) {
        dev.chr_fd = fd;
        EXPECT_EQ("", Printed([&] { Mivo_CheckEject(&dev); }));
        EXPECT_EQ("", Printed([&] { __Mivo_CheckEject(&dev); }));
    }
    dev.chr_fd = chr_fd;
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, dev.ejected);
}

TEST_F(MivoEject, NeedsTheCharacterNode)
{
    units->Eject(kUnit);
    const int chr_fd = dev.chr_fd;
    dev.chr_fd = 0;
    EXPECT_EQ(ErrorLine("__Mivo_CheckEject", "Invalid chr_fd!"),
              Printed([&] { Mivo_CheckEject(&dev); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { Mivo_CheckEject(&dev); }));
    dev.chr_fd = chr_fd;
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(LockIsFree());
}

// --- a query that fails ---------------------------------------------------------------

// It is not repeated, whatever the failure, and says nothing about the card.
TEST_F(MivoEject, GoesOnWhereTheQueryFails)
{
    units->Eject(kUnit);
    for (const int error : {EBUSY, EIO, ENODEV, EINTR, EAGAIN}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        size_t locked = 0;
        Fault fault;
        fault.request = kGetStatus;
        fault.error = error;
        fault.then = [&] { locked += LockIsFree() ? 0u : 1u; };
        kernel.Inject(fault);
        const std::chrono::nanoseconds started = kernel.Now();
        int left = 0;
        EXPECT_EQ(ErrorLine("__Mivo_CheckEject", std::string(kFailed) + strerror(error)),
                  Printed([&] {
                      errno = EXFULL;
                      Mivo_CheckEject(&dev);
                      left = errno;
                  }));
        EXPECT_EQ(error, left);
        EXPECT_EQ(Trace{Ioctl(kGetStatus, Failed(error))}, TraceOf(kernel));
        EXPECT_EQ(started, kernel.Now());
        EXPECT_EQ(1u, locked);
        EXPECT_EQ(0, dev.ejected);
        EXPECT_EQ(0, ejects);
        EXPECT_TRUE(LockIsFree());
    }
}

// Any negative result, with whatever errno there is.
TEST_F(MivoEject, TakesAnyNegativeResultForAFailure)
{
    for (const int result : {-1, -2, INT32_MIN}) {
        AnswerStatus(result, 0);
        EXPECT_EQ(ErrorLine("__Mivo_CheckEject", std::string(kFailed) + "Success"), Printed([&] {
                      errno = 0;
                      Mivo_CheckEject(&dev);
                  }));
        EXPECT_EQ(0, dev.ejected);
        EXPECT_EQ(0, ejects);
    }
}

TEST_F(MivoEject, AsksUnderTheLock)
{
    int looked = 0;
    for (const int result : {0, 1, 2}) {
        Fault look;
        look.request = kGetStatus;
        look.result = result;
        look.then = [&] {
            EXPECT_FALSE(LockIsFree());
            looked++;
        };
        kernel.Inject(look);
        Mivo_CheckEject(&dev);
        EXPECT_TRUE(LockIsFree());
    }
    EXPECT_EQ(3, looked);
}

TEST_F(MivoEject, LeavesTheFlagWhereTheQueryFails)
{
    for (const uint8_t before : {uint8_t{0}, uint8_t{1}}) {
        dev.ejected = before;
        FailRequest(kGetStatus, EIO);
        Printed([&] { Mivo_CheckEject(&dev); });
        EXPECT_EQ(before, dev.ejected);
        EXPECT_EQ(0, ejects);
    }
    // Nor does finding the card take it back.
    dev.ejected = 1;
    Mivo_CheckEject(&dev);
    EXPECT_EQ(1, dev.ejected);
    EXPECT_EQ(0, ejects);
}

TEST_F(MivoEject, KeepsTheErrnoOfAFailedQuery)
{
    for (const int error : {ENODEV, EBUSY}) {
        FailRequest(kGetStatus, error);
        EXPECT_EQ(error, ErrnoAfter(EXFULL, [&] { Mivo_CheckEject(&dev); }));
    }
}

// --- the callback -----------------------------------------------------------------

TEST_F(MivoEject, CallsBackOnEveryCheckWhileTheCardIsAway)
{
    units->Eject(kUnit);
    for (int check = 1; check <= 5; check++) {
        Mivo_CheckEject(&dev);
        EXPECT_EQ(check, ejects);
        EXPECT_EQ(static_cast<size_t>(check), kernel.Calls().size());
    }
    units->Insert(kUnit, card);
    Mivo_CheckEject(&dev);
    EXPECT_EQ(5, ejects);
    EXPECT_EQ(1, dev.ejected);
}

TEST_F(MivoEject, CallsBackOnTheThreadThatNoticed)
{
    units->Eject(kUnit);
    pthread_t called = {};
    OnEject() = [&] {
        called = pthread_self();
        ejects++;
    };
    Mivo_CheckEject(&dev);
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

TEST_F(MivoEject, MarksTheDeviceAndUnlocksBeforeItCallsBack)
{
    units->Eject(kUnit);
    OnEject() = [&] {
        ejects++;
        EXPECT_EQ(1, dev.ejected);
        EXPECT_TRUE(LockIsFree());
    };
    Mivo_CheckEject(&dev);
    EXPECT_EQ(1, ejects);
}

TEST_F(MivoEject, LetsTheCallbackUseTheLibrary)
{
    units->Eject(kUnit);
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
        EXPECT_EQ(-5, DevDrctRead(&handle, 0, 1, chunks.get()));
        EXPECT_EQ(-5, DevDrctWrite(&handle, 0, 1, chunks.get(), 0, &retried));
        EXPECT_EQ(-5, DevDrctRMW(&handle, list.get()));
        EXPECT_EQ(-5, DevFatWrite(&handle, list.get()));
        EXPECT_EQ(-5, DevSdCmdWrite(&handle, buffer.data(), 1, 0, 0, 0));
        EXPECT_EQ(CARD_CODE_REMOVED, CARD_Getstatus(&handle, &status));
        EXPECT_EQ(0, CARD_Init(&handle, 1, nullptr));
        inside = false;
    };
    Chunks chunks{{buffer.address(), 512}};
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, DevDrctRead(&handle, 0, 1, chunks.get())); }));
    EXPECT_EQ(7, ejects);
    EXPECT_EQ(Statuses(7), TraceOf(kernel));
    EXPECT_TRUE(LockIsFree());
}

// --- the end of a request ------------------------------------------------------------

class MivoWait : public MivoTransfer {
protected:
    MivoWait() { Open(); }

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
            outcome.result = Mivo_PollWait(dev.chr_fd);
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

TEST_F(MivoWait, AsksForFourEventsForFourSeconds)
{
    units->With([](sim_mivo& mivo) { mivo.unit[kUnit].finished = true; });
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
    EXPECT_EQ(Trace{"poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1"}, TraceOf(kernel));
    EXPECT_EQ(1, looked);
}

struct EventRow {
    short revents;
    const char* line;
};

TEST_F(MivoWait, TakesAnythingBesidePolloutForAFailure)
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
            EXPECT_EQ(ErrorLine("Mivo_PollWait", row.line), outcome.printed);
            EXPECT_EQ(Trace{Poll()}, TraceOf(kernel));
            EXPECT_EQ(before, ErrnoAfter(before, [&] { Mivo_PollWait(dev.chr_fd); }));
        }
        Answer(1, row.revents, EBUSY);
        EXPECT_EQ(-16, Wait(0).result);
    }
}

TEST_F(MivoWait, TakesReadinessWithoutAnEventForAnInvalidAnswer)
{
    for (const int before : {0, EIO, EBUSY}) {
        Answer(1, short{0}, 0);
        const Outcome outcome = Wait(before);
        EXPECT_EQ(-22, outcome.result);
        EXPECT_EQ(before, outcome.left);
        EXPECT_EQ(ErrorLine("Mivo_PollWait", "Unknown poll events: 0x00000000"), outcome.printed);
    }
}

TEST_F(MivoWait, PassesAFailedPollOn)
{
    for (const int error : {EINTR, EBUSY, EINVAL, EIO}) {
        Answer({}, {}, error);
        const Outcome outcome = Wait(EXFULL);
        EXPECT_EQ(-error, outcome.result);
        EXPECT_EQ(error, outcome.left);
        EXPECT_EQ(ErrorLine("Mivo_PollWait", std::string("poll error : ") + strerror(error)),
                  outcome.printed);
        EXPECT_EQ(Trace{Poll(Failed(error))}, TraceOf(kernel));
    }
    Answer(-1, {}, 0);
    const Outcome outcome = Wait(0);
    EXPECT_EQ(-5, outcome.result);
    EXPECT_EQ(ErrorLine("Mivo_PollWait", "poll error : Success"), outcome.printed);
}

TEST_F(MivoWait, TimesOutWithWhateverErrnoHolds)
{
    for (const int before : {0, EIO, EBUSY, EXFULL}) {
        kernel.ClearCalls();
        const std::chrono::nanoseconds started = kernel.Now();
        const Outcome outcome = Wait(before);
        EXPECT_EQ(before != 0 ? -before : -5, outcome.result);
        EXPECT_EQ(before, outcome.left);
        EXPECT_EQ(ErrorLine("Mivo_PollWait", std::string("poll timeout: ") + strerror(before)),
                  outcome.printed);
        EXPECT_EQ(Trace{Poll("0")}, TraceOf(kernel));
        EXPECT_EQ(std::chrono::seconds(4), kernel.Now() - started);
        EXPECT_EQ(before, ErrnoAfter(before, [&] { Mivo_PollWait(dev.chr_fd); }));
    }
}

TEST_F(MivoWait, FindsADescriptorThatIsNotOpen)
{
    EXPECT_EQ(ErrorLine("Mivo_PollWait", "poll returns POLLNVAL"), Printed([] {
                  errno = 0;
                  EXPECT_EQ(-5, Mivo_PollWait(1000));
              }));
}

// --- an end that is pending from before ------------------------------------------------

TEST_F(MivoWait, DiscardsAPendingEnd)
{
    units->With([](sim_mivo& mivo) { mivo.unit[kUnit].finished = true; });
    EXPECT_EQ("", Printed([&] { Mivo_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/mivosdif1, 0x1d, 1 ms) = 1"}, TraceOf(kernel));
    Printed([&] { EXPECT_GT(0, Mivo_PollWait(dev.chr_fd)); });
}

TEST_F(MivoWait, IgnoresWhatDiscardingAnswers)
{
    const std::chrono::nanoseconds started = kernel.Now();
    EXPECT_EQ("", Printed([&] { Mivo_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/mivosdif1, 0x1d, 1 ms) = 0"}, TraceOf(kernel));
    EXPECT_EQ(std::chrono::milliseconds(1), kernel.Now() - started);
    Answer({}, {}, EIO);
    EXPECT_EQ("", Printed([&] { Mivo_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/mivosdif1, 0x1d, 1 ms) = -1 EIO"}, TraceOf(kernel));
    Answer({}, short{POLLHUP | POLLERR}, 0);
    EXPECT_EQ("", Printed([&] { Mivo_PollClear(dev.chr_fd); }));
    EXPECT_EQ(Trace{"poll(/dev/mivosdif1, 0x1d, 1 ms) = 1"}, TraceOf(kernel));
}

}  // namespace
