// SPDX-License-Identifier: MIT
//
// What the tool makes of drivers that do not behave, where a description for
// --sim cannot say so.
#include "tools/cardtool/device.h"

#include <cerrno>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "sim/card.h"
#include "sim/low_memory.h"
#include "sim/ricoh_driver.h"
#include "tests/support/temp_folder.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/transfer.h"

namespace {

using cardsim::CallKind;
using cardsim::Kernel;

constexpr uint32_t kSectors = 600;

// How a command would end, and what it would say.
struct End {
    ExitCode code;
    std::string what;
};

End EndOf(const std::function<void()>& body)
{
    try {
        body();
    } catch (const Failure& failure) {
        EXPECT_FALSE(failure.next().empty());
        return {failure.code(), failure.what()};
    }
    return {ExitCode::Ok, ""};
}

bool Says(const End& end, const std::string& text)
{
    return end.what.find(text) != std::string::npos;
}

class ToolDevice : public testing::Test {
protected:
    ToolDevice() { AddRicohCard(kernel, card); }
    ~ToolDevice() override { EXPECT_EQ(0u, kernel.OpenFiles()); }

    // The call after the first of that kind ends as said.
    void SpoilSecond(CallKind kind, std::optional<uint32_t> at_most, int error = 0)
    {
        cardsim::Fault fault;
        fault.kind = kind;
        fault.first = 2;
        fault.at_most = at_most;
        fault.error = error;
        kernel.Inject(fault);
    }

    Kernel kernel;
    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    TempFolder folder;
};

TEST_F(ToolDevice, KeepsTheWholeSectorsOfAShortRead)
{
    SpoilSecond(CallKind::Read, 700);
    const End end = EndOf([&] {
        Device device(Detect("/dev/sdcarda"));
        Output output(folder.Path("out"));
        ReadSectors(device, {0, kSectors}, output);
    });
    EXPECT_EQ(ExitCode::InputOutput, end.code);
    EXPECT_TRUE(Says(end, "stopped at sector 257 after 257 of 600 sectors")) << end.what;
    EXPECT_EQ(257u * 512, std::filesystem::file_size(folder.Path("out")));
}

TEST_F(ToolDevice, TellsHowFarAShortWriteGot)
{
    const std::string data = folder.Text("in", std::string(size_t{300} * 512, 'x'));
    SpoilSecond(CallKind::Write, 512);
    const End end = EndOf([&] {
        Device device(Detect("/dev/sdcarda"));
        Input input(data, kSectors * 512);
        WriteSectors(device, {100, 300}, input);
    });
    EXPECT_EQ(ExitCode::InputOutput, end.code);
    EXPECT_TRUE(Says(end, "stopped at sector 357 after 257 of 300 sectors")) << end.what;
}

TEST_F(ToolDevice, CallsAWriteToACardThatBecameProtectedReadOnly)
{
    const std::string data = folder.Text("in", std::string(size_t{300} * 512, 'x'));
    SpoilSecond(CallKind::Write, {}, EROFS);
    const End end = EndOf([&] {
        Device device(Detect("/dev/sdcarda"));
        Input input(data, kSectors * 512);
        WriteSectors(device, {0, 300}, input);
    });
    EXPECT_EQ(ExitCode::ReadOnly, end.code);
    EXPECT_TRUE(Says(end, "after 256 of 300 sectors: Read-only file system")) << end.what;
}

TEST_F(ToolDevice, NoticesAnInputThatBecomesShorter)
{
    const std::string data = folder.Text("in", std::string(size_t{300} * 512, 'x'));
    const End end = EndOf([&] {
        Device device(Detect("/dev/sdcarda"));
        Input input(data, kSectors * 512);
        std::filesystem::resize_file(data, 512);
        WriteSectors(device, {0, 300}, input);
    });
    EXPECT_EQ(ExitCode::InputOutput, end.code);
    EXPECT_TRUE(Says(end, "became shorter")) << end.what;
}

// A driver that says it has a card without sectors.
class EmptyCardDriver : public cardsim::Driver {
    int Ioctl(cardsim::File&, uint32_t, uintptr_t argument) override
    {
        *reinterpret_cast<uint32_t*>(argument) = 0;
        return 0;
    }
};

TEST_F(ToolDevice, FindsNoSectorOnACardOfSizeZero)
{
    kernel.AddNode("/dev/sdcarda", {S_IFBLK, 244, 1, std::make_shared<EmptyCardDriver>()});
    const End end = EndOf([&] {
        Device device(Detect("/dev/sdcarda"));
        EXPECT_EQ(0u, device.Sectors());
        SectorsFrom(device, 0);
    });
    EXPECT_EQ(ExitCode::Usage, end.code);
    EXPECT_TRUE(Says(end, "no sectors")) << end.what;
}

TEST_F(ToolDevice, TellsAFailedSizeQueryFromACardOfSizeZero)
{
    cardsim::Fault fault;
    fault.kind = CallKind::Ioctl;
    fault.error = ENODEV;
    kernel.Inject(fault);
    const End end = EndOf([&] { Device(Detect("/dev/sdcarda")).Sectors(); });
    EXPECT_EQ(ExitCode::InputOutput, end.code);
    EXPECT_TRUE(Says(end, "No such device")) << end.what;
}

// The library's warnings are all that such a device has to say.
TEST_F(ToolDevice, SurvivesABackEndThatOffersNothing)
{
    static constexpr DrvOps kNothing = {};
    DrvInfo handle = Detect("/dev/sdcarda");
    handle.ops = &kNothing;
    Device device(handle);
    EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.Sectors(); }).code);
    EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.Status(); }).code);
    EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.Info(); }).code);
    EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.SdStatus(); }).code);
    EXPECT_FALSE(device.IsWriteProtected());

    const cardsim::LowBuffer sector(512);
    for (const Moved& moved :
         {device.Read(0, 1, sector.data()), device.Write(0, 1, sector.data())}) {
        EXPECT_EQ(0u, moved.sectors);
        EXPECT_EQ(EIO, moved.error);
    }
}

