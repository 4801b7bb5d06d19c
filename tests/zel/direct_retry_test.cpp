// SPDX-License-Identifier: MIT
//
// What the five direct requests of the Zel back-end do when the driver does not
// finish them at once: what is sent again, after which pause, with which words,
// and when it is given up.
#include <map>

#include "tests/zel/transfer_fixture.h"

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
    const char* word;          // in the warnings
    const char* failure_word;  // in the failure line
    uint32_t request;          // the first try's ...
    uint32_t later;            // ... and the one from the first error retry on
    bool to_card;
    bool allocates;
    int32_t success;
    int32_t (*run)(DrvInfo* handle, uint32_t address, uint32_t* retried);
};

void PrintTo(const Operation& op, std::ostream* out)
{
    *out << op.name;
}

int32_t RunDirectWrite(DrvInfo* handle, uint32_t address, uint32_t mode, uint32_t* retried)
{
    Chunks chunks{{address, 700}, {address + 700, 324}};
    return DevDrctWrite(handle, kSector, 1024, chunks.get(), mode, retried);
}

const Operation kOperations[] = {
    {"DrctRead", "Zel_DrctRead", "ZEL_DIRECT_READ", "ZEL_DIRECT_READ", kRead, kRead, false, false,
     1024,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Chunks chunks{{address, 1024}};
         return DevDrctRead(handle, kSector, 1024, chunks.get());
     }},
    {"DrctWriteMode0", "Zel_DrctWrite", "ZEL_DIRECT_WRITE", "ZEL_DIRECT_SEQ_WRITE", kSeqWrite,
     kWrite, true, false, 1024,
     [](DrvInfo* handle, uint32_t address, uint32_t* retried) {
         return RunDirectWrite(handle, address, 0, retried);
     }},
    {"DrctWriteMode1", "Zel_DrctWrite", "ZEL_DIRECT_WRITE", "ZEL_DIRECT_SEQ_WRITE", kWrite, kWrite,
     true, false, 1024,
     [](DrvInfo* handle, uint32_t address, uint32_t* retried) {
         return RunDirectWrite(handle, address, 1, retried);
     }},
    {"DrctRMW", "Zel_DrctRMW", "ZEL_DIRECT_RMW", "ZEL_DIRECT_RMW", kRmw, kRmw, true, true, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Elements list{{address, 1, kSector, nullptr}, {address + 512, 1, kSector + 1, nullptr}};
         return DevDrctRMW(handle, list.get());
     }},
    {"FatWrite", "Zel_FatWrite", "ZEL_FSMI_WRITE", "ZEL_FSMI_WRITE", kFsmiWrite, kFsmiWrite, true,
     true, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         Elements list{{address, 1, kSector, nullptr}, {address + 512, 1, kSector + 1, nullptr}};
         return DevFatWrite(handle, list.get());
     }},
    {"SdCmdWrite", "Zel_SdCmdWrite", "ZEL_SDCMD_WRITE", "ZEL_SDCMD_WRITE", kSdCmdWrite, kSdCmdWrite,
     true, false, 0,
     [](DrvInfo* handle, uint32_t address, uint32_t*) {
         return DevSdCmdWrite(handle, reinterpret_cast<const void*>(uintptr_t{address}), kMoved,
                              kSector, 0x12, 0x34);
     }},
};

// What the driver makes of one try. Where the request fails nothing is waited for.
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
    {'b', {-1, EBUSY, false, 0, 0, ""}},
    {'e', {-1, EIO, false, 0, 0, ""}},
    {'m', {-1, ENOMEDIUM, false, 0, 0, ""}},
    {'a', {-1, EAGAIN, false, 0, 0, ""}},
    {'t', {0, 0, true, 0, 0, "poll timeout: %s\n"}},
    {'T', {7, 0, true, 0, 0, "poll timeout: %s\n"}},
    {'p', {0, 0, false, 0, EINTR, "poll error : %s\n"}},
    {'q', {0, 0, false, 0, EBUSY, "poll error : %s\n"}},
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
    {'J', {0, 0, false, POLLIN, EBUSY, "poll returns POLLIN\n"}},
    {'j', {0, 0, false, POLLIN, EIO, "poll returns POLLIN\n"}},
};

// The errno that the program finds there, the driver's tries, and what the library
// makes of each: '.' done, '+' again at once, 'b' busy retry, 'e' error retry, 'B'
// and 'E' given up, as the busy or the error failure that was one too many.
struct Row {
    int before;
    const char* tries;
    const char* ends;
};

