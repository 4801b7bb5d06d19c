// SPDX-License-Identifier: MIT
//
// Decision tables: what an operation does, call by call, and what each way for a call
// to end leads to. The tables are text; this file's part is to follow them, and it knows
// of no back-end and no operation.
//
// A table has a line for each rule:
//
//     step | call | when | says | does | next
//
// A step's first rule names the call that it makes, if any; its rules are tried from the
// top, and the first whose conditions all hold tells what is printed, what changes, and
// which step follows. "$name" is replaced from the operation's parameters.
//
// call:  stat NODE, open NODE FLAGS, close NODE, seek NODE OFFSET, read NODE BYTES,
//        write NODE BYTES, ioctl NODE REQUEST, poll NODE MS, sleep NS, malloc BYTES, free;
//        further words: "transfer" (its end is signalled to the next poll), "told" (also
//        where it fails), "reset" (which takes a signal away), "usual=N" or "usual=-ERRNO"
//        (the driver's own result), "gone=ERRNO" (that without a card)
// when:  <0 =0 >0 >=0 =N   the call's answer
//        EBUSY !EBUSY      errno
//        events=IN+OUT     poll's events are these; events=0: none
//        events&HUP        this one is among them
//        reached           the driver did the call's work
//        seen              the driver saw the call
//        name=N name<N name>N  "card" and "changed" are the card's state now, "saw_card" and
//                          "saw_changed" what the driver last saw of it
// says:  "E zel:Zel_Init: text" a line, W a warning, "P text" one without a prefix; {name}
//        a variable, {errno} its text; a "~" at the end keeps the line open
// does:  lock; unlock; name=N; name=answer; name=other; name+N
// next:  a step; "end" for the next table, "last" for the last one; "return N", "return
//        name", "return -errno", "return unknown" where the result rests on memory that
//        nobody has written; "undefined" where all that follows does
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
    static Step ParseCall(const std::string& text);
    Condition ParseCondition(const std::string& word);
    Effect ParseEffect(const std::string& word);
    size_t Variable(const std::string& name);

    std::map<std::string, Step> steps_;
    std::vector<const Step*> first_;           // each table's
    std::map<std::string, size_t> variables_;  // where each stands
};

}  // namespace faults

#endif
