// SPDX-License-Identifier: MIT
//
// How often a driver is asked again, and how long the library waits in between. On a
// clock that runs by instructions the pauses are exact, but for the work around them.
#include "tests/backends/fixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds kPause{400};
constexpr milliseconds kPatience{4000};

// One of the direct transfers.
struct Transfer {
    const char* slot;
    uint32_t Requests::* first;  // its request ...
    uint32_t Requests::* retry;  // ... and the one after a failure that is no "busy"
    const char* warned;          // the request in its warnings ...
    const char* failed_zel;      // ... and in its last line
    const char* failed_mivo;
};

constexpr Transfer kTransfers[] = {
    {"DrctRead", &Requests::read, &Requests::read, "DIRECT_READ", "DIRECT_READ", "DIRECT_READ"},
    {"DrctWrite", &Requests::sequential_write, &Requests::write, "DIRECT_WRITE", "DIRECT_SEQ_WRITE",
     "DIRECT_WRITE"},
    {"DrctRMW", &Requests::rmw, &Requests::rmw, "DIRECT_RMW", "DIRECT_RMW", "DIRECT_RMW"},
    {"FatWrite", &Requests::fat_write, &Requests::fat_write, "FSMI_WRITE", "FSMI_WRITE",
     "FSMI_WRITE"},
    {"SdCmdWrite", &Requests::command_write, &Requests::command_write, "SDCMD_WRITE", "SDCMD_WRITE",
     "SDCMD_WRITE"},
};

class Retry : public Backends {
protected:
    Retry()
    {
        bench->Latency(backend.place, milliseconds(0));
        Open();
        bench->ClearCalls(backend.place);
    }

    bool IsZel() const { return backend.type == DEV_TYPE_ZEL; }

    // One sector from sector 40, or to it. Reading and writing give the length.
    int32_t Run(const Transfer& transfer)
    {
        const std::string slot = transfer.slot;
        Chunks chunks = {1, {{memory.address(), 512}}};
        BlockListEntry entry = {memory.address(), 1, 40, nullptr};
        BlockList list = {1, &entry};
        if (slot == "DrctRead") {
            return DevDrctRead(&handle, 40, Length(1), chunks.list());
        }
        if (slot == "DrctWrite") {
            return DevDrctWrite(&handle, 40, Length(1), chunks.list(), 0, &retried);
        }
        if (slot == "DrctRMW") {
            return DevDrctRMW(&handle, &list);
        }
        if (slot == "FatWrite") {
            return DevFatWrite(&handle, &list);
        }
        return DevSdCmdWrite(&handle, memory.data(), 1, 40, 25, 0);
    }

    int32_t Good(const Transfer& transfer) const
    {
        return transfer.slot == std::string("DrctRead") || transfer.slot == std::string("DrctWrite")
                   ? static_cast<int32_t>(Length(1))
                   : 0;
    }

    // The calls of a transfer, a word each: its requests, resets, and what polls told.
    std::vector<uint32_t> Seen()
    {
        std::vector<uint32_t> seen;
        for (const BenchCall& call : bench->Calls(backend.place)) {
            if (call.node == BenchNode::Char) {
                seen.push_back(call.kind == BenchCallKind::Poll
                                   ? (call.result != 0 ? kTold : kNotTold)
                                   : call.request);
            }
        }
        return seen;
    }

    // The next `times` answers to a request, from the `first` one on.
    void Answer(uint32_t request, uint64_t times, int error, uint64_t first = 1)
    {
        BenchFault fault;
        fault.request = request;
        fault.error = error;
        fault.first = first;
        fault.times = times;
        bench->Inject(backend.place, fault);
    }

    // How long the body took, with `waits` expected and nothing but work on top.
    void Takes(nanoseconds waits, const std::function<void()>& body)
    {
        const nanoseconds before = bench->Now();
        body();
        const nanoseconds took = bench->Now() - before;
        EXPECT_LE(waits.count(), took.count());
        EXPECT_GE((waits + bench->Slack()).count(), took.count());
    }

    // The times between one answer and the next call's, by the driver's own record.
    void ExpectPauses(uint32_t request, size_t count, nanoseconds pause)
    {
        std::vector<nanoseconds> at;
        for (const BenchCall& call : bench->Calls(backend.place)) {
            if (call.kind == BenchCallKind::Ioctl && call.request == request) {
                at.push_back(call.at);
            }
        }
        ASSERT_EQ(count + 1, at.size());
        for (size_t i = 1; i < at.size(); i++) {
            EXPECT_LE(pause.count(), (at[i] - at[i - 1]).count());
            EXPECT_GE((pause + bench->Slack()).count(), (at[i] - at[i - 1]).count());
        }
    }

