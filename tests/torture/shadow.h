// SPDX-License-Identifier: MIT
//
// What a card may hold: for every sector the contents that are possible after all that
// was done to it. One, unless a write of it has failed.
#ifndef CARDDEV_TESTS_TORTURE_SHADOW_H
#define CARDDEV_TESTS_TORTURE_SHADOW_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

using Sector = std::array<uint8_t, 512>;

inline Sector SectorAt(const uint8_t* bytes)
{
    Sector sector;
    memcpy(sector.data(), bytes, sector.size());
    return sector;
}

// Every sector that is written begins with these, so that a wrong one tells where it is from.
struct Stamp {
    char mark[4];        // "SECT"
    uint32_t operation;  // 0: what the card came with
    uint32_t thread;
    uint32_t sector;  // the one that it was meant for
};

inline std::string Told(const Sector& bytes)
{
    Stamp stamp;
    memcpy(&stamp, bytes.data(), sizeof stamp);
    if (memcmp(stamp.mark, "SECT", 4) == 0) {
        return "sector " + std::to_string(stamp.sector) + " as written by operation " +
               std::to_string(stamp.operation) + " of thread " + std::to_string(stamp.thread);
    }
    std::string text = "bytes";
    char digits[4];
    for (size_t i = 0; i < 16; i++) {
        snprintf(digits, sizeof digits, " %02x", bytes[i]);
        text += digits;
    }
    return text + " ...";
}

// Different threads may use different sectors at once.
class Shadow {
public:
    explicit Shadow(const std::vector<uint8_t>& card) : possible_(card.size() / 512)
    {
        for (size_t i = 0; i < possible_.size(); i++) {
            possible_[i] = {SectorAt(&card[i * 512])};
        }
    }

    uint32_t sectors() const { return static_cast<uint32_t>(possible_.size()); }

    // The card holds this and nothing else.
    void Holds(uint32_t sector, const Sector& bytes) { possible_.at(sector) = {bytes}; }

    // Or this.
    void MayHold(uint32_t sector, const Sector& bytes)
    {
        std::vector<Sector>& possible = possible_.at(sector);
        if (std::find(possible.begin(), possible.end(), bytes) == possible.end()) {
            possible.push_back(bytes);
        }
    }

    // The beginning of this has replaced what was there.
    void HoldsBeginning(uint32_t sector, const Sector& bytes, size_t length)
    {
        for (Sector& possible : possible_.at(sector)) {
            memcpy(possible.data(), bytes.data(), length);
        }
    }

    // The sectors from `first` on were found to be these, and stay so. What is wrong with
    // them, if anything is.
    std::optional<std::string> Found(uint32_t first, const uint8_t* bytes, uint32_t sectors)
    {
        for (uint32_t i = 0; i < sectors; i++) {
            std::vector<Sector>& possible = possible_.at(first + i);
            const uint8_t* const found = bytes + size_t{i} * 512;
            const auto same = std::find_if(
                possible.begin(), possible.end(),
                [&](const Sector& one) { return memcmp(one.data(), found, one.size()) == 0; });
            if (same == possible.end()) {
                return Wrong(first + i, SectorAt(found));
            }
            if (possible.size() > 1) {
                possible = {Sector(*same)};
            }
        }
        return {};
    }

private:
    std::string Wrong(uint32_t sector, const Sector& found) const
    {
        std::string text = "sector " + std::to_string(sector) + ": expected";
        const char* separator = " ";
        for (const Sector& possible : possible_[sector]) {
            text += separator + Told(possible);
            separator = ", or ";
        }
        const Sector& nearest = possible_[sector].back();
        const auto difference = std::mismatch(found.begin(), found.end(), nearest.begin());
        return text + "; found " + Told(found) + "; the last of these differs from byte " +
               std::to_string(difference.first - found.begin()) + " on";
    }

    std::vector<std::vector<Sector>> possible_;
};

#endif
