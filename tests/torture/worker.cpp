// SPDX-License-Identifier: MIT
#include "tests/torture/worker.h"

#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include <time.h>

namespace {

constexpr uint32_t kLongest = 160;         // sectors of a transfer
constexpr uint32_t kLongestElement = 128;  // what an element hands over
constexpr uint32_t kMostElements = 8;
constexpr uint32_t kData = kMostElements * kLongestElement * 512;
constexpr uint32_t kMargin = 8;  // sectors around a write that are looked at, too
constexpr uint8_t kUntouched = 0xEE;

uint32_t Address(const void* at)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(at));
}

MemoryArray ArrayOf(const std::vector<MemoryChunk>& chunks)
{
    MemoryArray array = {};
    array.count = static_cast<int32_t>(chunks.size());
    for (size_t i = 0; i < chunks.size(); i++) {
        array.addr[i] = chunks[i].addr;
        array.len[i] = chunks[i].len;
    }
    return array;
}

}  // namespace

Worker::Worker(Unit& unit, const Share& share)
    : unit_(unit),
      bench_(unit.bench),
      share_(share),
      random_({unit.options.seed, unit.number(), share.thread + 1}),
      data_(kData),
      memory_(kData + 65536)
{
}

uint64_t Worker::Run(uint64_t operations, const Planned& planned)
{
    uint64_t done = 0;
    bool is_over = false;
    while (done < operations && !is_over && !*unit_.options.stop) {
        planned_ = planned;
        operation_++;
        Step();
        unit_.counts.operations++;
        done++;
        is_over = share_.alone && (unit_.latched || unit_.disturbed) && random_.OneIn(8);
    }
    return done;
}

void Worker::Step()
{
    if (share_.alone) {
        MoveCard();
        if (random_.OneIn(4)) {
            planned_ = PlanFault(unit_, random_, {4, true});
        }
    }
    const uint32_t kind = random_.Below(100);
    if (kind < 52) {
        Write();
    } else if (kind < 85) {
        Read();
    } else if (kind < 97) {
        Query();
    } else {
        EndFaults();
        WriteBadly();
    }
    EndFaults();
}

// --- what to do -------------------------------------------------------------------------

void Worker::MoveCard()
{
    if (unit_.card_is_in && random_.OneIn(150)) {
        unit_.Eject();
    } else if (!unit_.card_is_in && random_.OneIn(6)) {
        unit_.Reinsert();
    }
}

void Worker::EndFaults()
{
    if (!share_.alone || !planned_.any) {
        return;
    }
    bench_.ClearFaults(unit_.place.name);
    if (planned_.moves_card) {
        unit_.card_is_in = bench_.HasCard(unit_.place.name);
        unit_.disturbed = true;
    }
    planned_ = {};
}

// Plain transfers of a unit are for one thread. And of what is written late nobody could tell
// whether an eject of another thread's came before or after.
bool Worker::MayBePlain() const
{
    const bool is_unclear =
        !share_.alone && planned_.moves_card && bench_.WritesLate(unit_.place.name);
    return share_.plain && !is_unclear;
}

Route Worker::RandomRoute(bool for_writing)
{
    if (!unit_.HasDirect()) {
        return kPlain;
    }
    const auto route =
        static_cast<Route>(random_.Below(for_writing ? uint32_t{kRoutes} : kArray + 1U));
    return route == kPlain && !MayBePlain() ? kDirect : route;
}

Worker::Piece Worker::RandomPiece(uint32_t longest, uint32_t offset)
{
    const uint32_t sectors = random_.Between(1, random_.OneIn(3) ? longest : longest / 8);
    const uint32_t first = random_.Below(share_.sectors - sectors + 1);
    return {share_.first + first, sectors, offset};
}

Worker::Pieces Worker::RandomPieces(Route route)
{
    if (route != kRmw && route != kFat) {
        return {RandomPiece(std::min(kLongest, share_.sectors), 0)};
    }
    Pieces pieces;
    uint32_t offset = 0;
    for (uint32_t left = random_.Between(1, kMostElements); left > 0; left--) {
        pieces.push_back(RandomPiece(std::min(kLongestElement, share_.sectors), offset));
        offset += pieces.back().sectors * 512;
    }
    return pieces;
}

