// SPDX-License-Identifier: MIT
//
// Several threads in the Mivo back-end at once: one direct request at a time on a
// unit, none in another unit's way.
#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include <sched.h>

#include "tests/mivosdif/transfer_fixture.h"
#include "tests/support/signal.h"

namespace {

using cardsim::Call;
using cardsim::CallKind;
using cardsim::Fault;
using cardsim::LowBuffer;
using cardsim::LowThread;

constexpr uint32_t kThreads = 4;
constexpr uint32_t kRounds = 15;
constexpr uint32_t kOwn = 8;  // sectors that are a thread's own

// Let whoever can run, run.
void YieldOften()
{
    for (int i = 0; i < 20; i++) {
        sched_yield();
    }
}

class MivoThreads : public MivoTransfer {
protected:
    MivoThreads() { Open(); }

    static void RunAll(uint32_t count, const std::function<void(uint32_t)>& body)
    {
        std::vector<std::unique_ptr<LowThread>> threads;
        for (uint32_t i = 0; i < count; i++) {
            threads.push_back(std::make_unique<LowThread>([&body, i] { body(i); }));
        }
    }

    // Write a thread's own sectors by one of the ways and read them back.
    static void WriteAndRead(DrvInfo* handle, uint32_t thread, uint32_t round)
    {
        const LowBuffer memory(size_t{kOwn} * 512);
        const uint32_t first = 100 + thread * kOwn;
        const Bytes written = Pattern(kOwn, thread * 50 + round);
        memcpy(memory.data(), written.data(), written.size());
        const uint32_t address = memory.address();
        uint32_t retried = 0;
        switch ((thread + round) % 4) {
            case 0: {
                Chunks chunks{{address, 1000}, {address + 1000, kOwn * 512 - 1000}};
                EXPECT_EQ(int32_t{kOwn},
                          DevDrctWrite(handle, first, kOwn, chunks.get(), round % 2, &retried));
                break;
            }
            case 1: {
                Elements list{{address, 3, first, nullptr},
                              {address + 3 * 512, kOwn - 3, first + 3, nullptr}};
                EXPECT_EQ(0, DevDrctRMW(handle, list.get()));
                break;
            }
            case 2: {
                Elements list{{address, 1, first, nullptr},
                              {address + 512, kOwn - 1, first + 1, nullptr}};
                EXPECT_EQ(0, DevFatWrite(handle, list.get()));
                break;
            }
            default:
                EXPECT_EQ(0, DevSdCmdWrite(handle, memory.data(), kOwn, first, 0, 0));
                break;
        }
        memset(memory.data(), 0, memory.size());
        Chunks chunks{{address + 512, kOwn * 512 - 512}, {address, 512}};
        EXPECT_EQ(int32_t{kOwn}, DevDrctRead(handle, first, kOwn, chunks.get()));
        EXPECT_EQ(written, MemoryAt(address + 512, kOwn * 512 - 512) + MemoryAt(address, 512));
    }

