// SPDX-License-Identifier: MIT
#include "tools/cardtool/moves.h"

#include <algorithm>

#include "tools/cardtool/mounts.h"
#include "tools/cardtool/text.h"
#include "tools/cardtool/transfer.h"

namespace {

std::string Done(const char* what, const Range& range, const std::string& device)
{
    return std::string(what) + " " + SectorCount(range.count) + " of " + ForTerminal(device) +
           " from sector " + std::to_string(range.first) + "\n";
}

// What was asked for; `moved` and `verified` are filled in as it comes true.
Json RangeJson(const Range& range)
{
    return {{"first", range.first},
            {"sectors", range.count},
            {"bytes", uint64_t{range.count} * CARD_SECTOR_SIZE},
            {"moved_bytes", 0},
            {"verified", false}};
}

// The sectors moved so far get into the report whether or not `body` ends well.
template <typename Body>
void Phase(const char* name, Progress& progress, Report& report, const char* key, const Body& body)
{
    progress.Phase(name);
    const auto note = [&] {
        if (key != nullptr) {
            report.result[key] = progress.PhaseSectors() * CARD_SECTOR_SIZE;
        }
    };
    try {
        body();
    } catch (const Failure&) {
        note();
        throw;
    }
    note();
}

void Compare(Device& device, const Range& range, Input& input, Progress& progress, Report& report)
{
    input.Seek(uint64_t{range.in_file} * CARD_SECTOR_SIZE);
    Phase("comparing", progress, report, nullptr,
          [&] { CompareSectors(device, range, input, &progress); });
    report.result["verified"] = true;
}

// What is compared is to be what the card holds. A node of a card that is gone does not
// open: here that is a removal.
void ReopenToCompare(Device& device, const Range& range, const char* done, const char* move)
{
    const std::string name = device.path();
    try {
        device.Reopen();
    } catch (const Failure& failure) {
        const bool gone = failure.code() == ExitCode::NoSuchDevice;
        throw Failure(gone ? ExitCode::Removed : failure.code(),
                      std::string(done) + " " + SectorCount(range.count) + " of " + name +
                          " from sector " + std::to_string(range.first) +
                          " but could not compare: " + failure.what(),
                      "check the card's seat, then compare with the verify command, or " +
                          std::string(move) + " again");
    }
}

// The sectors of the card that a read command means.
Range CardRange(const Arguments& arguments, Device& device)
{
    const uint32_t there = SectorsFrom(device, arguments.first);
    const Range range = {arguments.first,  arguments.count.value_or(there),
                         arguments.direct, arguments.in_file,
                         "--seek",         arguments.count.has_value()};
    if (range.count > there) {
        throw Failure(ExitCode::Usage,
                      "there is only " + SectorCount(there) + " from sector " +
                          std::to_string(range.first) + " to the end of " + device.path(),
                      "give a smaller --count, or none to read to the end");
    }
    return range;
}

void ReadToStandardOutput(const Arguments& arguments, Device& device, Report& report)
{
    if (report.json() || arguments.in_file != 0 || arguments.command == Command::Backup) {
        throw Failure(ExitCode::Usage,
                      "standard output cannot carry a document beside the data, be gone on in, "
                      "or be read back",
                      "name a file with -o");
    }
    Range range = CardRange(arguments, device);
    range.file_option = nullptr;
    Progress progress(arguments.progress, range.count);
    progress.Phase("reading");
    ReadSectors(device, range, report.output(), &progress);
}

// The sectors of the file that go to the card, or are compared with it.
Range FileRange(const Input& input, const Arguments& arguments, uint64_t room)
{
    const uint64_t skipped = uint64_t{arguments.in_file} * CARD_SECTOR_SIZE;
    const uint64_t left = input.size() - std::min(skipped, input.size());
    const uint64_t wanted = arguments.count ? uint64_t{*arguments.count} * CARD_SECTOR_SIZE : left;
    if (wanted > room) {
        throw Failure(ExitCode::Usage,
                      input.name() + " does not fit: from sector " +
                          std::to_string(arguments.first) + " there is room for " +
                          SectorCount(room / CARD_SECTOR_SIZE),
                      "nothing was written; give a smaller --first or less input");
    }
    if (input.size() == 0 || input.size() % CARD_SECTOR_SIZE != 0) {
        throw Failure(ExitCode::Usage,
                      input.name() + " holds " + std::to_string(input.size()) +
                          " bytes: that is no whole number of 512-byte sectors",
                      "nothing was written; fill the input up with zeros (truncate -s %512 FILE)");
    }
    if (left == 0 || wanted > left) {
        throw Failure(ExitCode::Usage,
                      input.name() + " holds " + SectorCount(input.size() / CARD_SECTOR_SIZE) +
                          ": that is too little",
                      "nothing was written; give a smaller --skip or --count");
    }
    return {arguments.first,  static_cast<uint32_t>(wanted / CARD_SECTOR_SIZE),
            arguments.direct, arguments.in_file,
            "--skip",         arguments.count.has_value()};
}

// Input without a length is taken up to what is skipped and what fits.
uint64_t InputRoom(const Arguments& arguments, uint64_t room)
{
    return room + uint64_t{arguments.in_file} * CARD_SECTOR_SIZE;
}

void RefuseToWrite(const Arguments& arguments, Device& device)
{
    if (device.IsWriteProtected()) {
        throw Failure(ExitCode::ReadOnly, "the card in " + device.path() + " is write-protected",
                      "take the card out, slide its lock open, and try again");
    }
    if (arguments.sim.empty()) {
        RefuseMounted(device.handle());
    }
}

// What is restored ends where the card ends: it was another card's else.
void RequireWholeCard(const Arguments& arguments, const Range& range, uint64_t room)
{
    if (arguments.command == Command::Restore && uint64_t{range.count} * CARD_SECTOR_SIZE != room) {
        throw Failure(ExitCode::Usage,
                      "the file ends after " + SectorCount(range.count) + ", the card after " +
                          SectorCount(room / CARD_SECTOR_SIZE),
                      "nothing was written; use write to put a smaller image on the card");
    }
}

}  // namespace

