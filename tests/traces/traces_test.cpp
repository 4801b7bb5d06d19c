// SPDX-License-Identifier: MIT
//
// What each call of the interface asks of the kernel when all goes well: every system
// call, every use of the unit's lock and of the heap, in order and no more. Programs on
// the board are tuned to these.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "carddev.h"
#include "carddev_state.h"
#include "sim/card.h"
#include "sim/kernel.h"
#include "sim/low_memory.h"
#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"

namespace {

constexpr uint32_t kCardSectors = 4096;

// A line, and how many calls the kernel had recorded by then.
struct LockUse {
    size_t calls;
    const char* line;
};

std::vector<LockUse>& LockUses()
{
    static std::vector<LockUse> uses;
    return uses;
}

template <typename Units>
bool LiesIn(const Units& units, const void* object)
{
    const auto at = reinterpret_cast<uintptr_t>(object);
    const auto first = reinterpret_cast<uintptr_t>(&units);
    return at >= first && at < first + sizeof units;
}

// The lock of the unit that a table is about; null for none.
const pthread_mutex_t*& OwnLock()
{
    static const pthread_mutex_t* lock = nullptr;
    return lock;
}

void Note(const pthread_mutex_t* mutex, const char* line)
{
    const cardsim::Kernel* kernel = cardsim::Kernel::Current();
    if (kernel == nullptr) {
        return;
    }
    if (mutex == OwnLock()) {
        LockUses().push_back({kernel->Calls().size(), line});
    } else if (LiesIn(zel_dev, mutex) || LiesIn(mivo_dev, mutex)) {
        LockUses().push_back({kernel->Calls().size(), "another unit's lock"});
    }
}

// What the calls of a table are made with.
struct Caller {
    DrvInfo handle = {};
    cardsim::LowBuffer memory = cardsim::LowBuffer(4096);
    // Two pieces apart, a sector each.
    uint32_t chunks[5] = {2, 0, 512, 0, 512};
    MemoryArray array = {};
    BlockListEntry second = {};
    BlockListEntry first = {};
    BlockList list = {2, nullptr};
    uint32_t retried = 0;
    uint32_t words[9] = {};
    CardIoResult answer = {};
    CardInfo info = {};
    CardSpeedInfo speed = {};
    uint8_t sd_status[CARD_SD_STATUS_SIZE] = {};
    uint16_t status = 0;

    uint32_t At(uint32_t offset) const { return memory.address() + offset; }

    explicit Caller(const std::string& path) : handle(HandleFor(path))
    {
        chunks[1] = At(0);
        chunks[3] = At(1024);
        array.addr[0] = At(0);
        array.len[0] = 512;
        array.addr[1] = At(1024);
        array.len[1] = 512;
        array.count = 2;
        second = {At(1024), 1, 20, nullptr};
        first = {At(0), 1, 10, &second};
        list.first = &first;
    }

