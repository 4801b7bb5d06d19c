// SPDX-License-Identifier: MIT
#include "tools/cardtool/transfer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "sim/low_memory.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/interrupt.h"

namespace {

constexpr uint32_t kChunkSectors = 256;

std::string Reason(int error)
{
    if (error == ENOMEDIUM) {
        return "the card was removed or changed";
    }
    return error == 0 ? "the driver moved only part of it" : std::strerror(error);
}

std::string HowFar(const std::string& what, const Range& range, uint32_t done)
{
    return what + " stopped at sector " + std::to_string(range.first + done) + " after " +
           std::to_string(done) + " of " + SectorCount(range.count) + ": ";
}

// The options that lead to the rest.
std::string GoOn(const Range& range, uint32_t done)
{
    std::string options = "go on with --first " + std::to_string(range.first + done);
    if (range.file_option != nullptr) {
        options +=
            std::string(" ") + range.file_option + " " + std::to_string(range.in_file + done);
    }
    if (range.limited) {
        options += " --count " + std::to_string(range.count - done);
    }
    return options;
}

Failure Stopped(const std::string& what, const Range& range, uint32_t done, int error,
                const std::string& next)
{
    const ExitCode code = error == ENOMEDIUM                ? ExitCode::Removed
                          : KindOf(error) == ExitCode::Busy ? ExitCode::Busy
                          : error == EROFS                  ? ExitCode::ReadOnly
                                                            : ExitCode::InputOutput;
    return {code, HowFar(what, range, done) + Reason(error), next + GoOn(range, done)};
}

// Between two requests, when nothing is under way.
void StopIfInterrupted(const std::string& what, const Range& range, uint32_t done)
{
    if (Interrupted()) {
        throw Failure(ExitCode::Interrupted, HowFar(what, range, done) + "interrupted",
                      GoOn(range, done));
    }
}

void Note(Progress* progress, uint32_t sectors)
{
    if (progress != nullptr) {
        progress->Moved(sectors);
    }
}

Moved ReadSome(Device& device, const Range& range, uint32_t done, uint32_t asked, void* to)
{
    return range.direct ? device.DirectRead(range.first + done, asked, to)
                        : device.Read(range.first + done, asked, to);
}

// What a comparison has found so far.
struct Differences {
    uint32_t sectors = 0;
    uint32_t first = 0;

    void Add(const uint8_t* one, const uint8_t* other, uint32_t from, uint32_t count)
    {
        for (uint32_t i = 0; i < count; i++) {
            const size_t at = size_t{i} * CARD_SECTOR_SIZE;
            if (std::memcmp(one + at, other + at, CARD_SECTOR_SIZE) != 0 && sectors++ == 0) {
                first = from + i;
            }
        }
    }
};

}  // namespace

std::string SectorCount(uint64_t count)
{
    return std::to_string(count) + (count == 1 ? " sector" : " sectors");
}

uint32_t SectorsFrom(Device& device, uint32_t first)
{
    const uint32_t sectors = device.Sectors();
    if (sectors == 0) {
        throw Failure(ExitCode::Usage, device.path() + " says that it has no sectors",
                      "put a card in and look at it with the size command first");
    }
    if (first >= sectors) {
        throw Failure(ExitCode::Usage,
                      "sector " + std::to_string(first) + " lies beyond the end of " +
                          device.path() + ", whose last sector is " + std::to_string(sectors - 1),
                      "give a smaller --first");
    }
    return sectors - first;
}

void ReadSectors(Device& device, Range range, Output& output, Progress* progress)
{
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    const std::string what = "reading " + device.path();
    uint32_t done = 0;
    while (done < range.count) {
        StopIfInterrupted(what, range, done);
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        const Moved moved = ReadSome(device, range, done, asked, buffer.data());
        output.Write(buffer.data(), size_t{moved.sectors} * CARD_SECTOR_SIZE);
        done += moved.sectors;
        Note(progress, moved.sectors);
        if (moved.sectors < asked) {
            throw Stopped(what, range, done, moved.error,
                          "those before it are in the output; check the card's seat and ");
        }
    }
}

void WriteSectors(Device& device, Range range, Input& input, Progress* progress)
{
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    const std::string what = "writing " + device.path();
    uint32_t done = 0;
    while (done < range.count) {
        StopIfInterrupted(what, range, done);
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        input.Read(buffer.data(), size_t{asked} * CARD_SECTOR_SIZE);
        const Moved moved = range.direct
                                ? device.DirectWrite(range.first + done, asked, buffer.data())
                                : device.Write(range.first + done, asked, buffer.data());
        done += moved.sectors;
        Note(progress, moved.sectors);
        if (moved.sectors < asked) {
            throw Stopped(what, range, done, moved.error,
                          "those from it on may hold old or new data; check the card's seat and ");
        }
    }
}

void CompareSectors(Device& device, Range range, Input& input, Progress* progress)
{
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    std::vector<uint8_t> wanted(buffer.size());
    const std::string what = "comparing " + device.path();
    Differences found;
    uint32_t done = 0;
    while (done < range.count) {
        StopIfInterrupted(what, range, done);
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        input.Read(wanted.data(), size_t{asked} * CARD_SECTOR_SIZE);
        const Moved moved = ReadSome(device, range, done, asked, buffer.data());
        found.Add(buffer.data(), wanted.data(), range.first + done, moved.sectors);
        done += moved.sectors;
        Note(progress, moved.sectors);
        if (moved.sectors < asked) {
            throw Stopped(what, range, done, moved.error,
                          "the rest was not compared; check the card's seat and ");
        }
    }
    if (found.sectors > 0) {
        throw Failure(ExitCode::Mismatch,
                      SectorCount(found.sectors) + " of " + device.path() + " differ from " +
                          input.name() + ", first sector " + std::to_string(found.first),
                      "write again and compare; a card that differs again is worn out or forged");
    }
}

Timing TimeReads(Device& device, Range range)
{
    using Clock = std::chrono::steady_clock;
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    const std::string what = "reading " + device.path();
    std::vector<uint64_t> requests;
    const Clock::time_point begin = Clock::now();
    uint32_t done = 0;
    while (done < range.count) {
        StopIfInterrupted(what, range, done);
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        const Clock::time_point start = Clock::now();
        const Moved moved = ReadSome(device, range, done, asked, buffer.data());
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        requests.push_back(static_cast<uint64_t>(took.count()));
        done += moved.sectors;
        if (moved.sectors < asked) {
            throw Stopped(what, range, done, moved.error, "check the card's seat and ");
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::sort(requests.begin(), requests.end());
    // A clock may stand still for a moment.
    return {uint64_t{done} * CARD_SECTOR_SIZE, std::max(seconds, 1e-6),
            requests[requests.size() / 2], requests.back()};
}
