// SPDX-License-Identifier: MIT
//
// Cards that leave, are exchanged or protected while a program uses them.
#include "tests/backends/fixture.h"

namespace {

class Leaving : public Backends {
protected:
    // Open, watched, and on drivers that need no time for a transfer.
    Leaving()
    {
        bench->Latency(backend.place, std::chrono::microseconds(0));
        Open();
        EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    }

    int32_t Read(uint32_t first, uint32_t sectors)
    {
        Chunks chunks = {1, {{memory.address(), sectors * 512}}};
        return DevDrctRead(&handle, first, Length(sectors), chunks.list());
    }
    int32_t Write(uint32_t first, uint32_t sectors)
    {
        Chunks chunks = {1, {{memory.address(), sectors * 512}}};
        uint32_t retried = 0;
        return DevDrctWrite(&handle, first, Length(sectors), chunks.list(), 1, &retried);
    }
    int32_t Plain(bool read)
    {
        CardIoResult result = {0, 0, 0};
        EXPECT_EQ(0, read ? CARD_Read(&handle, memory.data(), 1, 3, 0, &result)
                          : CARD_Write(&handle, memory.data(), 1, 3, 0, &result));
        return result.error == 0 ? result.length : -result.error;
    }

    // All calls that look for the card first, and what each says when it has gone.
    struct Asking {
        const char* name;
        int64_t gone;
        std::function<int64_t(Leaving&)> call;
    };
    static std::vector<Asking> EveryAskingCall()
    {
        return {
            {"CARD_Read", -10, [](Leaving& test) { return test.Plain(true); }},
            {"CARD_Write", -10, [](Leaving& test) { return test.Plain(false); }},
            {"CARD_Getstatus", kRemoved,
             [](Leaving& test) {
                 uint16_t status = 0;
                 return CARD_Getstatus(&test.handle, &status);
             }},
            {"CARD_Getinfo", kRemoved,
             [](Leaving& test) {
                 CardInfo info;
                 return CARD_Getinfo(&test.handle, &info);
             }},
            {"CARD_GetSpeedInfo", kRemoved,
             [](Leaving& test) {
                 CardSpeedInfo speed;
                 return CARD_GetSpeedInfo(&test.handle, &speed);
             }},
            {"CARD_SecureGetinfo", kRemoved,
             [](Leaving& test) {
                 uint8_t status[CARD_SD_STATUS_SIZE];
                 return CARD_SecureGetinfo(&test.handle, status);
             }},
            {"CARD_GetCardSize", 0xFFFFFFFB,
             [](Leaving& test) { return int64_t{CARD_GetCardSize(&test.handle)}; }},
            {"CARD_GetWriteProtect", -5,
             [](Leaving& test) { return CARD_GetWriteProtect(&test.handle); }},
            {"CARD_Ioctl", kRemoved, [](Leaving& test) { return CARD_Ioctl(&test.handle, 3, 1); }},
            {"DevIoctl", -5,
             [](Leaving& test) {
                 uint32_t record[9];
                 return DevIoctl(&test.handle, DEV_IOCTL_DEVICE_PARAMS, record);
             }},
            {"DevDrctRead", -5, [](Leaving& test) { return test.Read(0, 1); }},
            {"DevDrctWrite", -5, [](Leaving& test) { return test.Write(0, 1); }},
            {"DevDrctRMW", -5,
             [](Leaving& test) {
                 BlockListEntry entry = {test.memory.address(), 1, 0, nullptr};
                 BlockList list = {1, &entry};
                 return DevDrctRMW(&test.handle, &list);
             }},
            {"DevFatWrite", -5,
             [](Leaving& test) {
                 BlockListEntry entry = {test.memory.address(), 1, 0, nullptr};
                 BlockList list = {1, &entry};
                 return DevFatWrite(&test.handle, &list);
             }},
            {"DevSdCmdWrite", -5,
             [](Leaving& test) {
                 return DevSdCmdWrite(&test.handle, test.memory.data(), 1, 0, 0, 0);
             }},
        };
    }
};

INSTANTIATE_TEST_SUITE_P(Eject, Leaving, testing::Values(kZel, kMivo), NameOf);

// Before, each succeeds and nobody is called; after, each calls back.
TEST_P(Leaving, IsNoticedByEveryCallThatLooks)
{
    for (const Asking& asking : EveryAskingCall()) {
        SCOPED_TRACE(asking.name);
        EXPECT_NE(asking.gone, asking.call(*this));
        EXPECT_EQ(0, ejects);
    }
    bench->Eject(backend.place);
    for (const Asking& asking : EveryAskingCall()) {
        SCOPED_TRACE(asking.name);
        ejects = 0;
        bench->ClearCalls(backend.place);
        EXPECT_EQ((Outcome{asking.gone}), OutcomeOf([&] { return asking.call(*this); }));
        EXPECT_EQ(1, ejects);
        // Nothing but the question whether it is there.
        EXPECT_EQ(std::vector<uint32_t>{backend.requests.status}, SentRequests());
    }
    EXPECT_EQ(0, CARD_GetR1Status(&handle));
}

// The call that the card leaves with goes on; the next one notices.
TEST_P(Leaving, WithARequestIsNoticedByTheNext)
{
    BenchFault leave;
    leave.request = backend.requests.read;
    leave.first = 3;
    leave.eject = true;
    bench->Inject(backend.place, leave);
    const auto whole = static_cast<int32_t>(Length(2));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(whole, Read(8, 2));
        EXPECT_EQ(0, ejects);
    }
    EXPECT_EQ(-5, Read(8, 2));
    EXPECT_EQ(1, ejects);
}

