// SPDX-License-Identifier: MIT
//
// Units used by several threads at once, and one unit by several.
#include <atomic>

#include "tests/backends/fixture.h"
#include "tests/support/signal.h"

namespace {

constexpr int kSteps = 30;

// Threads have nothing of gtest's: they count what went wrong.
struct Worker {
    DrvInfo* device;
    uint32_t length_unit;
    uint32_t first;    // its own sectors of the card ...
    uint32_t sectors;  // ... and how many
    uint32_t seed;
    bool plain;  // plain transfers, too: one thread of a device only
    int wrong = 0;

    void Run()
    {
        std::mt19937 random{seed};
        cardsim::LowBuffer memory{size_t{sectors} * 512};
        Bytes shadow(size_t{sectors} * 512);
        for (int step = 0; step < kSteps; step++) {
            const auto count = static_cast<uint32_t>(1 + random() % sectors);
            const auto offset = static_cast<uint32_t>(random() % (sectors - count + 1));
            uint8_t* const kept = shadow.data() + offset * 512;
            if (step % 2 == 0) {
                for (size_t i = 0; i < size_t{count} * 512; i++) {
                    memory[i] = static_cast<uint8_t>(random());
                }
                wrong += Write(first + offset, memory, count) ? 0 : 1;
                memcpy(kept, memory.data(), size_t{count} * 512);
            } else {
                memset(memory.data(), 0xEE, memory.size());
                wrong += Read(first + offset, memory, count, random() % 2 == 0) ? 0 : 1;
                wrong += memcmp(kept, memory.data(), size_t{count} * 512) == 0 ? 0 : 1;
            }
            uint16_t status = 0;
            wrong += CARD_Getstatus(device, &status) == 0 ? 0 : 1;
        }
        result = std::move(shadow);
    }

    bool Write(uint32_t at, const cardsim::LowBuffer& memory, uint32_t count) const
    {
        const uint32_t length = count * (512 / length_unit);
        Chunks chunks = {1, {{memory.address(), count * 512}}};
        uint32_t retried = 9;
        return DevDrctWrite(device, at, length, chunks.list(), at % 2, &retried) ==
                   static_cast<int32_t>(length) &&
               retried == 0;
    }

    bool Read(uint32_t at, const cardsim::LowBuffer& memory, uint32_t count, bool plainly) const
    {
        if (plain && plainly) {
            CardIoResult record = {};
            CARD_Read(device, memory.data(), count, at, 0, &record);
            return record.error == 0 && record.length == static_cast<int32_t>(count * 512);
        }
        const uint32_t length = count * (512 / length_unit);
        Chunks chunks = {1, {{memory.address(), count * 512}}};
        return DevDrctRead(device, at, length, chunks.list()) == static_cast<int32_t>(length);
    }

