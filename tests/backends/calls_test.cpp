// SPDX-License-Identifier: MIT
//
// Every public call: with bad handles and arguments, on devices in every state, with
// drivers that refuse; and what reaches the driver of those that go through.
#include "tests/backends/fixture.h"

namespace {

// Everything that a call may want beside a handle.
struct Arguments {
    Arguments()
    {
        chunks = {1, {{memory.address(), 512}}};
        array.count = 1;
        array.addr[0] = memory.address();
        array.len[0] = 512;
        entry = {memory.address(), 1, 3, nullptr};
        list = {1, &entry};
    }

    cardsim::LowBuffer memory{512};
    Chunks chunks;
    MemoryArray array = {};
    BlockListEntry entry;
    BlockList list;
    uint32_t retried = 0;
    uint16_t status = 0x1234;
    CardInfo info = {};
    CardSpeedInfo speed = {};
    uint8_t sd_status[CARD_SD_STATUS_SIZE] = {};
    CardIoResult result = {};
    uint32_t record[9] = {};
};

// A call, its result for a null or empty handle, and for a device that was never opened
// (two of the back-ends, Ricoh SD).
struct PublicCall {
    const char* name;
    int64_t no_handle;
    int64_t not_open;
    int64_t not_open_ricoh;
    int64_t (*call)(DrvInfo* handle, Arguments& with);
};

constexpr PublicCall kCalls[] = {
    {"CARD_Init", 10, 10, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t { return CARD_Init(handle, 1, CountEject); }},
    {"CARD_Read", 10, 0, 0,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return CARD_Read(handle, with.memory.data(), 1, 0, 0, &with.result);
     }},
    {"CARD_Write", 10, 0, 0,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return CARD_Write(handle, with.memory.data(), 1, 0, 0, &with.result);
     }},
    {"CARD_Getstatus", 10, 10, 0xFFED,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return CARD_Getstatus(handle, &with.status);
     }},
    {"CARD_GetR1Status", 10, 0, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t { return CARD_GetR1Status(handle); }},
    {"CARD_Getinfo", 10, 10, 10,
     [](DrvInfo* handle, Arguments& with) -> int64_t { return CARD_Getinfo(handle, &with.info); }},
    {"CARD_GetSpeedInfo", 10, 10, 10,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return CARD_GetSpeedInfo(handle, &with.speed);
     }},
    {"CARD_SecureGetinfo", 10, 10, 10,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return CARD_SecureGetinfo(handle, with.sd_status);
     }},
    {"CARD_GetCardSize", 10, 10, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t { return CARD_GetCardSize(handle); }},
    {"CARD_GetWriteProtect", 10, 10, 10,
     [](DrvInfo* handle, Arguments&) -> int64_t { return CARD_GetWriteProtect(handle); }},
    {"CARD_Ioctl", 10, 10, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t { return CARD_Ioctl(handle, 2, 0); }},
    {"DevIoctl", -22, -19, -25,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return DevIoctl(handle, DEV_IOCTL_DEVICE_PARAMS, with.record);
     }},
    {"DevDrctRead", -22, -19, -22,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return DevDrctRead(handle, 0, 512, with.chunks.list());
     }},
    {"DevDrctWrite", -22, -19, -22,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return DevDrctWrite(handle, 0, 512, with.chunks.list(), 0, &with.retried);
     }},
    {"DevDrctRMW", -22, -19, 0,
     [](DrvInfo* handle, Arguments& with) -> int64_t { return DevDrctRMW(handle, &with.list); }},
    {"DevFatWrite", -22, -19, 0,
     [](DrvInfo* handle, Arguments& with) -> int64_t { return DevFatWrite(handle, &with.list); }},
    {"DevSdCmdWrite", -22, -19, 0,
     [](DrvInfo* handle, Arguments& with) -> int64_t {
         return DevSdCmdWrite(handle, with.memory.data(), 1, 0, 0, 0);
     }},
    {"DevCheckRt", -22, -19, 1,
     [](DrvInfo* handle, Arguments&) -> int64_t { return DevCheckRt(handle); }},
    {"DevCheckDelay", -22, -19, 1,
     [](DrvInfo* handle, Arguments&) -> int64_t { return DevCheckDelay(handle); }},
    {"DevRTOn4Wait", -22, -19, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t { return DevRTOn4Wait(handle); }},
    {"DevLockRTOn", 0, 0, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t {
         DevLockRTOn(handle);
         return 0;
     }},
    {"DevUnlockRTOn", 0, 0, 0,
     [](DrvInfo* handle, Arguments&) -> int64_t {
         DevUnlockRTOn(handle);
         return 0;
     }},
};