    std::string Busy(const Transfer& transfer, int number) const
    {
        return Line(transfer.slot, 'W',
                    std::string("Retry ") + backend.request + transfer.warned +
                        " (device Busy) : retry=" + std::to_string(number) + "!");
    }
    std::string Again(const Transfer& transfer, int number) const
    {
        return Line(transfer.slot, 'W',
                    std::string("Retry ") + backend.request + transfer.warned +
                        " : retry=" + std::to_string(number) + "!");
    }
    std::string GivenUp(const Transfer& transfer, int busy, int others, int error) const
    {
        const std::string counts =
            IsZel() ? "retry=" + std::to_string(busy) + " err_retry=" + std::to_string(others)
                    : "retry=" + std::to_string(others);
        return Line(transfer.slot, 'E',
                    std::string("ioctl(") + backend.request +
                        (IsZel() ? transfer.failed_zel : transfer.failed_mivo) + ") is failed(" +
                        counts + ") : " + strerror(error));
    }
    // What the wait for a transfer's end says.
    std::string Waited(const std::string& text) const { return Line("PollWait", 'E', text); }

    // The unit is as good as new.
    void Reopen()
    {
        bench->ClearFaults(backend.place);
        Exit();
        handle = HandleFor(backend.node);
        Open();
        bench->ClearCalls(backend.place);
        retried = 7;
    }

    static constexpr uint32_t kTold = 1;
    static constexpr uint32_t kNotTold = 2;
    uint32_t retried = 7;
};

class ZelRetry : public Retry {};
class MivoRetry : public Retry {};
INSTANTIATE_TEST_SUITE_P(Policy, Retry, testing::Values(kZel, kMivo), NameOf);
INSTANTIATE_TEST_SUITE_P(Policy, ZelRetry, testing::Values(kZel), NameOf);
INSTANTIATE_TEST_SUITE_P(Policy, MivoRetry, testing::Values(kMivo), NameOf);

// --- a Zel driver that is busy ------------------------------------------------------------

// 0.4 s after each busy answer, a reset, and the same request.
TEST_P(ZelRetry, BearsNineBusyAnswers)
{
    for (const Transfer& transfer : kTransfers) {
        for (const int busy : {1, 2, 9}) {
            SCOPED_TRACE(std::string(transfer.slot) + " " + std::to_string(busy));
            Reopen();
            const uint32_t request = backend.requests.*transfer.first;
            Answer(request, static_cast<uint64_t>(busy), EBUSY);
            std::string warnings;
            std::vector<uint32_t> calls;
            for (int i = 1; i <= busy; i++) {
                warnings += Busy(transfer, i);
                calls.insert(calls.end(), {request, backend.requests.reset});
            }
            calls.insert(calls.end(), {request, kTold});
            Takes(busy * kPause, [&] {
                EXPECT_EQ(warnings, Printed([&] { EXPECT_EQ(Good(transfer), Run(transfer)); }));
            });
            EXPECT_EQ(calls, Seen());
            ExpectPauses(request, static_cast<size_t>(busy), kPause);
            // Busy answers are no retries for the caller.
            EXPECT_EQ(transfer.slot == std::string("DrctWrite") ? 0u : 7u, retried);
        }
    }
}

TEST_P(ZelRetry, GivesUpAtTheTenthBusyAnswer)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        Answer(backend.requests.*transfer.first, BenchFault::kForEver, EBUSY);
        std::string lines;
        for (int i = 1; i <= 9; i++) {
            lines += Busy(transfer, i);
        }
        lines += GivenUp(transfer, 10, 0, EBUSY);
        Takes(9 * kPause,
              [&] { EXPECT_EQ(lines, Printed([&] { EXPECT_EQ(-5, Run(transfer)); })); });
        EXPECT_EQ(19u, Seen().size());
        ExpectPauses(backend.requests.*transfer.first, 9, kPause);
    }
}

