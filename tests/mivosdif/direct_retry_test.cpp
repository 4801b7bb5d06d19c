// SPDX-License-Identifier: MIT
//
// What the five direct requests of the Mivo back-end do when the driver does not
// finish them at once: what is sent again, with which words, and when it is given
// up.
#include <map>

#include "tests/mivosdif/transfer_fixture.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;

constexpr uint32_t kSector = 5;
constexpr uint32_t kMoved = 2;

// One operation on two sectors from kSector on, out of or into `buffer`.
struct Operation {
    const char* name;
    const char* function;
    const char* word;  // in the messages
    uint32_t request;  // the first try's ...
    uint32_t later;    // ... and the one from the first retry on
    bool to_card;
    bool allocates;
    int32_t success;
    int32_t (*run)(DrvInfo* handle, uint32_t address, uint32_t* retried);
};

void PrintTo(const Operation& op, std::ostream* out)
{
    *out << op.name;
}

int32_t RunDirectWrite(DrvInfo* handle, uint32_t address, uint32_t flag, uint32_t* retried)
{
    Chunks chunks{{address, 700}, {address + 700, 324}};
    return DevDrctWrite(handle, kSector, kMoved, chunks.get(), flag, retried);
}

const Operation kOperations[] = {
    {"DrctRead", "Mivo_DrctRead", "MIVOSDIF_IOC_DIRECT_READ", kRead, kRead, false, false, 2,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Chunks chunks{{address, 1024}};
         return DevDrctRead(handle, kSector, kMoved, chunks.get());
     }},
    {"DrctWriteFlag0", "Mivo_DrctWrite", "MIVOSDIF_IOC_DIRECT_WRITE", kAltWrite, kWrite, true,
     false, 2,
     [](DrvInfo* handle, uint32_t address, uint32_t* retried) {
         return RunDirectWrite(handle, address, 0, retried);
     }},
    {"DrctWriteFlag1", "Mivo_DrctWrite", "MIVOSDIF_IOC_DIRECT_WRITE", kWrite, kWrite, true, false,
     2,
     [](DrvInfo* handle, uint32_t address, uint32_t* retried) {
         return RunDirectWrite(handle, address, 1, retried);
     }},
    {"DrctRMW", "Mivo_DrctRMW", "MIVOSDIF_IOC_DIRECT_RMW", kRmw, kRmw, true, true, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Elements list{{address, 1, kSector, nullptr}, {address + 512, 1, kSector + 1, nullptr}};
         return DevDrctRMW(handle, list.get());
     }},
    {"FatWrite", "Mivo_FatWrite", "MIVOSDIF_IOC_FSMI_WRITE", kFsmiWrite, kFsmiWrite, true, true, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Elements list{{address, 1, kSector, nullptr}, {address + 512, 1, kSector + 1, nullptr}};
         return DevFatWrite(handle, list.get());
     }},
    {"SdCmdWrite", "Mivo_SdCmdWrite", "MIVOSDIF_IOC_SDCMD_WRITE", kSdCmdWrite, kSdCmdWrite, true,
     false, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         return DevSdCmdWrite(handle, reinterpret_cast<const void*>(uintptr_t{address}), kMoved,
                              kSector, 0x12, 0x34);
     }},
};

// What the driver makes of one try. It is waited for even where the request fails.
struct Answer {
    int64_t result;    // of the request
    int error;         // of the request
    bool times_out;    // the wait
    short revents;     // the wait's, where it neither times out nor fails
    int wait_error;    // the wait's errno; with `revents` beside a success
    const char* line;  // of the wait; "%s" where the text of errno stands
};

constexpr short kNoEvent = 0;