const Row kRows[] = {
    {0, ".", "."},
    {EBUSY, ".", "."},
    // busy alone
    {0, "b.", "b."},
    {0, "bbbbbbbbb.", "bbbbbbbbb."},
    {0, "bbbbbbbbbb", "bbbbbbbbbB"},
    // errors alone
    {0, "e.", "e."},
    {0, "ee.", "ee."},
    {0, "eee", "eeE"},
    {0, "mae", "eeE"},
    {0, "eem", "eeE"},
    {EBUSY, "eee", "eeE"},
    // both; neither counter is ever set back
    {0, "be.", "be."},
    {0, "eb.", "eb."},
    {0, "bebeb.", "bebeb."},
    {0, "ebebe", "ebebE"},
    {0, "eebbbbbbbbb.", "eebbbbbbbbb."},
    {0, "eebbbbbbbbbe", "eebbbbbbbbbE"},
    {0, "eebbbbbbbbbb", "eebbbbbbbbbB"},
    {0, "bbbbebbbbbeb", "bbbbebbbbbeB"},
    {0, "bbbbbbbbbe.", "bbbbbbbbbe."},
    // positive answers
    {0, "+.", "+."},
    {0, "+++++++++++++.", "+++++++++++++."},
    {0, "b+e+b+e+.", "b+e+b+e+."},
    {0, "+e+e+e", "+e+e+E"},
    {0, "+b+b+b+b+b+b+b+b+b+b", "+b+b+b+b+b+b+b+b+b+B"},
    {0, "TTT", "eeE"},
    {EBUSY, "T.", "b."},
    // time-outs: an earlier errno decides
    {0, "t.", "e."},
    {0, "ttt", "eeE"},
    {EIO, "ttt", "eeE"},
    {EBUSY, "t.", "b."},
    {EBUSY, "tttttttttt", "bbbbbbbbbB"},
    {EBUSY, "tett", "beeE"},
    {0, "bt.", "bb."},
    {0, "et.", "ee."},
    {0, "tbt.", "ebb."},
    {0, "betbt.", "beebb."},
    {EBUSY, "b+t.", "b+b."},
    // waits that fail
    {0, "p.", "e."},
    {EBUSY, "ppp", "eeE"},
    {0, "q.", "b."},
    {EIO, "qqqqqqqqqq", "bbbbbbbbbB"},
    {0, "qtp.", "bbe."},
    {0, "ptq.", "eeb."},
    // no event at all
    {0, "0.", "e."},
    {0, "000", "eeE"},
    {EBUSY, "0.", "b."},
    {EBUSY, "0000000000", "bbbbbbbbbB"},
    // each event alone and beside the one that was waited for
    {0, "HhR", "eeE"},
    {0, "rVv", "eeE"},
    {0, "IiO", "eeE"},
    {0, "o.", "e."},
    {EIO, "Ii.", "ee."},
    {EBUSY, "HhRrVvIi.", "bbbbbbbb."},
    {EBUSY, "OoHhRrVvIi", "bbbbbbbbbB"},
    {0, "J.", "b."},
    {EIO, "JJJJJJJJJJ", "bbbbbbbbbB"},
    {EBUSY, "j.", "e."},
    {EBUSY, "jjj", "eeE"},
};

