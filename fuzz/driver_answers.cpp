// SPDX-License-Identifier: MIT
//
// Any sequence of calls, over drivers that answer anything: whatever results, errno values,
// poll events and bytes in records there can be.
//
// An input is: what happens once the answers are used up, what fresh blocks hold, how many
// bytes of calls follow; the calls; the answers.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "carddev.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/machine.h"
#include "sim/contents.h"

namespace {

using fuzz::Answer;
using fuzz::CallKind;
using fuzz::Input;
using fuzz::Machine;
using fuzz::SystemCall;

// --- the drivers -----------------------------------------------------------------

// What a request makes the driver write: how much, and a byte of it that makes the answer
// an ordinary one (elsewhere zeros do).
struct RequestRecord {
    uint32_t number;
    uint32_t size;
    uint32_t place;
    uint8_t value;
};

constexpr uint32_t kZelCardParams = 0x20007005;  // its record names another, of 536 bytes
constexpr RequestRecord kRecords[] = {
    {0x20007016, 512, 271, 0x40},                             // Zel: identify; the version
    {0x20007001, 4, 2, 0xFF},                                 // card status; a card in every slot
    {kZelCardParams, 536, 31, 0x10}, {0x20007013, 36, 0, 0},  // device parameters
    {0x20001260, 4, 1, 0x40},                                 // size
    {0x4001EC1E, 1, 0, 1},  // real time: status, delay, on for a wait
    {0x4001EC1F, 1, 0, 1},           {0x4001EC20, 1, 0, 1},  {0xC008EC18, 8, 7, 1},
    {0x4006D300, 6, 3, 0xFF},    // Mivo: card status; a card in every unit
    {0x4030D30F, 48, 33, 0x40},  // card parameters; the capacity
    {0x4001D314, 16, 0, 2},      // CID, CSD, SCR, SD status
    {0x4001D315, 16, 7, 0x10},       {0x4001D316, 8, 0, 2},  {0x4001D317, 64, 0, 0},
    {0x400178FF, 17, 8, 0x10},  // Ricoh: CSD with a byte ahead, CID, SD status, size
    {0x400178FE, 16, 0, 2},          {0x400178F4, 64, 0, 0}, {0x400478FC, 4, 1, 0x40},
};

constexpr int kErrors[] = {EBUSY,  EIO,    ENODEV, EINTR,     EAGAIN,    ENOMEM, EACCES, EROFS,
                           EINVAL, ENXIO,  EPERM,  ENOTTY,    ETIMEDOUT, EBADF,  EFAULT, ENOSPC,
                           EFBIG,  EEXIST, ENOENT, ENOMEDIUM, ESTALE,    EPIPE,  ELOOP,  EMFILE,
                           EXDEV,  ERANGE, EDOM,   EDEADLK,   1000,      4095,   1,      EOVERFLOW};
constexpr short kEvents[] = {POLLOUT,  POLLIN,           POLLHUP,           POLLERR,
                             POLLNVAL, POLLOUT | POLLIN, POLLOUT | POLLHUP, POLLOUT | POLLERR};

// What the lower three bits of an answer's byte mean; the upper five detail it.
enum Mode { kDone, kFails, kFailsAnyHow, kPositive, kAnyResult, kAnyRecord, kAgain, kAnyEvents };

// Room that reads and writes of the caller's have.
constexpr uint32_t kRoom = 8 * CARD_SECTOR_SIZE;

class AnyDriver final : public fuzz::Driver {
public:
    AnyDriver(Input answers, uint8_t afterwards) : answers_(answers), afterwards_(afterwards) {}

    // Which node DevDetect is to find, where it finds one.
    struct stat64 node = {};
    int64_t transferred = 0;  // result of the last read or write

