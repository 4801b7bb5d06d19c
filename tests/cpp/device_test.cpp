// SPDX-License-Identifier: MIT
//
// The C++ face over all back-ends: what it hands to the C calls, what it makes of their
// results, and that nothing stays open.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "carddev.hpp"
#include "carddev_state.h"
#include "sim/low_memory.h"
#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"
#include "tests/support/capture.h"

namespace {

using carddev::Buffer;
using carddev::ConstBuffer;
using carddev::Device;
using carddev::Error;
using carddev::From;
using carddev::Into;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSectors = 4096;

int ejects;

struct Backend {
    const char* name;
    const char* node;
    int32_t type;
    int32_t unit;
    bool direct;  // direct transfers, and told of an eject
};

const Backend kBackends[] = {
    {"RicohSD", "/dev/sdcarda", DEV_TYPE_RICOH_SD, 0, false},
    {"Zel", "/dev/spdc", DEV_TYPE_ZEL, 2, true},
    {"Mivo", "/dev/mivosdif1", DEV_TYPE_MIVO, 1, true},
};

void PrintTo(const Backend& backend, std::ostream* out)
{
    *out << backend.name;
}

class CppDevice : public testing::TestWithParam<Backend> {
protected:
    CppDevice()
    {
        ejects = 0;
        for (size_t i = 0; i < memory.size(); i++) {
            memory[i] = static_cast<uint8_t>(i * 7 + i / 256);
        }
        AddRicohCard(kernel, card);
        slots->Insert(2, card);
        units->Insert(1, card);
    }

    ~CppDevice() override
    {
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(left_by_init, kernel.LiveBlocks());
        for (const auto& in_use : carddev::internal::units_in_use) {
            EXPECT_EQ(0u, in_use.load());
        }
    }

    static Device Opened(const char* node)
    {
        Device device;
        Printed([&] {
            auto opened = Device::Open(node);
            EXPECT_TRUE(opened);
            device = std::move(*opened);
        });
        return device;
    }

    Device Opened() { return Opened(backend.node); }

    static void Close(Device& device)
    {
        Printed([&] { device.Close(); });
    }

    void Fail(cardsim::CallKind kind, int error, uint64_t times = cardsim::Fault::kForEver)
    {
        cardsim::Fault fault;
        fault.kind = kind;
        fault.error = error;
        fault.times = times;
        kernel.Inject(fault);
    }

    void Pull()
    {
        slots->Eject(2);
        units->Eject(1);
    }

    Bytes OnCard(uint32_t first, uint32_t sectors)
    {
        Bytes bytes(size_t{sectors} * 512);
        sim_card_read(&card->model(), uint64_t{first} * 512, bytes.data(),
                      static_cast<uint32_t>(bytes.size()));
        return bytes;
    }

    std::vector<uint32_t> Requests()
    {
        std::vector<uint32_t> requests;
        for (const cardsim::Call& call : kernel.Calls()) {
            if (call.kind == cardsim::CallKind::Ioctl) {
                requests.push_back(call.request);
            }
        }
        return requests;
    }

    // What a record that nobody writes would hold.
    [[gnu::noinline]] static void LeaveOnesOnTheStack()
    {
        volatile uint8_t stack[8192];
        for (volatile uint8_t& byte : stack) {
            byte = 1;
        }
    }

    // The error of a call that fails, whatever it prints.
    template <typename Body>
    static Error ErrorOf(const Body& body)
    {
        Error error(0);
        Printed([&] {
            const auto result = body();
            EXPECT_FALSE(result);
            error = result.error();
        });
        return error;
    }

