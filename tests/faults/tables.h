// SPDX-License-Identifier: MIT
//
// The operations, with the paths through them: what each is told by its tables to do, what
// is set up for it, and how it is called.
#ifndef CARDDEV_TESTS_FAULTS_TABLES_H
#define CARDDEV_TESTS_FAULTS_TABLES_H

#include <cstdint>
#include <string>
#include <vector>

#include "carddev.h"
#include "sim/low_memory.h"
#include "sim/model/sd_card.h"
#include "tests/faults/rules.h"

namespace faults {

constexpr uint32_t kSector = 4;    // where transfers begin
constexpr uint32_t kMoved = 2;     // sectors of a transfer
constexpr uint32_t kApart = 1024;  // from one piece of memory to another, with a gap between them
constexpr uint32_t kUntouched = 0xABABABAB;

// What the operations work on.
struct Subject {
    DrvInfo handle = {};
    cardsim::LowBuffer memory{3 * 512};
    uint32_t second = 512;  // where in it the second sector's data are
    uint32_t retried = kUntouched;
    CardInfo info = {};
    CardSpeedInfo speed = {};
    uint8_t sd_status[CARD_SD_STATUS_SIZE] = {};
};

enum class Site { Zel, Mivo, Ricoh };

enum class Life { Works, Opens, Closes, Detects };

struct Setup {
    Life life = Life::Works;
    bool watched = false;   // an eject callback is registered
    bool gone = false;      // the card has left since it was opened
    bool changed = false;   // ... and another one has come
    bool failed = false;    // a direct transfer gave up before
    bool asked = false;     // registers, SD status and speed record are known
    bool unasked = false;   // ... are not, though Zel's opening asks for them: it could not
    bool protect = false;   // the card is write-protected
    bool old = false;       // the driver counts it as of a version that is not supported
    bool no_input = false;  // the program has closed its standard input: 0 is free
    uint32_t sectors = 2048;
};

enum class Moves { Nothing, FromCard, ToCard };

// What is wrong with what a question's caller was given; "" for nothing. Of the variables,
// has_* tell what there should be.
using Verify = std::string (*)(const Subject&, const sim_card&, const Variables&);

struct Operation {
    std::string name;
    Site site;
    Setup setup;
    std::vector<Table> tables;
    Parameters parameters;
    int64_t (*run)(Subject&);
    Moves moves = Moves::Nothing;  // `kMoved` sectors, where it succeeds
    Verify verify = nullptr;
};

// An operation whatever the path.
struct Form {
    const char* name;
    std::vector<Table> tables;
    Parameters parameters;
    int64_t (*run)(Subject&);
    Moves moves = Moves::Nothing;
    Verify verify = nullptr;
};

// For every path that a set-up leads to.
std::vector<Operation> ZelOperations();
std::vector<Operation> MivoOperations();
std::vector<Operation> RicohOperations();

}  // namespace faults

#endif