    Answer Serve(const SystemCall& call) override
    {
        const uint8_t byte = Next();
        if (call.kind == CallKind::Stat) {
            *call.node = node;
        }
        const Answer answer = AnswerOf(call, static_cast<Mode>(byte & 7), byte >> 3);
        const RequestRecord* record = Written(call);
        if (record != nullptr && (answer.result >= 0 || call.request == kZelCardParams)) {
            // The only bytes without a value that the library may look at: a record that its
            // driver says to have written; and the Zel back-end's register records after a
            // failure, because a register that cannot be read is reported with success.
            cardsim::HasValue(MemoryOf(call), record->size);
        }
        if (call.kind == CallKind::Read || call.kind == CallKind::Write) {
            transferred = answer.result;
        }
        return answer;
    }

private:
    uint8_t Next()
    {
        if (repeats_ > 0) {
            repeats_--;
            return repeated_;
        }
        if (answers_.Left() == 0) {
            // "Not finished" for ever would be asked for ever.
            const int mode = afterwards_ & 7;
            return mode == kDone || mode == kFails || mode == kFailsAnyHow || mode == kAnyRecord
                       ? afterwards_
                       : uint8_t{kDone};
        }
        const uint8_t byte = answers_.Byte();
        if ((byte & 7) != kAgain) {
            return byte;
        }
        repeated_ = answers_.Byte();
        repeats_ = byte >> 3;
        return (repeated_ & 7) != kAgain ? repeated_ : repeated_ = kFails;
    }

    Answer AnswerOf(const SystemCall& call, Mode mode, uint8_t detail)
    {
        switch (mode) {
            case kFails:
                return {-1, kErrors[detail]};
            case kFailsAnyHow:
                if ((detail & 1) != 0) {
                    WriteRecord(call, detail);
                }
                return {-1, static_cast<int>(1 + answers_.Number(2) % 4095)};
            case kPositive:
                Work(call);
                return Limited(call, {detail + 1, 0, kEvents[detail % 8]});
            case kAnyResult:
                return AnyResult(call);
            case kAnyRecord:
                WriteRecord(call, detail);
                return Limited(call, {Usual(call), 0, 0});  // a poll times out
            case kAnyEvents:
                return Limited(call, {1, 0, static_cast<short>(answers_.Number(2))});
            default:
                Work(call);
                return {Usual(call), 0, POLLOUT};
        }
    }

    // libc tells results from -4095 to -1 as errno values.
    Answer AnyResult(const SystemCall& call)
    {
        const auto result = static_cast<int32_t>(answers_.Number(4));
        const auto events = static_cast<short>(answers_.Number(2));
        if (result < 0 && (result >= -4095 || call.kind != CallKind::Ioctl)) {
            return {-1, result >= -4095 ? -result : EIO, events};
        }
        return Limited(call, {result, 0, events});
    }

    // No transfer moves more than it was asked for; more than there is room for must fail.
    static Answer Limited(const SystemCall& call, Answer answer)
    {
        const bool moves = call.kind == CallKind::Read || call.kind == CallKind::Write;
        if (moves && answer.result > static_cast<int64_t>(call.amount)) {
            answer.result = static_cast<int64_t>(call.amount);
        }
        return answer;
    }

    static int64_t Usual(const SystemCall& call)
    {
        switch (call.kind) {
            case CallKind::Open:
            case CallKind::Poll:
                return 1;
            case CallKind::Read:
            case CallKind::Write:
                return static_cast<int64_t>(call.amount < kRoom ? call.amount : kRoom);
            default:
                return 0;
        }
    }

    // The record that a call has the driver write; null where there is none.
    static const RequestRecord* Written(const SystemCall& call)
    {
        for (const RequestRecord& record : kRecords) {
            if (call.kind == CallKind::Ioctl && call.argument != 0 &&
                record.number == call.request) {
                return &record;
            }
        }
        return nullptr;
    }

    static uint8_t* MemoryOf(const SystemCall& call)
    {
        if (call.request != kZelCardParams) {
            return reinterpret_cast<uint8_t*>(call.argument);
        }
        uint32_t words[2];
        memcpy(words, reinterpret_cast<const void*>(call.argument), sizeof words);
        return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(words[1]));
    }

    // What an ordinary driver would do.
    void Work(const SystemCall& call)
    {
        if (call.kind == CallKind::Read) {
            memset(reinterpret_cast<void*>(call.argument), 0x5A, static_cast<size_t>(Usual(call)));
        }
        const RequestRecord* record = Written(call);
        if (record != nullptr) {
            uint8_t* memory = MemoryOf(call);
            memset(memory, 0, record->size);
            memory[record->place] = record->value;
        }
    }

