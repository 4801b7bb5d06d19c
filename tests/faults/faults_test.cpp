// SPDX-License-Identifier: MIT
//
// Each operation on each path through it, with every fault at every call that it makes, once
// and for good, with every errno there is, and with every pair of faults: of those that are told
// from one another, or of all where CARDDEV_EVERY_PAIR is in the environment. What must come of it
// is worked out from the tables beside this file; the last thing each time is the same call again
// without faults, another one, and the end of the device.
//
// What is refused without any call, such as a bad handle, is in backends/calls_test.cpp.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>

#include <gtest/gtest.h>

#include "tests/faults/oddities.h"
#include "tests/faults/stand.h"

namespace faults {

namespace {

struct Counts {
    uint64_t operations = 0;
    uint64_t singles = 0;
    uint64_t errors = 0;  // each errno there is
    uint64_t pairs = 0;
};

// All of the pairs on this machine, and three values for errno to begin with. Under an emulator
// or a sanitizer, where a run takes up to ten times as long, each of so many pairs. What it
// comes to must not become much less unnoticed.
#if defined(FAULTS_SAMPLED)
constexpr uint64_t kPairStep = 53;
constexpr int kErrors[] = {0, EBUSY};
constexpr Counts kLeastOfZel = {241, 43000, 1000, 16200};
constexpr Counts kLeastOfMivo = {187, 40600, 800, 4200};
constexpr Counts kLeastOfRicoh = {56, 1600, 60, 15};
#else
constexpr uint64_t kPairStep = 1;
constexpr int kErrors[] = {0, EBUSY, ENODEV};
constexpr Counts kLeastOfZel = {241, 63000, 50000, 263000};
constexpr Counts kLeastOfMivo = {187, 60500, 41000, 129000};
constexpr Counts kLeastOfRicoh = {56, 2400, 3000, 460};
#endif
constexpr int kErrorOfPairs = EXFULL;

constexpr int kMostComplaints = 5;
constexpr uint64_t kMostTries = 13;  // one more than any operation makes

std::vector<ExpectedCall> WithoutFrees(const Expected& expected)
{
    std::vector<ExpectedCall> calls;
    for (const ExpectedCall& call : expected.calls) {
        if (call.kind != cardsim::CallKind::Free) {
            calls.push_back(call);
        }
    }
    return calls;
}

uint64_t CountBefore(const std::vector<ExpectedCall>& calls, size_t at, const Mark& mark)
{
    uint64_t count = 0;
    for (size_t i = 0; i < at; i++) {
        count += mark.Covers(calls[i]) ? 1u : 0u;
    }
    return count;
}

Planted At(const std::vector<ExpectedCall>& calls, size_t at, const Oddity& oddity, bool stays)
{
    const Mark mark = Mark::Of(calls[at]);
    return {at + 1, oddity, stays ? MostTimes(oddity) : 1, mark, CountBefore(calls, at, mark) + 1};
}

// A fault once and, where that is another matter, for good.
std::vector<Planted> Both(const std::vector<ExpectedCall>& calls, size_t at, const Oddity& oddity)
{
    std::vector<Planted> both = {At(calls, at, oddity, false)};
    if (MostTimes(oddity) > 1) {
        both.push_back(At(calls, at, oddity, true));
    }
    return both;
}

// The next call that a mark covers after so many of them, or the end.
size_t AfterMany(const std::vector<ExpectedCall>& calls, const Mark& mark, uint64_t many)
{
    size_t at = 0;
    while (at < calls.size() && !(mark.Covers(calls[at]) && many-- == 0)) {
        at++;
    }
    return at;
}

// From there on nothing works any more, but for closing.
Plan DeadFrom(const std::vector<ExpectedCall>& calls, size_t at, const Oddity& oddity)
{
    using cardsim::CallKind;
    Plan plan;
    for (const CallKind kind :
         {CallKind::Stat, CallKind::Open, CallKind::Seek, CallKind::Read, CallKind::Write,
          CallKind::Ioctl, CallKind::Poll, CallKind::Sleep, CallKind::Malloc}) {
        const Mark mark = {.kind = kind};
        plan.push_back(
            {at + 1, oddity, cardsim::Fault::kForEver, mark, CountBefore(calls, at, mark) + 1});
    }
    return plan;
}

const std::vector<Oddity>& OfPairs(const ExpectedCall& call)
{
    static const bool kOfAll = getenv("CARDDEV_EVERY_PAIR") != nullptr;
    return kOfAll ? AllOf(call) : SomeOf(call);
}

std::vector<Oddity> WithCardMoves(std::vector<Oddity> oddities)
{
    oddities.insert(oddities.end(), CardMoves().begin(), CardMoves().end());
    return oddities;
}

class Enumerator {
public:
    Enumerator(const Operation& operation, const std::vector<Operation>& others)
        : operation_(operation), stand_(operation, others)
    {
    }