    Bytes result = {};
};

void RunAll(std::vector<Worker>& workers)
{
    std::vector<std::unique_ptr<cardsim::LowThread>> threads;
    for (Worker& worker : workers) {
        threads.push_back(std::make_unique<cardsim::LowThread>([&worker] { worker.Run(); }));
    }
}

struct Two {
    const char* name;
    const Backend* backend[2];
    const char* place[2];
    const char* node[2];
};

class TwoUnits : public testing::TestWithParam<Two> {};

const Two kTwos[] = {
    {"ZelZel", {&kZel, &kZel}, {"zel0", "zel5"}, {"/dev/spda", "/dev/spdf"}},
    {"MivoMivo", {&kMivo, &kMivo}, {"mivo0", "mivo1"}, {"/dev/mivosdif0", "/dev/mivosdif1"}},
    {"ZelMivo", {&kZel, &kMivo}, {"zel1", "mivo1"}, {"/dev/spdb", "/dev/mivosdif1"}},
};

INSTANTIATE_TEST_SUITE_P(Threads, TwoUnits, testing::ValuesIn(kTwos),
                         [](const auto& two) { return two.param.name; });

TEST_P(TwoUnits, WorkSideBySide)
{
    const std::unique_ptr<Bench> bench = Bench::Create();
    const Two& two = GetParam();
    {
        std::vector<std::unique_ptr<Device>> devices;
        std::vector<Worker> workers;
        for (size_t i = 0; i < 2; i++) {
            bench->Insert(two.place[i], Bytes(size_t{kSectors} * 512));
            devices.push_back(std::make_unique<Device>(*two.backend[i], two.node[i]));
            devices[i]->Open();
            EXPECT_EQ(0, CARD_Init(*devices[i], 0, CountEject));
            const auto number = static_cast<uint32_t>(i);
            workers.push_back(
                {*devices[i], two.backend[i]->length_unit, 100, 150, Seed() + number, true});
        }
        ejects = 0;
        RunAll(workers);
        for (size_t i = 0; i < 2; i++) {
            EXPECT_EQ(0, workers[i].wrong);
            EXPECT_TRUE(workers[i].result == bench->OnCard(two.place[i], 100, 150));
        }
        EXPECT_EQ(0, ejects);
    }
    EXPECT_EQ("", bench->LeftBehind());
}

class OneUnit : public Backends {};

INSTANTIATE_TEST_SUITE_P(Threads, OneUnit, testing::Values(kZel, kMivo), NameOf);

// The driver never sees a request before the end of the one before.
TEST_P(OneUnit, ServesItsThreadsInTurn)
{
    Open();
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    bench->ClearCalls(backend.place);
    std::vector<Worker> workers;
    for (uint32_t i = 0; i < 4; i++) {
        workers.push_back({&handle, backend.length_unit, i * 100, 100, Seed() + i, false});
    }
    EXPECT_EQ("", Printed([&] { RunAll(workers); }));
    for (const Worker& worker : workers) {
        EXPECT_EQ(0, worker.wrong);
        EXPECT_TRUE(worker.result == OnCard(worker.first, worker.sectors));
    }
    EXPECT_EQ(0, ejects);
    bool under_way = false;
    size_t transfers = 0;
    for (const BenchCall& call : bench->Calls(backend.place)) {
        EXPECT_LE(0, call.result);
        if (call.kind == BenchCallKind::Poll) {
            EXPECT_TRUE(under_way);
            under_way = false;
            transfers++;
        } else if (call.kind == BenchCallKind::Ioctl) {
            EXPECT_FALSE(under_way);
            under_way = call.request != backend.requests.status;
        }
    }
    EXPECT_EQ(size_t{4} * kSteps, transfers);
}

// While one thread pauses between its tries, others of the unit wait.
TEST(ZelThreads, WaitWhileTheirUnitIsBusy)
{
    const std::unique_ptr<Bench> bench = Bench::Create();
    bench->Insert("zel0", Bytes(size_t{kSectors} * 512));
    {
        Device busy(kZel, "/dev/spda");
        busy.Open();
        cardsim::LowBuffer memory{512};
        BenchFault fault;
        fault.request = kZelRequests.protection;
        fault.error = EBUSY;
        fault.times = 3;
        bench->Inject("zel0", fault);
        bench->ClearCalls("zel0");
        int32_t protection = 77;
        {
            cardsim::LowThread thread([&] { protection = CARD_GetWriteProtect(busy); });
            // The first answer has been given when it is in the record.
            while (bench->Calls("zel0").empty()) {
                sched_yield();
            }
            EXPECT_EQ(512, busy.Read(0, memory.data(), 1));
        }
        EXPECT_EQ(0, protection);
        std::vector<uint32_t> requests;
        for (const BenchCall& call : bench->Calls("zel0")) {
            if (call.kind == BenchCallKind::Ioctl) {
                requests.push_back(call.request);
            }
        }
        const uint32_t asked = kZelRequests.protection;
        EXPECT_EQ((std::vector<uint32_t>{asked, asked, asked, asked, kZelRequests.read}), requests);
    }
    EXPECT_EQ("", bench->LeftBehind());
}

// --- one unit busy, another free ----------------------------------------------------------

// A call, and whether it did what it should.
struct UnitCall {
    const char* name;
    uint32_t Requests::* request;  // of a direct transfer
    bool (*run)(Device& device, const cardsim::LowBuffer& memory);
};

bool DidPlain(int32_t result, const CardIoResult& record)
{
    return result == 0 && record.error == 0 && record.length == 512;
}

const UnitCall kUnitCalls[] = {
    {"DevDrctRead", &Requests::read,
     [](Device& device, const cardsim::LowBuffer& memory) {
         return device.Read(0, memory.data(), 1) == static_cast<int32_t>(device.Length(1));
     }},
    {"DevDrctWrite", &Requests::sequential_write,
     [](Device& device, const cardsim::LowBuffer& memory) {
         return device.Write(0, memory.data(), 1, 0) == static_cast<int32_t>(device.Length(1));
     }},
    {"DevDrctRMW", &Requests::rmw,
     [](Device& device, const cardsim::LowBuffer& memory) {
         BlockListEntry entry = {memory.address(), 1, 0, nullptr};
         BlockList list = {1, &entry};
         return DevDrctRMW(device, &list) == 0;
     }},
    {"DevFatWrite", &Requests::fat_write,
     [](Device& device, const cardsim::LowBuffer& memory) {
         BlockListEntry entry = {memory.address(), 1, 0, nullptr};
         BlockList list = {1, &entry};
         return DevFatWrite(device, &list) == 0;
     }},
    {"DevSdCmdWrite", &Requests::command_write,
     [](Device& device, const cardsim::LowBuffer& memory) {
         return DevSdCmdWrite(device, memory.data(), 1, 0, 25, 0) == 0;
     }},
    {"CARD_Read", nullptr,
     [](Device& device, const cardsim::LowBuffer& memory) {
         CardIoResult record = {};
         return DidPlain(CARD_Read(device, memory.data(), 1, 0, 0, &record), record);
     }},
    {"CARD_Write", nullptr,
     [](Device& device, const cardsim::LowBuffer& memory) {
         CardIoResult record = {};
         return DidPlain(CARD_Write(device, memory.data(), 1, 0, 0, &record), record);
     }},
    {"CARD_Getstatus", nullptr,
     [](Device& device, const cardsim::LowBuffer&) {
         uint16_t status = 0;
         return CARD_Getstatus(device, &status) == 0 && status == CARD_STATUS_READY;
     }},
    {"CARD_GetWriteProtect", nullptr,
     [](Device& device, const cardsim::LowBuffer&) { return CARD_GetWriteProtect(device) == 0; }},
    {"CARD_Ioctl", nullptr,
     [](Device& device, const cardsim::LowBuffer&) { return CARD_Ioctl(device, 3, 0) == 0; }},
};

class BusyUnit : public testing::TestWithParam<std::tuple<Two, bool>> {
protected:
    static constexpr std::chrono::seconds kPatience{20};
    static constexpr std::chrono::milliseconds kGlance{10};