    const Backend& backend = GetParam();
    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    std::shared_ptr<cardsim::ZelSlots> slots = cardsim::ZelSlots::Create(kernel);
    std::shared_ptr<cardsim::MivoUnits> units = cardsim::MivoUnits::Create(kernel);
    cardsim::LowBuffer memory{65536 * 3};
    size_t left_by_init = 0;
};

// --- life -----------------------------------------------------------------------------------

TEST_P(CppDevice, OpensAndClosesWithItsScope)
{
    {
        Device device = Opened();
        EXPECT_TRUE(device.IsOpen());
        EXPECT_EQ(backend.type, device.type());
        EXPECT_EQ(backend.unit, device.unit());
        EXPECT_STREQ(backend.node, device.handle()->dev_path);
        EXPECT_LT(0u, kernel.OpenFiles());
    }
    EXPECT_EQ(0u, kernel.OpenFiles());
    EXPECT_EQ(0u, kernel.LiveBlocks());
}

TEST_P(CppDevice, MovesWithItsUnit)
{
    Device first = Opened();
    const size_t open = kernel.OpenFiles();
    Device second(std::move(first));
    EXPECT_FALSE(first.IsOpen());  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(second.IsOpen());
    EXPECT_EQ(kSectors, *second.Sectors());
    first = std::move(second);
    EXPECT_FALSE(second.IsOpen());  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(kSectors, *first.Sectors());
    EXPECT_EQ(open, kernel.OpenFiles());

    Device& itself = first;
    first = std::move(itself);
    EXPECT_TRUE(first.IsOpen());
    EXPECT_EQ(kSectors, *first.Sectors());

    first = Device();
    EXPECT_EQ(0u, kernel.OpenFiles());
    first.Close();
    EXPECT_FALSE(first.IsOpen());
}

TEST_P(CppDevice, ClosesWhatAnotherIsMovedOver)
{
    Device device = Opened();
    const size_t open = kernel.OpenFiles();
    Device other = Opened(backend.type == DEV_TYPE_RICOH_SD ? "/dev/spdc" : "/dev/sdcarda");
    EXPECT_LT(open, kernel.OpenFiles());
    device = std::move(other);
    EXPECT_NE(backend.type, device.type());
    Device again = Opened();
    EXPECT_EQ(kSectors, *again.Sectors());
    EXPECT_EQ(kSectors, *device.Sectors());
}

TEST_P(CppDevice, LivesInAContainer)
{
    std::vector<Device> devices;
    for (const Backend& each : kBackends) {
        devices.push_back(Opened(each.node));
    }
    for (Device& device : devices) {
        EXPECT_EQ(kSectors, *device.Sectors());
    }
}

TEST_P(CppDevice, OpensAUnitOnce)
{
    Device device = Opened();
    const size_t open = kernel.OpenFiles();
    EXPECT_EQ(Error(Error::kInUse), ErrorOf([&] { return Device::Open(backend.node); }));
    EXPECT_EQ(open, kernel.OpenFiles());
    EXPECT_EQ(kSectors, *device.Sectors());
    Close(device);
    device = Opened();
    EXPECT_TRUE(device.IsOpen());
}

TEST_P(CppDevice, FailsToOpenWithoutATrace)
{
    EXPECT_EQ(Error(-1), ErrorOf([] { return Device::Open("/dev/spdz"); }));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(Error(-22), ErrorOf([] { return Device::Open("/"); }));
    EXPECT_EQ(Error(-19), ErrorOf([] { return Device::Open("/dev/null"); }));
    const std::string endless(300, 'x');
    EXPECT_EQ(Error(-1), ErrorOf([&] { return Device::Open(endless.c_str()); }));
    EXPECT_EQ(ENAMETOOLONG, errno);
    Fail(cardsim::CallKind::Open, EACCES);
    EXPECT_EQ(Error(-1), ErrorOf([&] { return Device::Open(backend.node); }));
    EXPECT_EQ(EACCES, errno);
    kernel.ClearFaults();
    EXPECT_EQ(0u, kernel.OpenFiles());
    Device device = Opened();
    EXPECT_TRUE(device.IsOpen());
}

// Whichever of its blocks an Init cannot have: nothing that it had opened is left. A Zel
// Init that fails does leave the registers that it has read on the way, each time.
TEST_P(CppDevice, FailsToOpenWithoutMemory)
{
    int failed = 0;
    for (uint64_t at = 1; at <= 8; at++) {
        cardsim::Fault fault;
        fault.kind = cardsim::CallKind::Malloc;
        fault.first = at;
        fault.error = ENOMEM;
        kernel.Inject(fault);
        Printed([&] { failed += Device::Open(backend.node) ? 0 : 1; });
        kernel.ClearFaults();
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, carddev::internal::units_in_use[backend.type].load());
    }
    EXPECT_EQ(backend.direct ? 1 : 0, failed);
    left_by_init = backend.type == DEV_TYPE_ZEL ? 2 : 0;
}

// --- plain transfers ------------------------------------------------------------------------