    void Run(Counts* counts)
    {
        counts->operations++;
        for (const int error : kErrors) {
            const std::vector<ExpectedCall> calls = WithoutFrees(Try({}, error));
            for (size_t at = 0; at < calls.size(); at++) {
                Singles(calls, at, error, counts);
            }
        }
        const std::vector<ExpectedCall> calls = WithoutFrees(Try({}, kErrorOfPairs));
        for (size_t at = 0; at < calls.size(); at++) {
            Limits(calls, at, counts);
            EachError(calls, at, counts);
            for (const Oddity& oddity : WithCardMoves(OfPairs(calls[at]))) {
                for (const Planted& first : Both(calls, at, oddity)) {
                    Pairs(first, counts);
                }
            }
        }
    }

private:
    void Singles(const std::vector<ExpectedCall>& calls, size_t at, int error, Counts* counts)
    {
        for (const Oddity& oddity : WithCardMoves(AllOf(calls[at]))) {
            for (const Planted& fault : Both(calls, at, oddity)) {
                Try({fault}, error);
                counts->singles++;
            }
        }
        for (const int death : {EIO, EBUSY, ENODEV, ENOMEM}) {
            const Oddity oddity = {.name = strerrorname_np(death), .error = death};
            Try(DeadFrom(calls, at, oddity), error);
            counts->singles++;
        }
    }

    void EachError(const std::vector<ExpectedCall>& calls, size_t at, Counts* counts)
    {
        for (const Oddity& oddity : AllErrors(calls[at])) {
            if (errors_++ % kPairStep == 0) {
                Try({At(calls, at, oddity, false)}, kErrorOfPairs);
                counts->errors++;
            }
        }
    }

    // How much of it is borne: busy answers and other failures, in a row and one kind after the
    // other, for as long as there is a next try.
    void Limits(const std::vector<ExpectedCall>& calls, size_t at, Counts* counts)
    {
        constexpr Oddity kBusy = {.name = "EBUSY", .error = EBUSY};
        constexpr Oddity kOther = {.name = "EIO", .error = EIO};
        const cardsim::CallKind kind = calls[at].kind;
        if (kind != cardsim::CallKind::Ioctl && kind != cardsim::CallKind::Poll) {
            return;
        }
        for (const bool busy_first : {true, false}) {
            Planted first = At(calls, at, busy_first ? kBusy : kOther, false);
            for (first.times = 1; first.times <= kMostTries; first.times++) {
                const std::vector<ExpectedCall> tries = WithoutFrees(Try({first}, kErrorOfPairs));
                counts->singles++;
                const size_t next = AfterMany(tries, first.mark, first.nth + first.times - 1);
                if (next == tries.size()) {
                    break;
                }
                for (const unsigned times : {1u, 2u, 3u, 9u, 10u}) {
                    Planted second = At(tries, next, busy_first ? kOther : kBusy, false);
                    second.times = times;
                    Try({first, second}, kErrorOfPairs);
                    counts->pairs++;
                }
            }
        }
    }

    // The first with each that can come after it.
    void Pairs(const Planted& first, Counts* counts)
    {
        if (complaints_ >= kMostComplaints) {
            return;
        }
        const std::vector<ExpectedCall> calls = WithoutFrees(Try({first}, kErrorOfPairs));
        for (size_t at = static_cast<size_t>(first.at); at < calls.size(); at++) {
            if (first.mark.Covers(calls[at]) && first.times == cardsim::Fault::kForEver) {
                continue;
            }
            for (const Oddity& oddity : WithCardMoves(OfPairs(calls[at]))) {
                for (const Planted& second : Both(calls, at, oddity)) {
                    if (pairs_++ % kPairStep == 0) {
                        Try({first, second}, kErrorOfPairs);
                        counts->pairs++;
                    }
                }
            }
        }
    }