// The two counters know nothing of each other: 12 tries at most.
TEST_P(ZelRetry, CountsBusyAndOtherFailuresApart)
{
    const Transfer& read = kTransfers[0];
    const uint32_t request = backend.requests.read;
    Answer(request, 4, EBUSY);
    Answer(request, 1, EIO, 5);
    Answer(request, 5, EBUSY, 6);
    Answer(request, 1, EILSEQ, 11);
    Takes(9 * kPause, [&] {
        const std::string printed = Printed([&] { EXPECT_EQ(512, Run(read)); });
        EXPECT_NE(std::string::npos, printed.find(Busy(read, 9)));
        EXPECT_NE(std::string::npos, printed.find(Again(read, 2)));
        EXPECT_EQ(std::string::npos, printed.find("failed"));
    });
    EXPECT_EQ(size_t{2} * 11 + 2, Seen().size());
    Reopen();
    Answer(request, 9, EBUSY);
    Answer(request, 3, EIO, 10);
    Takes(9 * kPause, [&] {
        const std::string printed = Printed([&] { EXPECT_EQ(-5, Run(read)); });
        EXPECT_NE(std::string::npos, printed.find(GivenUp(read, 9, 3, EIO))) << printed;
    });
    EXPECT_EQ(size_t{2} * 11 + 1, Seen().size());
}

TEST_P(ZelRetry, AsksForTheStatusTenTimes)
{
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    for (const uint64_t busy : {uint64_t{1}, uint64_t{3}, uint64_t{9}, uint64_t{10}}) {
        SCOPED_TRACE(busy);
        bench->ClearCalls(backend.place);
        Answer(backend.requests.status, busy, EBUSY);
        uint16_t status = 0;
        const auto pauses = static_cast<int>(std::min(busy, uint64_t{9}));
        Takes(pauses * kPause, [&] {
            EXPECT_EQ(busy < 10 ? ""
                                : "[zel:__Zel_CheckEject(#)](E)ioctl(ZEL_GET_CARD_STATUS) is "
                                  "failed(retry=10) : Device or resource busy\n",
                      Printed([&] { EXPECT_EQ(0, CARD_Getstatus(&handle, &status)); }));
        });
        EXPECT_EQ(CARD_STATUS_READY, status);  // a failed question is no eject
        ExpectPauses(backend.requests.status, static_cast<size_t>(pauses), kPause);
    }
    EXPECT_EQ(0, ejects);
}

TEST_P(ZelRetry, AsksForTheStatusAgainAtOnceWhileUnfinished)
{
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    BenchFault unfinished;
    unfinished.request = backend.requests.status;
    unfinished.result = 1;
    unfinished.times = 50;
    bench->Inject(backend.place, unfinished);
    uint16_t status = 0;
    Takes(milliseconds(0), [&] { EXPECT_EQ(0, CARD_Getstatus(&handle, &status)); });
    EXPECT_EQ(51u, SentRequests().size());
    Answer(backend.requests.status, 1, ENODEV);
    Takes(milliseconds(0), [&] {
        EXPECT_EQ(
            "[zel:__Zel_CheckEject(#)](E)ioctl(ZEL_GET_CARD_STATUS) is failed(retry=0) : "
            "No such device\n",
            Printed([&] { EXPECT_EQ(0, CARD_Getstatus(&handle, &status)); }));
    });
    EXPECT_EQ(0, ejects);
}

TEST_P(ZelRetry, AsksForTheProtectionTenTimes)
{
    for (const uint64_t busy : {uint64_t{1}, uint64_t{3}, uint64_t{9}, uint64_t{10}}) {
        SCOPED_TRACE(busy);
        bench->ClearCalls(backend.place);
        Answer(backend.requests.protection, busy, EBUSY);
        const auto pauses = static_cast<int>(std::min(busy, uint64_t{9}));
        Takes(pauses * kPause, [&] {
            EXPECT_EQ(
                busy < 10 ? ""
                          : "[zel:Zel_CardGetWriteProtect(#)](E)"
                            "ioctl(ZEL_CHECK_WRITE_PROTECT) is failed(retry=10) : Device or "
                            "resource busy\n",
                Printed([&] { EXPECT_EQ(busy < 10 ? 0 : -5, CARD_GetWriteProtect(&handle)); }));
        });
        ExpectPauses(backend.requests.protection, static_cast<size_t>(pauses), kPause);
    }
    Answer(backend.requests.protection, 1, EIO);
    Takes(milliseconds(0), [&] {
        EXPECT_EQ(
            "[zel:Zel_CardGetWriteProtect(#)](E)ioctl(ZEL_CHECK_WRITE_PROTECT) is "
            "failed(retry=0) : Input/output error\n",
            Printed([&] { EXPECT_EQ(-5, CARD_GetWriteProtect(&handle)); }));
    });
}