// A Zel slot tells that the card is another one; the adaptor cannot.
TEST_P(Leaving, AndComingBackIsAnEjectWhereTheDriverTells)
{
    CardInfo before = {};
    EXPECT_EQ(0, CARD_Getinfo(&handle, &before));
    Insert();
    const bool tells = backend.type == DEV_TYPE_ZEL;
    Bytes cid = bench->Register(backend.place, "cid");
    cid[3] ^= 0xFF;
    bench->SetRegister(backend.place, "cid", cid);
    uint16_t status = 0;
    EXPECT_EQ(tells ? kRemoved : 0, CARD_Getstatus(&handle, &status));
    EXPECT_EQ(tells ? 1 : 0, ejects);
    EXPECT_EQ(tells ? -5 : static_cast<int32_t>(Length(1)), Read(0, 1));
    // Registers of an open device are those of the card that it was opened with.
    CardInfo info = {};
    EXPECT_EQ(tells ? kRemoved : 0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(tells, memcmp(&before, &info, sizeof info) != 0);
    // The way back is through exit and a new beginning.
    Exit();
    handle = HandleFor(backend.node);
    Open();
    ejects = 0;
    EXPECT_EQ(0, CARD_Init(&handle, 0, CountEject));
    EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(0, memcmp(&info.cid[backend.cid_at], cid.data(), 16 - backend.cid_at));
    EXPECT_EQ(static_cast<int32_t>(Length(1)), Read(0, 1));
    EXPECT_EQ(0, ejects);
}

TEST_P(Leaving, ForAnotherCardWithinARequest)
{
    BenchFault exchange;
    exchange.request = backend.requests.read;
    exchange.exchange = Bytes(size_t{kSectors} * 512, 0x77);
    bench->Inject(backend.place, exchange);
    EXPECT_EQ(static_cast<int32_t>(Length(1)), Read(0, 1));
    EXPECT_EQ(Bytes(512, 0), BytesAt(memory.address(), 512));
    EXPECT_EQ(backend.type == DEV_TYPE_ZEL ? -5 : static_cast<int32_t>(Length(1)), Read(0, 1));
    EXPECT_EQ(Bytes(512, backend.type == DEV_TYPE_ZEL ? 0 : 0x77), BytesAt(memory.address(), 512));
    EXPECT_EQ(Bytes(512, 0x77), OnCard(0, 1));
}

DrvInfo* watched;
int depth;

void AskAgain()
{
    ejects++;
    if (depth++ < 3) {
        uint16_t status = 0;
        EXPECT_EQ(kRemoved, CARD_Getstatus(watched, &status));
    }
}

// The callback holds no lock: it may use the library.
TEST_P(Leaving, LetsTheCallbackAsk)
{
    EXPECT_EQ(0, CARD_Init(&handle, 0, AskAgain));
    // No argument takes a callback back.
    EXPECT_EQ(0, CARD_Init(&handle, 0, nullptr));
    watched = &handle;
    depth = 0;
    bench->Eject(backend.place);
    EXPECT_EQ(-5, Read(0, 1));
    EXPECT_EQ(4, ejects);
}

TEST_P(Leaving, OfOneUnitIsNoMatterToTheOther)
{
    bench->Insert(backend.other_place, Bytes(size_t{kSectors} * 512));
    Device other(backend, backend.other_node);
    other.Open();
    EXPECT_EQ(0, CARD_Init(other, 0, CountEject));
    bench->Eject(backend.place);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(static_cast<int32_t>(Length(1)), other.Read(0, memory.data(), 1));
        EXPECT_EQ(i, ejects);
        EXPECT_EQ(-5, Read(0, 1));
        EXPECT_EQ(i + 1, ejects);
    }
}