    MemoryChunkArray* Chunks() { return reinterpret_cast<MemoryChunkArray*>(chunks); }
};

struct Row {
    const char* call;
    int64_t (*make)(Caller&);
    int64_t result;
    const char* expected;  // a line each; "look" stands for the look at whether the card is there
};

void OnEject() {}

// --- the calls, for all tables ----------------------------------------------------

int64_t Detect(Caller& caller)
{
    return DevDetect(&caller.handle);
}

int64_t Init(Caller& caller)
{
    return DevInit(&caller.handle);
}

int64_t Exit(Caller& caller)
{
    DevExit(&caller.handle);
    return 0;
}

int64_t Status(Caller& caller)
{
    return CARD_Getstatus(&caller.handle, &caller.status);
}

int64_t R1Status(Caller& caller)
{
    return CARD_GetR1Status(&caller.handle);
}

int64_t Info(Caller& caller)
{
    return CARD_Getinfo(&caller.handle, &caller.info);
}

int64_t Speed(Caller& caller)
{
    return CARD_GetSpeedInfo(&caller.handle, &caller.speed);
}

int64_t SdStatus(Caller& caller)
{
    return CARD_SecureGetinfo(&caller.handle, caller.sd_status);
}

int64_t Size(Caller& caller)
{
    return CARD_GetCardSize(&caller.handle);
}

int64_t Protection(Caller& caller)
{
    return CARD_GetWriteProtect(&caller.handle);
}

int64_t Command(Caller& caller)
{
    return CARD_Ioctl(&caller.handle, 2, 1);
}

int64_t OtherCommand(Caller& caller)
{
    return CARD_Ioctl(&caller.handle, 5, 1);
}

int64_t Read(Caller& caller)
{
    CARD_Read(&caller.handle, caller.memory.data(), 2, 7, 0, &caller.answer);
    return caller.answer.length;
}

int64_t Write(Caller& caller)
{
    CARD_Write(&caller.handle, caller.memory.data(), 2, 7, 0, &caller.answer);
    return caller.answer.length;
}

// Two sectors: bytes for a Zel slot, sectors for a Mivo unit.
template <uint32_t kLength>
int64_t DirectRead(Caller& caller)
{
    return DevDrctRead(&caller.handle, 7, kLength, caller.Chunks());
}

template <uint32_t kLength, uint32_t kFlag>
int64_t DirectWrite(Caller& caller)
{
    return DevDrctWrite(&caller.handle, 7, kLength, caller.Chunks(), kFlag, &caller.retried);
}

template <uint32_t kLength>
int64_t ArrayRead(Caller& caller)
{
    return DevDrctReadArray(&caller.handle, 7, kLength, &caller.array);
}

template <uint32_t kLength>
int64_t ArrayWrite(Caller& caller)
{
    return DevDrctWriteArray(&caller.handle, 7, kLength, &caller.array, 0, &caller.retried);
}

int64_t Rmw(Caller& caller)
{
    return DevDrctRMW(&caller.handle, &caller.list);
}

int64_t FatWrite(Caller& caller)
{
    return DevFatWrite(&caller.handle, &caller.list);
}

int64_t CommandWrite(Caller& caller)
{
    return DevSdCmdWrite(&caller.handle, caller.memory.data(), 1, 7, 25, 0);
}

int64_t CheckRt(Caller& caller)
{
    return DevCheckRt(&caller.handle);
}

int64_t CheckDelay(Caller& caller)
{
    return DevCheckDelay(&caller.handle);
}

int64_t OnForWait(Caller& caller)
{
    return DevRTOn4Wait(&caller.handle);
}

int64_t LockRt(Caller& caller)
{
    DevLockRTOn(&caller.handle);
    return 0;
}

int64_t UnlockRt(Caller& caller)
{
    DevUnlockRTOn(&caller.handle);
    return 0;
}

template <uint32_t kRequest>
int64_t Request(Caller& caller)
{
    return DevIoctl(&caller.handle, kRequest, caller.words);
}

// --- what they come to ---------------------------------------------------------------

const std::vector<Row> kZelRows = {
    {"DevDetect", Detect, 0, "stat64(/dev/spdb) = 0\n"},
    {"DevInit", Init, 0,
     "open64(/dev/spdb, O_RDWR)\n"
     "ioctl(/dev/spdb, 0x2000bc0a) = 0\n"
     "open64(/dev/spdb, O_RDWR)\n"
     "open64(/dev/spdrb, O_RDWR)\n"
     "ioctl(/dev/spdrb, 0x20007016) = 0\n"
     "ioctl(/dev/spdb, 0x20001260) = 0\n"
     "ioctl(/dev/spdb, 0x20007005) = 0\n"
     "malloc(64)\n"
     "ioctl(/dev/spdb, 0x20007005) = 0\n"
     "ioctl(/dev/spdb, 0x20007005) = 0\n"
     "malloc(32)\n"
     "ioctl(/dev/spdrb, 0x20007029) = 0\n"
     "open64(/dev/rtctrl_zel, O_RDWR)\n"
     "malloc(16392)\n"
     "poll(/dev/spdrb, 0x1d, 1 ms) = 0\n"},
    {"CARD_Getstatus", Status, 0, "look\n"},
    {"CARD_GetR1Status", R1Status, 0, ""},
    {"CARD_Getinfo", Info, 0, "look\n"},
    {"CARD_GetSpeedInfo", Speed, 0,
     "look\n"
     "ioctl(/dev/spdb, 0x20007005) = 0\n"
     "malloc(32)\n"},
    {"CARD_GetSpeedInfo again", Speed, 0, "look\n"},
    {"CARD_SecureGetinfo", SdStatus, 0, "look\n"},
    {"CARD_GetCardSize", Size, kCardSectors,
     "look\n"
     "ioctl(/dev/spdb, 0x20001260) = 0\n"
     "look\n"
     "look\n"},
    {"CARD_GetWriteProtect", Protection, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x20007008) = 0\n"
     "unlock\n"},
    {"CARD_Ioctl", Command, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdb, 0x2000701b) = 0\n"
     "unlock\n"},
    {"CARD_Ioctl, another", OtherCommand, 0, "look\n"},
    {"CARD_Read", Read, 1024,
     "look\n"
     "lseek64(/dev/spdb, 3584, SEEK_SET) = 3584\n"
     "read(/dev/spdb, 1024) = 1024\n"},
    {"CARD_Write", Write, 1024,
     "look\n"
     "lseek64(/dev/spdb, 3584, SEEK_SET) = 3584\n"
     "write(/dev/spdb, 1024) = 1024\n"},
    {"DevDrctRead", DirectRead<1024>, 1024,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000700d) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctWrite", DirectWrite<1024, 0>, 1024,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x20007018) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctWrite, plain", DirectWrite<1024, 1>, 1024,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000700c) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctReadArray", ArrayRead<1024>, 1024,
     "malloc(20)\n"
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000700d) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"
     "free() = 0\n"},
    {"DevDrctWriteArray", ArrayWrite<1024>, 1024,
     "malloc(20)\n"
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x20007018) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"
     "free() = 0\n"},
    {"DevDrctRMW", Rmw, 0,
     "look\n"
     "malloc(32)\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000702a) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "free() = 0\n"
     "unlock\n"},
    {"DevFatWrite", FatWrite, 0,
     "look\n"
     "malloc(32)\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000701d) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "free() = 0\n"
     "unlock\n"},
    {"DevSdCmdWrite", CommandWrite, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/spdrb, 0x2000701e) = 0\n"
     "poll(/dev/spdrb, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevCheckRt", CheckRt, 0, "ioctl(/dev/rtctrl_zel, 0x4001ec1e) = 0\n"},
    {"DevCheckDelay", CheckDelay, 0, "ioctl(/dev/rtctrl_zel, 0x4001ec1f) = 0\n"},
    {"DevRTOn4Wait", OnForWait, 0, "ioctl(/dev/rtctrl_zel, 0x4001ec20) = 0\n"},
    {"DevLockRTOn", LockRt, 0, "ioctl(/dev/rtctrl_zel, 0x2000ec0a) = 0\n"},
    {"DevUnlockRTOn", UnlockRt, 0, "ioctl(/dev/rtctrl_zel, 0x2000ec0b) = 0\n"},
    {"DevIoctl 40", Request<DEV_IOCTL_RT_40>, 0,
     "look\n"
     "ioctl(/dev/rtctrl_zel, 0x8014ec14) = 0\n"},
    {"DevIoctl 41", Request<DEV_IOCTL_RT_41>, 0,
     "look\n"
     "ioctl(/dev/rtctrl_zel, 0xc008ec18) = 0\n"},
    {"DevIoctl 42", Request<DEV_IOCTL_RT_42>, 0,
     "look\n"
     "ioctl(/dev/rtctrl_zel, 0x8004ec1b) = 0\n"},
    {"DevIoctl 43", Request<DEV_IOCTL_DEVICE_PARAMS>, 0,
     "look\n"
     "ioctl(/dev/spdb, 0x20007013) = 0\n"},
    {"DevIoctl 45", Request<DEV_IOCTL_RT_45>, 0,
     "look\n"
     "ioctl(/dev/rtctrl_zel, 0x8004ec15) = 0\n"},
    {"DevIoctl, another", Request<1>, -25, "look\n"},
    {"DevExit", Exit, 0,
     "poll(/dev/spdrb, 0x1d, 1 ms) = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "close(/dev/rtctrl_zel) = 0\n"
     "close(/dev/spdrb) = 0\n"
     "close(/dev/spdb) = 0\n"
     "close(/dev/spdb) = 0\n"},
};

