// SPDX-License-Identifier: MIT
#include "tests/faults/stand.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "carddev_state.h"
#include "tests/faults/calls.h"
#include "tests/faults/lock_watch.h"
#include "tests/faults/oddities.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"

namespace faults {

using cardsim::CallKind;

namespace {

constexpr uint32_t kCardSectors = 2048;
constexpr unsigned kZelUnit = 2;
constexpr unsigned kMivoUnit = 1;
constexpr uint8_t kRtStatus = 129;
constexpr uint8_t kDelayStatus = 2;
constexpr uint8_t kOnForWait = 3;

int callbacks;
bool callback_saw_lock;

void OnEject()
{
    callbacks++;
    callback_saw_lock = callback_saw_lock || Locks().held != 0;
}

const char* PathOf(Site site)
{
    switch (site) {
        case Site::Zel:
            return "/dev/spdc";
        case Site::Mivo:
            return "/dev/mivosdif1";
        default:
            return cardsim::kRicohNode;
    }
}

void Fill(uint8_t* bytes, size_t length, uint8_t first)
{
    for (size_t i = 0; i < length; i++) {
        bytes[i] = static_cast<uint8_t>(first + i * 7 + i / 512);
    }
}

bool IsBlank(const void* record, size_t length)
{
    const auto* bytes = static_cast<const uint8_t*>(record);
    return std::all_of(bytes, bytes + length, [](uint8_t byte) { return byte == 0; });
}

// As a record of Zel's or Mivo's, this says that a card is there and is the same as before.
constexpr std::array<uint8_t, 4096> kSoil = [] {
    std::array<uint8_t, 4096> soil{};
    for (size_t i = 0; i < soil.size(); i++) {
        soil[i] = i % 2 == 0 ? 0xA7 : 0xA3;
    }
    return soil;
}();

// So that what an operation reads without having written it is not zero by chance.
__attribute__((noinline)) void SoilStack()
{
    alignas(16) uint8_t bytes[kSoil.size()];
    memcpy(bytes, kSoil.data(), sizeof bytes);
    __asm__ volatile("" : : "r"(bytes) : "memory");
}

struct Room {
    uint8_t* first;
    size_t length;
};

// What a question's answer can be: one of these.
constexpr uint8_t kUnfilled = 0xEE;

std::array<Room, 3> AllRecordsOf(Subject* on)
{
    return {Room{reinterpret_cast<uint8_t*>(&on->info), sizeof on->info},
            Room{reinterpret_cast<uint8_t*>(&on->speed), sizeof on->speed},
            Room{on->sd_status, sizeof on->sd_status}};
}

bool IsFilled(const Room& record)
{
    return std::any_of(record.first, record.first + record.length,
                       [](uint8_t byte) { return byte != kUnfilled; });
}

void Append(Bytes* bytes, uint32_t address, size_t length)
{
    const auto* const first = reinterpret_cast<const uint8_t*>(uintptr_t{address});
    bytes->insert(bytes->end(), first, first + length);
}

// A word of a record, in the processor's own order.
uint32_t WordOf(const Bytes& bytes, size_t at)
{
    uint32_t word = 0;
    memcpy(&word, &bytes[at], sizeof word);
    return word;
}

// The record of a transfer's request, Zel's or Mivo's, and what it points to; of other
// requests nothing.
Bytes SentWith(uint32_t request, uintptr_t argument)
{
    const auto record = static_cast<uint32_t>(argument);
    Bytes sent;
    switch (request) {
        case 0x2000700C:
        case 0x2000700D:
        case 0x20007018:
        case 0x8010D325:
        case 0xC010D324:
        case 0x8010D32E:
            // Direct reads and writes: {sector, sectors, table, its bytes}
            Append(&sent, record, 16);
            Append(&sent, WordOf(sent, 8), WordOf(sent, 12));
            break;
        case 0x2000701D:
        case 0x2000702A:
        case 0x800CD326:
        case 0x800CD32A:
            // DrctRMW and FatWrite: {count, 0, address of elements of four words}
            Append(&sent, record, 12);
            Append(&sent, WordOf(sent, 8), size_t{WordOf(sent, 0)} * 16);
            break;
        case 0x2000701E:
        case 0x8008D32B:
            // SdCmdWrite: {two bytes, padding, address of {argument, length, table, its bytes}}
            Append(&sent, record, 8);
            Append(&sent, WordOf(sent, 4), 16);
            Append(&sent, WordOf(sent, 16), WordOf(sent, 20));
            break;
        default:
            break;
    }
    return sent;
}

// The sectors as they lie in memory.
Bytes DataIn(const uint8_t* memory, uint32_t second)
{
    Bytes data(size_t{kMoved} * 512);
    memcpy(data.data(), memory, 512);
    memcpy(data.data() + 512, memory + second, 512);
    return data;
}

void CopyRecords(Records* records)
{
    memcpy(records->zel, zel_dev, sizeof zel_dev);
    memcpy(records->mivo, mivo_dev, sizeof mivo_dev);
    memcpy(records->ricoh, ricoh_sd_dev, sizeof ricoh_sd_dev);
}

// `own` is a unit that may differ.
template <size_t kUnits, typename Unit>
bool AreAlike(const Unit (&before)[kUnits], const Unit (&after)[kUnits], const Unit* own)
{
    for (size_t i = 0; i < kUnits; i++) {
        if (&after[i] != own && memcmp(&before[i], &after[i], sizeof(Unit)) != 0) {
            return false;
        }
    }
    return true;
}

// The locks stay as they are.
template <size_t kUnits, typename Unit>
void FillAllBut(const Unit* own, Unit (&units)[kUnits], uint8_t byte)
{
    for (Unit& unit : units) {
        if (&unit == own) {
            continue;
        }
        memset(static_cast<void*>(&unit), byte, sizeof unit);
        if constexpr (requires { unit.lock; }) {
            unit.lock = PTHREAD_MUTEX_INITIALIZER;
        }
    }
}

bool Matches(const ExpectedCall& expected, const cardsim::Call& call)
{
    // Descriptors are what they are.
    const bool opens = call.kind == CallKind::Open && call.result >= 0;
    return expected.kind == call.kind && expected.node == call.node &&
           expected.request == call.request && expected.flags == call.flags &&
           expected.amount == call.amount &&
           (opens ? expected.result >= 0 : expected.result == call.result) &&
           expected.error == call.error;
}

cardsim::Call AsCall(const ExpectedCall& expected)
{
    cardsim::Call call;
    call.kind = expected.kind;
    call.node = expected.node;
    call.request = expected.request;
    call.flags = expected.flags;
    call.amount = expected.amount;
    call.result = expected.result;
    call.error = expected.error;
    return call;
}

}  // namespace

std::string NameOf(const Plan& plan)
{
    std::string name;
    for (const Planted& fault : plan) {
        cardsim::Call call;
        call.kind = fault.mark.kind;
        call.node = fault.mark.node;
        call.request = fault.mark.request;
        const std::string how_often = fault.times == cardsim::Fault::kForEver ? " and on"
                                      : fault.times > 1
                                          ? ", " + std::to_string(fault.times) + " times"
                                          : "";
        name += "call " + std::to_string(fault.at) + ", " + cardsim::Describe(call) + how_often +
                ": " + fault.oddity.name + "; ";
    }
    return name.empty() ? "no fault; " : name;
}

Stand::Stand(const Operation& operation, const std::vector<Operation>& others)
    : op_(operation),
      rules_(operation.tables, operation.parameters),
      card_(cardsim::Card::InMemory(kCardSectors)),
      console_(open_memstream(&text_, &length_))
{
    for (const Operation& other : others) {
        const bool plain = other.setup.life == Life::Works && !other.setup.watched &&
                           !other.setup.gone && !other.setup.failed && !other.setup.asked &&
                           !other.setup.unasked && !other.setup.protect &&
                           other.setup.sectors == kCardSectors;
        if (plain) {
            unopened_.push_back(&other);
        }
        if (op_.setup.life == Life::Works && !op_.setup.protect &&
            op_.setup.sectors == kCardSectors && plain) {
            others_.push_back({&other, Rules(other.tables, other.parameters)});
        }
    }
    if (op_.setup.no_input) {
        input_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100);
        close(STDIN_FILENO);
    }
    sectors_ = card_->model().media;
    card_->model().media = {ReadCard, WriteCard, this, nullptr};
    // A CID that says, read as a CSD, that blocks are shorter than a sector.
    for (size_t i = 0; i < sizeof card_->model().cid; i++) {
        card_->model().cid[i] = static_cast<uint8_t>(0xC0 + i * 16);
    }
    for (size_t i = 0; i < sizeof card_->model().sd_status; i++) {
        // The bytes that sizes are computed from stay zero.
        card_->model().sd_status[i] = static_cast<uint8_t>(i < 4 || i > 7 ? i * 5 + 1 : 0);
    }
    // An allocation unit of 8 MiB.
    card_->model().sd_status[16] = 0;
    card_->model().sd_status[17] = 8;
    if (op_.setup.sectors != kCardSectors) {
        // A CSD of version 2, though there is memory for the first sectors alone.
        const uint32_t c_size = op_.setup.sectors / 1024 - 1;
        sim_card& model = card_->model();
        model.sectors = op_.setup.sectors;
        model.csd[0] = 0x40;
        model.csd[7] = static_cast<uint8_t>(c_size >> 16);
        model.csd[8] = static_cast<uint8_t>(c_size >> 8);
        model.csd[9] = static_cast<uint8_t>(c_size);
    }
    card_->model().write_protected = op_.setup.protect;
    if (op_.site == Site::Zel) {
        slots_ = cardsim::ZelSlots::Create(*kernel_);
        slots_->Insert(kZelUnit, card_);
        slots_->With([this](sim_zel& zel) {
            zel.slot[kZelUnit].version = op_.setup.old ? 0x3F : 0x40;
            zel.rt.rt_status = kRtStatus;
            zel.rt.delay_status = kDelayStatus;
            zel.rt.on_for_wait = kOnForWait;
        });
    } else if (op_.site == Site::Mivo) {
        units_ = cardsim::MivoUnits::Create(*kernel_);
        units_->Insert(kMivoUnit, card_);
    } else {
        host_ = cardsim::RicohHost::Create(*kernel_);
        host_->Insert(card_);
    }
    FillOtherRecords(0x5C);
}