TEST(Calls, AnswerForABadHandle)
{
    Arguments with;
    DrvInfo zeroed = {};
    for (DrvInfo* const handle : {static_cast<DrvInfo*>(nullptr), &zeroed}) {
        for (const PublicCall& call : kCalls) {
            SCOPED_TRACE(call.name);
            EXPECT_EQ((Outcome{call.no_handle, std::string("[drv:") + call.name +
                                                   "(#)](E)Invalid wrapper low-level driver "
                                                   "info!\n"}),
                      OutcomeOf([&] { return call.call(handle, with); }));
        }
    }
    EXPECT_EQ((Outcome{-22}),
              OutcomeOf([&] { return DevDrctReadArray(nullptr, 0, 512, &with.array); }));
    EXPECT_EQ((Outcome{-22}), OutcomeOf([&] {
                  return DevDrctWriteArray(nullptr, 0, 512, &with.array, 0, &with.retried);
              }));
    EXPECT_EQ((Outcome{-22, "[drv:DevInit(#)](E)Invalid wrapper low-level driver info!\n"}),
              OutcomeOf([] { return DevInit(nullptr); }));
    EXPECT_EQ("[drv:DevExit(#)](E)Invalid wrapper low-level driver info!\n",
              Printed([] { DevExit(nullptr); }));
    EXPECT_EQ(0, with.result.error);
    EXPECT_EQ(0x1234, with.status);
}

TEST_P(Backends, AnswerBeforeTheyAreOpen)
{
    ASSERT_EQ(0, DevDetect(&handle));
    Arguments with;
    const bool is_ricoh = backend.type == DEV_TYPE_RICOH_SD;
    for (const PublicCall& call : kCalls) {
        SCOPED_TRACE(call.name);
        // Of real-time control a Mivo device has as little as a Ricoh one.
        const bool real_time = std::string(call.name).find("RT") != std::string::npos ||
                               std::string(call.name).starts_with("DevCheck");
        const bool as_ricoh = is_ricoh || (real_time && !backend.real_time &&
                                           std::string(call.name) != "CARD_GetR1Status");
        with.result = {};
        int64_t result = 0;
        const std::string printed = Printed([&] { result = call.call(&handle, with); });
        EXPECT_EQ(as_ricoh ? call.not_open_ricoh : call.not_open, result);
        if (std::string(call.name) == "CARD_Read" || std::string(call.name) == "CARD_Write") {
            EXPECT_EQ(10, with.result.error);
        }
        // One line at most, and one where something is wrong.
        EXPECT_GE(2, std::count(printed.begin(), printed.end(), '\n')) << printed;
        if (result != 0 && !as_ricoh) {
            EXPECT_NE(std::string::npos, printed.find("Cannot get driver info!\n")) << printed;
        }
    }
    EXPECT_TRUE(bench->Calls(backend.place).empty());
    handle.ops = nullptr;
}