void Worker::FillData(const Pieces& pieces)
{
    for (const Piece& piece : pieces) {
        for (uint32_t i = 0; i < piece.sectors; i++) {
            uint8_t* const at = &data_[piece.offset + i * 512];
            const Stamp stamp = {{'S', 'E', 'C', 'T'}, operation_, share_.thread, piece.first + i};
            uint32_t word = random_.Word();
            for (uint32_t byte = 0; byte < 512; byte += 4) {
                memcpy(at + byte, &word, 4);
                word = word * 1664525 + 1013904223;
            }
            memcpy(at, &stamp, sizeof stamp);
        }
    }
}

Sector Worker::SectorOf(const Piece& piece, uint32_t i) const
{
    return SectorAt(&data_[piece.offset + i * 512]);
}

void Worker::Write()
{
    const Route route = RandomRoute(true);
    Pieces pieces = RandomPieces(route);
    FillData(pieces);
    BeginCall("write", route, pieces);
    const Expect expect = ExpectWrite(route);
    const Answer answer = SendWrite(route, pieces);
    JudgeWrite(route, pieces, answer, expect);
    EndFaults();
    if (share_.alone && (bench_.AnswersEveryCall() || random_.OneIn(8))) {
        CompareCard(pieces);
    }
    if (random_.OneIn(2)) {
        ReadBack(pieces, route);
    }
}

// Requests that are wrong, none of which may change anything.
void Worker::WriteBadly()
{
    if (!unit_.HasDirect()) {
        return;
    }
    // The last ones fail in the driver and so bar writing, for the other threads, too.
    const uint32_t kind = random_.Below(share_.alone ? 6 : 3);
    Piece piece = RandomPiece(std::min(kLongest, share_.sectors), 0);
    FillData({piece});
    BeginCall("bad write", kDirect, {piece});
    doing_ += ", kind " + std::to_string(kind);
    DrvInfo* const handle = &unit_.handle;
    Chunks chunks = Scattered(piece.sectors * 512, 4);
    uint32_t sectors = piece.sectors;
    uint32_t retried = 0;
    switch (kind) {
        case 0:
            result_ = DevDrctRMW(handle, nullptr);
            break;
        case 1:
            result_ = DevFatWrite(handle, nullptr);
            break;
        case 2:  // more pieces than the driver's table holds
            chunks.assign(2048, {memory_.address(), 2});
            sectors = 8;
            break;
        case 3:
            sectors++;
            break;
        case 4:
            piece.first = kCardSectors - piece.sectors + 1;
            break;
        default:
            chunks = {{0, piece.sectors * 512}};
            break;
    }
    if (kind >= 2) {
        std::vector<uint32_t> list = {static_cast<uint32_t>(chunks.size())};
        for (const MemoryChunk& chunk : chunks) {
            list.insert(list.end(), {chunk.addr, chunk.len});
        }
        result_ = DevDrctWrite(handle, piece.first, unit_.Length(sectors),
                               reinterpret_cast<MemoryChunkArray*>(list.data()), random_.Below(2),
                               &retried);
    }
    Check(result_ < 0, "a request that is wrong was acknowledged");
    Check(kind >= 2 || result_ == -EINVAL, "a missing list was not refused as such");
    AnswerOf(result_, 0);
    unit_.counts.writes_refused++;
    if (share_.alone) {
        CompareCard({piece});
    }
}

void Worker::Read()
{
    const Route route = RandomRoute(false);
    const Piece piece = RandomPiece(std::min(kLongest, share_.sectors), 0);
    ReadPiece(piece, route);
}

// By another way, if there is one. Faults that were planned for the write are over, but for
// other threads' sake.
void Worker::ReadBack(const Pieces& pieces, Route written_by)
{
    const Route other = written_by == kPlain || !MayBePlain() ? kDirect : kPlain;
    for (const Piece& piece : pieces) {
        ReadPiece({piece.first, piece.sectors, 0}, unit_.HasDirect() ? other : kPlain);
    }
}