class ZelRetry : public ZelTransfer, public testing::WithParamInterface<Operation> {
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
            if (answer.result >= 0) {
                waits++;
                kernel.Inject(Wait(answer, waits, on_call));
            }
            if (row.ends[i] == 'b' || row.ends[i] == 'e') {
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

    Expected Expect(const Row& row) const
    {
        const Operation& op = GetParam();
        Expected expected;
        expected.left = row.before;
        uint32_t request = op.request;
        int busy = 0;
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
                case 'b':
                    expected.printed += WarningLine(
                        op.function, std::string("Retry ") + op.word +
                                         " (device Busy) : retry=" + std::to_string(++busy) + "!");
                    expected.trace.insert(expected.trace.end(), {Pause(), Ioctl(kReset)});
                    expected.passed += std::chrono::milliseconds(400);
                    break;
                case 'e':
                    expected.printed +=
                        WarningLine(op.function, std::string("Retry ") + op.word +
                                                     " : retry=" + std::to_string(++errors) + "!");
                    expected.trace.push_back(Ioctl(kReset));
                    expected.retried = true;
                    request = op.later;
                    break;
                case 'B':
                case 'E':
                    (row.ends[i] == 'B' ? busy : errors)++;
                    expected.printed +=
                        ErrorLine(op.function, std::string("ioctl(") + op.failure_word +
                                                   ") is failed(retry=" + std::to_string(busy) +
                                                   " err_retry=" + std::to_string(errors) +
                                                   ") : " + strerror(expected.left));
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
        if (answer.error != 0) {
            expected.trace.push_back(Ioctl(request, Failed(answer.error)));
            expected.left = answer.error;
            return;
        }
        expected.trace.push_back(Ioctl(request, std::to_string(answer.result)));
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
        expected.printed += ErrorLine("Zel_PollWait", line);
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

TEST_P(ZelRetry, FollowsTheTable)
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
        // From the first request to the last wait, pauses included.
        EXPECT_EQ(expected.trace.size() - (GetParam().allocates ? 2u : 0u), locked);
        EXPECT_TRUE(LockIsFree());
        if (GetParam().function == std::string("Zel_DrctWrite")) {
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
TEST_P(ZelRetry, FollowsTheTableWherePrintingFails)
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
TEST_P(ZelRetry, AsksAnUnfinishedDriverWithoutEnd)
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

// Three failures are borne in total by each call, not by each device.
TEST_P(ZelRetry, CountsAfreshInEachCall)
{
    Prepare();
    uint32_t retried = 0;
    for (int call = 0; call < 4; call++) {
        kernel.ClearFaults();
        Inject({0, "eebbbbbbbbb.", "eebbbbbbbbb."}, [] {});
        Printed([&] { EXPECT_EQ(GetParam().success, Run(&retried)); });
    }
    EXPECT_EQ(0, dev.io_error);
}

// What a failing reset or a pause cut short leaves in errno is there when the next
// wait times out.
TEST_P(ZelRetry, IgnoresWhatResettingAndPausingReturn)
{
    const Operation& op = GetParam();
    uint32_t retried = 0;
    Prepare();
    FailRequest(kReset, EBUSY, 1, Fault::kForEver);
    FailRequest(op.request, EIO);
    AnswerRequest(op.later, 0);
    Trace expected = {Ioctl(op.request, Failed(EIO)),
                      Ioctl(kReset, Failed(EBUSY)),
                      Ioctl(op.later),
                      Poll("0"),
                      Pause(),
                      Ioctl(kReset, Failed(EBUSY)),
                      Ioctl(op.later),
                      Poll()};
    if (op.later == op.request) {
        kernel.ClearFaults();
        FailRequest(kReset, EBUSY, 1, Fault::kForEver);
        FailRequest(op.request, EIO);
        Fault silent;
        silent.request = op.request;
        silent.first = 2;
        silent.result = 0;
        kernel.Inject(silent);
    }
    if (op.allocates) {
        expected.insert(expected.begin(), "malloc(32)");
        expected.push_back("free() = 0");
    }
    const std::string retry = std::string("Retry ") + op.word;
    EXPECT_EQ(WarningLine(op.function, retry + " : retry=1!") +
                  ErrorLine("Zel_PollWait", "poll timeout: Device or resource busy") +
                  WarningLine(op.function, retry + " (device Busy) : retry=1!"),
              Printed([&] { EXPECT_EQ(op.success, Run(&retried)); }));
    EXPECT_EQ(expected, TraceOf(kernel));
    ExpectMoved();

    Prepare();
    FailRequest(op.request, EBUSY);
    Fault silent;
    silent.request = op.request;
    silent.first = 2;
    silent.result = 0;
    kernel.Inject(silent);
    Fault interrupted;
    interrupted.kind = CallKind::Sleep;
    interrupted.error = EINTR;
    kernel.Inject(interrupted);
    EXPECT_EQ(WarningLine(op.function, retry + " (device Busy) : retry=1!") +
                  ErrorLine("Zel_PollWait", "poll timeout: Interrupted system call") +
                  WarningLine(op.function, retry + " : retry=1!"),
              Printed([&] { EXPECT_EQ(op.success, Run(&retried)); }));
    ExpectMoved();
}

// The warning is out before the pause begins, so that a watcher sees why it waits.
TEST_P(ZelRetry, WarnsBeforeItPausesAndResets)
{
    Prepare();
    std::string seen;
    std::string* const order = &seen;
    FailRequest(GetParam().request, EBUSY);
    FILE* const console = stdout;
    char* text = nullptr;
    size_t length = 0;
    stdout = open_memstream(&text, &length);
    for (const CallKind kind : {CallKind::Sleep, CallKind::Ioctl}) {
        Fault look;
        look.kind = kind;
        look.times = Fault::kForEver;
        look.then = [&, order] {
            fflush(stdout);
            *order += length == 0 ? "before " : "after ";
        };
        kernel.Inject(look);
    }
    uint32_t retried = 0;
    EXPECT_EQ(GetParam().success, Run(&retried));
    fclose(stdout);
    stdout = console;
    free(text);
    // The pause, the reset, the request.
    EXPECT_EQ("after after after ", seen);
}

// Writes are barred from then on; a read and a read-modify-write still run.
TEST_P(ZelRetry, BarsOnlyWritesOnceItGaveUp)
{
    Prepare();
    RegisterCallback();
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
        const bool barred = op.request != kRead && op.request != kRmw;
        EXPECT_EQ("", Printed([&] {
                      EXPECT_EQ(barred ? -5 : op.success,
                                op.run(&handle, buffer.address(), &retried));
                  }));
        EXPECT_EQ(0xABABu, retried);
        // The card is not even looked for.
        EXPECT_EQ(barred, kernel.Calls().empty());
        EXPECT_EQ(1, dev.io_error);
    }
    Prepare();
    EXPECT_EQ(0, dev.io_error);
    EXPECT_EQ(GetParam().success, Run(&retried));
}

TEST_P(ZelRetry, RefusesWhereTheCardHasGone)
{
    Prepare();
    RegisterCallback();
    slots->Eject(kUnit);
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
    slots->Insert(kUnit, card);
    slots->With([](sim_zel& zel) { zel.slot[kUnit].changed = false; });
    kernel.ClearCalls();
    uint32_t retried = 0;
    EXPECT_EQ(-5, Run(&retried));
    EXPECT_EQ(Trace{Ioctl(kGetStatus)}, TraceOf(kernel));
    EXPECT_EQ(2, ejects);
}

// A query that fails says nothing about the card: the request is sent. Its errno
// is there when the wait then times out.
TEST_P(ZelRetry, GoesOnWhereTheCardCannotBeAskedFor)
{
    const Operation& op = GetParam();
    Prepare();
    RegisterCallback();
    FailRequest(kGetStatus, EBUSY, 1, 10);
    Fault silent;
    silent.request = op.request;
    silent.result = 0;
    kernel.Inject(silent);
    uint32_t retried = 0;
    EXPECT_EQ(
        ErrorLine("__Zel_CheckEject",
                  "ioctl(ZEL_GET_CARD_STATUS) is failed(retry=10) : Device or resource busy") +
            ErrorLine("Zel_PollWait", "poll timeout: Device or resource busy") +
            WarningLine(op.function, std::string("Retry ") + op.word + " (device Busy) : retry=1!"),
        Printed([&] {
            errno = 0;
            EXPECT_EQ(op.success, Run(&retried));
        }));
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    ExpectMoved();
}

// The card leaves between the check and the request: the driver says so.
TEST_P(ZelRetry, FailsAtTheDriverWhereTheCardLeavesMeanwhile)
{
    const Operation& op = GetParam();
    Prepare();
    RegisterCallback();
    Fault leave;
    leave.request = kGetStatus;
    leave.then = [this] { slots->Eject(kUnit); };
    kernel.Inject(leave);
    uint32_t retried = 0;
    const std::string warning = std::string("Retry ") + op.word + " : retry=";
    EXPECT_EQ(WarningLine(op.function, warning + "1!") + WarningLine(op.function, warning + "2!") +
                  ErrorLine(op.function, std::string("ioctl(") + op.failure_word +
                                             ") is failed(retry=0 err_retry=3) : No such device"),
              Printed([&] { EXPECT_EQ(-5, Run(&retried)); }));
    EXPECT_EQ(1, dev.io_error);
    EXPECT_EQ(0, dev.ejected);
    EXPECT_EQ(0, ejects);
    Printed([&] { EXPECT_EQ(-5, Run(&retried)); });
}

INSTANTIATE_TEST_SUITE_P(Operations, ZelRetry, testing::ValuesIn(kOperations),
                         [](const auto& op) { return op.param.name; });

}  // namespace
