// SPDX-License-Identifier: MIT
//
// Decision tables: what an operation does, call by call, and what each way for a call
// to end leads to. The tables are text; this file's part is to follow them, and it knows
// of no back-end and no operation.
//
// A table has a line for each rule; empty lines and those that begin with "#" are none:
//
//     step | call | when | says | does | next
//
// A step's first rule names the call that it makes, if any; its rules are tried from the
// top, and the first whose conditions all hold tells what is printed, what changes, and
// which step follows. The table's first step is where it begins. "$name" is replaced from
// the table's parameters, or else the operation's. A word that is not listed here, and a
// variable that is not, throws std::logic_error or std::out_of_range.
//
// call:  stat NODE, open NODE FLAGS, close NODE, seek NODE OFFSET, read NODE BYTES,
//        write NODE BYTES, ioctl NODE REQUEST, poll NODE MS, sleep NS, malloc BYTES, free;
//        further words: "transfer" (its end is signalled to the next poll), "told" (also
//        where it fails), "reset" (which takes a signal away), "usual=N" or "usual=-ERRNO"
//        (the driver's own result), "gone=ERRNO" (that without a card)
//        NODE is a path; FLAGS are rdwr, rdwr+sync, rdonly; numbers are decimal or 0x...
// when:  conditions, all of which must hold; none always do
//        =N <N >N >=N      the call's answer; 0 where the step makes none
//        EBUSY !EBUSY      errno
//        events=IN+OUT     poll's events are these; events=0: none
//        events&HUP        this one is among them; of IN, OUT, ERR, HUP, NVAL
//        reached           the driver did the call's work
//        seen              the driver saw the call
//        name=N name<N name>N name>=N  a variable
// says:  "E zel:Zel_Init: text" a line, W a warning, "P text" one without a prefix; {name}
//        a variable, {answer} the call's, {errno} its text; a "~" at the end keeps the line
//        open
// does:  any of these, with ";" between them, from the left:
//        lock  unlock      the unit's lock, taken and given back
//        name=N  name=answer  name=other  name+N
// next:  a step; "end" for the next table, "last" for the last one; "return N", "return
//        name", "return answer", "return -errno", "return unknown" where the result rests on
//        memory that nobody has written; "undefined" where all that follows does
//
// The variables, 0 to begin with where it is not said otherwise:
//
// - what is so before the operation, changes with its calls by itself, and but for the card's
//   state is compared with what is so after it:
//        card, changed     the card's state: there; removed or replaced since it was opened
//        signal            the end of a transfer waits for the next poll
//        resets            how many the driver has been sent
//        files, blocks     descriptors and blocks of memory that are held
//        moved             a transfer was carried out: what stands on the card is compared
//                          with memory. 0 before each operation. A "transfer" sets it; of a
//                          "read" or "write" a rule does
// - what the driver saw of the card at the last ioctl that it saw: saw_card, saw_changed
// - what is so before the operation, changes by rules alone, and but for "armed" is compared:
//        armed             there is somebody to tell of a card that has gone
//        callbacks         how often that was done
//        io_error, ejected the unit's latches
//        secure, reg, speed  there is a copy of the SD status, the registers, the speed record
//        retried           what the caller of a write was told
//        read_only         what Ricoh's record says
//        mounted           what Mivo's driver says
//        filled            the caller was given a record, which is compared. 0 before each
//                          operation
//        has_cid, has_csd, has_status, has_speed  which part of it the driver has written;
//                          0 for none. They say the same of a copy; has_speed=3: both of
//                          Mivo's answers
// - of the tables' own, for counting and for what a later rule depends on: asked, bad, errors,
//   more, plain, result, retry, room, sent, tries, unread
#ifndef CARDDEV_TESTS_FAULTS_RULES_H
#define CARDDEV_TESTS_FAULTS_RULES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sim/kernel.h"

namespace faults {

enum class CardMove { Stays, Leaves, IsExchanged };

// A way for a call to end that is not the driver's own, or what befalls the card by its end.
struct Oddity {
    const char* name;
    std::optional<int64_t> result = {};
    int error = 0;
    std::optional<short> events = {};
    bool reaches = false;  // the driver does the work all the same
    std::optional<uint32_t> at_most = {};
    int stray_error = 0;  // errno where it has not failed
    CardMove card = CardMove::Stays;
};

struct ExpectedCall {
    cardsim::CallKind kind;
    std::string node = {};
    uint32_t request = 0;
    int flags = 0;
    uint64_t amount = 0;
    int64_t result = 0;
    int error = 0;
    bool locked = false;
    bool transfer = false;
};

// Which calls a fault is for: those of the kind, node and request, or all of the kind.
struct Mark {
    cardsim::CallKind kind;
    std::string node = {};
    uint32_t request = 0;

    static Mark Of(const ExpectedCall& call) { return {call.kind, call.node, call.request}; }
    bool Covers(const ExpectedCall& call) const
    {
        return kind == call.kind && (node.empty() || node == call.node) &&
               (request == 0 || request == call.request);
    }
};

struct Planted {
    uint64_t at;  // which of the operation's calls, counted from 1; frees do not count
    Oddity oddity;
    uint64_t times;  // 1, or how many calls like that one
    Mark mark;       // that call
    uint64_t nth;    // which it is of the calls like that one
};

using Plan = std::vector<Planted>;

using Variables = std::map<std::string, int64_t>;

struct Expected {
    std::vector<ExpectedCall> calls;
    std::string printed;
    int64_t result = 0;
    int error = 0;
    bool any_result = false;
    bool any_outcome = false;  // then nothing that stands here binds
};

using Parameters = std::map<std::string, std::string>;

struct Table {
    const char* text;
    Parameters parameters;  // these come before the operation's
};

class Rules {
public:
    Rules(const std::vector<Table>& tables, const Parameters& parameters);
    Rules(Rules&&) = default;

    // Follow the tables from their first step. `state` is what outlasts the operation,
    // and is changed; all other variables begin at 0.
    Expected Follow(const Plan& plan, int error_before, Variables* state) const;

private:
    struct Condition {
        enum class Of { Answer, Error, NotError, EventsAre, EventsHave, Reached, Seen, Variable };
        Of of;
        char relation;  // '<', '=', '>', 'G' for >=
        int64_t value;
        size_t variable = 0;
    };
    struct Effect {
        char what;  // '=', '+', 'a' for answer, 'v' for another variable, 'l' lock, 'u' unlock
        int64_t value = 0;
        size_t variable = 0;
        size_t other = 0;
    };
    struct Step;
    struct Rule {
        char* taken;  // by any run
        std::vector<Condition> when;
        std::string says;
        std::vector<Effect> effects;
        std::string next;            // a step's full name, "end", "last", "undefined", "return X"
        const Step* step = nullptr;  // where it is a step
    };
    struct Step {
        std::string name = {};
        std::optional<ExpectedCall> call;
        bool reset = false;
        bool told = false;
        int64_t usual = 0;
        int gone = 0;
        std::vector<Rule> rules;
    };
    struct Machine;

    void Parse(const Table& table, size_t number, const Parameters& parameters);
    void Link();
    static Step ParseCall(const std::string& text);
    static Rule ParseRule(const std::vector<std::string>& fields, const std::string& prefix);
    static Condition ParseCondition(const std::string& word);
    static Effect ParseEffect(const std::string& word);

    std::map<std::string, Step> steps_;
    std::vector<const Step*> first_;  // each table's
};

// The lines of a table that no run has ever followed, whatever the parameters.
std::vector<std::string> NeverTaken(const char* text);

}  // namespace faults

#endif