TEST_P(CppDevice, ReadsAndWritesWholeSectors)
{
    Device device = Opened();
    const std::array<uint8_t, 1024> two = {1, 2, 3};
    EXPECT_EQ(1024u, *device.Write(9, two));
    EXPECT_EQ(Bytes(two.begin(), two.end()), OnCard(9, 2));
    uint32_t words[128];
    EXPECT_EQ(512u, *device.Read(9, words));
    EXPECT_EQ(0, memcmp(words, two.data(), 512));
    Bytes many(512 * 40);
    EXPECT_EQ(512u * 40, *device.Read(0, many));
    EXPECT_EQ(OnCard(0, 40), many);
    const std::span<uint8_t> part(many.data() + 512, 512);
    EXPECT_EQ(512u, *device.Read(9, part));
    EXPECT_EQ(1, many[512]);
    EXPECT_EQ(512u, *device.Write(11, std::as_bytes(part)));
    EXPECT_EQ(512u, *device.Write(12, Buffer(many.data(), 512)));
    EXPECT_EQ(OnCard(9, 1), OnCard(11, 1));
    EXPECT_EQ(512u, *device.Write(13, words));
    EXPECT_EQ(OnCard(9, 1), OnCard(13, 1));
}

TEST_P(CppDevice, TellsAShortTransferFromAFailedOne)
{
    Device device = Opened();
    EXPECT_EQ(1024u, *device.Read(kSectors - 2, Buffer(memory.data(), 5 * 512)));
    EXPECT_EQ(1024u, *device.Write(kSectors - 2, ConstBuffer(memory.data(), 5 * 512)));
    const auto none = device.Read(kSectors, Buffer(memory.data(), 512));
    EXPECT_TRUE(none);
    EXPECT_EQ(0u, *none);
    const auto nothing = device.Write(0, Buffer(memory.data(), 0));
    EXPECT_TRUE(nothing);
    EXPECT_EQ(0u, *nothing);
    Fail(cardsim::CallKind::Read, EIO);
    Fail(cardsim::CallKind::Write, ENOSPC);
    EXPECT_EQ(Error(CARD_CODE_ERROR),
              ErrorOf([&] { return device.Read(0, Buffer(memory.data(), 512)); }));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(Error(CARD_CODE_ERROR),
              ErrorOf([&] { return device.Write(0, Buffer(memory.data(), 512)); }));
    EXPECT_EQ(ENOSPC, errno);
}

TEST_P(CppDevice, RefusesPartsOfSectors)
{
    Device device = Opened();
    kernel.ClearCalls();
    for (const size_t bytes : {size_t{1}, size_t{511}, size_t{513}}) {
        EXPECT_EQ(Error(-22), device.Read(0, Buffer(memory.data(), bytes)).error());
        EXPECT_EQ(Error(-22), device.Write(0, Buffer(memory.data(), bytes)).error());
        EXPECT_EQ(Error(-22), device.DirectRead(0, Into(Buffer(memory.data(), bytes))).error());
        EXPECT_EQ(Error(-22), device.DirectWrite(0, From(Buffer(memory.data(), bytes))).error());
        EXPECT_EQ(Error(-22),
                  device.SdCommandWrite(ConstBuffer(memory.data(), bytes), 0, 0, 0).error());
    }
    // The count of bytes would not fit into the driver's call.
    if constexpr (sizeof(size_t) > 4) {
        EXPECT_EQ(Error(-22),
                  device.Read(0, Buffer(memory.data(), size_t{0x800000} * 512)).error());
    }
    EXPECT_TRUE(kernel.Calls().empty());
    const ConstBuffer most(memory.data(), size_t{0x7FFFFF} * 512);
    EXPECT_EQ(1024u, *device.Read(kSectors - 2, Buffer(memory.data(), most.bytes())));
    EXPECT_EQ(1024u, *device.Write(kSectors - 2, most));
}

// --- direct transfers -----------------------------------------------------------------------