    Expected Try(const Plan& plan, int error)
    {
        if (complaints_ >= kMostComplaints) {
            return {};
        }
        std::string complaint;
        const Expected expected = stand_.Try(plan, error, &complaint);
        if (!complaint.empty()) {
            complaints_++;
            ADD_FAILURE() << operation_.name << "; " << NameOf(plan) << "errno " << error << ":\n"
                          << complaint;
        }
        return expected;
    }

    const Operation& operation_;
    Stand stand_;
    uint64_t errors_ = 0;
    uint64_t pairs_ = 0;
    int complaints_ = 0;
};

// Some rules are for two faults at once.
void ExpectAllTaken(const std::vector<Operation>& operations)
{
    std::set<const char*> texts;
    for (const Operation& operation : operations) {
        for (const Table& table : operation.tables) {
            texts.insert(table.text);
        }
    }
    for (const char* text : texts) {
        for (const std::string& rule : NeverTaken(text)) {
            ADD_FAILURE() << "never taken: " << rule;
        }
    }
}

void RunAll(const std::vector<Operation>& operations, const Counts& least)
{
    Counts counts;
    for (const Operation& operation : operations) {
        SCOPED_TRACE(operation.name);
        Enumerator(operation, operations).Run(&counts);
    }
    std::printf("%llu operations and paths, %llu single faults, %llu errors, %llu pairs\n",
                static_cast<unsigned long long>(counts.operations),
                static_cast<unsigned long long>(counts.singles),
                static_cast<unsigned long long>(counts.errors),
                static_cast<unsigned long long>(counts.pairs));
    EXPECT_LE(least.operations, counts.operations);
    EXPECT_LE(least.singles, counts.singles);
    EXPECT_LE(least.errors, counts.errors);
    EXPECT_LE(least.pairs, counts.pairs);
    if (kPairStep == 1) {
        ExpectAllTaken(operations);
    }
}

}  // namespace

TEST(Rules, KnowNoOtherWords)
{
    constexpr const char* kWrong[] = {
        "a | | moevd=1   | | | return 0",
        "a | | reachd    | | | return 0",
        "a | | =1x       | | | return 0",
        "a | | ENONE     | | | return 0",
        "a | | events=IM | | | return 0",
        "a | | | | moevd=1       | return 0",
        "a | | | | moevd+1       | return 0",
        "a | | | | moved=fileld  | return 0",
        "a | | | | moved+result  | return 0",
        "a | | | | moved+answer  | return 0",
        "a | | | | unlok         | return 0",
        "a | | | E zel:F: {reslut} | | return 0",
        "a | | | E zel:F: {result  | | return 0",
        "a | | | zel:F: text       | | return 0",
        "a | | | | | return reslut",
        "a | | | | | retrun 0",
        "a | | | | | b",
        "a | | | | | return $name",
        "a | ioctl /dev/a 0x1 trasnfer | | | | return 0",
        "a | iotcl /dev/a 0x1          | | | | return 0",
        "a | open /dev/a rdrw          | | | | return 0",
        "a | | | | return 0",
    };
    for (const char* wrong : kWrong) {
        EXPECT_ANY_THROW(Rules({{wrong, {}}}, {})) << wrong;
    }
    const char* const right = "a | ioctl /dev/a 0x1 | =0 reached moved=1 | | moved=1 | return 0";
    EXPECT_NO_THROW(Rules({{right, {}}}, {}));
}

TEST(Faults, Zel)
{
    RunAll(ZelOperations(), kLeastOfZel);
}

TEST(Faults, Mivo)
{
    RunAll(MivoOperations(), kLeastOfMivo);
}

TEST(Faults, Ricoh)
{
    RunAll(RicohOperations(), kLeastOfRicoh);
}

}  // namespace faults