    void WriteRecord(const SystemCall& call, uint8_t detail)
    {
        if (call.kind == CallKind::Stat) {
            memset(call.node, 0, sizeof *call.node);
            call.node->st_mode = answers_.Number(2);
            call.node->st_rdev = makedev(answers_.Number(2), answers_.Number(3));
            return;
        }
        const RequestRecord* record = Written(call);
        if (record == nullptr) {
            return;
        }
        uint8_t* memory = MemoryOf(call);
        if ((detail & 16) == 0) {
            memset(memory, answers_.Byte(), record->size);
        }
        for (uint32_t i = 0; (detail & 8) != 0 && i < record->size && answers_.Left() > 0; i++) {
            memory[i] = answers_.Byte();
        }
        for (int pokes = detail >> 1 & 3; pokes > 0; pokes--) {
            const uint32_t place = answers_.Number(2) % record->size;
            memory[place] = answers_.Byte();
        }
    }

    Input answers_;
    uint8_t afterwards_;
    uint8_t repeated_ = 0;
    int repeats_ = 0;
};

// --- the caller --------------------------------------------------------------------

enum class State { Blank, Detected, Failed, Open };

constexpr int kMostPieces = 8;

// What a caller has, in memory that drivers can reach.
struct Memory {
    DrvInfo handle;
    uint8_t sectors[kRoom];
    uint8_t record[64];
    uint32_t chunk_count;
    MemoryChunk chunk[kMostPieces];
    MemoryArray array;
    BlockListEntry entry[kMostPieces];
    BlockList list;
    CardInfo info;
    CardSpeedInfo speed;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
};

Memory* memory;
Machine* machine;
int callback_depth;
int callbacks;

// A callback may call the library, though not without end.
void OnEject()
{
    FUZZ_CHECK(!machine->locked(), "the callback runs under the lock");
    callbacks++;
    if (callback_depth < 2) {
        callback_depth++;
        uint16_t status = 0;
        CARD_Getstatus(&memory->handle, &status);
        callback_depth--;
    }
}

// Seconds of waiting that a call is said to take at worst, in milliseconds.
constexpr int64_t kEjectCheckMs = 3600;
constexpr int64_t kZelDirectMs = 51600;
constexpr int64_t kMivoDirectMs = 12000;

class Caller {
public:
    Caller(Input calls, AnyDriver& driver) : calls_(calls), driver_(driver) {}

    void Run()
    {
        for (int done = 0; done < 200 && calls_.Left() > 0; done++) {
            One(calls_.Byte() % 28);
        }
        if (state_ == State::Open) {
            Exit();
        }
    }

private:
    using Is = bool (*)(int64_t result);

    DrvInfo* handle() { return &memory->handle; }
    bool Unbound() { return memory->handle.ops == nullptr; }
    bool Ricoh() { return !Unbound() && memory->handle.dev_type == DEV_TYPE_RICOH_SD; }
    bool Mivo() { return !Unbound() && memory->handle.dev_type == DEV_TYPE_MIVO; }

    template <typename Body>
    int64_t Make(const char* name, int64_t most_ms, Body body, int own_errno = 0)
    {
        callbacks = 0;
        machine->Begin();
        const int64_t result = body();
        machine->End(name, own_errno);
        const int times = 1 + callbacks;
        FUZZ_CHECK(machine->waited_ms() <= most_ms * times, "%s waits %lld ms", name,
                   static_cast<long long>(machine->waited_ms()));
        FUZZ_CHECK(
            machine->calls() <= 200u * static_cast<unsigned>(times) + 4 * machine->more_answers(),
            "%s makes %u calls", name, machine->calls());
        return result;
    }

    static void Expect(bool good, const char* name, int64_t result)
    {
        FUZZ_CHECK(good, "%s gave %lld", name, static_cast<long long>(result));
    }

    void One(int which)
    {
        // After a failed Init nothing else may be called.
        if (state_ == State::Failed && which > 1) {
            return;
        }
        switch (which) {
            case 0:
                return Detect();
            case 1:
                return Init();
            case 2:
                return Exit();
            case 3:
            case 4:
            case 5:
            case 6:
                return Transfer(which);
            case 7:
            case 8:
            case 9:
            case 10:
            case 11:
                return Query(which);
            case 12:
            case 13:
            case 14:
            case 15:
                return Control(which);
            case 16:
            case 17:
            case 18:
            case 19:
                return Direct(which);
            case 20:
            case 21:
            case 22:
                return Elements(which);
            default:
                return RealTime(which);
        }
    }