void Worker::ReadPiece(const Piece& piece, Route route)
{
    BeginCall("read", route, {piece});
    const Expect expect = ExpectRead(route);
    const Answer answer = SendRead(route, piece);
    if (answer != Answer::Done) {
        Check(expect != Expect::Done, "failed without a reason");
        unit_.counts.reads_failed++;
        if (route == kPlain) {
            bench_.ForgetCaches(unit_.place.name);
        }
        return;
    }
    Check(expect != Expect::Never, "succeeded, though it could not");
    if (IsTakenByKernel(route)) {
        return;
    }
    const uint32_t whole = route == kPlain ? bytes_done_ / 512 : piece.sectors;
    Check(whole == piece.sectors || expect == Expect::Either, "ended early without a reason");
    const std::optional<std::string> wrong =
        unit_.shadow.Found(piece.first, &data_[piece.offset], whole);
    Check(!wrong, wrong.value_or(""));
    unit_.counts.read[route]++;
    unit_.counts.sectors_compared += whole;
}

// The registers of a unit are for one thread to ask for.
void Worker::Query()
{
    for (uint32_t left = random_.Between(1, 3); left > 0; left--) {
        switch (random_.Below(share_.plain ? 8 : 4)) {
            case 0:
                AskStatus();
                break;
            case 1:
                AskProtection();
                break;
            case 2:
                SendCommand();
                break;
            case 3:
                SendRequest();
                break;
            case 4:
                AskSize();
                break;
            case 5:
                AskRegisters();
                break;
            case 6:
                AskSpeed();
                break;
            default:
                AskSdStatus();
                break;
        }
    }
}

void Worker::AskStatus()
{
    // Nobody is asked where nobody looks for the card.
    const Expect expect = BeginQuery("status");
    uint16_t status = 0;
    const int32_t said = CARD_Getstatus(&unit_.handle, &status);
    CheckQuery(said, unit_.is_watched ? expect : Expect::Done, CARD_CODE_REMOVED, 0);
    Check(status == (said == 0 ? CARD_STATUS_READY : 0), "an odd status word");
}

void Worker::AskProtection()
{
    const Expect expect = BeginQuery("protection");
    result_ = CARD_GetWriteProtect(&unit_.handle);
    if (IsGone()) {
        Check(result_ == -EIO, "a card that has gone was asked for its protection");
    } else if (expect == Expect::Done) {
        Check(result_ == (unit_.is_protected ? 1 : 0), "the card's protection is another");
    }
}

void Worker::SendCommand()
{
    const Expect expect = BeginQuery("command");
    const auto command = static_cast<int32_t>(random_.Below(6));
    const auto word = static_cast<int32_t>(random_.Word());
    const bool is_sent = command >= 2 && command <= 4 && unit_.HasDirect();
    CheckQuery(CARD_Ioctl(&unit_.handle, command, word), expect, CARD_CODE_REMOVED,
               is_sent ? CARD_CODE_COMMAND_FAILED : 0);
    if (is_sent && share_.alone && expect == Expect::Done) {
        const std::string& place = unit_.place.name;
        Check(bench_.State(place, "last_command") == static_cast<uint32_t>(command) &&
                  bench_.State(place, "command_word") == static_cast<uint32_t>(word),
              "another command arrived");
    }
}

// One that the devices with direct transfers know, or one that none does.
void Worker::SendRequest()
{
    const Expect expect = BeginQuery("request");
    const bool is_known = random_.OneIn(2);
    uint32_t record[9] = {};
    result_ = DevIoctl(&unit_.handle, is_known ? DEV_IOCTL_DEVICE_PARAMS : 0x20007299, record);
    const int32_t good = is_known && unit_.HasDirect() ? 0 : -ENOTTY;
    if (IsGone()) {
        Check(result_ == -EIO, "a request was sent to a card that has gone");
    } else if (expect == Expect::Done) {
        Check(result_ == good, "failed without a reason");
    } else {
        Check(result_ == good || result_ == -EIO || (good == 0 && result_ == -1), "an odd result");
    }
}

void Worker::AskSize()
{
    BeginRegisterQuery("size");
    const uint32_t size = CARD_GetCardSize(&unit_.handle);
    result_ = static_cast<int32_t>(size);
    if (IsGone()) {
        Check(size == 0xFFFFFFFB, "a card that has gone has a size");
    }
    Check(size == kCardSectors || !unit_.are_registers_good,
          "the card's size is " + std::to_string(size));
}

