// SPDX-License-Identifier: MIT
//
// The Mivo back-end's status word, write protection, card commands and generic
// requests.
#include <climits>

#include "tests/mivosdif/fixture.h"

namespace {

using cardsim::Call;
using cardsim::Fault;

constexpr char kGetStatus[] = "ioctl(/dev/mivosdif0, 0x4006d300) = 0";
const char* const kCheckLine = "[mivosdif:Mivo_CheckEject(#)](E)Cannot get driver info!\n";
const char* const kCheckFdLine = "[mivosdif:__Mivo_CheckEject(#)](E)Invalid chr_fd!\n";

std::string FailedCall(const std::string& call, int error)
{
    return call + " = -1 " + strerrorname_np(error);
}

// --- CARD_Getstatus --------------------------------------------------------------------

class MivoStatus : public Mivo {
protected:
    Outcome Get()
    {
        return OutcomeOf([&] { return CARD_Getstatus(&handle, &status); });
    }
    Outcome GetWithoutAWord(DrvInfo* info)
    {
        return OutcomeOf([&] { return mivo_ops.CardGetStatus(info, nullptr); });
    }

    static std::string Line(const std::string& text)
    {
        return "[mivosdif:Mivo_CardGetStatus(#)](E)" + text + "\n";
    }

    uint16_t status = 0x1234;
};

TEST_F(MivoStatus, CallsAnOpenDevicesCardReady)
{
    Open();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

// Without a callback nobody looks.
TEST_F(MivoStatus, CallsAMissingCardReadyWithoutACallback)
{
    Open();
    units->Eject(0);
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(MivoStatus, LooksForTheCardWhenThereIsACallback)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ(0x8000, status);
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(0, ejects);
}

TEST_F(MivoStatus, ReportsAnEjectedCardAndKeepsTheWord)
{
    Open();
    WatchForEject();
    units->Eject(0);
    EXPECT_EQ((Outcome{65531}), Get());
    EXPECT_EQ(0x1234, status);
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(1, ejects);
    EXPECT_FALSE(eject_saw_lock);
}

TEST_F(MivoStatus, ReportsACardThatWasFoundGoneBefore)
{
    Open();
    dev->ejected = 1;
    EXPECT_EQ((Outcome{65531}), Get());
    EXPECT_EQ(0x1234, status);
    EXPECT_TRUE(kernel.Calls().empty());
}

// The eject check comes before the arguments are looked at.
TEST_F(MivoStatus, LooksForTheCardBeforeItLooksForTheWord)
{
    Open();
    EXPECT_EQ((Outcome{10, Line("Invalid an argument")}), GetWithoutAWord(&handle));
    WatchForEject();
    EXPECT_EQ((Outcome{10, Line("Invalid an argument")}), GetWithoutAWord(&handle));
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    units->Eject(0);
    EXPECT_EQ((Outcome{65531}), GetWithoutAWord(&handle));
    EXPECT_EQ((Trace{kGetStatus, kGetStatus}), TraceOf(kernel));
    EXPECT_EQ(1, ejects);
}

TEST_F(MivoStatus, ReportsAMissingRecordByTheCheckAndThenItself)
{
    for (DrvInfo* info : {&handle, static_cast<DrvInfo*>(nullptr)}) {
        EXPECT_EQ((Outcome{10, kCheckLine + Line("Cannot get driver info!")}),
                  OutcomeOf([&] { return mivo_ops.CardGetStatus(info, &status); }));
        EXPECT_EQ((Outcome{10, kCheckLine + Line("Invalid an argument")}), GetWithoutAWord(info));
    }
    EXPECT_EQ(0x1234, status);
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.CardGetStatus(&handle, &status); }));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(MivoStatus, NeedsAnOpenDevice)
{
    handle.priv = dev;
    EXPECT_EQ((Outcome{10, Line("Invalid chr_fd!")}), Get());
    EXPECT_EQ((Outcome{10, Line("Invalid an argument")}), GetWithoutAWord(&handle));
    dev->eject_cb = &OnEject;
    EXPECT_EQ((Outcome{10, kCheckFdLine + Line("Invalid chr_fd!")}), Get());
    EXPECT_EQ((Outcome{10, kCheckFdLine + Line("Invalid an argument")}), GetWithoutAWord(&handle));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.CardGetStatus(&handle, &status); }));
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.CardGetStatus(&handle, nullptr); }));
    dev->ejected = 1;
    EXPECT_EQ((Outcome{65531, kCheckFdLine}), Get());
    EXPECT_EQ(0x1234, status);
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
}

