// SPDX-License-Identifier: MIT
//
// A unit that is tortured: its place, its handle, and what its card may hold.
#ifndef CARDDEV_TESTS_TORTURE_UNIT_H
#define CARDDEV_TESTS_TORTURE_UNIT_H

#include <array>
#include <atomic>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "carddev.h"
#include "tests/support/bench.h"
#include "tests/torture/shadow.h"

constexpr uint32_t kCardSectors = 2048;

// What is wrong, with where it was found.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Random {
public:
    explicit Random(std::initializer_list<uint32_t> words)
    {
        std::seed_seq seed(words);
        source_.seed(seed);
    }
    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(source_() % limit); }
    uint32_t Between(uint32_t least, uint32_t most) { return least + Below(most - least + 1); }
    bool OneIn(uint32_t n) { return Below(n) == 0; }
    uint32_t Word() { return static_cast<uint32_t>(source_()); }

private:
    std::mt19937 source_;
};

struct Place {
    std::string name;
    std::string node;
    DevType type;
    std::array<uint32_t, 6> requests;  // that move data
};

// All there are, in the order in which they are taken.
const std::vector<Place>& Places();

// The ways to move data.
enum Route { kPlain, kDirect, kArray, kRmw, kFat, kCommand, kRoutes };
inline constexpr const char* kRouteNames[kRoutes] = {"plain", "direct", "array",
                                                     "rmw",   "fat",    "command"};

struct Counts {
    std::atomic<size_t> operations = 0;
    std::atomic<size_t> written[kRoutes] = {};  // acknowledged
    std::atomic<size_t> read[kRoutes] = {};
    std::atomic<size_t> cut_short = 0;       // of these, plain ones that ended early
    std::atomic<size_t> writes_failed = 0;   // may have begun
    std::atomic<size_t> writes_refused = 0;  // must not have begun
    std::atomic<size_t> reads_failed = 0;
    std::atomic<size_t> faults = 0;
    std::atomic<size_t> ejects = 0;
    std::atomic<size_t> queries = 0;
    std::atomic<size_t> told_gone = 0;  // of these, that the card has gone for certain
    std::atomic<size_t> inits = 0;
    std::atomic<size_t> sectors_compared = 0;
};

struct Options {
    uint32_t seed = 1;
    uint64_t operations = 2000;  // of each unit
    uint32_t seconds = 0;        // not 0: instead
    std::vector<size_t> units;   // numbers of places
    uint32_t threads = 1;        // of each unit with direct transfers
    bool trace = false;
    std::atomic<bool>* stop = nullptr;  // set once something was found wrong
};

// One that is open until it is closed; the card may come and go meanwhile.
class Unit {
public:
    Unit(const Options& given, size_t place_number, Bench& its_bench, Counts& total);
    ~Unit();
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    // See to it that the card is in, protected or not, and open the unit anew.
    void Open(bool protect);
    // The card, wherever it is, holds what it may.
    void CompareAll();

    void Eject();
    // The same card, as it left.
    void Reinsert();

    bool HasDirect() const { return place.type != DEV_TYPE_RICOH_SD; }
    // Direct transfers count in this unit.
    uint32_t Length(uint32_t sectors) const
    {
        return place.type == DEV_TYPE_ZEL ? sectors * 512 : sectors;
    }
    // Ejects that the library has told of.
    uint32_t Noticed() const;
    uint32_t number() const { return static_cast<uint32_t>(number_); }

    const Place& place;
    const Options& options;
    Bench& bench;
    Counts& counts;
    Shadow shadow;
    DrvInfo handle = {};
    Random random;

    bool card_is_in = true;  // as far as is known while faults wait
    // Since the unit was opened:
    uint32_t noticed_at_open = 0;
    bool is_protected = false;
    bool is_watched = false;              // the library looks whether the card is there
    bool are_registers_good = true;       // a query that failed leaves registers that are none
    std::atomic<bool> latched = false;    // a transfer has given up
    std::atomic<bool> disturbed = false;  // the card was not there, or not the same, all the time

private:
    void Close();

    const size_t number_;
    bool is_open_ = false;
};

#endif