// An end that never comes counts by the errno that stands there.
TEST_P(ZelRetry, TakesATimeOutForBusyWhereErrnoSaysSo)
{
    const Transfer& read = kTransfers[0];
    BenchFault never;
    never.request = backend.requests.read;
    never.never = true;
    never.times = 2;
    bench->Inject(backend.place, never);
    const std::string timeout = Waited("poll timeout: Device or resource busy");
    Takes(2 * (kPatience + kPause), [&] {
        EXPECT_EQ(timeout + Busy(read, 1) + timeout + Busy(read, 2), Printed([&] {
                      errno = EBUSY;
                      EXPECT_EQ(512, Run(read));
                  }));
    });
}

// Ten tries that each wait for an end, and the pauses between them.
TEST_P(ZelRetry, WaitsLongestForADriverThatNeverEnds)
{
    const Transfer& read = kTransfers[0];
    BenchFault never;
    never.request = backend.requests.read;
    never.never = true;
    never.times = BenchFault::kForEver;
    bench->Inject(backend.place, never);
    Takes(10 * kPatience + 9 * kPause, [&] {
        const std::string printed = Printed([&] {
            errno = EBUSY;
            EXPECT_EQ(-5, Run(read));
        });
        EXPECT_NE(std::string::npos, printed.find(GivenUp(read, 10, 0, EBUSY)));
    });
    ExpectPauses(backend.requests.read, 9, kPatience + kPause);
}

// A failed request of the driver's signals nothing, and nobody waits for it.
TEST_P(ZelRetry, DoesNotWaitForTheEndOfAFailedRequest)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        const uint32_t first = backend.requests.*transfer.first;
        const uint32_t again = backend.requests.*transfer.retry;
        Answer(first, 2, EIO);
        if (again != first) {
            Answer(again, 1, EIO);
        }
        Takes(milliseconds(0), [&] {
            EXPECT_EQ(Again(transfer, 1) + Again(transfer, 2),
                      Printed([&] { EXPECT_EQ(Good(transfer), Run(transfer)); }));
        });
        const uint32_t reset = backend.requests.reset;
        EXPECT_EQ((std::vector<uint32_t>{first, reset, again, reset, again, kTold}), Seen());
        EXPECT_EQ(again != first ? 1u : 7u, retried);
    }
}

// --- both ---------------------------------------------------------------------------------

TEST_P(Retry, GivesUpAtTheThirdFailureAndRefusesToWriteFromThen)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        // With `reach` a Mivo driver signals the end, so that nothing is waited for.
        BenchFault failure;
        failure.error = EIO;
        failure.reach = !IsZel();
        failure.times = BenchFault::kForEver;
        for (const uint32_t request :
             {backend.requests.*transfer.first, backend.requests.*transfer.retry}) {
            failure.request = request;
            bench->Inject(backend.place, failure);
        }
        Takes(milliseconds(0), [&] {
            EXPECT_EQ(Again(transfer, 1) + Again(transfer, 2) + GivenUp(transfer, 0, 3, EIO),
                      Printed([&] { EXPECT_EQ(-5, Run(transfer)); }));
        });
        bench->ClearFaults(backend.place);
        bench->ClearCalls(backend.place);
        for (const Transfer& next : kTransfers) {
            SCOPED_TRACE(next.slot);
            const std::string slot = next.slot;
            const bool runs = slot == "DrctRead" || (slot == "DrctRMW" && IsZel());
            EXPECT_EQ(Outcome{runs ? Good(next) : -5}, OutcomeOf([&] { return Run(next); }));
        }
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Write(&handle, memory.data(), 1, 40, 0, &result));
        EXPECT_EQ(10, result.error);
        result = {};
        EXPECT_EQ(0, CARD_Read(&handle, memory.data(), 1, 40, 0, &result));
        EXPECT_EQ(0, result.error);
        EXPECT_EQ(512, result.length);
    }
}