// Named by a letter, so that a row of the table reads as a sequence of tries.
const std::map<char, Answer> kAnswers = {
    {'.', {0, 0, false, POLLOUT, 0, ""}},
    {'+', {7, 0, false, POLLOUT, 0, ""}},  // not finished: again, uncounted
    // the request fails, its end is signalled
    {'e', {-1, EIO, false, POLLOUT, 0, ""}},
    {'b', {-1, EBUSY, false, POLLOUT, 0, ""}},
    {'a', {-1, EAGAIN, false, POLLOUT, 0, ""}},
    {'m', {-1, ENOMEDIUM, false, POLLOUT, 0, ""}},
    {'d', {-1, ENODEV, false, POLLOUT, 0, ""}},
    // the wait fails, too, and errno is the later one's
    {'f', {-1, EIO, true, 0, 0, "poll timeout: %s\n"}},
    {'D', {-1, ENODEV, true, 0, 0, "poll timeout: %s\n"}},
    {'g', {-1, EIO, false, 0, EINTR, "poll error : %s\n"}},
    {'G', {-1, EIO, false, 0, ENODEV, "poll error : %s\n"}},
    {'x', {-1, ENODEV, false, 0, EINTR, "poll error : %s\n"}},
    {'y', {-1, ENODEV, false, POLLOUT, EIO, ""}},
    {'Y', {-1, EIO, false, POLLOUT, ENODEV, ""}},
    {'z', {-1, EIO, false, POLLERR | POLLOUT, 0, "poll returns POLLERR\n"}},
    // the wait alone fails
    {'t', {0, 0, true, 0, 0, "poll timeout: %s\n"}},
    {'T', {7, 0, true, 0, 0, "poll timeout: %s\n"}},
    {'p', {0, 0, false, 0, EINTR, "poll error : %s\n"}},
    {'P', {7, 0, false, 0, EINTR, "poll error : %s\n"}},
    {'n', {0, 0, false, 0, ENODEV, "poll error : %s\n"}},
    {'0', {0, 0, false, kNoEvent, 0, "Unknown poll events: 0x00000000\n"}},
    {'H', {0, 0, false, POLLHUP, 0, "poll returns POLLHUP\n"}},
    {'h', {0, 0, false, POLLHUP | POLLOUT, 0, "poll returns POLLHUP\n"}},
    {'R', {0, 0, false, POLLERR, 0, "poll returns POLLERR\n"}},
    {'r', {0, 0, false, POLLERR | POLLOUT, 0, "poll returns POLLERR\n"}},
    {'V', {0, 0, false, POLLNVAL, 0, "poll returns POLLNVAL\n"}},
    {'v', {0, 0, false, POLLNVAL | POLLOUT, 0, "poll returns POLLNVAL\n"}},
    {'I', {0, 0, false, POLLIN, 0, "poll returns POLLIN\n"}},
    {'i', {0, 0, false, POLLIN | POLLOUT, 0, "poll returns POLLIN\n"}},
    {'O', {0, 0, false, POLLPRI, 0, "poll returns another event POLL???\n"}},
    {'o', {0, 0, false, POLLPRI | POLLOUT, 0, "poll returns another event POLL???\n"}},
    {'J', {0, 0, false, POLLIN, ENODEV, "poll returns POLLIN\n"}},
    {'j', {0, 0, false, POLLIN, EIO, "poll returns POLLIN\n"}},
};

// The errno that the program finds there, the driver's tries, and what the library
// makes of each: '.' done, '+' again at once, 'e' retry, 'E' given up.
struct Row {
    int before;
    const char* tries;
    const char* ends;
};

