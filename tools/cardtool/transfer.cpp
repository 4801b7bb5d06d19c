// SPDX-License-Identifier: MIT
#include "tools/cardtool/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sim/low_memory.h"
#include "tools/cardtool/failure.h"

namespace {

constexpr uint32_t kChunkSectors = 256;

std::string Reason(int error)
{
    if (error == ENOMEDIUM) {
        return "the card was removed or changed";
    }
    return error == 0 ? "the driver moved only part of it" : std::strerror(error);
}

Failure Stopped(const std::string& what, Range range, uint32_t done, int error,
                const std::string& next)
{
    const ExitCode code = error == EROFS       ? ExitCode::ReadOnly
                          : error == ENOMEDIUM ? ExitCode::Removed
                                               : ExitCode::InputOutput;
    return {code,
            what + " stopped at sector " + std::to_string(range.first + done) + " after " +
                std::to_string(done) + " of " + SectorCount(range.count) + ": " + Reason(error),
            next};
}

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

void ReadSectors(Device& device, Range range, Output& output)
{
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    uint32_t done = 0;
    while (done < range.count) {
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        const Moved moved = range.direct
                                ? device.DirectRead(range.first + done, asked, buffer.data())
                                : device.Read(range.first + done, asked, buffer.data());
        output.Write(buffer.data(), size_t{moved.sectors} * CARD_SECTOR_SIZE);
        done += moved.sectors;
        if (moved.sectors < asked) {
            throw Stopped("reading " + device.path(), range, done, moved.error,
                          "those before it are in the output; check the card's seat and go on "
                          "with --first " +
                              std::to_string(range.first + done));
        }
    }
}

void WriteSectors(Device& device, Range range, Input& input)
{
    const cardsim::LowBuffer buffer(size_t{kChunkSectors} * CARD_SECTOR_SIZE);
    uint32_t done = 0;
    while (done < range.count) {
        const uint32_t asked = std::min(kChunkSectors, range.count - done);
        input.Read(buffer.data(), size_t{asked} * CARD_SECTOR_SIZE);
        const Moved moved = range.direct
                                ? device.DirectWrite(range.first + done, asked, buffer.data())
                                : device.Write(range.first + done, asked, buffer.data());
        done += moved.sectors;
        if (moved.sectors < asked) {
            throw Stopped("writing " + device.path(), range, done, moved.error,
                          "those from it on may hold old or new data; check the card's seat and "
                          "write again");
        }
    }
}