const std::vector<Row> kMivoRows = {
    {"DevDetect", Detect, 0, "stat64(/dev/mivosdif1) = 0\n"},
    {"DevInit", Init, 0,
     "open64(/dev/mivosdif1, O_RDWR)\n"
     "ioctl(/dev/mivosdif1, 0x2000d318) = 0\n"
     "malloc(16392)\n"
     "poll(/dev/mivosdif1, 0x1d, 1 ms) = 0\n"},
    {"CARD_Getstatus", Status, 0, "look\n"},
    {"CARD_GetR1Status", R1Status, 0, ""},
    {"CARD_Getinfo", Info, 0,
     "look\n"
     "ioctl(/dev/mivosdif1, 0x4001d314) = 0\n"
     "ioctl(/dev/mivosdif1, 0x4001d315) = 0\n"
     "malloc(32)\n"},
    {"CARD_Getinfo again", Info, 0, "look\n"},
    {"CARD_GetSpeedInfo", Speed, 0,
     "look\n"
     "ioctl(/dev/mivosdif1, 0x4030d30f) = 0\n"
     "ioctl(/dev/mivosdif1, 0x4001d316) = 0\n"
     "malloc(32)\n"},
    {"CARD_GetSpeedInfo again", Speed, 0, "look\n"},
    {"CARD_SecureGetinfo", SdStatus, 0,
     "look\n"
     "ioctl(/dev/mivosdif1, 0x4001d317) = 0\n"
     "malloc(64)\n"},
    {"CARD_SecureGetinfo again", SdStatus, 0, "look\n"},
    {"CARD_GetCardSize", Size, kCardSectors,
     "look\n"
     "ioctl(/dev/mivosdif1, 0x4030d30f) = 0\n"
     "look\n"
     "look\n"},
    {"CARD_GetWriteProtect", Protection, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x2000d307) = 0\n"
     "unlock\n"},
    {"CARD_Ioctl", Command, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x8001d327) = 0\n"
     "unlock\n"},
    {"CARD_Ioctl, another", OtherCommand, 0, "look\n"},
    {"CARD_Read", Read, 1024,
     "look\n"
     "lseek64(/dev/mivosdif1, 3584, SEEK_SET) = 3584\n"
     "read(/dev/mivosdif1, 1024) = 1024\n"},
    {"CARD_Write", Write, 1024,
     "look\n"
     "lseek64(/dev/mivosdif1, 3584, SEEK_SET) = 3584\n"
     "write(/dev/mivosdif1, 1024) = 1024\n"},
    {"DevDrctRead", DirectRead<2>, 2,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0xc010d324) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctWrite", DirectWrite<2, 0>, 2,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x8010d32e) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctWrite, plain", DirectWrite<2, 1>, 2,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x8010d325) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevDrctReadArray", ArrayRead<2>, 2,
     "malloc(20)\n"
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0xc010d324) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"
     "free() = 0\n"},
    {"DevDrctWriteArray", ArrayWrite<2>, 2,
     "malloc(20)\n"
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x8010d32e) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"
     "free() = 0\n"},
    {"DevDrctRMW", Rmw, 0,
     "look\n"
     "malloc(32)\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x800cd326) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "free() = 0\n"
     "unlock\n"},
    {"DevFatWrite", FatWrite, 0,
     "look\n"
     "malloc(32)\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x800cd32a) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "free() = 0\n"
     "unlock\n"},
    {"DevSdCmdWrite", CommandWrite, 0,
     "look\n"
     "lock\n"
     "ioctl(/dev/mivosdif1, 0x8008d32b) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 4000 ms) = 1\n"
     "unlock\n"},
    {"DevIoctl 43", Request<DEV_IOCTL_DEVICE_PARAMS>, 0, "look\n"},
    {"DevIoctl, another", Request<DEV_IOCTL_RT_40>, -25, "look\n"},
    {"DevExit", Exit, 0,
     "ioctl(/dev/mivosdif1, 0x2000d319) = 0\n"
     "poll(/dev/mivosdif1, 0x1d, 1 ms) = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "free() = 0\n"
     "close(/dev/mivosdif1) = 0\n"},
};