const Row kRows[] = {
    {0, ".", "."},
    {EIO, ".", "."},
    {ENODEV, ".", "."},
    // one counter, and every failure counts
    {0, "e.", "e."},
    {0, "ee.", "ee."},
    {0, "eee", "eeE"},
    {0, "bbb", "eeE"},
    {0, "bb.", "ee."},
    {0, "mae", "eeE"},
    {0, "ebm", "eeE"},
    {0, "ebt", "eeE"},
    {EBUSY, "tbe", "eeE"},
    {ENODEV, "ee.", "ee."},
    // a device that has gone
    {0, "d", "E"},
    {0, "ed", "eE"},
    {0, "bed", "eeE"},
    {0, "D", "E"},
    {0, "n", "E"},
    {0, "en", "eE"},
    {0, "J", "E"},
    {EIO, "+J", "+E"},
    // errno after the wait decides
    {0, "f.", "e."},
    {0, "fff", "eeE"},
    {0, "g.", "e."},
    {0, "ggg", "eeE"},
    {0, "G", "E"},
    {0, "Y", "E"},
    {0, "x.", "e."},
    {0, "xxx", "eeE"},
    {0, "y.", "e."},
    {0, "yyy", "eeE"},
    {0, "yD", "eE"},
    {0, "zz.", "ee."},
    {ENODEV, "z.", "e."},
    // positive answers, unless the wait fails
    {0, "+.", "+."},
    {0, "+++++++++++++.", "+++++++++++++."},
    {0, "+e+e+.", "+e+e+."},
    {0, "+e+e+e", "+e+e+E"},
    {0, "e++e++d", "e++e++E"},
    {0, "T.", "e."},
    {0, "TTT", "eeE"},
    {0, "P.", "e."},
    {0, "+P+T+P", "+e+e+E"},
    {ENODEV, "T", "E"},
    {ENODEV, "++.", "++."},
    // time-outs: an earlier errno decides
    {0, "t.", "e."},
    {0, "tt.", "ee."},
    {0, "ttt", "eeE"},
    {EIO, "ttt", "eeE"},
    {EBUSY, "t.", "e."},
    {ENODEV, "t", "E"},
    {ENODEV, "+t", "+E"},
    {ENODEV, "et.", "ee."},
    {ENODEV, "ptt", "eeE"},
    {0, "et.", "ee."},
    {0, "btt", "eeE"},
    // waits that fail
    {0, "p.", "e."},
    {EBUSY, "ppp", "eeE"},
    {ENODEV, "p.", "e."},
    {0, "ptp", "eeE"},
    // no event at all
    {0, "0.", "e."},
    {0, "000", "eeE"},
    {EIO, "00.", "ee."},
    {ENODEV, "0", "E"},
    // each event alone and beside the one that was waited for
    {0, "HhR", "eeE"},
    {0, "rVv", "eeE"},
    {0, "IiO", "eeE"},
    {0, "o.", "e."},
    {EIO, "Ii.", "ee."},
    {EBUSY, "Rrh", "eeE"},
    {ENODEV, "I", "E"},
    {ENODEV, "h", "E"},
    {ENODEV, "r", "E"},
    {ENODEV, "o", "E"},
    {ENODEV, "v", "E"},
    {ENODEV, "j.", "e."},
    {EBUSY, "jjj", "eeE"},
};

class MivoRetry : public MivoTransfer, public testing::WithParamInterface<Operation> {
protected:
    // Script the driver's tries; `on_call` runs in every call.
    void Inject(const Row& row, const std::function<void()>& on_call)
    {
        uint64_t requests = 0;  // resets included
        uint64_t waits = 0;
        for (size_t i = 0; row.tries[i] != '\0'; i++) {
            const Answer& answer = kAnswers.at(row.tries[i]);
            Fault request;
            request.kind = CallKind::Ioctl;
            request.first = ++requests;
            request.error = answer.error;
            request.reach_driver = true;
            if (answer.result > 0) {
                request.result = answer.result;
            }
            if (answer.error != 0) {
                request.reach_driver = false;
            }
            request.then = on_call;
            kernel.Inject(request);
            kernel.Inject(Wait(answer, ++waits, on_call));
            if (row.ends[i] == 'e') {
                requests++;  // the reset
            }
        }
        Fault any;
        any.times = Fault::kForEver;
        any.then = on_call;
        for (const CallKind kind : {CallKind::Ioctl, CallKind::Poll, CallKind::Sleep}) {
            any.kind = kind;
            kernel.Inject(any);
        }
    }

    static Fault Wait(const Answer& answer, uint64_t which, const std::function<void()>& on_call)
    {
        Fault wait;
        wait.kind = CallKind::Poll;
        wait.first = which;
        wait.then = on_call;
        if (answer.times_out) {
            wait.result = 0;
        } else if (answer.wait_error != 0 && answer.revents == 0) {
            wait.error = answer.wait_error;
        } else {
            wait.result = 1;
            wait.revents = answer.revents;
            wait.error = answer.wait_error;
            wait.reach_driver = true;
        }
        return wait;
    }

    struct Expected {
        Trace trace;
        std::string printed;
        std::chrono::nanoseconds passed{0};
        int left = 0;  // errno
        bool done = false;
        bool retried = false;
    };

    static std::string FailureText(int tries, int error)
    {
        return std::string("ioctl(") + GetParam().word +
               ") is failed(retry=" + std::to_string(tries) + ") : " + strerror(error);
    }