// --- CARD_GetWriteProtect ---------------------------------------------------------------

class MivoProtect : public Mivo {
protected:
    Outcome Get()
    {
        return OutcomeOf([&] { return CARD_GetWriteProtect(&handle); });
    }

    static std::string Line(const std::string& text)
    {
        return "[mivosdif:Mivo_CardGetWriteProtect(#)](E)" + text + "\n";
    }

    static constexpr char kCall[] = "ioctl(/dev/mivosdif0, 0x2000d307)";
};

TEST_F(MivoProtect, AsksTheDriver)
{
    Open();
    EXPECT_EQ((Outcome{0}), Get());
    model().write_protected = true;
    EXPECT_EQ((Outcome{1}), Get());
    EXPECT_EQ((Trace{std::string(kCall) + " = 0", std::string(kCall) + " = 1"}), TraceOf(kernel));
    EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(0u, kernel.Calls().at(0).argument);
    EXPECT_FALSE(IsLocked());
}

TEST_F(MivoProtect, GivesTheLow16BitsSigned)
{
    Open();
    const std::pair<int, int> answers[] = {
        {2, 2},       {0x7FFF, 32767}, {0x8000, -32768}, {0xFFFF, -1},         {0x10000, 0},
        {0x10001, 1}, {0x1FFFF, -1},   {0x7FFF0000, 0},  {0x7FFF8001, -32767}, {INT_MAX, -1},
    };
    for (const auto& [answer, state] : answers) {
        SCOPED_TRACE(answer);
        kernel.ClearFaults();
        Answer(MIVOSDIF_IOC_GET_WRITE_PROTECT, answer);
        EXPECT_EQ((Outcome{state}), Get());
        EXPECT_FALSE(IsLocked());
    }
}

// A driver that is busy, too, is asked once.
TEST_F(MivoProtect, GivesUpAtOnceForAnyError)
{
    Open();
    for (const int error : {EBUSY, EIO, ENODEV, EAGAIN, EINTR, ENOTTY}) {
        SCOPED_TRACE(strerror(error));
        kernel.ClearCalls();
        kernel.ClearFaults();
        FailRequest(MIVOSDIF_IOC_GET_WRITE_PROTECT, error);
        EXPECT_EQ((Outcome{-5,
                           Line(std::string("ioctl(MIVOSDIF_IOC_GET_WRITE_PROTECT) is failed : ") +
                                strerror(error)),
                           error}),
                  Get());
        EXPECT_EQ(Trace{FailedCall(kCall, error)}, TraceOf(kernel));
        EXPECT_FALSE(IsLocked());
    }
    EXPECT_EQ(0, dev->io_error);
    EXPECT_EQ(0, dev->ejected);
}

// Any negative answer, whatever errno says.
TEST_F(MivoProtect, TakesANegativeAnswerForAFailure)
{
    Open();
    Answer(MIVOSDIF_IOC_GET_WRITE_PROTECT, -7);
    EXPECT_EQ(-5, Get().result);
    EXPECT_FALSE(IsLocked());
}

class MivoProtectOnUnit : public OnUnit<MivoProtect> {};

INSTANTIATE_TEST_SUITE_P(Units, MivoProtectOnUnit, kUnits);

TEST_P(MivoProtectOnUnit, HoldsTheLockForTheRequest)
{
    Open();
    WatchForEject();
    bool locked = false;
    During(MIVOSDIF_IOC_GET_WRITE_PROTECT, [&](const Call&) { locked = IsLocked(); });
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_TRUE(locked);
    // Once for the eject check, once for this.
    ASSERT_EQ(2u, MutexCalls().size());
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(MutexCallKind::Lock, MutexCalls()[i].kind);
        EXPECT_EQ(&dev->lock, MutexCalls()[i].mutex);
        EXPECT_EQ(i, MutexCalls()[i].system_calls);
    }
    EXPECT_FALSE(IsLocked());
}