TEST_P(Backends, RefuseNullArguments)
{
    Open();
    bench->ClearCalls(backend.place);
    EXPECT_EQ((Outcome{10, "[drv:CARD_Getstatus(#)](E)Invalid argument: status!\n"}),
              OutcomeOf([&] { return CARD_Getstatus(&handle, nullptr); }));
    EXPECT_EQ((Outcome{10, "[drv:CARD_Getinfo(#)](E)Invalid argument: cardinfo!\n"}),
              OutcomeOf([&] { return CARD_Getinfo(&handle, nullptr); }));
    EXPECT_EQ((Outcome{10, "[drv:CARD_GetSpeedInfo(#)](E)Invalid argument: buf!\n"}),
              OutcomeOf([&] { return CARD_GetSpeedInfo(&handle, nullptr); }));
    EXPECT_EQ((Outcome{10, "[drv:CARD_SecureGetinfo(#)](E)Invalid argument: buf!\n"}),
              OutcomeOf([&] { return CARD_SecureGetinfo(&handle, nullptr); }));
    EXPECT_EQ((Outcome{10, "[drv:CARD_Read(#)](E)Invalid wrapper low-level driver info!\n"}),
              OutcomeOf([&] { return CARD_Read(&handle, memory.data(), 1, 0, 0, nullptr); }));
    EXPECT_EQ((Outcome{-22}),
              OutcomeOf([&] { return DevDrctReadArray(&handle, 0, 512, nullptr); }));
    if (Direct()) {
        const std::string text = "Invalid arguments!";
        Arguments with;
        EXPECT_EQ((Outcome{-22, Line("Chunk2Sg", 'E', text) + Line("DrctRead", 'E',
                                                                   std::string(backend.function) +
                                                                       "Chunk2Sg is failed(-22)")}),
                  OutcomeOf([&] { return DevDrctRead(&handle, 0, Length(1), nullptr); }));
        EXPECT_EQ((Outcome{-22}), OutcomeOf([&] {
                      return DevDrctWrite(&handle, 0, Length(1), with.chunks.list(), 0, nullptr);
                  }));
        EXPECT_EQ((Outcome{-22}), OutcomeOf([&] { return DevDrctRMW(&handle, nullptr); }));
        EXPECT_EQ((Outcome{-22}), OutcomeOf([&] { return DevFatWrite(&handle, nullptr); }));
    }
    EXPECT_TRUE(SentRequests().empty());
}

// 2047 pieces are the most, and one more is too many.
TEST_P(Backends, RefuseAListThatIsTooLong)
{
    if (!Direct()) {
        return;
    }
    Open();
    cardsim::LowBuffer words(4 + 8 * 2048);
    cardsim::LowBuffer bytes(size_t{2048} * 512 * 2);
    auto* const list = reinterpret_cast<MemoryChunkArray*>(words.data());
    const auto fill = [&](uint32_t pieces) {
        list->count = pieces;
        for (uint32_t i = 0; i < pieces; i++) {
            list->chunk[i] = {bytes.address() + i * 1024, 512};
        }
    };
    fill(2047);
    EXPECT_EQ((Outcome{static_cast<int32_t>(Length(2047))}),
              OutcomeOf([&] { return DevDrctRead(&handle, 0, Length(2047), list); }));
    fill(2048);
    EXPECT_EQ((Outcome{-22, Line("SetSgEntry", 'E', "Overflow sg table(2048)!") +
                                Line("Chunk2Sg", 'E',
                                     std::string(backend.function) + "SetSgEntry failed(-12)!") +
                                Line("DrctRead", 'E',
                                     std::string(backend.function) + "Chunk2Sg is failed(-12)")}),
              OutcomeOf([&] { return DevDrctRead(&handle, 0, Length(2048), list); }));
}

// --- card commands and device requests ------------------------------------------------

TEST_P(Backends, HandCardCommandsThrough)
{
    Open();
    if (!Direct()) {
        return;  // the Ricoh SD back-end has none: see AnswerEveryQuery
    }
    for (const int32_t command : {2, 3, 4}) {
        EXPECT_EQ(0, CARD_Ioctl(&handle, command, 0x1000 + command));
        EXPECT_EQ(static_cast<uint32_t>(command), bench->State(backend.place, "last_command"));
        EXPECT_EQ(0x1000u + static_cast<uint32_t>(command),
                  bench->State(backend.place, "command_word"));
    }
    EXPECT_EQ(0, CARD_Ioctl(&handle, 5, 77));
    EXPECT_EQ(4u, bench->State(backend.place, "last_command"));
    BenchFault fault;
    fault.node = backend.plain_node;  // the handle's own
    fault.request = backend.requests.command3;
    fault.error = EIO;
    bench->Inject(backend.place, fault);
    EXPECT_EQ((Outcome{CARD_CODE_COMMAND_FAILED, "", EIO}),
              OutcomeOf([&] { return CARD_Ioctl(&handle, 3, 0); }));
}