    Expected Expect(const Row& row) const
    {
        const Operation& op = GetParam();
        Expected expected;
        expected.left = row.before;
        uint32_t request = op.request;
        int errors = 0;
        if (op.allocates) {
            expected.trace.push_back("malloc(32)");
        }
        for (size_t i = 0; row.tries[i] != '\0'; i++) {
            AddTry(kAnswers.at(row.tries[i]), request, expected);
            switch (row.ends[i]) {
                case '.':
                    expected.done = true;
                    break;
                case 'e':
                    expected.printed +=
                        WarningLine(op.function, std::string("Retry ") + op.word +
                                                     " : retry=" + std::to_string(++errors) + "!");
                    expected.trace.push_back(Ioctl(kReset));
                    expected.retried = true;
                    request = op.later;
                    break;
                case 'E':
                    expected.printed +=
                        ErrorLine(op.function, FailureText(++errors, expected.left));
                    break;
                default:
                    break;
            }
        }
        if (op.allocates) {
            expected.trace.push_back("free() = 0");
        }
        return expected;
    }

    static void AddTry(const Answer& answer, uint32_t request, Expected& expected)
    {
        const bool failed = answer.error != 0;
        expected.trace.push_back(
            Ioctl(request, failed ? Failed(answer.error) : std::to_string(answer.result)));
        expected.left = failed ? answer.error : expected.left;
        std::string result = answer.times_out ? "0" : "1";
        if (answer.wait_error != 0) {
            result = answer.revents == 0 ? Failed(answer.wait_error)
                                         : result + " " + strerrorname_np(answer.wait_error);
            expected.left = answer.wait_error;
        }
        expected.trace.push_back(Poll(result));
        if (answer.times_out) {
            expected.passed += std::chrono::seconds(4);
        }
        std::string line = answer.line;
        if (line.empty()) {
            return;
        }
        const size_t text = line.find("%s");
        if (text != std::string::npos) {
            line.replace(text, 2, strerror(expected.left));
        }
        line.pop_back();
        expected.printed += ErrorLine("Mivo_PollWait", line);
    }

    // With what surrounds the calls of an operation that needs memory.
    static Trace Framed(Trace calls)
    {
        if (GetParam().allocates) {
            calls.insert(calls.begin(), "malloc(32)");
            calls.push_back("free() = 0");
        }
        return calls;
    }

    // A fresh device and data to move.
    void Prepare()
    {
        Reopen();
        seed_ += 13;
        PutOnCard(kSector, Pattern(kMoved, seed_));
        FillBuffer(Pattern(kMoved, seed_ + 7));
        kernel.ClearCalls();
    }

    void ExpectMoved()
    {
        const Bytes in_memory = MemoryAt(AddressOf(buffer.data()), kMoved * 512);
        EXPECT_EQ(OnCard(kSector, kMoved), in_memory);
        EXPECT_EQ(Pattern(kMoved, GetParam().to_card ? seed_ + 7 : seed_), in_memory);
    }

    // The same node and the same record for every try; resets carry nothing.
    void ExpectArguments()
    {
        uintptr_t record = 0;
        for (const Call& call : kernel.Calls()) {
            if (call.kind == CallKind::Ioctl || call.kind == CallKind::Poll) {
                EXPECT_EQ(dev.chr_fd, call.fd);
            }
            if (call.kind == CallKind::Ioctl && call.request == kReset) {
                EXPECT_EQ(0u, call.argument);
            } else if (call.kind == CallKind::Ioctl) {
                record = record == 0 ? call.argument : record;
                EXPECT_NE(0u, call.argument);
                EXPECT_EQ(record, call.argument);
            }
        }
    }

    int32_t Run(uint32_t* retried) { return GetParam().run(&handle, buffer.address(), retried); }

    uint32_t seed_ = 0;
};