Stand::~Stand()
{
    FillOtherRecords(0);
    if (input_ >= 0) {
        dup2(input_, STDIN_FILENO);
        close(input_);
    }
    fclose(console_);
    free(text_);
}

int Stand::ReadCard(void* self, uint64_t position, void* to, uint32_t length)
{
    const sim_media& sectors = static_cast<Stand*>(self)->sectors_;
    return sectors.read(sectors.context, position, to, length);
}

int Stand::WriteCard(void* self, uint64_t position, const void* from, uint32_t length)
{
    constexpr uint64_t kFirst = uint64_t{kSector} * 512;
    constexpr uint64_t kEnd = kFirst + kMoved * 512;
    auto* const stand = static_cast<Stand*>(self);
    stand->wrote_ = true;
    stand->wrote_elsewhere_ =
        stand->wrote_elsewhere_ || position < kFirst || position + length > kEnd;
    return stand->sectors_.write(stand->sectors_.context, position, from, length);
}

std::string Stand::Captured(const std::function<void()>& body)
{
    FILE* const terminal = stdout;
    rewind(console_);
    stdout = console_;
    body();
    stdout = terminal;
    fflush(console_);
    return WithoutLineNumbers(std::string(text_, length_));
}

void Stand::Complain(const std::string& what)
{
    complaint_ += what + "\n";
}