void Worker::AskRegisters()
{
    const Expect expect = BeginRegisterQuery("registers");
    CardInfo info = {};
    const int32_t said = CARD_Getinfo(&unit_.handle, &info);
    CheckQuery(said, expect, CARD_CODE_REMOVED, CARD_CODE_ERROR);
    // One byte in, where the record begins with a zero.
    const size_t at = unit_.place.type == DEV_TYPE_ZEL ? 1 : 0;
    CheckRegister("cid", info.cid + at, sizeof info.cid - at);
    CheckRegister("csd", info.csd, sizeof info.csd);
}

void Worker::AskSpeed()
{
    const Expect expect = BeginRegisterQuery("speed");
    CardSpeedInfo speed = {};
    CheckQuery(CARD_GetSpeedInfo(&unit_.handle, &speed), expect, CARD_CODE_REMOVED,
               CARD_CODE_ERROR);
    if (!unit_.are_registers_good) {
        return;
    }
    CardSpeedInfo again = {};
    CheckQuery(CARD_GetSpeedInfo(&unit_.handle, &again), expect, CARD_CODE_REMOVED,
               CARD_CODE_ERROR);
    Check(memcmp(&speed, &again, sizeof speed) == 0, "the card's speed has changed");
}

void Worker::AskSdStatus()
{
    const Expect expect = BeginRegisterQuery("SD status");
    uint8_t status[CARD_SD_STATUS_SIZE] = {};
    CheckQuery(CARD_SecureGetinfo(&unit_.handle, status), expect, CARD_CODE_REMOVED,
               CARD_CODE_ERROR);
    CheckRegister("sd_status", status, sizeof status);
}

// --- how to do it -----------------------------------------------------------------------

// Pieces of memory that add up to `length`, of any lengths, at most this many.
Worker::Chunks Worker::Scattered(uint32_t length, uint32_t most)
{
    Chunks chunks;
    uint32_t at = memory_.address() + random_.Below(4096);
    while (length > 0) {
        const bool is_last = chunks.size() + 1 == most || random_.OneIn(4);
        const uint32_t part = is_last ? length : random_.Between(1, length);
        chunks.push_back({at, part});
        at += part + (random_.OneIn(2) ? 0 : random_.Below(64));
        length -= part;
    }
    return chunks;
}

void Worker::CopyToChunks(const Chunks& chunks, const Piece& piece)
{
    const uint8_t* from = &data_[piece.offset];
    for (const MemoryChunk& chunk : chunks) {
        memcpy(reinterpret_cast<uint8_t*>(uintptr_t{chunk.addr}), from, chunk.len);
        from += chunk.len;
    }
}

// And see that nothing was put around them.
void Worker::CopyFromChunks(const Chunks& chunks, const Piece& piece)
{
    uint8_t* to = &data_[piece.offset];
    const uint8_t* gap = memory_.data();
    for (const MemoryChunk& chunk : chunks) {
        const auto* from = reinterpret_cast<const uint8_t*>(uintptr_t{chunk.addr});
        Check(std::all_of(gap, from, [](uint8_t byte) { return byte == kUntouched; }),
              "memory before a piece was written to");
        memcpy(to, from, chunk.len);
        to += chunk.len;
        gap = from + chunk.len;
    }
    Check(std::all_of(gap, gap + 64, [](uint8_t byte) { return byte == kUntouched; }),
          "memory behind the last piece was written to");
}

Worker::Answer Worker::AnswerOf(int32_t result, uint32_t success)
{
    result_ = result;
    if (result >= 0) {
        Check(result == static_cast<int32_t>(success), "an odd result");
        return Answer::Done;
    }
    if (result == -EINVAL || result == -ENOMEM) {
        return Answer::Refused;
    }
    Check(result == -EIO, "an odd result");
    // A unit that gives up does not reset its driver, and one that has answered with an error may
    // be at work all the same: the memory is its own until then.
    constexpr timespec kLatest = {0, 1000000};
    nanosleep(&kLatest, nullptr);
    // Nobody has noticed an eject since the unit was opened: so a transfer has given up.
    if (unit_.Noticed() == unit_.noticed_at_open) {
        unit_.latched = true;
    }
    return Answer::Failed;
}