TEST_P(MivoRetry, FollowsTheTable)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(testing::Message() << "errno " << row.before << ", tries " << row.tries);
        ASSERT_EQ(strlen(row.tries), strlen(row.ends));
        const Expected expected = Expect(row);
        Prepare();
        size_t locked = 0;
        Inject(row, [&] { locked += LockIsFree() ? 0u : 1u; });
        const std::chrono::nanoseconds started = kernel.Now();
        uint32_t retried = 0xABAB;
        int32_t result = 1;
        int left = 0;
        EXPECT_EQ(expected.printed, Printed([&] {
                      errno = row.before;
                      result = Run(&retried);
                      left = errno;
                  }));
        EXPECT_EQ(expected.done ? GetParam().success : -5, result);
        EXPECT_EQ(expected.left, left);
        EXPECT_EQ(expected.trace, TraceOf(kernel));
        EXPECT_EQ(expected.passed, kernel.Now() - started);
        EXPECT_EQ(expected.done ? 0 : 1, dev.io_error);
        EXPECT_EQ(0, dev.ejected);
        // From the first request to the last wait.
        EXPECT_EQ(expected.trace.size() - (GetParam().allocates ? 2u : 0u), locked);
        EXPECT_TRUE(LockIsFree());
        if (GetParam().function == std::string("Mivo_DrctWrite")) {
            EXPECT_EQ(expected.retried ? 1u : 0u, retried);
        }
        ExpectArguments();
        if (expected.done) {
            ExpectMoved();
        }
    }
}

// A full disk below standard output makes every printf fail, and libc asks once
// what kind of file it is: neither may decide what is tried again.
TEST_P(MivoRetry, FollowsTheTableWherePrintingFails)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(testing::Message() << "errno " << row.before << ", tries " << row.tries);
        const Expected expected = Expect(row);
        Prepare();
        Inject(row, [] {});
        uint32_t retried = 0;
        EXPECT_EQ(expected.left, ErrnoAfter(row.before, [&] { Run(&retried); }));
        EXPECT_EQ(expected.trace, TraceOf(kernel));
    }
}

// Nothing counts answers that are no failures: a driver that never finishes is asked for as
// long as it says so.
TEST_P(MivoRetry, AsksAnUnfinishedDriverWithoutEnd)
{
    constexpr uint64_t kUnfinished = 100'000;
    Prepare();
    Fault unfinished;
    unfinished.request = GetParam().request;
    unfinished.times = kUnfinished;
    unfinished.result = 7;
    kernel.Inject(unfinished);
    Fault told;
    told.kind = CallKind::Poll;
    told.times = kUnfinished;
    told.revents = POLLOUT;
    kernel.Inject(told);
    const std::chrono::nanoseconds started = kernel.Now();
    uint32_t retried = 0;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(GetParam().success, Run(&retried)); }));
    EXPECT_EQ(started, kernel.Now());
    EXPECT_EQ(2 * (kUnfinished + 1) + (GetParam().allocates ? 2 : 0), kernel.Calls().size());
    ExpectArguments();
    ExpectMoved();
    EXPECT_EQ(0u, retried);
    EXPECT_EQ(0, dev.io_error);
    EXPECT_TRUE(LockIsFree());
}

// Two failures are borne by each call, not by each device.
TEST_P(MivoRetry, CountsAfreshInEachCall)
{
    Prepare();
    uint32_t retried = 0;
    for (int call = 0; call < 4; call++) {
        kernel.ClearFaults();
        Inject({0, "ee.", "ee."}, [] {});
        Printed([&] { EXPECT_EQ(GetParam().success, Run(&retried)); });
    }
    EXPECT_EQ(0, dev.io_error);
}

// Nothing is waited for but the driver.
TEST_P(MivoRetry, NeverPauses)
{
    Prepare();
    Inject({0, "bbb", "eeE"}, [] {});
    const std::chrono::nanoseconds started = kernel.Now();
    uint32_t retried = 0;
    Printed([&] { EXPECT_EQ(-5, Run(&retried)); });
    EXPECT_EQ(started, kernel.Now());
    for (const Call& call : kernel.Calls()) {
        EXPECT_NE(CallKind::Sleep, call.kind);
    }
}