void Stand::Expect(bool holds, const char* what)
{
    if (!holds) {
        Complain(what);
    }
}

// Another card, or none where it leaves.
void Stand::Move(CardMove move)
{
    card_moved_ = true;
    const bool leaves = move == CardMove::Leaves;
    if (slots_) {
        leaves ? slots_->Eject(kZelUnit) : slots_->Insert(kZelUnit, card_);
    } else if (units_) {
        leaves ? units_->Eject(kMivoUnit) : units_->Insert(kMivoUnit, card_);
    } else {
        leaves ? host_->Eject() : host_->Insert(card_);
    }
}

// --- what comes before -----------------------------------------------------------------

void Stand::Prepare()
{
    Subject& on = *subject_;
    const Setup& setup = op_.setup;
    Locks() = {.own = OwnLock()};
    callbacks = 0;
    callback_saw_lock = false;
    on.handle = HandleFor(PathOf(op_.site));
    if (setup.life != Life::Detects) {
        Expect(DevDetect(&on.handle) == 0, "set-up: not detected");
    }
    if (setup.life == Life::Works || setup.life == Life::Closes) {
        if (setup.unasked) {
            // Without the size nothing else is asked for.
            kernel_->Inject({.request = 0x20001260, .error = EIO});
        }
        Expect(DevInit(&on.handle) == 0, "set-up: not opened");
        kernel_->ClearFaults();
        if (setup.asked) {
            SdStatus(on);
            Info(on);
            Speed(on);
        }
        if (setup.watched) {
            CARD_Init(&on.handle, 0, OnEject);
        }
        if (setup.failed) {
            cardsim::Fault fault;
            fault.kind = CallKind::Ioctl;
            fault.times = cardsim::Fault::kForEver;
            fault.error = EIO;
            kernel_->Inject(fault);
            CommandWrite(on);
            kernel_->ClearFaults();
        }
    }
    if (setup.gone || setup.changed) {
        Move(setup.gone ? CardMove::Leaves : CardMove::IsExchanged);
    }
    Bytes sectors(size_t{kMoved} * 512);
    Fill(sectors.data(), sectors.size(), 0x11);
    card_->model().write_protected = false;
    sim_card_write(&card_->model(), uint64_t{kSector} * 512, sectors.data(), kMoved * 512);
    card_->model().write_protected = setup.protect;
    Fill(on.memory.data(), on.memory.size(), 0x88);
    on.retried = kUntouched;
}