// Each try has its 4 s.
TEST_P(Retry, WaitsFourSecondsForEachEnd)
{
    for (const Transfer& transfer : kTransfers) {
        for (const int times : {1, 3}) {
            SCOPED_TRACE(std::string(transfer.slot) + " " + std::to_string(times));
            Reopen();
            BenchFault never;
            never.never = true;
            never.times = static_cast<uint64_t>(times);
            never.request = backend.requests.*transfer.first;
            bench->Inject(backend.place, never);
            if (transfer.retry != transfer.first && times > 1) {
                never.request = backend.requests.*transfer.retry;
                bench->Inject(backend.place, never);
            }
            const std::string timeout = Waited("poll timeout: Success");
            std::string lines = timeout + Again(transfer, 1);
            if (times == 3) {
                lines += timeout + Again(transfer, 2) + timeout + GivenUp(transfer, 0, 3, 0);
            }
            Takes(times * kPatience, [&] {
                EXPECT_EQ(lines, Printed([&] {
                              errno = 0;
                              EXPECT_EQ(times == 1 ? Good(transfer) : -5, Run(transfer));
                          }));
            });
        }
    }
}

// An end of any other kind is a failure at once.
TEST_P(Retry, TakesOtherEventsForFailures)
{
    struct Told {
        short events;
        const char* line;
    };
    const Transfer& read = kTransfers[0];
    for (const Told& told : {Told{0x01, "POLLIN"}, Told{0x05, "POLLIN"}, Told{0x08, "POLLERR"},
                             Told{0x0C, "POLLERR"}, Told{0x10, "POLLHUP"}, Told{0x1D, "POLLHUP"}}) {
        SCOPED_TRACE(told.events);
        BenchFault other;
        other.kind = BenchCallKind::Poll;
        other.events = told.events;
        bench->Inject(backend.place, other);
        Takes(milliseconds(0), [&] {
            EXPECT_EQ(Waited(std::string("poll returns ") + told.line) + Again(read, 1),
                      Printed([&] {
                          errno = 0;
                          EXPECT_EQ(Good(read), Run(read));
                      }));
        });
    }
}

// "Not finished" is asked again at once, as often as it takes.
TEST_P(Retry, RepeatsWhatIsNotFinished)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        BenchFault unfinished;
        unfinished.request = backend.requests.*transfer.first;
        unfinished.result = 1;
        unfinished.reach = true;  // its end is told
        unfinished.times = 20;
        bench->Inject(backend.place, unfinished);
        Takes(milliseconds(0),
              [&] { EXPECT_EQ("", Printed([&] { EXPECT_EQ(Good(transfer), Run(transfer)); })); });
        EXPECT_EQ(21u, SentRequests().size());
    }
}

// The driver takes its time, which is no failure while it is within the patience.
TEST_P(Retry, WaitsForAsLongAsATransferTakes)
{
    const Transfer& read = kTransfers[0];
    for (const milliseconds latency : {milliseconds(1), milliseconds(250), milliseconds(3999)}) {
        bench->Latency(backend.place, latency);
        const nanoseconds before = bench->Now();
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(Good(read), Run(read)); }));
        const nanoseconds took = bench->Now() - before;
        EXPECT_GE((latency + bench->Slack()).count(), took.count());
        if (bench->Slack().count() != 0) {  // where time passes at all
            EXPECT_LE(nanoseconds(latency).count(), took.count());
        }
    }
}

// A failure is not taken for an eject until the next look; a driver without a card ends
// the retries.
TEST_P(Retry, EndsWithTheCard)
{
    const Transfer& write = kTransfers[1];
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    BenchFault leave;
    leave.request = backend.requests.sequential_write;
    leave.error = EIO;
    leave.reach = true;
    leave.eject = true;
    bench->Inject(backend.place, leave);
    const uint32_t resets = bench->State(backend.place, "resets");
    const std::string gone =
        IsZel() ? Again(write, 2) + GivenUp(write, 0, 3, ENODEV)
                : Waited("poll timeout: No such device") + GivenUp(write, 0, 2, ENODEV);
    Takes(IsZel() ? milliseconds(0) : kPatience,
          [&] { EXPECT_EQ(Again(write, 1) + gone, Printed([&] { EXPECT_EQ(-5, Run(write)); })); });
    EXPECT_EQ(0, ejects);
    EXPECT_EQ(resets + (IsZel() ? 2 : 1), bench->State(backend.place, "resets"));
    EXPECT_EQ(-5, Run(kTransfers[0]));
    EXPECT_EQ(1, ejects);
}

// --- a Mivo driver ----------------------------------------------------------------------------