TEST_P(CppDevice, MovesScatteredSectors)
{
    Device device = Opened();
    uint8_t* const at = memory.data();
    if (!backend.direct) {
        EXPECT_EQ(Error(-22),
                  ErrorOf([&] { return device.DirectWrite(0, From(Buffer(at, 512))); }));
        EXPECT_EQ(Error(-22), ErrorOf([&] { return device.DirectRead(0, Into(Buffer(at, 512))); }));
        return;
    }
    const auto written = device.DirectWrite(50, From(ConstBuffer(at + 5000, 100), Buffer(at, 924)));
    EXPECT_TRUE(written);
    Bytes expected(at + 5000, at + 5100);
    expected.insert(expected.end(), at, at + 924);
    EXPECT_EQ(expected, OnCard(50, 2));
    EXPECT_TRUE(device.DirectRead(50, Into(Buffer(at + 20000, 1000), Buffer(at + 30000, 24))));
    EXPECT_EQ(0, memcmp(expected.data(), at + 20000, 1000));
    EXPECT_EQ(0, memcmp(expected.data() + 1000, at + 30000, 24));
}

TEST_P(CppDevice, BeginsADirectWriteAsItIsTold)
{
    if (!backend.direct) {
        return;
    }
    const bool is_zel = backend.type == DEV_TYPE_ZEL;
    const uint32_t sequential = is_zel ? 0x20007018 : 0x8010D32E;
    const uint32_t plain = is_zel ? 0x2000700C : 0x8010D325;
    Device device = Opened();
    kernel.ClearCalls();
    EXPECT_TRUE(device.DirectWrite(50, From(Buffer(memory.data(), 512))));
    EXPECT_TRUE(
        device.DirectWrite(50, From(Buffer(memory.data(), 512)), carddev::DirectMode::Sequential));
    EXPECT_TRUE(
        device.DirectWrite(50, From(Buffer(memory.data(), 512)), carddev::DirectMode::Plain));
    EXPECT_EQ((std::vector<uint32_t>{sequential, sequential, plain}), Requests());
}

TEST_P(CppDevice, MovesAsManyPiecesAsTheDriverTakes)
{
    if (!backend.direct) {
        return;
    }
    Device device = Opened();
    uint8_t* const at = memory.data();
    carddev::PieceList<ConstBuffer> out;
    // Apart, so that none are joined: 2047 is what the table holds.
    Bytes expected;
    for (size_t i = 0; i < 2047; i++) {
        const size_t bytes = i < 2046 ? 64 : 128;  // 2048 * 64: whole sectors
        out.Add(ConstBuffer(at + i * 96, bytes));
        expected.insert(expected.end(), at + i * 96, at + i * 96 + bytes);
    }
    EXPECT_EQ(256u, out.sectors());
    EXPECT_EQ(0u, device.DirectWrite(7, out, carddev::DirectMode::Plain)->retried);
    EXPECT_EQ(expected, OnCard(7, 256));

    // The same list serves again.
    EXPECT_TRUE(device.DirectWrite(1007, out));
    EXPECT_EQ(expected, OnCard(1007, 256));

    // One more is the library's to refuse.
    out.Add(ConstBuffer(at, 512));
    EXPECT_EQ(Error(-22), ErrorOf([&] { return device.DirectWrite(7, out); }));

    out.Clear();
    EXPECT_EQ(Error(-22), device.DirectWrite(7, out).error());
    out.Add(ConstBuffer(at, 512));
    EXPECT_TRUE(device.DirectWrite(8, out));
    EXPECT_EQ(Bytes(at, at + 512), OnCard(8, 1));

    carddev::PieceList<Buffer> in;
    in.Add(Buffer(at, 256));
    in.Add(Buffer(at + 512, 256));
    EXPECT_TRUE(device.DirectRead(1007, in));
    EXPECT_EQ(0, memcmp(expected.data(), at, 256));
    EXPECT_EQ(0, memcmp(expected.data() + 256, at + 512, 256));
}

TEST_P(CppDevice, RefusesMemoryOutOfTheDriversReach)
{
    if constexpr (sizeof(void*) > 4) {
        Device device = Opened();
        kernel.ClearCalls();
        auto* const high = reinterpret_cast<uint8_t*>(uintptr_t{1} << 32);
        auto* const across = reinterpret_cast<uint8_t*>((uintptr_t{1} << 32) - 256);
        for (uint8_t* const at : {high, across}) {
            const Buffer piece(at, 512);
            EXPECT_EQ(Error(Error::kTooHigh), device.DirectRead(0, Into(piece)).error());
            EXPECT_EQ(Error(Error::kTooHigh),
                      device.DirectWrite(0, From(Buffer(memory.data(), 512), piece)).error());
            EXPECT_EQ(Error(Error::kTooHigh), device.SdCommandWrite(piece, 0, 0, 0).error());
            carddev::PieceList<ConstBuffer> list;
            list.Add(piece);
            list.Add(Buffer(memory.data(), 512));
            EXPECT_EQ(Error(Error::kTooHigh), device.DirectWrite(0, list).error());
            carddev::Runs<1> runs({{piece, 0}});
            EXPECT_EQ(Error(Error::kTooHigh), device.FatWrite(runs).error());
            EXPECT_EQ(Error(Error::kTooHigh), device.ReadModifyWrite(runs).error());
        }
        EXPECT_TRUE(carddev::internal::IsReachable(across - 256, 512));
        EXPECT_TRUE(kernel.Calls().empty());
    }
}