Variables Stand::StateBefore() const
{
    const Setup& setup = op_.setup;
    const bool open = setup.life == Life::Works || setup.life == Life::Closes;
    // An opened Zel device has been asked for its size.
    const bool known = open && (setup.asked || (op_.site == Site::Zel && !setup.unasked));
    int64_t resets = 0;
    bool mounted = false;
    if (slots_) {
        slots_->With([&](const sim_zel& zel) { resets = zel.slot[kZelUnit].resets; });
    } else if (units_) {
        units_->With([&](const sim_mivo& mivo) {
            resets = mivo.unit[kMivoUnit].resets;
            mounted = mivo.unit[kMivoUnit].mounted;
        });
    }
    return {{"card", setup.gone ? 0 : 1},
            {"changed", setup.changed ? 1 : 0},
            {"armed", setup.watched ? 1 : 0},
            {"io_error", setup.failed ? 1 : 0},
            {"ejected", 0},
            {"callbacks", 0},
            {"signal", 0},
            {"resets", resets},
            {"moved", 0},
            {"filled", 0},
            {"retried", kUntouched},
            {"secure", known ? 1 : 0},
            {"reg", known ? 1 : 0},
            {"speed", open && setup.asked && op_.site != Site::Ricoh ? 1 : 0},
            {"has_cid", known ? 1 : 0},
            {"has_csd", known ? 2 : 0},
            {"read_only", open && setup.protect && op_.site == Site::Ricoh ? 1 : 0},
            {"has_status", known ? 1 : 0},
            {"has_speed", open && setup.asked ? 3 : 0},
            {"mounted", mounted ? 1 : 0},
            {"files", static_cast<int64_t>(kernel_->OpenFiles())},
            {"blocks", static_cast<int64_t>(kernel_->LiveBlocks() - lost_blocks_)}};
}

// --- what happens ------------------------------------------------------------------------

void Stand::Inject(const Plan& plan)
{
    for (const Planted& planted : plan) {
        cardsim::Fault fault;
        fault.kind = planted.mark.kind;
        fault.node = planted.mark.node;
        if (planted.mark.request != 0) {
            fault.request = planted.mark.request;
        }
        fault.first = planted.nth;
        fault.times = planted.times;
        fault.error = planted.oddity.error;
        fault.result = planted.oddity.result;
        fault.revents = planted.oddity.events;
        fault.reach_driver = planted.oddity.reaches;
        fault.at_most = planted.oddity.at_most;
        fault.stray_error = planted.oddity.stray_error;
        if (planted.oddity.card != CardMove::Stays) {
            fault.then = [this, move = planted.oddity.card] { Move(move); };
        }
        kernel_->Inject(fault);
    }
}