const std::vector<Row> kRicohRows = {
    {"DevDetect", Detect, 0, "stat64(/dev/sdcarda) = 0\n"},
    {"DevInit", Init, 0, "open64(/dev/sdcarda, O_RDWR|O_SYNC)\n"},
    {"CARD_Getstatus", Status, 0, ""},
    {"CARD_GetR1Status", R1Status, 0, ""},
    {"CARD_Getinfo", Info, 0,
     "ioctl(/dev/sdcarda, 0x400178ff) = 0\n"
     "ioctl(/dev/sdcarda, 0x400178fe) = 0\n"
     "malloc(32)\n"},
    {"CARD_Getinfo again", Info, 0, ""},
    {"CARD_GetSpeedInfo", Speed, 0, ""},
    {"CARD_SecureGetinfo", SdStatus, 0,
     "ioctl(/dev/sdcarda, 0x400178f4) = 0\n"
     "malloc(64)\n"},
    {"CARD_SecureGetinfo again", SdStatus, 0, ""},
    {"CARD_GetCardSize", Size, kCardSectors, "ioctl(/dev/sdcarda, 0x400478fc) = 0\n"},
    {"CARD_GetWriteProtect", Protection, 0, ""},
    {"CARD_Ioctl", Command, 0, ""},
    {"CARD_Read", Read, 1024,
     "lseek64(/dev/sdcarda, 3584, SEEK_SET) = 3584\n"
     "read(/dev/sdcarda, 1024) = 1024\n"},
    {"CARD_Write", Write, 1024,
     "lseek64(/dev/sdcarda, 3584, SEEK_SET) = 3584\n"
     "write(/dev/sdcarda, 1024) = 1024\n"},
    {"DevIoctl", Request<DEV_IOCTL_DEVICE_PARAMS>, -25, ""},
    {"DevExit", Exit, 0,
     "free() = 0\n"
     "free() = 0\n"
     "close(/dev/sdcarda) = 0\n"},
};