TEST_P(Backends, TellTheirDeviceParameters)
{
    Open();
    uint32_t words[9];
    memset(words, 0xEE, sizeof words);
    const int32_t result = DevIoctl(&handle, DEV_IOCTL_DEVICE_PARAMS, words);
    const uint32_t kept = 0xEEEEEEEE;
    switch (backend.type) {
        case DEV_TYPE_ZEL:
            EXPECT_EQ(0, result);
            EXPECT_EQ(kSectors, words[0]);
            EXPECT_EQ(512u, words[1]);
            break;
        case DEV_TYPE_MIVO:
            EXPECT_EQ(0, result);
            EXPECT_EQ((std::vector<uint32_t>{4, kept, kept, kept, kept, 32768, 32, 8192, kept}),
                      std::vector<uint32_t>(words, words + 9));
            break;
        default:
            EXPECT_EQ(-25, result);
            EXPECT_EQ(kept, words[0]);
            break;
    }
}

class ZelCalls : public Backends {};
class MivoCalls : public Backends {};
class RicohCalls : public Backends {};
INSTANTIATE_TEST_SUITE_P(Calls, ZelCalls, testing::Values(kZel), NameOf);
INSTANTIATE_TEST_SUITE_P(Calls, MivoCalls, testing::Values(kMivo), NameOf);
INSTANTIATE_TEST_SUITE_P(Calls, RicohCalls, testing::Values(kRicohSd), NameOf);

TEST_P(ZelCalls, NameTheUnitToTheControlNode)
{
    Open();
    const uint32_t channel = 16 * 4 + 1;
    uint32_t record[5] = {9, 8, 7, 6, 5};
    uint32_t pair[2] = {9, 8};
    for (const auto& [request, argument] : {std::pair<uint32_t, void*>{DEV_IOCTL_RT_40, record},
                                            {DEV_IOCTL_RT_41, pair},
                                            {DEV_IOCTL_RT_42, &pair},
                                            {DEV_IOCTL_RT_45, nullptr}}) {
        // By another unit first, so that the last one to be named is known.
        SCOPED_TRACE(request);
        EXPECT_EQ((Outcome{0}), OutcomeOf([&, sent = request, with = argument] {
                      return DevIoctl(&handle, sent, with);
                  }));
        EXPECT_EQ(channel, bench->State("rtctrl", "channel"));
    }
    EXPECT_EQ(channel, record[0]);
    EXPECT_EQ(8u, record[1]);
    EXPECT_EQ(channel, pair[0]);
    bench->ClearCalls("rtctrl");
    for (const uint32_t request : {DEV_IOCTL_RT_40, DEV_IOCTL_RT_41, DEV_IOCTL_RT_42}) {
        EXPECT_EQ((Outcome{-22}), OutcomeOf([&] { return DevIoctl(&handle, request, nullptr); }));
    }
    EXPECT_EQ((Outcome{-25}), OutcomeOf([&] { return DevIoctl(&handle, 0x20007244, pair); }));
    EXPECT_TRUE(bench->Calls("rtctrl").empty());
}