Worker::Answer Worker::PlainAnswer(int32_t result, const CardIoResult& record, uint32_t sectors)
{
    result_ = record.error != 0 ? -record.error : record.length;
    Check(result == 0 && (record.error == 0 || record.error == 10), "an odd result");
    if (record.error != 0) {
        return Answer::Failed;
    }
    Check(record.length >= 0 && record.length <= static_cast<int32_t>(sectors * 512),
          "an odd length");
    bytes_done_ = static_cast<uint32_t>(record.length);
    return Answer::Done;
}

Worker::Answer Worker::WritePlain(const Piece& piece)
{
    uint8_t* const from = memory_.data() + random_.Below(4096);
    memcpy(from, &data_[piece.offset], size_t{piece.sectors} * 512);
    CardIoResult record = {0, 0, -1};
    const int32_t result = CARD_Write(&unit_.handle, from, piece.sectors, piece.first, 0, &record);
    return PlainAnswer(result, record, piece.sectors);
}

Worker::Answer Worker::WriteDirect(const Piece& piece)
{
    const Chunks chunks = Scattered(piece.sectors * 512, 40);
    CopyToChunks(chunks, piece);
    std::vector<uint32_t> list = {static_cast<uint32_t>(chunks.size())};
    for (const MemoryChunk& chunk : chunks) {
        list.insert(list.end(), {chunk.addr, chunk.len});
    }
    const uint32_t length = unit_.Length(piece.sectors);
    uint32_t retried = 0;
    const int32_t result =
        DevDrctWrite(&unit_.handle, piece.first, length,
                     reinterpret_cast<MemoryChunkArray*>(list.data()), random_.Below(2), &retried);
    Check(retried <= 1, "an odd word for retries");
    return AnswerOf(result, length);
}

Worker::Answer Worker::WriteArray(const Piece& piece)
{
    const Chunks chunks = Scattered(piece.sectors * 512, MEMORY_ARRAY_PIECES);
    CopyToChunks(chunks, piece);
    const MemoryArray array = ArrayOf(chunks);
    const uint32_t length = unit_.Length(piece.sectors);
    uint32_t retried = 0;
    const int32_t result =
        DevDrctWriteArray(&unit_.handle, piece.first, length, &array, random_.Below(2), &retried);
    return AnswerOf(result, length);
}

Worker::Answer Worker::WriteElements(Route route, const Pieces& pieces)
{
    std::vector<BlockListEntry> entries(pieces.size());
    uint8_t* at = memory_.data();
    for (size_t i = 0; i < pieces.size(); i++) {
        const Piece& piece = pieces[i];
        at += random_.Below(4096);
        memcpy(at, &data_[piece.offset], size_t{piece.sectors} * 512);
        entries[i] = {Address(at), piece.sectors, piece.first,
                      i + 1 < pieces.size() ? &entries[i + 1] : nullptr};
        at += size_t{piece.sectors} * 512;
    }
    BlockList list = {static_cast<int32_t>(entries.size()), entries.data()};
    return AnswerOf(
        route == kRmw ? DevDrctRMW(&unit_.handle, &list) : DevFatWrite(&unit_.handle, &list), 0);
}

Worker::Answer Worker::WriteByCommand(const Piece& piece)
{
    uint8_t* const from = memory_.data() + random_.Below(4096);
    memcpy(from, &data_[piece.offset], size_t{piece.sectors} * 512);
    return AnswerOf(DevSdCmdWrite(&unit_.handle, from, piece.sectors, piece.first, 25, 0), 0);
}

Worker::Answer Worker::SendWrite(Route route, const Pieces& pieces)
{
    switch (route) {
        case kPlain:
            return WritePlain(pieces[0]);
        case kDirect:
            return WriteDirect(pieces[0]);
        case kArray:
            return WriteArray(pieces[0]);
        case kCommand:
            return WriteByCommand(pieces[0]);
        default:
            return WriteElements(route, pieces);
    }
}