    // The path is any, too: its end may be missing, and it may look like a format.
    void ChoosePath(uint8_t how)
    {
        static constexpr const char* kPaths[] = {"/dev/spda", "%s%n%n%s%d", "", "/dev/mivosdif0"};
        char* path = handle()->dev_path;
        const size_t whole = sizeof handle()->dev_path;
        memset(path, 0, whole);
        if ((how & 7) < 4) {
            memcpy(path, kPaths[how & 7], strlen(kPaths[how & 7]));
        } else {
            memset(path, 'p', (how & 7) == 4 ? whole - 1 : whole - ((how & 7) == 5 ? 0 : 100));
        }
    }

    void Detect()
    {
        if (state_ == State::Open) {
            return;
        }
        ChoosePath(calls_.Byte());
        const uint8_t where = calls_.Byte();
        const uint8_t kind = where & 3;
        const unsigned unit = where >> 2;
        driver_.node.st_mode = kind == 1 ? S_IFCHR : S_IFBLK;
        driver_.node.st_rdev = kind == 0   ? makedev(240, 1 + 16 * unit)
                               : kind == 1 ? makedev(248, unit)
                               : kind == 2 ? makedev(244, 0)
                                           : makedev(calls_.Byte(), unit);
        // The path may have no end.
        const int64_t result =
            Make("DevDetect", 0, [&] { return DevDetect(handle()); }, ENAMETOOLONG);
        Expect(result == 0 || result == -1 || result == -22 || result == -19, "DevDetect", result);
        FUZZ_CHECK((result == 0) <= !Unbound(), "detected and not bound");
        if (state_ == State::Blank && !Unbound()) {
            state_ = State::Detected;
        }
    }

    void Init()
    {
        if (state_ == State::Open) {
            return;
        }
        const bool unbound = Unbound();
        const int64_t result = Make("DevInit", 1, [&] { return DevInit(handle()); }, ENAMETOOLONG);
        Expect(unbound ? result == -22 : result >= -1, "DevInit", result);
        if (unbound) {
            return;
        }
        state_ = result >= 0 ? State::Open : State::Failed;
        if (result < 0) {
            CheckFiles("a failed DevInit");
            machine->ForgetBlocks();
        }
    }

    void Exit()
    {
        Make("DevExit", 1, [&] {
            DevExit(handle());
            return 0;
        });
        static constexpr DrvInfo kBlank = {};
        FUZZ_CHECK(memcmp(handle(), &kBlank, sizeof kBlank) == 0 || state_ == State::Blank,
                   "the handle is not blank");
        state_ = State::Blank;
        CheckFiles("DevExit");
        FUZZ_CHECK(machine->live_blocks() == 0 || machine->zero_descriptor(),
                   "%u blocks after DevExit", machine->live_blocks());
    }

    void CheckFiles(const char* when)
    {
        FUZZ_CHECK(machine->open_files() == 0 || machine->zero_descriptor(),
                   "%u files open after %s", machine->open_files(), when);
    }

    // Registration, and plain transfers.
    void Transfer(int which)
    {
        if (which < 5) {
            const uint32_t word = calls_.Byte();
            const CardEjectCallback callback = which == 3 ? OnEject : nullptr;
            const int64_t result =
                Make("CARD_Init", 0, [&] { return CARD_Init(handle(), word, callback); });
            Expect(result == 0 || result == 10, "CARD_Init", result);
            return;
        }
        const uint8_t how = calls_.Byte();
        const uint32_t sectors = (how & 7) == 7 ? calls_.Number(4) : how & 7;
        const uint32_t first = calls_.Number(4);
        CardIoResult io = {0x1234, 0, -7};
        CardIoResult* given = (how & 0x80) != 0 ? nullptr : &io;
        driver_.transferred = -1;
        const int64_t result = Make("CARD_Read or CARD_Write", kEjectCheckMs, [&] {
            return which == 5 ? CARD_Read(handle(), memory->sectors, sectors, first, 0, given)
                              : CARD_Write(handle(), memory->sectors, sectors, first, 0, given);
        });
        Expect(result == (Unbound() || given == nullptr ? 10 : 0), "CARD_Read", result);
        FUZZ_CHECK(io.reserved == 0x1234, "the reserved word was touched");
        FUZZ_CHECK(io.error == 0 || (io.error == 10 && io.length == -7), "error %u length %d",
                   io.error, io.length);
        FUZZ_CHECK(io.length == -7 || io.length == static_cast<int32_t>(driver_.transferred),
                   "length %d", io.length);
    }