// Its failed requests are expected to signal their end, and waited for.
TEST_P(MivoRetry, WaitsForTheEndOfAFailedRequest)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        const uint32_t first = backend.requests.*transfer.first;
        const uint32_t again = backend.requests.*transfer.retry;
        const uint32_t reset = backend.requests.reset;
        Answer(first, 1, EIO);
        const std::string timeout = Waited("poll timeout: Input/output error");
        Takes(kPatience, [&] {
            EXPECT_EQ(timeout + Again(transfer, 1),
                      Printed([&] { EXPECT_EQ(Good(transfer), Run(transfer)); }));
        });
        EXPECT_EQ((std::vector<uint32_t>{first, kNotTold, reset, again, kTold}), Seen());
        EXPECT_EQ(again != first ? 1u : 7u, retried);
    }
}

// Busy is a failure like any other: no pause.
TEST_P(MivoRetry, KnowsNoBusy)
{
    const Transfer& read = kTransfers[0];
    Answer(backend.requests.read, BenchFault::kForEver, EBUSY);
    Takes(3 * kPatience, [&] {
        const std::string printed = Printed([&] { EXPECT_EQ(-5, Run(read)); });
        EXPECT_NE(std::string::npos, printed.find(GivenUp(read, 0, 3, EBUSY)));
    });
    ExpectPauses(backend.requests.read, 2, kPatience);
}

TEST_P(MivoRetry, GivesUpAtOnceWhenTheDeviceHasGone)
{
    for (const Transfer& transfer : kTransfers) {
        SCOPED_TRACE(transfer.slot);
        Reopen();
        Answer(backend.requests.*transfer.first, 1, ENODEV);
        Takes(kPatience, [&] {
            EXPECT_EQ(Waited("poll timeout: No such device") + GivenUp(transfer, 0, 1, ENODEV),
                      Printed([&] { EXPECT_EQ(-5, Run(transfer)); }));
        });
        EXPECT_EQ((std::vector<uint32_t>{backend.requests.*transfer.first, kNotTold}), Seen());
    }
}

TEST_P(MivoRetry, AsksOnceForStatusAndProtection)
{
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    Answer(backend.requests.status, 1, EBUSY);
    uint16_t status = 0;
    Takes(milliseconds(0), [&] {
        EXPECT_EQ(
            "[mivosdif:__Mivo_CheckEject(#)](E)ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is failed "
            ": Device or resource busy\n",
            Printed([&] { EXPECT_EQ(0, CARD_Getstatus(&handle, &status)); }));
    });
    Answer(backend.requests.protection, 1, EBUSY);
    Takes(milliseconds(0), [&] {
        EXPECT_EQ(
            "[mivosdif:Mivo_CardGetWriteProtect(#)](E)ioctl(MIVOSDIF_IOC_GET_WRITE_PROTECT) "
            "is failed : Device or resource busy\n",
            Printed([&] { EXPECT_EQ(-5, CARD_GetWriteProtect(&handle)); }));
    });
    // 1 says that the card has gone, 2 nothing.
    for (const int answer : {2, 1}) {
        BenchFault other;
        other.request = backend.requests.status;
        other.result = answer;
        bench->Inject(backend.place, other);
        EXPECT_EQ(answer == 1 ? kRemoved : 0, CARD_Getstatus(&handle, &status));
        EXPECT_EQ(answer == 1 ? 1 : 0, ejects);
    }
}

// --- opening and closing ------------------------------------------------------------------------

// An event that waits is looked for, for a millisecond each time.
TEST_P(Retry, LooksForAnOldEventWhenItOpensAndCloses)
{
    Exit();
    handle = HandleFor(backend.node);
    Takes(milliseconds(1), [&] { Open(); });
    Takes(milliseconds(1), [&] { Exit(); });
}

TEST_P(Retry, ForgetsAnEndThatNobodyWaitedFor)
{
    const Transfer& read = kTransfers[0];
    // The driver ends it badly for this caller, and signals the end nevertheless.
    BenchFault failure;
    failure.request = backend.requests.read;
    failure.error = EIO;
    failure.reach = true;
    bench->Inject(backend.place, failure);
    Takes(milliseconds(0),
          [&] { EXPECT_EQ(Again(read, 1), Printed([&] { EXPECT_EQ(Good(read), Run(read)); })); });
    EXPECT_EQ(backend.requests.read, SentRequests().front());
    // The reset took the first end away; there is none left.
    const std::vector<uint32_t> seen = Seen();
    EXPECT_EQ(IsZel() ? 1 : 2, std::count(seen.begin(), seen.end(), kTold));
}

}  // namespace