// At each call that an operation makes. A further try is the same request once more, with the
// same record and the same table.
void Stand::Look(const cardsim::Call& call)
{
    if (call.kind == CallKind::Free) {
        return;
    }
    locked_.push_back(Locks().held > 0);
    if (call.kind != CallKind::Ioctl) {
        return;
    }
    Bytes sent = SentWith(call.request, call.argument);
    if (sent_.empty()) {
        sent_ = std::move(sent);
    } else {
        sent_otherwise_ = sent_otherwise_ || (!sent.empty() && sent != sent_);
    }
}

Stand::Happened Stand::Run(const Operation& operation, const Plan& plan, int error_before)
{
    Happened happened;
    for (const Room& record : AllRecordsOf(subject_.get())) {
        memset(record.first, kUnfilled, record.length);
    }
    kernel_->ClearCalls();
    locked_.clear();
    sent_.clear();
    sent_otherwise_ = false;
    wrote_ = wrote_elsewhere_ = false;
    CopyRecords(&before_);
    subject_->second = 512;
    memory_before_.assign(subject_->memory.data(),
                          subject_->memory.data() + subject_->memory.size());
    Inject(plan);
    happened.printed = Captured([&] {
        kernel_->Watch([this](const cardsim::Call& call) { Look(call); });
        SoilStack();
        errno = error_before;
        happened.result = operation.run(*subject_);
        happened.error = errno;
    });
    kernel_->Watch({});
    kernel_->ClearFaults();
    happened.calls = kernel_->Calls();
    happened.locked = locked_;
    CompareOtherRecords();
    Expect(!sent_otherwise_, "a further try went with another record or another table");
    return happened;
}

Expected Stand::Try(const Plan& plan, int error_before, std::string* complaint)
{
    complaint_.clear();
    if (card_moved_) {
        Move(CardMove::IsExchanged);
        card_moved_ = false;
    }
    Captured([&] { Prepare(); });
    Variables state = StateBefore();
    const Expected expected = rules_.Follow(plan, error_before, &state);
    const Happened happened = Run(op_, plan, error_before);
    if (expected.any_outcome) {
        Expect(IsLockFree(), "the lock is held, or was given back too often");
        Expect(happened.result >= 0 || kernel_->OpenFiles() == 0,
               "descriptors are left over from an opening that failed");
        state["files"] = static_cast<int64_t>(kernel_->OpenFiles());
        state["blocks"] = static_cast<int64_t>(kernel_->LiveBlocks() - lost_blocks_);
    } else {
        Compare(expected, happened);
        CompareState(state);
        CompareData(op_, expected, state);
        if (plan.empty()) {
            DoubtData(expected, state);
        }
        CompareRecord();
    }
    Leave(happened.result, std::move(state), error_before);
    Expect(!Locks().foreign, "the lock of another unit was taken, or given back");
    *complaint = complaint_;
    return expected;
}

// --- what comes of it ----------------------------------------------------------------------

// Ricoh's unit has none.
pthread_mutex_t* Stand::OwnLock() const
{
    return slots_ ? &zel_dev[kZelUnit].lock : units_ ? &mivo_dev[kMivoUnit].lock : nullptr;
}

bool Stand::IsLockFree()
{
    const LockWatch& watch = Locks();
    if (watch.held != 0 || watch.odd) {
        return false;
    }
    pthread_mutex_t* const lock = OwnLock();
    if (lock == nullptr) {
        return true;
    }
    if (pthread_mutex_trylock(lock) != 0) {
        return false;
    }
    Locks().held++;  // the trial's
    pthread_mutex_unlock(lock);
    return true;
}

void Stand::Compare(const Expected& expected, const Happened& happened)
{
    Expect(IsLockFree(), "the lock is held, or was given back too often");
    Expect(!callback_saw_lock, "the callback ran with the lock held");
    bool alike = expected.calls.size() == happened.calls.size();
    std::vector<bool> locked;
    for (size_t i = 0; alike && i < expected.calls.size(); i++) {
        alike = Matches(expected.calls[i], happened.calls[i]);
    }
    for (const ExpectedCall& call : expected.calls) {
        if (call.kind != CallKind::Free) {
            locked.push_back(call.locked);
        }
    }
    if (!alike) {
        std::string text = "expected calls:\n";
        for (const ExpectedCall& call : expected.calls) {
            text += "    " + cardsim::Describe(AsCall(call)) + "\n";
        }
        text += "calls:\n";
        for (const cardsim::Call& call : happened.calls) {
            text += "    " + cardsim::Describe(call) + "\n";
        }
        Complain(text);
    } else if (locked != happened.locked) {
        Complain("calls were made with the lock held that should not, or the other way round");
    }
    if (expected.printed != happened.printed) {
        Complain("expected lines:\n" + expected.printed + "lines:\n" + happened.printed);
    }
    if (!expected.any_result && expected.result != happened.result) {
        Complain("result " + std::to_string(happened.result) + " instead of " +
                 std::to_string(expected.result));
    }
    if (expected.error != happened.error) {
        Complain("errno " + std::to_string(happened.error) + " instead of " +
                 std::to_string(expected.error));
    }
}