// What a failing reset leaves in errno is there when the next wait times out, and
// nowhere else.
TEST_P(MivoRetry, IgnoresWhatResettingReturns)
{
    const Operation& op = GetParam();
    uint32_t retried = 0;
    Prepare();
    FailRequest(kReset, ENODEV, 1, Fault::kForEver);
    FailRequest(op.request, EIO);
    CompleteAll();
    const std::string retry = std::string("Retry ") + op.word + " : retry=";
    EXPECT_EQ(WarningLine(op.function, retry + "1!"),
              Printed([&] { EXPECT_EQ(op.success, Run(&retried)); }));
    EXPECT_EQ(Framed({Ioctl(op.request, Failed(EIO)), Poll(), Ioctl(kReset, Failed(ENODEV)),
                      Ioctl(op.later), Poll()}),
              TraceOf(kernel));
    ExpectMoved();

    Prepare();
    FailRequest(kReset, ENODEV, 1, Fault::kForEver);
    FailRequest(op.request, EIO);
    Fault silent;
    silent.kind = CallKind::Ioctl;
    silent.first = 3;
    silent.result = 0;
    kernel.Inject(silent);
    EXPECT_EQ(ErrorLine("Mivo_PollWait", "poll timeout: Input/output error") +
                  WarningLine(op.function, retry + "1!") +
                  ErrorLine("Mivo_PollWait", "poll timeout: No such device") +
                  ErrorLine(op.function, FailureText(2, ENODEV)),
              Printed([&] { EXPECT_EQ(-5, Run(&retried)); }));
    EXPECT_EQ(Framed({Ioctl(op.request, Failed(EIO)), Poll("0"), Ioctl(kReset, Failed(ENODEV)),
                      Ioctl(op.later), Poll("0")}),
              TraceOf(kernel));
    EXPECT_EQ(1, dev.io_error);
}

// The warning is out before the reset, so that a watcher sees why it is sent.
TEST_P(MivoRetry, WarnsBeforeItResets)
{
    Prepare();
    std::string seen;
    std::string* const order = &seen;
    FailRequest(GetParam().request, EBUSY);
    CompleteAll();
    FILE* const console = stdout;
    char* text = nullptr;
    size_t length = 0;
    stdout = open_memstream(&text, &length);
    Fault look;
    look.kind = CallKind::Ioctl;
    look.times = Fault::kForEver;
    look.then = [&, order] {
        fflush(stdout);
        *order += length == 0 ? "before " : "after ";
    };
    kernel.Inject(look);
    uint32_t retried = 0;
    EXPECT_EQ(GetParam().success, Run(&retried));
    fclose(stdout);
    stdout = console;
    free(text);
    // The reset, the request.
    EXPECT_EQ("after after ", seen);
}

// Every write is barred from then on, reads are not.
TEST_P(MivoRetry, BarsOnlyWritesOnceItGaveUp)
{
    for (const bool looks : {false, true}) {
        Prepare();
        if (looks) {
            RegisterCallback();
        }
        FailRequest(GetParam().request, EIO, 1, 3);
        if (GetParam().later != GetParam().request) {
            FailRequest(GetParam().later, EIO, 1, 3);
        }
        uint32_t retried = 0;
        Printed([&] { ASSERT_EQ(-5, Run(&retried)); });
        kernel.ClearFaults();
        for (const Operation& op : kOperations) {
            SCOPED_TRACE(op.name);
            kernel.ClearCalls();
            retried = 0xABAB;
            EXPECT_EQ("", Printed([&] {
                          EXPECT_EQ(op.to_card ? -5 : op.success,
                                    op.run(&handle, buffer.address(), &retried));
                      }));
            EXPECT_EQ(0xABABu, retried);
            // A read-modify-write looks for the card before it is barred.
            Trace expected;
            if (looks && (op.request == kRmw || op.request == kRead)) {
                expected.push_back(Ioctl(kGetStatus));
            }
            if (op.request == kRead) {
                expected.insert(expected.end(), {Ioctl(kRead), Poll()});
            }
            EXPECT_EQ(expected, TraceOf(kernel));
            EXPECT_EQ(1, dev.io_error);
            EXPECT_TRUE(LockIsFree());
        }
    }
    uint32_t retried = 0;
    Prepare();
    EXPECT_EQ(0, dev.io_error);
    EXPECT_EQ(GetParam().success, Run(&retried));
}