TEST_F(MivoProtect, LooksForTheCardFirst)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Get());
    EXPECT_EQ((Trace{kGetStatus, std::string(kCall) + " = 0"}), TraceOf(kernel));
    kernel.ClearCalls();
    units->Eject(0);
    EXPECT_EQ((Outcome{-5}), Get());
    EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
    EXPECT_EQ(1, ejects);
    EXPECT_FALSE(eject_saw_lock);
    EXPECT_FALSE(IsLocked());
}

TEST_F(MivoProtect, RefusesACardThatWasFoundGoneBefore)
{
    Open();
    dev->ejected = 1;
    EXPECT_EQ((Outcome{-5}), Get());
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

// Here the device comes before the eject check.
TEST_F(MivoProtect, NeedsARecordThenAnOpenDevice)
{
    for (DrvInfo* info : {&handle, static_cast<DrvInfo*>(nullptr)}) {
        EXPECT_EQ((Outcome{10, Line("Cannot get driver info!")}),
                  OutcomeOf([&] { return mivo_ops.CardGetWriteProtect(info); }));
    }
    handle.priv = dev;
    dev->eject_cb = &OnEject;
    dev->ejected = 1;
    EXPECT_EQ((Outcome{10, Line("Invalid chr_fd!")}), Get());
    EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { mivo_ops.CardGetWriteProtect(&handle); }));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_EQ(0, ejects);
}

TEST_F(MivoProtect, KeepsTheErrnoWhereItsLineDoesNotGetOut)
{
    Open();
    FailRequest(MIVOSDIF_IOC_GET_WRITE_PROTECT, EIO);
    EXPECT_EQ(EIO, ErrnoAfter(EXFULL, [&] { CARD_GetWriteProtect(&handle); }));
}

// --- CARD_Ioctl -----------------------------------------------------------------------------

class MivoCommand : public Mivo {
protected:
    Outcome Send(int32_t command, int32_t argument)
    {
        return OutcomeOf([&] { return CARD_Ioctl(&handle, command, argument); });
    }
};

struct Command {
    int32_t number;
    uint32_t request;
    const char* call;
};

constexpr Command kCommands[] = {
    {2, MIVOSDIF_IOC_CARD_CMD2, "ioctl(/dev/mivosdif0, 0x8001d327)"},
    {3, MIVOSDIF_IOC_CARD_CMD3, "ioctl(/dev/mivosdif0, 0x8001d328)"},
    {4, MIVOSDIF_IOC_CARD_CMD4, "ioctl(/dev/mivosdif0, 0x8001d329)"},
};

TEST_F(MivoCommand, PassesTheArgumentOnAsItIs)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int32_t argument : {0, 1, 0x12345678, -1, INT_MIN}) {
            SCOPED_TRACE(testing::Message() << command.number << " " << argument);
            kernel.ClearCalls();
            EXPECT_EQ((Outcome{0}), Send(command.number, argument));
            EXPECT_EQ(Trace{std::string(command.call) + " = 0"}, TraceOf(kernel));
            EXPECT_EQ(static_cast<uint32_t>(argument), kernel.Calls().at(0).argument);
            EXPECT_EQ(dev->chr_fd, kernel.Calls().at(0).fd);
            units->With([&](sim_mivo& mivo) {
                EXPECT_EQ(static_cast<uint32_t>(command.number), mivo.unit[0].last_command);
                EXPECT_EQ(static_cast<uint32_t>(argument), mivo.unit[0].command_word);
            });
        }
    }
}

TEST_F(MivoCommand, TakesAPositiveAnswerForSuccess)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int answer : {1, INT_MAX}) {
            kernel.ClearFaults();
            Answer(command.request, answer);
            EXPECT_EQ((Outcome{0}), Send(command.number, 0)) << command.number;
        }
    }
}

TEST_F(MivoCommand, HasACodeOfItsOwnForAFailure)
{
    Open();
    for (const Command& command : kCommands) {
        for (const int error : {EIO, EBUSY, ENODEV}) {
            SCOPED_TRACE(testing::Message() << command.number << " " << strerror(error));
            kernel.ClearCalls();
            kernel.ClearFaults();
            FailRequest(command.request, error);
            EXPECT_EQ((Outcome{43271, "", error}), Send(command.number, 7));
            EXPECT_EQ(Trace{FailedCall(command.call, error)}, TraceOf(kernel));
            EXPECT_FALSE(IsLocked());
        }
    }
    EXPECT_EQ(0, dev->io_error);
}