TEST_P(ZelCalls, PassRealTimeStatusOn)
{
    Open();
    struct Query {
        const char* slot;
        const char* key;
        uint32_t request;
        const char* name;
        int32_t (*call)(DrvInfo* handle);
    };
    for (const Query& query : {
             Query{"CheckRt", "rt_status", 0x4001EC1E, "CHECK_RT_STATUS", DevCheckRt},
             Query{"CheckDelay", "delay_status", 0x4001EC1F, "CHECK_DELAY_STATUS", DevCheckDelay},
             Query{"RTOn4Wait", "on_for_wait", 0x4001EC20, "IS_RTON4WAIT", DevRTOn4Wait},
         }) {
        SCOPED_TRACE(query.slot);
        for (const int value : {0, 1, 128, 255}) {
            bench->SetState("rtctrl", query.key, static_cast<uint32_t>(value));
            EXPECT_EQ((Outcome{value}), OutcomeOf([&] { return query.call(&handle); }));
        }
        BenchFault fault;
        fault.request = query.request;
        fault.error = ENOTTY;
        bench->Inject("rtctrl", fault);
        EXPECT_EQ((Outcome{-25,
                           Line(query.slot, 'E',
                                std::string("RTCTRL_IOC_") + query.name +
                                    " ioctl failed : Inappropriate ioctl for device"),
                           ENOTTY}),
                  OutcomeOf([&] { return query.call(&handle); }));
    }
    const uint32_t locks = bench->State("rtctrl", "locks");
    DevLockRTOn(&handle);
    DevLockRTOn(&handle);
    EXPECT_EQ(locks + 2, bench->State("rtctrl", "locks"));
    DevUnlockRTOn(&handle);
    DevUnlockRTOn(&handle);
    EXPECT_EQ(locks, bench->State("rtctrl", "locks"));
    struct Change {
        const char* slot;
        uint32_t request;
        const char* name;
        void (*call)(DrvInfo* handle);
    };
    for (const Change& change : {Change{"LockRTOn", 0x2000EC0A, "LOCK_RTON", DevLockRTOn},
                                 Change{"UnlockRTOn", 0x2000EC0B, "UNLOCK_RTON", DevUnlockRTOn}}) {
        BenchFault fault;
        fault.request = change.request;
        fault.error = EPERM;
        bench->Inject("rtctrl", fault);
        EXPECT_EQ(
            Line(change.slot, 'E',
                 std::string("RTCTRL_IOC_") + change.name + " failed : Operation not permitted"),
            Printed([&] { change.call(&handle); }));
    }
    EXPECT_EQ(locks, bench->State("rtctrl", "locks"));
    bench->ClearFaults("rtctrl");
}

// --- opening ------------------------------------------------------------------------------

TEST_P(ZelCalls, TellTheDriverWhereDataBegin)
{
    for (const uint32_t sectors : {2048u, 32768u, 131072u}) {
        bench->Insert(backend.place, Bytes(size_t{sectors} * 512));
        SdFormatParams expected = {};
        ASSERT_EQ(0, CalcSdParams(sectors, &expected));
        handle = HandleFor(backend.node);
        Open();
        EXPECT_EQ(sectors, CARD_GetCardSize(&handle));
        EXPECT_EQ(expected.data_start, bench->State(backend.place, "data_start"));
        Exit();
    }
}

TEST_P(ZelCalls, RefuseACardOfAnOlderKind)
{
    for (const uint32_t version : {0x00u, 0x3Fu, 0x40u, 0xFFu}) {
        handle = HandleFor(backend.node);
        bench->SetState(backend.place, "version", version);
        ASSERT_EQ(0, DevDetect(&handle));
        int32_t result = 0;
        const std::string printed = Printed([&] { result = DevInit(&handle); });
        EXPECT_EQ(version < 0x40 ? -1 : 0, result);
        char line[64];
        snprintf(line, sizeof line, "Not support Spec%02X : /dev/spdre", version);
        EXPECT_EQ(version < 0x40 ? Line("Init", 'E', line) : backend.banner, printed);
        if (version < 0x40) {
            handle.ops = nullptr;
        }
        Exit();
        EXPECT_EQ("", bench->LeftBehind());
    }
    bench->SetState(backend.place, "version", 0x40);
}