// The order of the two checks, where both bar: who looks for the card calls back.
TEST_P(MivoRetry, LooksForTheCardBeforeTheLatchOnlyToReadAndModify)
{
    const Operation& op = GetParam();
    Prepare();
    BreakDevice();
    RegisterCallback();
    units->Eject(kUnit);
    uint32_t retried = 0xABAB;
    EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, Run(&retried)); }));
    const bool looks = op.request == kRmw || op.request == kRead;
    EXPECT_EQ(looks ? Trace{Ioctl(kGetStatus)} : Trace{}, TraceOf(kernel));
    EXPECT_EQ(looks ? 1 : 0, ejects);
    EXPECT_EQ(looks ? 1 : 0, dev.ejected);
    EXPECT_EQ(0xABABu, retried);
}

TEST_P(MivoRetry, RefusesWhereTheCardHasGone)
{
    Prepare();
    RegisterCallback();
    units->Eject(kUnit);
    for (int round = 1; round <= 2; round++) {
        kernel.ClearCalls();
        uint32_t retried = 0xABAB;
        EXPECT_EQ("", Printed([&] { EXPECT_EQ(-5, Run(&retried)); }));
        EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
        EXPECT_EQ(round, ejects);
        EXPECT_EQ(1, dev.ejected);
        EXPECT_EQ(0, dev.io_error);
        EXPECT_EQ(0xABABu, retried);
        EXPECT_TRUE(LockIsFree());
    }
    // Once gone is gone, even where the driver now says otherwise.
    units->Insert(kUnit, card);
    kernel.ClearCalls();
    uint32_t retried = 0;
    EXPECT_EQ(-5, Run(&retried));
    EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
    EXPECT_EQ(2, ejects);
}

// A query that fails says nothing about the card: the request is sent. Its errno
// is there when the wait then times out.
TEST_P(MivoRetry, GoesOnWhereTheCardCannotBeAskedFor)
{
    const Operation& op = GetParam();
    for (const int error : {EBUSY, ENODEV}) {
        SCOPED_TRACE(strerror(error));
        Prepare();
        RegisterCallback();
        FailRequest(kGetStatus, error);
        AnswerRequest(op.request, 0);
        uint32_t retried = 0;
        const std::string text = strerror(error);
        EXPECT_EQ(ErrorLine("__Mivo_CheckEject",
                            "ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is failed : " + text) +
                      ErrorLine("Mivo_PollWait", "poll timeout: " + text) +
                      (error == ENODEV ? ErrorLine(op.function, FailureText(1, ENODEV))
                                       : WarningLine(op.function, std::string("Retry ") + op.word +
                                                                      " : retry=1!")),
                  Printed([&] {
                      errno = 0;
                      EXPECT_EQ(error == ENODEV ? -5 : op.success, Run(&retried));
                  }));
        EXPECT_EQ(error == ENODEV ? 1 : 0, dev.io_error);
        EXPECT_EQ(0, dev.ejected);
        EXPECT_EQ(0, ejects);
        if (error != ENODEV) {
            ExpectMoved();
        }
    }
}

// The card leaves between the check and the request: the driver says so, signals
// no end, and is not asked again.
TEST_P(MivoRetry, FailsAtTheDriverWhereTheCardLeavesMeanwhile)
{
    const Operation& op = GetParam();
    Prepare();
    RegisterCallback();
    Fault leave;
    leave.request = kGetStatus;
    leave.then = [this] { units->Eject(kUnit); };
    kernel.Inject(leave);
    uint32_t retried = 0;
    EXPECT_EQ(ErrorLine("Mivo_PollWait", "poll timeout: No such device") +
                  ErrorLine(op.function, FailureText(1, ENODEV)),
              Printed([&] { EXPECT_EQ(-5, Run(&retried)); }));
    Trace expected = Framed({Ioctl(op.request, Failed(ENODEV)), Poll("0")});
    expected.insert(expected.begin(), Ioctl(kGetStatus));
    EXPECT_EQ(expected, TraceOf(kernel));
    EXPECT_EQ(1, dev.io_error);
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    EXPECT_EQ(0u, retried);
    Printed([&] { EXPECT_EQ(-5, Run(&retried)); });
}

INSTANTIATE_TEST_SUITE_P(Operations, MivoRetry, testing::ValuesIn(kOperations),
                         [](const auto& op) { return op.param.name; });

}  // namespace