// --- protection ------------------------------------------------------------------------

TEST_P(Leaving, ProtectionStopsDirectWrites)
{
    EXPECT_EQ(0, CARD_GetWriteProtect(&handle));
    BenchFault protect;
    protect.request = backend.requests.write;
    protect.protect = true;
    bench->Inject(backend.place, protect);
    memset(memory.data(), 0x31, 512);
    EXPECT_EQ(static_cast<int32_t>(Length(1)), Write(5, 1));
    EXPECT_EQ(1, CARD_GetWriteProtect(&handle));
    memset(memory.data(), 0x32, 512);
    const std::string request =
        std::string(backend.request) +
        (backend.type == DEV_TYPE_ZEL ? "DIRECT_SEQ_WRITE" : "DIRECT_WRITE");
    const std::string counters =
        backend.type == DEV_TYPE_ZEL ? "(retry=0 err_retry=3)" : "(retry=3)";
    const std::string retry = std::string("Retry ") + backend.request + "DIRECT_WRITE : retry=";
    EXPECT_EQ(Line("DrctWrite", 'W', retry + "1!") + Line("DrctWrite", 'W', retry + "2!") +
                  Line("DrctWrite", 'E',
                       "ioctl(" + request + ") is failed" + counters + " : Read-only file system"),
              Printed([&] { EXPECT_EQ(-5, Write(5, 1)); }));
    EXPECT_EQ(Bytes(512, 0x31), OnCard(5, 1));
    EXPECT_EQ(static_cast<int32_t>(Length(1)), Read(5, 1));
    EXPECT_EQ(Bytes(512, 0x31), BytesAt(memory.address(), 512));
    EXPECT_EQ(0, ejects);
}

TEST_P(Backends, TellProtectionAsTheDriverGivesIt)
{
    Open();
    const bool asks = backend.tells_eject;
    for (const bool is_protected : {false, true, false}) {
        bench->Protect(backend.place, is_protected);
        // The Ricoh host's node told when it was opened.
        EXPECT_EQ(asks && is_protected ? 1 : 0, CARD_GetWriteProtect(&handle));
    }
    if (!asks) {
        return;
    }
    struct Answer {
        int driver;
        int32_t told;
    };
    for (const Answer& answer : {Answer{2, 2}, {0x10001, 1}, {0xFFFF, -1}, {0x7FFF, 0x7FFF}}) {
        BenchFault other;
        other.request = backend.requests.protection;
        other.result = answer.driver;
        bench->Inject(backend.place, other);
        EXPECT_EQ(answer.told, CARD_GetWriteProtect(&handle));
    }
}

// The one second try of an open.
TEST(RicohSd, OpensAProtectedCardForReading)
{
    const std::unique_ptr<Bench> bench = Bench::Create();
    bench->Insert("ricoh", Bytes(64 * 512, 0x42));
    bench->Protect("ricoh", true);
    bench->ClearCalls("ricoh");
    {
        Device device(kRicohSd);
        device.Open();
        const std::vector<BenchCall> calls = bench->Calls("ricoh");
        ASSERT_LE(2u, calls.size());
        EXPECT_EQ(-EROFS, calls[0].result);
        EXPECT_EQ(BenchCallKind::Open, calls[1].kind);
        EXPECT_LE(0, calls[1].result);
        EXPECT_EQ(1, CARD_GetWriteProtect(device));
        uint8_t sector[512];
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Read(device, sector, 1, 7, 0, &result));
        EXPECT_EQ(512, result.length);
        EXPECT_EQ(0x42, sector[511]);
        EXPECT_EQ(0, CARD_Write(device, sector, 1, 7, 0, &result));
        EXPECT_EQ(EBADF, errno);
        EXPECT_EQ(10, result.error);
    }
    EXPECT_EQ("", bench->LeftBehind());
}

}  // namespace