TEST_F(MivoCommand, HasNoOtherCommands)
{
    Open();
    const auto request = static_cast<int32_t>(MIVOSDIF_IOC_CARD_CMD2);
    for (const int32_t command : {-1, 0, 1, 5, 6, INT_MAX, INT_MIN, request}) {
        EXPECT_EQ((Outcome{0}), Send(command, 9)) << command;
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

class MivoCommandOnUnit : public OnUnit<MivoCommand> {};

INSTANTIATE_TEST_SUITE_P(Units, MivoCommandOnUnit, kUnits);

TEST_P(MivoCommandOnUnit, HoldsTheLockForTheRequest)
{
    Open();
    WatchForEject();
    for (const Command& command : kCommands) {
        SCOPED_TRACE(command.number);
        bool locked = false;
        During(command.request, [&](const Call&) { locked = IsLocked(); });
        MutexCalls().clear();
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0}), Send(command.number, 0));
        EXPECT_TRUE(locked);
        EXPECT_FALSE(IsLocked());
        // Behind the eject check, which has it for itself.
        ASSERT_EQ(2u, MutexCalls().size());
        for (size_t i = 0; i < 2; i++) {
            EXPECT_EQ(MutexCallKind::Lock, MutexCalls()[i].kind);
            EXPECT_EQ(&dev->lock, MutexCalls()[i].mutex);
            EXPECT_EQ(i, MutexCalls()[i].system_calls);
        }
    }
}

TEST_F(MivoCommand, LooksForTheCardFirst)
{
    Open();
    WatchForEject();
    EXPECT_EQ((Outcome{0}), Send(3, 0));
    EXPECT_EQ((Trace{kGetStatus, "ioctl(/dev/mivosdif0, 0x8001d328) = 0"}), TraceOf(kernel));
    units->Eject(0);
    for (const int32_t command : {1, 2, 3, 4, 5}) {
        SCOPED_TRACE(command);
        kernel.ClearCalls();
        ejects = 0;
        EXPECT_EQ((Outcome{65531}), Send(command, 0));
        EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
        EXPECT_EQ(1, ejects);
    }
    EXPECT_FALSE(eject_saw_lock);
}