void Stand::CompareState(const Variables& state)
{
    Expect(state.at("callbacks") == callbacks, "the callback ran too often, or not often enough");
    Expect(state.at("retried") == subject_->retried, "retried is wrong");
    Expect(state.at("files") == static_cast<int64_t>(kernel_->OpenFiles()),
           "descriptors are out of balance");
    Expect(state.at("blocks") == static_cast<int64_t>(kernel_->LiveBlocks() - lost_blocks_),
           "memory is out of balance");
    if (slots_) {
        slots_->With([&](const sim_zel& zel) {
            Expect(state.at("resets") == zel.slot[kZelUnit].resets, "resets do not add up");
            Expect(state.at("signal") == zel.slot[kZelUnit].finished, "an end is left over");
        });
        Expect(state.at("io_error") == zel_dev[kZelUnit].io_error, "io_error is wrong");
        Expect(state.at("ejected") == zel_dev[kZelUnit].ejected, "ejected is wrong");
        Expect(state.at("reg") == (zel_dev[kZelUnit].reg_buf != nullptr) &&
                   state.at("secure") == (zel_dev[kZelUnit].secure_buf != nullptr) &&
                   state.at("speed") == (zel_dev[kZelUnit].speed_buf != nullptr),
               "a copy is there that should not, or the other way round");
    } else if (units_) {
        units_->With([&](const sim_mivo& mivo) {
            Expect(state.at("resets") == mivo.unit[kMivoUnit].resets, "resets do not add up");
            Expect(state.at("signal") == mivo.unit[kMivoUnit].finished, "an end is left over");
            Expect(state.at("mounted") == mivo.unit[kMivoUnit].mounted,
                   "the driver counts the unit as mounted, or not");
        });
        Expect(state.at("io_error") == mivo_dev[kMivoUnit].io_error, "io_error is wrong");
        Expect(state.at("ejected") == mivo_dev[kMivoUnit].ejected, "ejected is wrong");
        Expect(state.at("reg") == (mivo_dev[kMivoUnit].reg_buf != nullptr) &&
                   state.at("secure") == (mivo_dev[kMivoUnit].secure_buf != nullptr) &&
                   state.at("speed") == (mivo_dev[kMivoUnit].speed_buf != nullptr),
               "a copy is there that should not, or the other way round");
    } else {
        Expect(state.at("read_only") == ricoh_sd_dev[0].read_only,
               "the device counts as read-only, or not");
        Expect(state.at("reg") == (ricoh_sd_dev[0].reg_buf != nullptr) &&
                   state.at("secure") == (ricoh_sd_dev[0].secure_buf != nullptr),
               "a copy is there that should not, or the other way round");
    }
}

// Nothing of the unit's record changes but the latches and the copies.
void Stand::CompareRecord()
{
    if (op_.setup.life != Life::Works) {
        return;
    }
    const auto compare = [this](auto& before, const auto& after) {
        before.secure_buf = after.secure_buf;
        before.reg_buf = after.reg_buf;
        if constexpr (requires { after.ejected; }) {
            before.io_error = after.io_error;
            before.ejected = after.ejected;
            before.speed_buf = after.speed_buf;
        }
        Expect(memcmp(&before, &after, sizeof before) == 0, "the unit's record has changed");
    };
    if (slots_) {
        compare(before_.zel[kZelUnit], zel_dev[kZelUnit]);
    } else if (units_) {
        compare(before_.mivo[kMivoUnit], mivo_dev[kMivoUnit]);
    } else {
        compare(before_.ricoh[0], ricoh_sd_dev[0]);
    }
}