// Whatever fails on the way, nothing stays open, and one line tells.
TEST_P(Backends, LeaveNothingOpenWhereOpeningFails)
{
    struct Step {
        const char* back_end;
        const char* place;  // null: the unit's own
        BenchCallKind kind;
        BenchNode node;
        uint32_t request;
        uint64_t first;
        const char* line;
    };
    const Step steps[] = {
        {"Zel", nullptr, BenchCallKind::Open, BenchNode::Block, 0, 1, "open[/dev/spde] failed"},
        {"Zel", nullptr, BenchCallKind::Open, BenchNode::Block, 0, 2, "open[/dev/spde] failed"},
        {"Zel", nullptr, BenchCallKind::Open, BenchNode::Char, 0, 1, "open[/dev/spdre] failed"},
        {"Zel", "rtctrl", BenchCallKind::Open, BenchNode::Char, 0, 1,
         "open[/dev/rtctrl_zel] failed"},
        {"Zel", nullptr, BenchCallKind::Ioctl, BenchNode::Block, 0x2000BC0A, 1,
         "BLKMNTFS ioctl[/dev/spde] failed"},
        {"Zel", nullptr, BenchCallKind::Ioctl, BenchNode::Char, 0x20007016, 1,
         "Identify device[/dev/spdre] failed"},
        {"Mivo", nullptr, BenchCallKind::Open, BenchNode::Char, 0, 1,
         "open[/dev/mivosdif1] failed"},
        {"Mivo", nullptr, BenchCallKind::Ioctl, BenchNode::Char, 0x2000D318, 1,
         "MIVOSDIF_IOC_MNTFS ioctl[/dev/mivosdif1] failed"},
        {"RicohSD", nullptr, BenchCallKind::Open, BenchNode::Block, 0, 1,
         "open[/dev/sdcarda] failed"},
    };
    for (const Step& step : steps) {
        if (step.back_end != std::string(backend.name)) {
            continue;
        }
        SCOPED_TRACE(step.line);
        const std::string place = step.place != nullptr ? step.place : backend.place;
        BenchFault fault;
        fault.kind = step.kind;
        fault.node = step.node;
        fault.request = step.request;
        fault.first = step.first;
        fault.error = EACCES;
        bench->Inject(place, fault);
        handle = HandleFor(backend.node);
        ASSERT_EQ(0, DevDetect(&handle));
        EXPECT_EQ((Outcome{-1, Line("Init", 'E', std::string(step.line) + " : Permission denied"),
                           EACCES}),
                  OutcomeOf([&] { return DevInit(&handle); }));
        EXPECT_EQ("", bench->LeftBehind());
        bench->ClearFaults(place);
        // The registers that the size was worked out from are lost with an open that fails
        // behind them.
        lost_blocks += place == "rtctrl" ? 2u : 0u;
        handle = HandleFor(backend.node);
        Open();
        Exit();
    }
}

TEST_P(MivoCalls, MountsWhatItOpens)
{
    EXPECT_EQ(0u, bench->State(backend.place, "mounted"));
    Open();
    EXPECT_EQ(1u, bench->State(backend.place, "mounted"));
    BenchFault fault;
    fault.request = 0x2000D319;
    fault.error = EIO;
    bench->Inject(backend.place, fault);
    EXPECT_EQ(
        Line("Exit", 'E', "MIVOSDIF_IOC_UMNTFS ioctl[/dev/mivosdif1] failed : Input/output error"),
        Printed([&] { DevExit(&handle); }));
    EXPECT_EQ("", bench->LeftBehind());
}

// --- registers that cannot be read ----------------------------------------------------------

TEST_P(MivoCalls, GiveZerosForARegisterThatCannotBeRead)
{
    Open();
    BenchFault fault;
    fault.request = 0x4001D314;
    fault.error = EIO;
    bench->Inject(backend.place, fault);
    CardInfo info;
    memset(&info, 0xEE, sizeof info);
    EXPECT_EQ((Outcome{0, Line("CardGetInfo", 'E', "Cannot get cid!"), EIO}),
              OutcomeOf([&] { return CARD_Getinfo(&handle, &info); }));
    // And again from the copy, though the driver would know better now.
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(Bytes(16, 0), Bytes(info.cid, info.cid + 16));
    EXPECT_EQ(bench->Register(backend.place, "csd"), Bytes(info.csd, info.csd + 16));
    fault.request = 0x4001D317;
    bench->Inject(backend.place, fault);
    uint8_t status[CARD_SD_STATUS_SIZE];
    EXPECT_EQ((Outcome{10, Line("CardSecureGetInfo", 'E', "Cannot sd status!"), EIO}),
              OutcomeOf([&] { return CARD_SecureGetinfo(&handle, status); }));
    EXPECT_EQ(0, CARD_SecureGetinfo(&handle, status));
}