Worker::Answer Worker::SendRead(Route route, const Piece& piece)
{
    const uint32_t most = route == kPlain ? 1 : route == kArray ? MEMORY_ARRAY_PIECES : 40;
    const Chunks chunks = Scattered(piece.sectors * 512, most);
    const uint32_t used = chunks.back().addr + chunks.back().len - memory_.address();
    memset(memory_.data(), kUntouched, used + 64);
    Answer answer;
    if (route == kPlain) {
        CardIoResult record = {0, 0, -1};
        auto* const to = reinterpret_cast<uint8_t*>(uintptr_t{chunks[0].addr});
        const int32_t result = CARD_Read(&unit_.handle, to, piece.sectors, piece.first, 0, &record);
        answer = PlainAnswer(result, record, piece.sectors);
    } else if (route == kArray) {
        const MemoryArray array = ArrayOf(chunks);
        const uint32_t length = unit_.Length(piece.sectors);
        answer = AnswerOf(DevDrctReadArray(&unit_.handle, piece.first, length, &array), length);
    } else {
        std::vector<uint32_t> list = {static_cast<uint32_t>(chunks.size())};
        for (const MemoryChunk& chunk : chunks) {
            list.insert(list.end(), {chunk.addr, chunk.len});
        }
        const uint32_t length = unit_.Length(piece.sectors);
        answer = AnswerOf(DevDrctRead(&unit_.handle, piece.first, length,
                                      reinterpret_cast<MemoryChunkArray*>(list.data())),
                          length);
    }
    CopyFromChunks(chunks, piece);
    return answer;
}

// --- what to make of it -----------------------------------------------------------------

// What the driver has is as good as told, from the moment when a call begins.
void Worker::BeginCall(const char* what, Route route, const Pieces& pieces)
{
    noticed_ = unit_.Noticed();
    was_latched_ = unit_.latched;
    char text[96];
    snprintf(text, sizeof text, "operation %u of thread %u: %s, %s", operation_, share_.thread,
             what, kRouteNames[route]);
    doing_ = text;
    for (const Piece& piece : pieces) {
        snprintf(text, sizeof text, ", %u sectors from %u on", piece.sectors, piece.first);
        doing_ += text;
    }
    if (planned_.any) {
        doing_ += planned_.moves_card ? ", card moved by a fault" : ", with a fault";
    }
    if (unit_.options.trace) {
        fprintf(stderr, "%s: %s\n", unit_.place.name.c_str(), doing_.c_str());
    }
}

void Worker::Check(bool holds, const std::string& otherwise) const
{
    if (!holds) {
        throw Violation(doing_ + ": " + otherwise + " (result " + std::to_string(result_) + ")");
    }
}

Worker::Expect Worker::BeginQuery(const char* what)
{
    BeginCall(what, kDirect, {});
    unit_.counts.queries++;
    unit_.counts.told_gone += IsGone() ? 1 : 0;
    return ExpectRead(kDirect);
}

Worker::Expect Worker::BeginRegisterQuery(const char* what)
{
    const Expect expect = BeginQuery(what);
    unit_.are_registers_good &= expect == Expect::Done;
    return expect;
}

// Whether the card is out for certain, and the library has to find it so: it was told of, or
// it will be at this call.
bool Worker::IsGone() const
{
    if (noticed_ != unit_.noticed_at_open) {
        return true;
    }
    return unit_.is_watched && share_.alone && !unit_.card_is_in && !planned_.any;
}

// `gone` and `failure` are the results for a card that has gone and for a driver that fails.
void Worker::CheckQuery(int32_t result, Expect expect, int32_t gone, int32_t failure)
{
    result_ = result;
    if (IsGone()) {
        Check(result == gone, "a card that has gone was not told of");
    } else if (expect == Expect::Done) {
        Check(result == 0, "failed without a reason");
    } else {
        Check(result == 0 || result == gone || result == failure, "an odd result");
    }
}

// As long as none that failed was kept.
void Worker::CheckRegister(const char* name, const uint8_t* found, size_t length)
{
    if (!unit_.are_registers_good) {
        return;
    }
    const Bytes expected = bench_.Register(unit_.place.name, name);
    Check(memcmp(expected.data(), found, length) == 0, std::string("another ") + name);
}