// --- comparing ---------------------------------------------------------------------------

// What the last call did, a line each, uses of the lock where they happened.
std::string Trace(const cardsim::Kernel& kernel)
{
    std::string trace;
    auto use = LockUses().begin();
    const std::vector<cardsim::Call> calls = kernel.Calls();
    for (size_t i = 0;; i++) {
        for (; use != LockUses().end() && use->calls == i; ++use) {
            trace += std::string(use->line) + "\n";
        }
        if (i == calls.size()) {
            return trace;
        }
        trace += cardsim::Describe(calls[i]) + "\n";
    }
}

std::string WithLook(std::string lines, const std::string& look)
{
    const std::string mark = "look\n";
    for (size_t at = lines.find(mark); at != std::string::npos; at = lines.find(mark, at)) {
        lines.replace(at, mark.size(), look);
        at += look.size();
    }
    return lines;
}

// Makes the calls of a table one after the other on one handle, first without a callback
// for ejects, then with one.
class Traces : public testing::Test {
protected:
    void Follow(const std::string& path, const pthread_mutex_t* lock, const std::string& look,
                const std::vector<Row>& rows)
    {
        OwnLock() = lock;
        for (const CardEjectCallback on_eject : {CardEjectCallback{}, CardEjectCallback{OnEject}}) {
            SCOPED_TRACE(on_eject == nullptr ? "without a callback" : "with a callback");
            Caller caller(path);
            for (const Row& row : rows) {
                SCOPED_TRACE(row.call);
                kernel.ClearCalls();
                LockUses().clear();
                int64_t result = 0;
                Printed([&] { result = row.make(caller); });
                EXPECT_EQ(row.result, result);
                EXPECT_EQ(WithLook(row.expected, on_eject == nullptr ? "" : look), Trace(kernel));
                if (row.make == Init) {
                    Printed([&] { CARD_Init(&caller.handle, 0, on_eject); });
                }
            }
            EXPECT_EQ(0u, kernel.OpenFiles());
            EXPECT_EQ(0u, kernel.LiveBlocks());
        }
    }

    cardsim::Kernel kernel;
};

TEST_F(Traces, OfAZelSlot)
{
    const auto slots = cardsim::ZelSlots::Create(kernel);
    slots->Insert(1, cardsim::Card::InMemory(kCardSectors));
    Follow("/dev/spdb", &zel_dev[1].lock, "lock\nioctl(/dev/spdrb, 0x20007001) = 0\nunlock\n",
           kZelRows);
}

TEST_F(Traces, OfAMivoUnit)
{
    const auto units = cardsim::MivoUnits::Create(kernel);
    units->Insert(1, cardsim::Card::InMemory(kCardSectors));
    Follow("/dev/mivosdif1", &mivo_dev[1].lock,
           "lock\nioctl(/dev/mivosdif1, 0x4006d300) = 0\nunlock\n", kMivoRows);
}

TEST_F(Traces, OfTheRicohHost)
{
    cardsim::AddRicohCard(kernel, cardsim::Card::InMemory(kCardSectors));
    Follow("/dev/sdcarda", nullptr, "", kRicohRows);
}

}  // namespace

// The linker puts these in front of libc's.
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    Note(mutex, "lock");
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    Note(mutex, "unlock");
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