TEST_P(CppDevice, TellsOfRetries)
{
    if (!backend.direct) {
        return;
    }
    Device device = Opened();
    Fail(cardsim::CallKind::Ioctl, EIO, 1);
    Printed(
        [&] { EXPECT_EQ(1u, device.DirectWrite(50, From(Buffer(memory.data(), 512)))->retried); });
    Fail(cardsim::CallKind::Ioctl, EIO);
    EXPECT_EQ(Error(-5),
              ErrorOf([&] { return device.DirectWrite(50, From(Buffer(memory.data(), 512))); }));
    kernel.ClearFaults();
    EXPECT_EQ(Error(-5),
              ErrorOf([&] { return device.SdCommandWrite(Buffer(memory.data(), 512), 0, 24, 0); }));
    EXPECT_TRUE(device.DirectRead(50, Into(Buffer(memory.data(), 512))));
}

TEST_P(CppDevice, WritesRunsOfSectors)
{
    Device device = Opened();
    uint8_t* const at = memory.data();
    carddev::Runs<2> runs({{Buffer(at, 512), 700}, {Buffer(at + 1024, 65536), 900}});
    carddev::Runs<1> fat({{Buffer(at, 512), 300}});
    Printed([&] {
        EXPECT_TRUE(device.ReadModifyWrite(runs));
        EXPECT_TRUE(device.FatWrite(fat));
        EXPECT_TRUE(device.SdCommandWrite(Buffer(at + 512, 512), 400, 24, 0));
    });
    const auto stands = [&](const uint8_t* from, uint32_t sector, uint32_t sectors) {
        return OnCard(sector, sectors) == (backend.direct
                                               ? Bytes(from, from + size_t{sectors} * 512)
                                               : Bytes(size_t{sectors} * 512, 0));
    };
    EXPECT_TRUE(stands(at, 700, 1));
    EXPECT_TRUE(stands(at + 1024, 900, 128));
    EXPECT_TRUE(stands(at, 300, 1));
    EXPECT_TRUE(stands(at + 512, 400, 1));

    kernel.ClearCalls();
    for (const size_t bytes : {size_t{0}, size_t{100}, size_t{65536 + 512}}) {
        carddev::Runs<2> wrong({{Buffer(at, bytes), 700}, {Buffer(at, 512), 800}});
        EXPECT_EQ(Error(-22), device.ReadModifyWrite(wrong).error());
        EXPECT_EQ(Error(-22), device.FatWrite(wrong).error());
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

// --- queries --------------------------------------------------------------------------------

TEST_P(CppDevice, AnswersEveryQuery)
{
    Device device = Opened();
    EXPECT_EQ(CARD_STATUS_READY, *device.Status());
    EXPECT_TRUE(device.R1Status());
    const auto info = device.Info();
    EXPECT_EQ(0, memcmp(info->csd, card->model().csd, 16));
    const auto sectors = device.Sectors();
    EXPECT_EQ(kSectors, *sectors);
    EXPECT_EQ(0, memcmp(device.SecureInfo()->bytes, card->model().sd_status, CARD_SD_STATUS_SIZE));
    CardSpeedInfo speed;
    EXPECT_EQ(0, CARD_GetSpeedInfo(device.handle(), &speed));
    EXPECT_EQ(0, memcmp(&speed, &*device.SpeedInfo(), sizeof speed));
    EXPECT_EQ(kSectors, *device.Sectors());
    EXPECT_FALSE(*device.IsWriteProtected());
    EXPECT_TRUE(device.Command(2, 0));
    EXPECT_EQ(Error(-25), device.Ioctl(0x20007299, &speed).error());
    const bool real_time = backend.type == DEV_TYPE_ZEL;
    slots->With([](sim_zel& zel) {
        zel.rt.rt_status = 7;
        zel.rt.delay_status = 9;
        zel.rt.on_for_wait = 0;
    });
    EXPECT_EQ(real_time ? 7 : 1, *device.RealTimeStatus());
    EXPECT_EQ(real_time ? 9 : 1, *device.DelayStatus());
    EXPECT_EQ(0, *device.RealTimeOnForWait());
    kernel.ClearCalls();
    {
        const carddev::RealTimeLock lock(device);
        EXPECT_EQ(real_time ? 1u : 0u, kernel.Calls().size());
    }
    EXPECT_EQ(real_time ? 2u : 0u, kernel.Calls().size());
}

TEST_P(CppDevice, TellsThatACardIsProtected)
{
    card->model().write_protected = true;
    Device device = Opened();
    EXPECT_TRUE(*device.IsWriteProtected());
    EXPECT_TRUE(device.IsWriteProtected());
}

// Any other number than zero is "yes", but for the two that mean a failure.
TEST_P(CppDevice, TellsTheAnswersOfADriverApart)
{
    if (!backend.direct) {
        return;
    }
    Device device = Opened();
    for (const int answer : {0, 1, 2, 9, 11, 0xFFFF}) {
        cardsim::Fault fault;
        fault.kind = cardsim::CallKind::Ioctl;
        fault.result = answer;
        kernel.ClearFaults();
        kernel.Inject(fault);
        const auto is_protected = device.IsWriteProtected();
        EXPECT_TRUE(is_protected) << answer;
        EXPECT_EQ(answer != 0, *is_protected);
    }
}

TEST_P(CppDevice, TellsFailuresFromAnswers)
{
    Device device = Opened();
    Fail(cardsim::CallKind::Ioctl, EIO);
    if (!backend.direct) {
        EXPECT_EQ(Error(CARD_CODE_ERROR), ErrorOf([&] { return device.SecureInfo(); }));
        EXPECT_EQ(Error(CARD_CODE_ERROR), ErrorOf([&] { return device.Sectors(); }));
        EXPECT_EQ(Error(CARD_CODE_ERROR), ErrorOf([&] { return device.Info(); }));
        return;
    }
    EXPECT_EQ(Error(-5), ErrorOf([&] { return device.IsWriteProtected(); }));
    EXPECT_EQ(Error(CARD_CODE_COMMAND_FAILED), ErrorOf([&] { return device.Command(3, 0); }));
}

// What a card of ten sectors answers on the one host that does not take it for a failure.
TEST_P(CppDevice, KnowsASmallCardFromAFailure)
{
    if (backend.direct) {
        return;
    }
    AddRicohCard(kernel, cardsim::Card::InMemory(10));
    Device device = Opened();
    EXPECT_EQ(10u, *device.Sectors());
}

TEST_P(CppDevice, KeepsTheWordForTheCallback)
{
    if (!backend.direct) {
        return;
    }
    Device device = Opened();
    const uint32_t& kept =
        backend.type == DEV_TYPE_ZEL ? zel_dev[2].eject_arg : mivo_dev[1].eject_arg;
    EXPECT_TRUE(device.OnEject([] {}));
    EXPECT_EQ(0u, kept);
    EXPECT_TRUE(device.OnEject([] {}, 7));
    EXPECT_EQ(7u, kept);
}

TEST_P(CppDevice, TellsOfAnEject)
{
    Device device = Opened();
    EXPECT_TRUE(device.OnEject([] { ejects++; }));
    EXPECT_TRUE(device.Status());
    EXPECT_EQ(0, ejects);
    Pull();
    if (!backend.direct) {
        EXPECT_TRUE(device.Status());
        EXPECT_EQ(0, ejects);
        return;
    }
    EXPECT_EQ(Error(CARD_CODE_REMOVED), ErrorOf([&] { return device.Status(); }));
    EXPECT_EQ(1, ejects);
    EXPECT_EQ(Error(CARD_CODE_REMOVED), ErrorOf([&] { return device.Sectors(); }));
    EXPECT_EQ(Error(-5), ErrorOf([&] { return device.IsWriteProtected(); }));
    EXPECT_EQ(Error(CARD_CODE_ERROR),
              ErrorOf([&] { return device.Read(0, Buffer(memory.data(), 512)); }));
    EXPECT_EQ(Error(-5),
              ErrorOf([&] { return device.DirectRead(0, Into(Buffer(memory.data(), 512))); }));
}

// --- closed ---------------------------------------------------------------------------------

TEST_P(CppDevice, AnswersWhenClosedAsForANullHandle)
{
    Device device = Opened();
    Close(device);
    kernel.ClearCalls();
    const Buffer piece(memory.data(), 512);
    const Error card_error(CARD_CODE_ERROR);
    EXPECT_EQ(card_error, ErrorOf([&] {
                  LeaveOnesOnTheStack();
                  return device.Read(0, piece);
              }));
    EXPECT_EQ(card_error, ErrorOf([&] {
                  LeaveOnesOnTheStack();
                  return device.Write(0, piece);
              }));
    EXPECT_EQ(card_error, ErrorOf([&] { return device.Status(); }));
    EXPECT_EQ(card_error, ErrorOf([&] { return device.Sectors(); }));
    EXPECT_EQ(card_error, ErrorOf([&] { return device.IsWriteProtected(); }));
    EXPECT_EQ(card_error, ErrorOf([&] { return device.OnEject([] {}); }));
    EXPECT_EQ(Error(-22), ErrorOf([&] { return device.DirectRead(0, Into(piece)); }));
    EXPECT_EQ(Error(-22), ErrorOf([&] { return device.DirectWrite(0, From(piece)); }));
    EXPECT_EQ(Error(-22), ErrorOf([&] { return device.RealTimeStatus(); }));
    EXPECT_EQ("", Printed([&] { device.Close(); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(All, CppDevice, testing::ValuesIn(kBackends),
                         [](const auto& backend) { return backend.param.name; });

// --- another device -------------------------------------------------------------------------

struct PlainCall {
    const void* memory;
    uint32_t sectors;
    uint32_t first;
    uint32_t word;
};

PlainCall seen;

int32_t SeeRead(DrvInfo*, void* memory, uint32_t sectors, uint32_t first, uint32_t word)
{
    seen = {memory, sectors, first, word};
    return 1024;
}

int32_t SeeWrite(DrvInfo*, const void* memory, uint32_t sectors, uint32_t first, uint32_t word)
{
    seen = {memory, sectors, first, word};
    return 512;
}

int32_t NoStatus(DrvInfo*, uint16_t*)
{
    return 70;
}

int32_t NoR1Status(DrvInfo*)
{
    return 71;
}

// No device here has anything but success to say.
TEST(CppOps, TellTheR1Status)
{
    DrvOps ops = {};
    ops.CardGetStatus = NoStatus;
    ops.CardGetR1Status = NoR1Status;
    Device device;
    device.handle()->ops = &ops;
    EXPECT_EQ(Error(70), device.Status().error());
    EXPECT_EQ(Error(71), device.R1Status().error());
    device.handle()->ops = nullptr;
}

// The word that no device here looks at is zero.
TEST(CppOps, HandOverAPlainTransfer)
{
    DrvOps ops = {};
    ops.Read = SeeRead;
    ops.Write = SeeWrite;
    uint8_t memory[1024];
    Device device;
    device.handle()->ops = &ops;
    EXPECT_EQ(1024u, *device.Read(7, memory));
    EXPECT_EQ(memory, seen.memory);
    EXPECT_EQ(2u, seen.sectors);
    EXPECT_EQ(7u, seen.first);
    EXPECT_EQ(0u, seen.word);
    seen.word = 5;
    EXPECT_EQ(512u, *device.Write(9, Buffer(memory, 512)));
    EXPECT_EQ(memory, seen.memory);
    EXPECT_EQ(1u, seen.sectors);
    EXPECT_EQ(9u, seen.first);
    EXPECT_EQ(0u, seen.word);
    device.handle()->ops = nullptr;
}

// --- format parameters -------------------------------------------------------------------------

TEST(CppFormatParams, AreTheLibrarysOwn)
{
    SdFormatParams expected;
    ASSERT_EQ(0, CalcSdParams(0x200000, &expected));
    EXPECT_EQ(0, memcmp(&expected, &*carddev::FormatParams(0x200000), sizeof expected));
    Printed([] { EXPECT_EQ(Error(-1), carddev::FormatParams(0xFFFFFFFF).error()); });
}

}  // namespace