// So that a byte that is cleared in them shows, too.
void Stand::FillOtherRecords(uint8_t byte)
{
    FillAllBut(slots_ ? &zel_dev[kZelUnit] : nullptr, zel_dev, byte);
    FillAllBut(units_ ? &mivo_dev[kMivoUnit] : nullptr, mivo_dev, byte);
    FillAllBut(host_ ? &ricoh_sd_dev[0] : nullptr, ricoh_sd_dev, byte);
}

// Nothing at all of the other units'.
void Stand::CompareOtherRecords()
{
    Expect(AreAlike(before_.zel, zel_dev, slots_ ? &zel_dev[kZelUnit] : nullptr) &&
               AreAlike(before_.mivo, mivo_dev, units_ ? &mivo_dev[kMivoUnit] : nullptr) &&
               AreAlike(before_.ricoh, ricoh_sd_dev, host_ ? &ricoh_sd_dev[0] : nullptr),
           "the record of another unit has changed");
}

void Stand::CompareData(const Operation& operation, const Expected& expected,
                        const Variables& state)
{
    const uint32_t second = subject_->second;
    Bytes sectors(size_t{kMoved} * 512);
    Bytes pattern(sectors.size());
    CompareMemory(operation);
    CompareWrites(operation);
    sim_card_read(&card_->model(), uint64_t{kSector} * 512, sectors.data(), kMoved * 512);
    if (operation.moves != Moves::Nothing && expected.result >= 0 && state.at("moved") != 0) {
        Expect(sectors == DataIn(subject_->memory.data(), second), "memory and card differ");
        // After a further operation either may have been there first.
        if (op_.moves == Moves::FromCard) {
            Fill(pattern.data(), pattern.size(), 0x11);
        } else {
            pattern = DataIn(memory_before_.data(), second);
        }
        Expect(&operation != &op_ || sectors == pattern, "the data are wrong");
    } else if (&operation == &op_ && op_.moves != Moves::ToCard) {
        Fill(pattern.data(), pattern.size(), 0x11);
        Expect(sectors == pattern, "the card's data have changed");
    }
    if (operation.verify == nullptr) {
        for (const Room& record : AllRecordsOf(subject_.get())) {
            Expect(!IsFilled(record), "a record was filled that nobody compares");
        }
        return;
    }
    Expect(expected.result != 0 || state.at("filled") != 0, "success, and no record to compare");
    const std::string wrong = operation.verify(*subject_, card_->model(), state);
    if (!wrong.empty()) {
        Complain(wrong);
    }
}

// Reading fills the sectors' room and nothing else, and no other transfer fills anything. The
// largest record of a request of words has 36 bytes.
void Stand::CompareMemory(const Operation& operation)
{
    constexpr size_t kWords = 36;
    const uint8_t* const now = subject_->memory.data();
    const uint8_t* const before = memory_before_.data();
    const size_t length = memory_before_.size();
    const size_t second = subject_->second;
    bool alike = false;
    switch (operation.moves) {
        case Moves::FromCard:
            alike = memcmp(now + 512, before + 512, second - 512) == 0 &&
                    memcmp(now + second + 512, before + second + 512, length - second - 512) == 0;
            break;
        case Moves::ToCard:
            alike = memcmp(now, before, length) == 0;
            break;
        case Moves::Nothing:
            alike = memcmp(now + kWords, before + kWords, length - kWords) == 0;
            break;
    }
    Expect(alike, "memory has changed that is not the call's");
}

// All other sectors of the card stay as they are.
void Stand::CompareWrites(const Operation& operation)
{
    Expect(!wrote_elsewhere_, "sectors were written that are not the call's");
    Expect(!wrote_ || operation.moves == Moves::ToCard, "the card was written to");
}

// Without faults an operation that succeeds has moved its data, and each byte that it gave is
// one that another one in its place would be noticed for.
void Stand::DoubtData(const Expected& expected, const Variables& state)
{
    Expect(op_.moves == Moves::Nothing || expected.result < 0 || state.at("moved") != 0,
           "success, and no data to compare");
    if (op_.verify == nullptr || expected.result != 0) {
        return;
    }
    size_t compared = 0;
    for (const Room& record : AllRecordsOf(subject_.get())) {
        for (size_t i = 0; IsFilled(record) && i < record.length; i++, compared++) {
            record.first[i] ^= 0x10;
            Expect(!op_.verify(*subject_, card_->model(), state).empty(),
                   "a byte of a record that is not compared");
            record.first[i] ^= 0x10;
        }
    }
    Expect(compared != 0, "success, and no record is filled");
}