TEST_P(RicohCalls, FailWhereARegisterCannotBeRead)
{
    Open();
    BenchFault fault;
    fault.node = BenchNode::Block;
    fault.error = EIO;
    CardInfo info = {};
    fault.request = 0x400178FF;
    bench->Inject(backend.place, fault);
    EXPECT_EQ(
        (Outcome{10, Line("CardGetInfo", 'E', "SDCARD_GET_CSD failed : Input/output error"), EIO}),
        OutcomeOf([&] { return CARD_Getinfo(&handle, &info); }));
    fault.request = 0x400178FE;
    bench->Inject(backend.place, fault);
    EXPECT_EQ(
        (Outcome{10, Line("CardGetInfo", 'E', "SDCARD_GET_CID failed : Input/output error"), EIO}),
        OutcomeOf([&] { return CARD_Getinfo(&handle, &info); }));
    fault.request = 0x400478FC;
    bench->Inject(backend.place, fault);
    EXPECT_EQ((Outcome{0, Line("CardGetSize", 'E', "BLKGETSIZE failed : Input/output error"), EIO}),
              OutcomeOf([&] { return int64_t{CARD_GetCardSize(&handle)}; }));
    // Nothing of it was kept.
    EXPECT_EQ(0, CARD_Getinfo(&handle, &info));
    EXPECT_EQ(bench->Register(backend.place, "csd"), Bytes(info.csd, info.csd + 16));
    EXPECT_EQ(kSectors, CARD_GetCardSize(&handle));
}

TEST_P(ZelCalls, GoOnWhereTheCardsDataCannotBeRead)
{
    Open();  // which asks for the registers already, for the size
    CardSpeedInfo speed;
    BenchFault fault;
    fault.node = BenchNode::Block;
    fault.request = 0x20007005;
    fault.error = EIO;
    bench->Inject(backend.place, fault);
    EXPECT_EQ((Outcome{0, Line("CardGetSpeedInfo", 'E', "Cannot get card params!"), EIO}),
              OutcomeOf([&] { return CARD_GetSpeedInfo(&handle, &speed); }));
}

// --- lists of runs that are shorter than they say --------------------------------------------

TEST_P(Backends, TellThatAListEndsEarly)
{
    if (!Direct()) {
        return;
    }
    Open();
    // The elements that are missing are as the allocator left them: zero sectors.
    bench->ZeroFreshBlocks(3 * 16);
    BlockListEntry second = {memory.address() + 512, 1, 21, nullptr};
    BlockListEntry first = {memory.address(), 1, 20, &second};
    BlockList list = {3, &first};
    const std::string lines[2] = {Line("DrctRMW", 'E', "DrctRMW List panic(2/3)!"),
                                  Line("FatWrite", 'E', "FSMI List panic(2/3)!")};
    const uint32_t requests[2] = {backend.requests.rmw, backend.requests.fat_write};
    for (int i = 0; i < 2; i++) {
        BenchFault taken;
        taken.request = requests[i];
        taken.result = 1;  // again, with the same elements ...
        bench->Inject(backend.place, taken);
        taken.result = 0;  // ... and then done
        taken.first = 2;
        bench->Inject(backend.place, taken);
        BenchFault told;
        told.kind = BenchCallKind::Poll;
        told.events = 0x04;
        told.times = 2;
        bench->Inject(backend.place, told);
        bench->ClearCalls(backend.place);
        EXPECT_EQ((Outcome{0, lines[i]}), OutcomeOf([&] {
                      return i == 0 ? DevDrctRMW(&handle, &list) : DevFatWrite(&handle, &list);
                  }));
        EXPECT_EQ((std::vector<uint32_t>{requests[i], requests[i]}), SentRequests());
        bench->ClearFaults(backend.place);
    }
}

}  // namespace