    BusyUnit()
    {
        for (const char* place : two.place) {
            bench->Insert(place, Bytes(size_t{kSectors} * 512));
        }
        // So that little is recorded of a transfer that goes out again and again.
        bench->Latency(busy_place, std::chrono::milliseconds(2));
    }

    void NeverFinish(uint32_t request)
    {
        BenchFault unfinished;
        unfinished.request = request;
        unfinished.result = 1;
        unfinished.reach = true;  // its end is told
        unfinished.times = BenchFault::kForEver;
        bench->Inject(busy_place, unfinished);
        bench->ClearCalls(busy_place);
    }

    // The record does not grow meanwhile.
    bool Comes(const std::function<bool()>& event)
    {
        const auto until = std::chrono::steady_clock::now() + kPatience;
        while (!event()) {
            if (std::chrono::steady_clock::now() > until) {
                return false;
            }
            bench->ClearCalls(busy_place);
        }
        return true;
    }

    const Two two = std::get<0>(GetParam());
    const size_t first = std::get<1>(GetParam()) ? 1 : 0;
    const char* const busy_place = two.place[first];
    const char* const free_place = two.place[1 - first];
    std::unique_ptr<Bench> bench = Bench::Create();
    cardsim::LowBuffer memory{512};
    cardsim::LowBuffer others{512};
};

INSTANTIATE_TEST_SUITE_P(Threads, BusyUnit,
                         testing::Combine(testing::ValuesIn(kTwos), testing::Bool()),
                         [](const auto& param) {
                             return std::string(std::get<0>(param.param).name) +
                                    (std::get<1>(param.param) ? "LastBusy" : "FirstBusy");
                         });

// One unit's request lasts until every call on the other has returned.
TEST_P(BusyUnit, KeepsNoOtherUnitWaiting)
{
    {
        Device busy(*two.backend[first], two.node[first]);
        Device free(*two.backend[1 - first], two.node[1 - first]);
        busy.Open();
        free.Open();
        EXPECT_EQ(0, CARD_Init(free, 0, CountEject));
        for (const UnitCall& held : kUnitCalls) {
            if (held.request == nullptr) {
                continue;
            }
            NeverFinish(two.backend[first]->requests.*held.request);
            std::atomic<const char*> doing{"nothing"};
            Signal returned;
            bool was_held = false;
            int wrong = 0;
            bool in_time = false;
            {
                const cardsim::LowThread lasting([&] { was_held = held.run(busy, memory); });
                EXPECT_TRUE(Comes([&] { return !bench->Calls(busy_place).empty(); }));
                const cardsim::LowThread passing([&] {
                    for (const UnitCall& call : kUnitCalls) {
                        doing = call.name;
                        wrong += call.run(free, others) ? 0 : 1;
                    }
                    returned.Set();
                });
                in_time = Comes([&] { return returned.Wait(kGlance); });
                EXPECT_TRUE(in_time) << doing << " on " << free_place << " waits for " << held.name
                                     << " on " << busy_place;
                bench->ClearFaults(busy_place);
            }
            EXPECT_TRUE(was_held) << held.name;
            EXPECT_EQ(0, wrong);
            ASSERT_TRUE(in_time);
        }
    }
    EXPECT_EQ("", bench->LeftBehind());
}

}  // namespace