void ReadCard(const Arguments& arguments, Device& device, Report& report)
{
    if (arguments.file == "-") {
        ReadToStandardOutput(arguments, device, report);
        return;
    }
    const Range range = CardRange(arguments, device);
    if (!arguments.sim.empty() && IsSameFile(arguments.file, arguments.sim)) {
        throw Failure(ExitCode::Usage, arguments.file + " is the simulated card itself",
                      "name another file with -o");
    }
    const uint64_t start = uint64_t{range.in_file} * CARD_SECTOR_SIZE;
    Output file = start == 0 ? Output(arguments.file) : Output(arguments.file, start);
    const bool compare = arguments.command == Command::Backup && arguments.verify;
    Progress progress(arguments.progress, uint64_t{range.count} * (compare ? 2 : 1));
    report.result = RangeJson(range);
    Phase("reading", progress, report, "moved_bytes",
          [&] { ReadSectors(device, range, file, &progress); });
    if (arguments.command == Command::Backup) {
        file.Sync();
    }
    file.Close();
    if (compare) {
        ReopenToCompare(device, range, "read", "read");
        Input copy(arguments.file, 0);
        Compare(device, range, copy, progress, report);
    }
    report.Say(Done(compare ? "read and compared" : "read", range, device.path()));
}

void WriteCard(const Arguments& arguments, Device& device, Report& report)
{
    RefuseToWrite(arguments, device);
    const uint64_t room = uint64_t{SectorsFrom(device, arguments.first)} * CARD_SECTOR_SIZE;
    Input input(arguments.file, InputRoom(arguments, room));
    const Range range = FileRange(input, arguments, room);
    RequireWholeCard(arguments, range, room);
    if (!arguments.yes) {
        Confirm("Write " + SectorCount(range.count) + " to " + ForTerminal(device.path()) +
                    " from sector " + std::to_string(range.first) + "? Type yes: ",
                arguments.file == "-");
    }
    Progress progress(arguments.progress, uint64_t{range.count} * (arguments.verify ? 2 : 1));
    report.result = RangeJson(range);
    input.Seek(uint64_t{range.in_file} * CARD_SECTOR_SIZE);
    Phase("writing", progress, report, "moved_bytes",
          [&] { WriteSectors(device, range, input, &progress); });
    if (arguments.verify) {
        ReopenToCompare(device, range, "wrote", "write");
        Compare(device, range, input, progress, report);
    }
    report.Say(Done(arguments.verify ? "wrote and compared" : "wrote", range, device.path()));
}

void VerifyCard(const Arguments& arguments, Device& device, Report& report)
{
    const uint64_t room = uint64_t{SectorsFrom(device, arguments.first)} * CARD_SECTOR_SIZE;
    Input input(arguments.file, InputRoom(arguments, room));
    const Range range = FileRange(input, arguments, room);
    Progress progress(arguments.progress, range.count);
    report.result = RangeJson(range);
    Compare(device, range, input, progress, report);
    report.Say(Done("compared", range, device.path()));
}

// Nothing is written: the card may be one that somebody needs.
void BenchCard(const Arguments& arguments, Device& device, Report& report)
{
    const Range range = CardRange(arguments, device);
    const Timing timing = TimeReads(device, range);
    const double rate = static_cast<double>(timing.bytes) / timing.seconds;
    report.Say(Done("read", range, device.path()) +
               Line("rate", std::to_string(static_cast<uint64_t>(rate)) + " bytes/s") +
               Line("request", "median " + std::to_string(timing.median_us) + " us, longest " +
                                   std::to_string(timing.longest_us) + " us"));
    report.result = {{"first", range.first},
                     {"sectors", range.count},
                     {"bytes", timing.bytes},
                     {"direct", range.direct},
                     {"microseconds", static_cast<uint64_t>(timing.seconds * 1e6)},
                     {"bytes_per_second", static_cast<uint64_t>(rate)},
                     {"request_median_us", timing.median_us},
                     {"request_longest_us", timing.longest_us}};
}