// The same failures of back-ends whose results differ.
struct Answers {
    uint32_t size;
    int32_t protection;
    int32_t code;
};

Answers answers;

DrvOps AnsweringOps()
{
    DrvOps ops = {};
    ops.CardGetStatus = [](DrvInfo*, uint16_t*) { return answers.code; };
    ops.CardGetSize = [](DrvInfo*) { return answers.size; };
    ops.CardGetWriteProtect = [](DrvInfo*) { return answers.protection; };
    return ops;
}

class OtherBackEnds : public ToolDevice {
protected:
    DrvInfo Handle(int32_t dev_type)
    {
        DrvInfo handle = Detect("/dev/sdcarda");
        handle.dev_type = dev_type;
        handle.ops = &ops;
        return handle;
    }

    const DrvOps ops = AnsweringOps();
};

TEST_F(OtherBackEnds, FailWithSmallOrHugeSizes)
{
    for (const int32_t type : {DEV_TYPE_ZEL, DEV_TYPE_MIVO}) {
        Device device(Handle(type));
        answers = {10, 0, 0};
        EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.Sectors(); }).code);
        answers = {0xFFFFFFFB, 0, 0};
        const End gone = EndOf([&] { device.Sectors(); });
        EXPECT_EQ(ExitCode::Removed, gone.code);
        EXPECT_TRUE(Says(gone, "removed")) << gone.what;
        answers = {11, 0, 0};
        EXPECT_EQ(11u, device.Sectors());
    }
    // Ten sectors are a size here.
    Device device(Handle(DEV_TYPE_RICOH_SD));
    answers = {10, 0, 0};
    EXPECT_EQ(10u, device.Sectors());
}

TEST_F(OtherBackEnds, AreProtectedWithAnyOtherNumber)
{
    Device device(Handle(DEV_TYPE_ZEL));
    answers = {0, 2, 0};
    EXPECT_TRUE(device.IsWriteProtected());
    for (const int32_t failed : {10, -5}) {
        answers = {0, failed, 0};
        EXPECT_EQ(ExitCode::InputOutput, EndOf([&] { device.IsWriteProtected(); }).code);
    }
}

TEST_F(OtherBackEnds, SayWhenTheCardHasGone)
{
    Device device(Handle(DEV_TYPE_MIVO));
    answers = {0, 0, CARD_CODE_REMOVED};
    const End end = EndOf([&] { device.Status(); });
    EXPECT_EQ(ExitCode::Removed, end.code);
    EXPECT_TRUE(Says(end, "removed")) << end.what;
}

TEST_F(ToolDevice, HasNoUnitBelowTheFirst)
{
    kernel.AddNode("/dev/card", {S_IFBLK, 240, 0, std::make_shared<cardsim::Driver>()});
    EXPECT_EQ(ExitCode::NoSuchDevice, EndOf([] { Detect("/dev/card"); }).code);
}

TEST_F(ToolDevice, NamesEachBackEnd)
{
    kernel.AddNode("/dev/a", {S_IFBLK, 240, 81, std::make_shared<cardsim::Driver>()});
    kernel.AddNode("/dev/b", {S_IFCHR, 248, 1, std::make_shared<cardsim::Driver>()});
    EXPECT_EQ("Zel, unit 5", BackEndOf(Detect("/dev/a")));
    EXPECT_EQ("Mivo, unit 1", BackEndOf(Detect("/dev/b")));
    EXPECT_EQ("Ricoh SD, unit 0", BackEndOf(Detect("/dev/sdcarda")));
}

TEST_F(ToolDevice, TakesPathsOf255Bytes)
{
    const std::string longest = "/dev/" + std::string(250, 'x');
    EXPECT_EQ(ExitCode::NoSuchDevice, EndOf([&] { Detect(longest); }).code);
    EXPECT_EQ(ExitCode::Usage, EndOf([&] { Detect(longest + "x"); }).code);
}

// A back-end answers so when the unit number is none of its own.
TEST_F(ToolDevice, IsNotThereWhenOpeningFailsWithoutAReason)
{
    DrvInfo handle = Detect("/dev/sdcarda");
    handle.dev_index = 1;
    EXPECT_EQ(ExitCode::NoSuchDevice, EndOf([&] { const Device device(handle); }).code);
}

}  // namespace