// Whether the card has gone, and the kernel serves plain transfers all the same.
bool Worker::IsTakenByKernel(Route route) const
{
    return route == kPlain && share_.alone && !unit_.card_is_in &&
           bench_.CachesPlain(unit_.place.name);
}

Worker::Expect Worker::ExpectRead(Route route) const
{
    if (noticed_ != unit_.noticed_at_open) {
        return Expect::Never;  // and nothing but opening it anew helps
    }
    if (share_.alone && !unit_.card_is_in && !IsTakenByKernel(route)) {
        return Expect::Never;
    }
    return planned_.any || unit_.disturbed ? Expect::Either : Expect::Done;
}

Worker::Expect Worker::ExpectWrite(Route route) const
{
    const bool in_spite_of_latch = route == kRmw && unit_.place.type == DEV_TYPE_ZEL;
    if ((was_latched_ && !in_spite_of_latch) || unit_.is_protected) {
        return Expect::Never;
    }
    // The kernel may take it for the card that has gone, but not where it has to wait for it.
    if (IsTakenByKernel(route) && !bench_.WritesLate(unit_.place.name)) {
        return Expect::Never;
    }
    return ExpectRead(route);
}

void Worker::JudgeWrite(Route route, const Pieces& pieces, Answer answer, Expect expect)
{
    if (answer == Answer::Done) {
        Check(expect != Expect::Never, "acknowledged, though it could not be done");
        unit_.counts.written[route]++;
        const bool is_late = route == kPlain && bench_.WritesLate(unit_.place.name);
        if (IsTakenByKernel(route)) {
            return;
        }
        if (route == kPlain && bytes_done_ < pieces[0].sectors * 512) {
            Check(expect == Expect::Either, "ended early without a reason");
            unit_.counts.cut_short++;
            NoteShortWrite(pieces[0]);
        } else {
            NoteWritten(pieces, !(is_late && planned_.moves_card));
        }
        return;
    }
    Check(expect != Expect::Done, "failed without a reason");
    if (route == kPlain) {
        bench_.ForgetCaches(unit_.place.name);
    }
    // An eject is noticed before anything begins.
    const bool is_noticed = share_.alone && unit_.Noticed() != noticed_;
    if (expect == Expect::Never || answer == Answer::Refused || is_noticed) {
        unit_.counts.writes_refused++;
    } else {
        unit_.counts.writes_failed++;
        NoteWritten(pieces, false);
    }
}

void Worker::NoteWritten(const Pieces& pieces, bool for_certain)
{
    for (const Piece& piece : pieces) {
        for (uint32_t i = 0; i < piece.sectors; i++) {
            if (for_certain) {
                unit_.shadow.Holds(piece.first + i, SectorOf(piece, i));
            } else {
                unit_.shadow.MayHold(piece.first + i, SectorOf(piece, i));
            }
        }
    }
}

void Worker::NoteShortWrite(const Piece& piece)
{
    const uint32_t whole = bytes_done_ / 512;
    for (uint32_t i = 0; i < whole; i++) {
        unit_.shadow.Holds(piece.first + i, SectorOf(piece, i));
    }
    if (bytes_done_ % 512 != 0) {
        unit_.shadow.HoldsBeginning(piece.first + whole, SectorOf(piece, whole), bytes_done_ % 512);
    }
}

// The card itself, with what is around the pieces.
void Worker::CompareCard(const Pieces& pieces)
{
    const std::string& place = unit_.place.name;
    for (const Piece& piece : pieces) {
        const uint32_t first = piece.first - std::min(piece.first, kMargin);
        const uint32_t end = std::min(piece.first + piece.sectors + kMargin, kCardSectors);
        const Bytes found = unit_.card_is_in ? bench_.OnCard(place, first, end - first)
                                             : bench_.OnPulledCard(place, first, end - first);
        const std::optional<std::string> wrong =
            unit_.shadow.Found(first, found.data(), end - first);
        Check(!wrong, "on the card, " + wrong.value_or(""));
        unit_.counts.sectors_compared += end - first;
    }
}