// A further call, without faults.
int64_t Stand::Continue(const Operation& operation, const Rules& rules, const char* how,
                        Variables* state, int error_before)
{
    const size_t before = complaint_.size();
    (*state)["filled"] = (*state)["moved"] = 0;
    const Expected expected = rules.Follow({}, error_before, state);
    const Happened happened = Run(operation, {}, error_before);
    Compare(expected, happened);
    CompareState(*state);
    CompareData(operation, expected, *state);
    CompareRecord();
    if (complaint_.size() != before) {
        complaint_.insert(before, std::string(how) + operation.name + ", without faults: ");
    }
    return happened.result;
}

// What a caller gets who did not look whether the opening failed, no table says: the numbers
// of closed descriptors are still in the record. But it ends, and spares the lock.
void Stand::UseUnopened()
{
    const size_t open = kernel_->OpenFiles();
    Run(*unopened_[turn_++ % unopened_.size()], {}, 0);
    Expect(IsLockFree(), "the lock is held after a call on what is not open");
    Expect(kernel_->OpenFiles() == open, "a call on what is not open has opened something");
}

// An open device with a descriptor of 0 counts as closed, and stays as it is. Of Ricoh's,
// nobody looks.
void Stand::CloseByHand()
{
    const std::string said = Captured(
        [&] { slots_ ? zel_ops.Exit(&subject_->handle) : mivo_ops.Exit(&subject_->handle); });
    Expect(said.ends_with("already closed!\n"), "the end of what counts as closed");
    if (slots_) {
        ZelDevice& unit = zel_dev[kZelUnit];
        for (const int fd : {unit.blk_fd, unit.dev_fd, unit.chr_fd, unit.rt_fd}) {
            close(fd);
        }
        unit = {};
    } else {
        close(mivo_dev[kMivoUnit].chr_fd);
        mivo_dev[kMivoUnit] = {};
    }
    lost_blocks_ = kernel_->LiveBlocks();
}

// The same again, another operation, and the end; nothing is left but what an opening that
// failed is known to lose.
void Stand::Leave(int64_t result, Variables state, int error_before)
{
    const Life life = op_.setup.life;
    Subject& on = *subject_;
    if ((life == Life::Opens && result < 0) || life == Life::Closes) {
        Move(CardMove::IsExchanged);
        state["card"] = state["changed"] = 1;
    }
    if (life == Life::Opens && result < 0) {
        UseUnopened();
        // The record begins afresh, and what it owned is lost.
        lost_blocks_ = kernel_->LiveBlocks();
        for (const char* own : {"blocks", "reg", "secure", "speed", "has_cid", "has_csd"}) {
            state[own] = 0;
        }
    }
    if (life == Life::Works || (life != Life::Closes && result < 0)) {
        const int64_t then = Continue(op_, rules_, "then ", &state, error_before);
        if (life == Life::Opens && then < 0) {
            lost_blocks_ += static_cast<size_t>(state["blocks"]);
        }
    }
    if (!others_.empty()) {
        const Other& other = others_[turn_++ % others_.size()];
        Continue(*other.operation, other.rules, "in the end ", &state, error_before);
    }
    const bool open = slots_ ? zel_dev[kZelUnit].sg_table != nullptr
                             : units_ && mivo_dev[kMivoUnit].sg_table != nullptr;
    if (op_.setup.no_input && open) {
        CloseByHand();
    }
    CopyRecords(&before_);
    Captured([&] {
        if (life == Life::Closes) {
            Expect(IsBlank(&on.handle, sizeof on.handle), "the handle is not cleared");
            on.handle = HandleFor(PathOf(op_.site));
            Expect(DevDetect(&on.handle) == 0 && DevInit(&on.handle) == 0, "not opened again");
        }
        if (life != Life::Detects) {
            DevExit(&on.handle);
            Expect(IsBlank(&on.handle, sizeof on.handle), "the handle is not cleared");
        }
    });
    CompareOtherRecords();
    Expect(kernel_->OpenFiles() == 0, "descriptors are left over");
    Expect(kernel_->LiveBlocks() == lost_blocks_, "memory is left over");
}

}  // namespace faults