TEST_F(MivoCommand, RefusesACardThatWasFoundGoneBefore)
{
    Open();
    dev->ejected = 1;
    for (const int32_t command : {1, 2, 3, 4, 5}) {
        EXPECT_EQ((Outcome{65531}), Send(command, 0)) << command;
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

// Whether the node is open is not asked.
TEST_F(MivoCommand, ReachesTheKernelWithAnyDescriptor)
{
    Open();
    const int32_t open = dev->chr_fd;
    dev->chr_fd = -1;
    EXPECT_EQ((Outcome{43271, "", EBADF}), Send(2, 0));
    dev->chr_fd = 0;
    EXPECT_EQ((Outcome{0}), Send(1, 0));
    EXPECT_EQ((Outcome{0}), Send(5, 0));
    dev->chr_fd = open;
}

// --- DevIoctl -------------------------------------------------------------------------------

class MivoGenericRequest : public Mivo {
protected:
    static constexpr size_t kRecordSize = 36;
    static constexpr uint8_t kMark = 0xE1;

    Outcome Send(uint32_t request, void* argument)
    {
        return OutcomeOf([&] { return DevIoctl(&handle, request, argument); });
    }
};

TEST_F(MivoGenericRequest, HasTheNumberOfTheFramesRequest)
{
    EXPECT_EQ(0x40247243u, uint32_t{DEV_IOCTL_DEVICE_PARAMS});
}

// Words 0, 5, 6 and 7 of nine; the caller's others stay, wherever the record lies.
TEST_F(MivoGenericRequest, AnswersTheDeviceParametersItself)
{
    Open();
    for (size_t offset = 0; offset < 8; offset++) {
        SCOPED_TRACE(offset);
        alignas(8) uint8_t memory[kRecordSize + 16];
        memset(memory, kMark, sizeof memory);
        uint8_t* record = memory + offset;
        EXPECT_EQ((Outcome{0}), Send(0x40247243, record));
        constexpr uint32_t kUntouched = 0xE1E1E1E1;
        EXPECT_EQ((std::vector<uint32_t>{4, kUntouched, kUntouched, kUntouched, kUntouched, 32768,
                                         32, 8192, kUntouched}),
                  WordsAt(AddressOf(record), 9));
        EXPECT_EQ(Bytes(offset, kMark), Bytes(memory, record));
        EXPECT_EQ(Bytes(16 - offset, kMark), Bytes(record + kRecordSize, memory + sizeof memory));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

TEST_F(MivoGenericRequest, AnswersOnAClosedDeviceToo)
{
    handle.priv = dev;
    uint32_t record[9] = {};
    EXPECT_EQ((Outcome{0}), Send(DEV_IOCTL_DEVICE_PARAMS, record));
    EXPECT_EQ((std::vector<uint32_t>{4, 0, 0, 0, 0, 32768, 32, 8192, 0}),
              WordsAt(AddressOf(record), 9));
    EXPECT_TRUE(kernel.Calls().empty());
}

// The real-time requests of the other back-end among them.
TEST_F(MivoGenericRequest, KnowsNoOther)
{
    Open();
    uint8_t record[kRecordSize];
    memset(record, kMark, sizeof record);
    const uint32_t requests[] = {
        DEV_IOCTL_RT_40, DEV_IOCTL_RT_41, DEV_IOCTL_RT_42, DEV_IOCTL_RT_45, 0,          1,
        0x40247242,      0x40247244,      0x40247343,      0x40237243,      0x80247243, 0x00247243,
        0x00007243,      0x40247143,      0xFFFFFFFF,      0x4030D30F};
    for (const uint32_t request : requests) {
        SCOPED_TRACE(testing::Message() << std::hex << request);
        EXPECT_EQ((Outcome{-25}), Send(request, record));
        EXPECT_EQ((Outcome{-25}), Send(request, nullptr));
    }
    EXPECT_EQ(Bytes(kRecordSize, kMark), BytesOf(record));
    EXPECT_TRUE(kernel.Calls().empty());
    EXPECT_TRUE(MutexCalls().empty());
}

TEST_F(MivoGenericRequest, NeedsARecordForTheDeviceParameters)
{
    Open();
    EXPECT_EQ((Outcome{-22}), Send(DEV_IOCTL_DEVICE_PARAMS, nullptr));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(MivoGenericRequest, LooksForTheCardFirst)
{
    Open();
    WatchForEject();
    uint8_t record[kRecordSize];
    EXPECT_EQ((Outcome{0}), Send(DEV_IOCTL_DEVICE_PARAMS, record));
    EXPECT_EQ((Outcome{-25}), Send(DEV_IOCTL_RT_40, record));
    EXPECT_EQ((Trace{kGetStatus, kGetStatus}), TraceOf(kernel));
    units->Eject(0);
    memset(record, kMark, sizeof record);
    for (const uint32_t request : {DEV_IOCTL_DEVICE_PARAMS, DEV_IOCTL_RT_40}) {
        for (void* argument : {static_cast<void*>(record), static_cast<void*>(nullptr)}) {
            SCOPED_TRACE(testing::Message() << std::hex << request);
            kernel.ClearCalls();
            ejects = 0;
            EXPECT_EQ((Outcome{-5}), Send(request, argument));
            EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
            EXPECT_EQ(1, ejects);
        }
    }
    EXPECT_EQ(Bytes(kRecordSize, kMark), BytesOf(record));
    EXPECT_FALSE(eject_saw_lock);
}

TEST_F(MivoGenericRequest, RefusesACardThatWasFoundGoneBefore)
{
    Open();
    dev->ejected = 1;
    uint8_t record[kRecordSize];
    memset(record, kMark, sizeof record);
    EXPECT_EQ((Outcome{-5}), Send(DEV_IOCTL_DEVICE_PARAMS, record));
    EXPECT_EQ((Outcome{-5}), Send(0, record));
    EXPECT_EQ(Bytes(kRecordSize, kMark), BytesOf(record));
    EXPECT_TRUE(kernel.Calls().empty());
}

}  // namespace