    static bool IsCardCode(int64_t result)
    {
        return result == 0 || result == 10 || result == 65531;
    }

    // Null now and then.
    template <typename Record>
    Record* Given(Record* record)
    {
        return calls_.Byte() % 16 == 15 ? nullptr : record;
    }

    void Query(int which)
    {
        int64_t result = 0;
        if (which == 7) {
            uint16_t status = 1;
            uint16_t* given = Given(&status);
            result = Make("CARD_Getstatus", kEjectCheckMs,
                          [&] { return CARD_Getstatus(handle(), given); });
            Expect(IsCardCode(result) || (Ricoh() && result == 0xFFED), "CARD_Getstatus", result);
            Expect(result != 0 || status == CARD_STATUS_READY, "CARD_Getstatus", status);
            return;
        }
        if (which == 8) {
            CardInfo* given = Given(&memory->info);
            result =
                Make("CARD_Getinfo", kEjectCheckMs, [&] { return CARD_Getinfo(handle(), given); });
        } else if (which == 9) {
            CardSpeedInfo* given = Given(&memory->speed);
            result = Make("CARD_GetSpeedInfo", kEjectCheckMs,
                          [&] { return CARD_GetSpeedInfo(handle(), given); });
        } else if (which == 10) {
            uint8_t* given = Given(memory->sd_status);
            result = Make("CARD_SecureGetinfo", kEjectCheckMs,
                          [&] { return CARD_SecureGetinfo(handle(), given); });
        } else {
            result = Make("CARD_GetR1Status", 0, [&] { return CARD_GetR1Status(handle()); });
            Expect(result == (Unbound() ? 10 : 0), "CARD_GetR1Status", result);
        }
        Expect(IsCardCode(result), "a query", result);
    }

    void Control(int which)
    {
        if (which == 12) {
            Make("CARD_GetCardSize", 3 * kEjectCheckMs, [&] { return CARD_GetCardSize(handle()); });
        } else if (which == 13) {
            const int64_t result = Make("CARD_GetWriteProtect", 2 * kEjectCheckMs,
                                        [&] { return CARD_GetWriteProtect(handle()); });
            const bool told = result == static_cast<int16_t>(machine->ioctl_result());
            Expect(result == 10 || result == -5 || (Ricoh() ? result == 0 || result == 1 : told),
                   "CARD_GetWriteProtect", result);
        } else if (which == 14) {
            const auto command = static_cast<int32_t>(calls_.Byte() % 8);
            const auto argument = static_cast<int32_t>(calls_.Number(4));
            const int64_t result = Make("CARD_Ioctl", kEjectCheckMs,
                                        [&] { return CARD_Ioctl(handle(), command, argument); });
            Expect(IsCardCode(result) || result == CARD_CODE_COMMAND_FAILED, "CARD_Ioctl", result);
        } else {
            static constexpr uint32_t kRequests[] = {DEV_IOCTL_RT_40, DEV_IOCTL_RT_41,
                                                     DEV_IOCTL_RT_42, DEV_IOCTL_DEVICE_PARAMS,
                                                     DEV_IOCTL_RT_45};
            const uint8_t how = calls_.Byte();
            const uint32_t request = (how & 7) < 5 ? kRequests[how & 7] : calls_.Number(4);
            // At any address.
            void* argument = (how & 0x80) != 0 ? nullptr : memory->record + (how >> 3 & 7);
            const int64_t result = Make("DevIoctl", kEjectCheckMs,
                                        [&] { return DevIoctl(handle(), request, argument); });
            const bool own = Mivo() && request == DEV_IOCTL_DEVICE_PARAMS && result == 0;
            Expect(result == machine->ioctl_result() || own || result == -1 || result == -25 ||
                       result == -22 || result == -5 || result == -19,
                   "DevIoctl", result);
        }
    }

    int64_t DirectMs() { return Mivo() ? kMivoDirectMs : kZelDirectMs + kEjectCheckMs; }