    DrvInfo OpenOther(unsigned unit)
    {
        units->Insert(unit, cardsim::Card::InMemory(kSectors));
        DrvInfo other = HandleFor(cardsim::MivoNode(unit));
        EXPECT_EQ(0, DevDetect(&other));
        Printed([&] { EXPECT_EQ(0, DevInit(&other)); });
        return other;
    }
};

TEST_F(MivoThreads, RunOneDirectRequestAtATimeOnAUnit)
{
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    units->during_transfer = [&](unsigned) {
        overlaps += ++inside > 1 ? 1 : 0;
        YieldOften();
        --inside;
    };
    RunAll(kThreads, [&](uint32_t thread) {
        for (uint32_t round = 0; round < kRounds; round++) {
            WriteAndRead(&handle, thread, round);
        }
    });
    EXPECT_EQ(0, overlaps);
    // Each request's end was waited for before the next began.
    Trace trace;
    for (const Call& call : kernel.Calls()) {
        if (call.kind == CallKind::Ioctl || call.kind == CallKind::Poll) {
            trace.push_back(call.kind == CallKind::Ioctl ? "request" : "wait");
        }
    }
    ASSERT_EQ(size_t{kThreads} * kRounds * 4, trace.size());
    for (size_t i = 0; i < trace.size(); i++) {
        EXPECT_EQ(i % 2 == 0 ? "request" : "wait", trace[i]);
    }
}

// From the first try to the last, resets included, and with the status
// queries of the others in between kept waiting.
TEST_F(MivoThreads, KeepTheUnitWhileTheyRetry)
{
    RegisterCallback();
    for (uint64_t i = 0; i < 60; i++) {
        Fault fault;
        fault.kind = CallKind::Ioctl;
        fault.first = 3 + i * 11;
        fault.error = EBUSY;
        fault.then = YieldOften;
        kernel.Inject(fault);
    }
    Printed([&] {
        RunAll(kThreads, [&](uint32_t thread) {
            for (uint32_t round = 0; round < kRounds; round++) {
                WriteAndRead(&handle, thread, round);
            }
        });
    });
    EXPECT_EQ(0, dev.io_error);
    EXPECT_EQ(0, ejects);
    // Without the allocator's calls: what may follow what.
    std::vector<Call> calls;
    for (const Call& call : kernel.Calls()) {
        if (call.kind != CallKind::Malloc && call.kind != CallKind::Free) {
            calls.push_back(call);
        }
    }
    size_t retries = 0;
    for (size_t i = 0; i + 1 < calls.size(); i++) {
        if (calls[i].kind != CallKind::Ioctl || calls[i].request == kReset ||
            calls[i].request == kGetStatus) {
            continue;
        }
        // Nothing comes between a request and its wait, nor between two tries.
        EXPECT_EQ(CallKind::Poll, calls[i + 1].kind);
        if (calls[i].error != 0) {
            retries++;
            ASSERT_GT(calls.size(), i + 3);
            EXPECT_EQ(kReset, calls[i + 2].request);
            EXPECT_EQ(calls[i].request == kAltWrite ? kWrite : calls[i].request,
                      calls[i + 3].request);
            EXPECT_EQ(calls[i].argument, calls[i + 3].argument);
        }
    }
    EXPECT_GT(retries, 0u);  // how many depends on how the threads take turns
}

// Both are in their requests at once: each waits there for the other.
TEST_F(MivoThreads, RunBesideEachOtherOnTwoUnits)
{
    DrvInfo other = OpenOther(0);
    std::map<unsigned, Signal> arrived;
    arrived[kUnit];
    arrived[0];
    std::atomic<bool> met{true};
    units->during_transfer = [&](unsigned unit) {
        arrived.at(unit).Set();
        if (!arrived.at(unit == 0 ? kUnit : 0).Wait()) {
            met = false;
        }
    };
    RunAll(2, [&](uint32_t thread) { WriteAndRead(thread == 0 ? &handle : &other, thread, 1); });
    EXPECT_TRUE(met);
    DevExit(&other);
}

// Calls that send one request at most keep no other unit waiting, either: each is held in its
// request until the same call on another unit has returned.
TEST_F(MivoThreads, AskForOneUnitBesideAnother)
{
    DrvInfo other = OpenOther(0);
    RegisterCallback();
    ASSERT_EQ(0, mivo_ops.CardInit(&other, 0, [] { OnEject()(); }));
    const std::pair<uint32_t, std::function<bool(DrvInfo*)>> calls[] = {
        {kGetStatus,
         [](DrvInfo* unit) {
             uint16_t status = 0;
             return CARD_Getstatus(unit, &status) == 0;
         }},
        {0x2000D307u, [](DrvInfo* unit) { return CARD_GetWriteProtect(unit) == 0; }},
        {0x8001D327u, [](DrvInfo* unit) { return CARD_Ioctl(unit, 2, 0) == 0; }},
        {0x8001D328u, [](DrvInfo* unit) { return CARD_Ioctl(unit, 3, 0) == 0; }},
        {0x8001D329u, [](DrvInfo* unit) { return CARD_Ioctl(unit, 4, 0) == 0; }},
    };
    for (const auto& [request, listed] : calls) {
        SCOPED_TRACE(request);
        Signal begun;
        Signal returned;
        bool in_time = false;
        Fault held;
        held.request = request;
        held.then = [&] {
            begun.Set();
            in_time = returned.Wait(std::chrono::seconds(20));
        };
        kernel.Inject(held);
        {
            const LowThread first([&, &call = listed] { EXPECT_TRUE(call(&handle)); });
            ASSERT_TRUE(begun.Wait());
            const LowThread second([&, &call = listed] {
                EXPECT_TRUE(call(&other));
                returned.Set();
            });
        }
        EXPECT_TRUE(in_time) << "the other unit's call waits for this one's";
        kernel.ClearFaults();
    }
    DevExit(&other);
}

// The node itself needs no lock: a plain transfer finishes while a direct one lasts.
TEST_F(MivoThreads, MovePlainlyBesideADirectRequest)
{
    Signal begun;
    Signal finished;
    std::atomic<bool> met{true};
    units->during_transfer = [&](unsigned) {
        begun.Set();
        if (!finished.Wait()) {
            met = false;
        }
    };
    const LowThread direct([&] {
        const LowBuffer memory(512);
        Chunks chunks{{memory.address(), 512}};
        EXPECT_EQ(1, DevDrctRead(&handle, 0, 1, chunks.get()));
    });
    ASSERT_TRUE(begun.Wait());
    CardIoResult result = {};
    EXPECT_EQ(0, CARD_Write(&handle, buffer.data(), 1, 9, 0, &result));
    EXPECT_EQ(0, CARD_Read(&handle, buffer.data(), 1, 9, 0, &result));
    EXPECT_EQ(512, result.length);
    finished.Set();
    EXPECT_TRUE(met);
}

TEST_F(MivoThreads, LookForTheCardOnlyAfterARequestUnderWay)
{
    RegisterCallback();
    Signal begun;
    Signal asking;
    units->during_transfer = [&](unsigned) {
        begun.Set();
        EXPECT_TRUE(asking.Wait());
        YieldOften();
    };
    {
        const LowThread direct([&] {
            const LowBuffer memory(512);
            Chunks chunks{{memory.address(), 512}};
            EXPECT_EQ(1, DevDrctRead(&handle, 0, 1, chunks.get()));
        });
        const LowThread query([&] {
            EXPECT_TRUE(begun.Wait());
            asking.Set();
            uint16_t status = 0;
            EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
            EXPECT_EQ(0x8000, status);
        });
    }
    EXPECT_EQ((Trace{Ioctl(kGetStatus), Ioctl(kRead), Poll(), Ioctl(kGetStatus)}), TraceOf(kernel));
}

// The thread that notices calls back, each on its own account.
TEST_F(MivoThreads, EachNoticeTheEjectThemselves)
{
    RegisterCallback();
    units->Eject(kUnit);
    std::mutex lock;
    std::map<pthread_t, uint32_t> callers;
    OnEject() = [&] {
        EXPECT_EQ(1, __atomic_load_n(&dev.ejected, __ATOMIC_RELAXED));
        const std::lock_guard<std::mutex> guard(lock);
        callers[pthread_self()]++;
    };
    Signal all_started;
    std::atomic<uint32_t> started{0};
    RunAll(kThreads, [&](uint32_t) {
        if (++started == kThreads) {
            all_started.Set();
        }
        EXPECT_TRUE(all_started.Wait());
        const LowBuffer memory(512);
        Chunks chunks{{memory.address(), 512}};
        for (uint32_t round = 0; round < kRounds; round++) {
            EXPECT_EQ(-5, DevDrctRead(&handle, 0, 1, chunks.get()));
        }
    });
    EXPECT_EQ(kThreads, callers.size());
    for (const auto& caller : callers) {
        EXPECT_EQ(kRounds, caller.second);
    }
}

// Writers see the latch that another's failing request sets.
TEST_F(MivoThreads, AreBarredByAnothersFailure)
{
    FailRequest(kRead, EIO, 1, 3);
    std::atomic<bool> broken{false};
    Printed([&] {
        RunAll(kThreads, [&](uint32_t thread) {
            const LowBuffer memory(512);
            Chunks chunks{{memory.address(), 512}};
            uint32_t retried = 0;
            if (thread == 0) {
                EXPECT_EQ(-5, DevDrctRead(&handle, 0, 1, chunks.get()));
                broken = true;
                return;
            }
            while (!broken) {
                const int32_t result = DevDrctWrite(&handle, thread, 1, chunks.get(), 1, &retried);
                EXPECT_TRUE(result == 1 || result == -5);
            }
            EXPECT_EQ(-5, DevDrctWrite(&handle, thread, 1, chunks.get(), 1, &retried));
            EXPECT_EQ(-5, DevSdCmdWrite(&handle, memory.data(), 1, thread, 0, 0));
        });
    });
}

}  // namespace