    // Pieces of the caller's memory; they need not be what the length says.
    int Pieces()
    {
        const int count = calls_.Byte() % (kMostPieces + 1);
        for (int i = 0; i < count; i++) {
            const uint32_t addr = calls_.Number(2) << 9;
            const uint32_t len = calls_.Number(2) << 9;
            memory->chunk[i] = {addr, len};
            memory->array.addr[i] = addr;
            memory->array.len[i] = len;
        }
        memory->chunk_count = static_cast<uint32_t>(count);
        memory->array.count = count;
        return count;
    }

    void Direct(int which)
    {
        const uint32_t first = calls_.Number(4);
        const uint32_t length = calls_.Number(4);
        const uint8_t how = calls_.Byte();
        Pieces();
        auto* chunks =
            (how & 2) != 0 ? nullptr : reinterpret_cast<MemoryChunkArray*>(&memory->chunk_count);
        const MemoryArray* array = (how & 4) != 0 ? nullptr : &memory->array;
        const uint32_t flag = how & 1;
        uint32_t retried = 7;
        uint32_t* told = (how & 8) != 0 ? nullptr : &retried;
        // What the write from an array asks of the caller's allocator.
        machine->ZeroBlocks(which == 19);
        const int64_t result = Make("a direct transfer", DirectMs(), [&] {
            return which == 16   ? DevDrctRead(handle(), first, length, chunks)
                   : which == 17 ? DevDrctWrite(handle(), first, length, chunks, flag, told)
                   : which == 18 ? DevDrctReadArray(handle(), first, length, array)
                                 : DevDrctWriteArray(handle(), first, length, array, flag, told);
        });
        machine->ZeroBlocks(false);
        Expect(result == static_cast<int32_t>(length) || result == -5 || result == -22 ||
                   result == -19 || (result == -12 && which >= 18),
               "a direct transfer", result);
        FUZZ_CHECK(retried == 7 || retried <= 1, "retried is %u", retried);
    }

    void Elements(int which)
    {
        const uint8_t how = calls_.Byte();
        if (which == 22) {
            const uint32_t sectors = calls_.Number(4);
            const int64_t result = Make("DevSdCmdWrite", DirectMs(), [&] {
                return DevSdCmdWrite(handle(), memory->sectors, sectors, 1, how, how);
            });
            Expect(result == 0 || result == -5 || result == -12 || result == -19 ||
                       (Unbound() && result == -22),
                   "DevSdCmdWrite", result);
            return;
        }
        const int count = calls_.Byte() % (kMostPieces + 1);
        for (int i = 0; i < count; i++) {
            memory->entry[i] = {calls_.Number(2) << 9, calls_.Number(2), calls_.Number(2),
                                i + 1 < count ? &memory->entry[i + 1] : nullptr};
        }
        memory->list = {count, count > 0 ? &memory->entry[0] : nullptr};
        BlockList* list = (how & 2) != 0 ? nullptr : &memory->list;
        const int64_t result = Make("DevDrctRMW or DevFatWrite", DirectMs(), [&] {
            return which == 20 ? DevDrctRMW(handle(), list) : DevFatWrite(handle(), list);
        });
        Expect(result == 0 || result == -5 || result == -12 || result == -22 || result == -19,
               "DevDrctRMW or DevFatWrite", result);
    }

    void RealTime(int which)
    {
        const int64_t result = Make("a real-time call", 0, [&]() -> int64_t {
            switch (which) {
                case 23:
                    return DevCheckRt(handle());
                case 24:
                    return DevCheckDelay(handle());
                case 25:
                    return DevRTOn4Wait(handle());
                case 26:
                    DevLockRTOn(handle());
                    return 0;
                default:
                    DevUnlockRTOn(handle());
                    return 0;
            }
        });
        Expect((result >= 0 && result <= 255) || result == -machine->error() || result == -19 ||
                   (Unbound() && result == -22),
               "a real-time call", result);
    }

    Input calls_;
    AnyDriver& driver_;
    State state_ = State::Blank;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const uint8_t afterwards = input.Byte();
    const uint8_t fill = input.Byte();
    const Input calls = input.Part(input.Number(2));
    AnyDriver driver(input, afterwards);
    Machine the_machine(driver);
    machine = &the_machine;
    the_machine.FillBlocksWith(fill);
    memory = static_cast<Memory*>(the_machine.Allocate(sizeof(Memory)));
    Caller(calls, driver).Run();
    return 0;
}
