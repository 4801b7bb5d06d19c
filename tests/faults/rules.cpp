// SPDX-License-Identifier: MIT
#include "tests/faults/rules.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>

namespace faults {

using cardsim::CallKind;

namespace {

// An operation that needs more is endless, or its table is.
constexpr int kMostSteps = 5000;

// The variables that calls change by themselves.
enum Known : size_t {
    kCard,
    kChanged,
    kSawCard,
    kSawChanged,
    kSignal,
    kMoved,
    kResets,
    kFiles,
    kBlocks,
};
constexpr const char* kVariables[] = {
    "card",    "changed",    "saw_card",  "saw_changed", "signal",    "moved",    "resets",
    "files",   "blocks",     "armed",     "callbacks",   "filled",    "io_error", "ejected",
    "secure",  "reg",        "speed",     "retried",     "read_only", "mounted",  "has_cid",
    "has_csd", "has_status", "has_speed", "asked",       "bad",       "errors",   "more",
    "plain",   "result",     "retry",     "room",        "sent",      "tries",    "unread"};

// Where each of them stands.
const std::map<std::string, size_t>& Places()
{
    static const std::map<std::string, size_t> kPlaces = [] {
        std::map<std::string, size_t> places;
        for (const char* name : kVariables) {
            places.emplace(name, places.size());
        }
        return places;
    }();
    return kPlaces;
}

size_t PlaceOf(const std::string& name)
{
    const auto found = Places().find(name);
    if (found == Places().end()) {
        throw std::logic_error("no such variable: '" + name + "'");
    }
    return found->second;
}

// Of each table's lines, whether a run has followed them.
std::vector<char>& TakenLines(const char* text)
{
    static std::map<const char*, std::vector<char>> lines;
    std::vector<char>& taken = lines[text];
    if (taken.empty()) {
        taken.resize(static_cast<size_t>(std::count(text, text + strlen(text), '\n')) + 1);
    }
    return taken;
}

std::string Trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool IsRule(const std::string& line)
{
    return !Trim(line).empty() && !Trim(line).starts_with("#");
}

std::vector<std::string> Split(const std::string& text, char at)
{
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, at);) {
        parts.push_back(Trim(part));
    }
    return parts;
}

std::vector<std::string> WordsOf(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

bool IsNumber(const std::string& text)
{
    const size_t digits = text.starts_with("-") ? 1 : 0;
    return text.size() > digits && std::isdigit(static_cast<unsigned char>(text[digits])) != 0;
}

int64_t Number(const std::string& text)
{
    if (!IsNumber(text)) {
        throw std::logic_error("not a number: '" + text + "'");
    }
    size_t end = 0;
    const int64_t number = std::stoll(text, &end, 0);
    if (end != text.size()) {
        throw std::logic_error("not a number: '" + text + "'");
    }
    return number;
}

int ErrnoOf(const std::string& name)
{
    for (int error = 1; error < 140; error++) {
        const char* known = strerrorname_np(error);
        if (known != nullptr && name == known) {
            return error;
        }
    }
    throw std::logic_error("no such errno: " + name);
}

short EventOf(const std::string& name)
{
    static const std::map<std::string, short> kEvents = {
        {"IN", POLLIN}, {"OUT", POLLOUT}, {"ERR", POLLERR}, {"HUP", POLLHUP}, {"NVAL", POLLNVAL}};
    return kEvents.at(name);
}

short EventsOf(const std::string& text)
{
    short events = 0;
    if (text != "0") {
        for (const std::string& name : Split(text, '+')) {
            events = static_cast<short>(events | EventOf(name));
        }
    }
    return events;
}

int FlagsOf(const std::string& name)
{
    static const std::map<std::string, int> kFlags = {
        {"rdwr", O_RDWR}, {"rdwr+sync", O_RDWR | O_SYNC}, {"rdonly", O_RDONLY}};
    return kFlags.at(name);
}

std::string Fill(const std::string& text, const Parameters& own, const Parameters& general)
{
    std::string filled;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '$') {
            filled += text[i];
            continue;
        }
        size_t end = i + 1;
        while (end < text.size() &&
               (std::isalnum(static_cast<unsigned char>(text[end])) != 0 || text[end] == '_')) {
            end++;
        }
        const std::string name = text.substr(i + 1, end - i - 1);
        const auto mine = own.find(name);
        const auto found = mine != own.end() ? mine : general.find(name);
        if (found == (mine != own.end() ? own.end() : general.end())) {
            throw std::logic_error("no parameter $" + name);
        }
        filled += found->second;
        i = end - 1;
    }
    return filled;
}

// The call, with `next` behind its last word.
ExpectedCall CallOf(const std::vector<std::string>& words, size_t* next)
{
    static const std::map<std::string, CallKind> kKinds = {
        {"stat", CallKind::Stat},     {"open", CallKind::Open}, {"close", CallKind::Close},
        {"seek", CallKind::Seek},     {"read", CallKind::Read}, {"write", CallKind::Write},
        {"ioctl", CallKind::Ioctl},   {"poll", CallKind::Poll}, {"sleep", CallKind::Sleep},
        {"malloc", CallKind::Malloc}, {"free", CallKind::Free}};
    ExpectedCall call = {};
    call.kind = kKinds.at(words[0]);
    const bool has_node = call.kind != CallKind::Sleep && call.kind != CallKind::Malloc &&
                          call.kind != CallKind::Free;
    if (has_node) {
        call.node = words.at((*next)++);
    }
    switch (call.kind) {
        case CallKind::Open:
            call.flags = FlagsOf(words.at((*next)++));
            break;
        case CallKind::Ioctl:
            call.request = static_cast<uint32_t>(Number(words.at((*next)++)));
            break;
        case CallKind::Poll:
            call.flags = POLLIN | POLLOUT | POLLERR | POLLHUP;
            [[fallthrough]];
        case CallKind::Seek:
        case CallKind::Read:
        case CallKind::Write:
        case CallKind::Sleep:
        case CallKind::Malloc:
            call.amount = static_cast<uint64_t>(Number(words.at((*next)++)));
            break;
        default:
            break;
    }
    return call;
}

// What can be returned, and printed.
void CheckValue(const std::string& text)
{
    if (IsNumber(text)) {
        Number(text);
    } else if (text != "-errno" && text != "answer") {
        PlaceOf(text);
    }
}

// "E ...", "W ...", "P ..." or nothing, and names in braces.
void CheckText(const std::string& text)
{
    if (text.empty()) {
        return;
    }
    const bool has_prefix = text.starts_with("E ") || text.starts_with("W ");
    if (!text.starts_with("P ") && !(has_prefix && text.find(": ") != std::string::npos)) {
        throw std::logic_error("no line of print: " + text);
    }
    for (size_t at = text.find('{'); at != std::string::npos; at = text.find('{', at + 1)) {
        const size_t end = text.find('}', at);
        if (end == std::string::npos) {
            throw std::logic_error("a brace is open in: " + text);
        }
        const std::string name = text.substr(at + 1, end - at - 1);
        if (name != "errno") {
            CheckValue(name);
        }
    }
}

}  // namespace

// --- reading ---------------------------------------------------------------------

Rules::Rules(const std::vector<Table>& tables, const Parameters& parameters)
{
    for (size_t i = 0; i < tables.size(); i++) {
        Parse(tables[i], i, parameters);
    }
    Link();
}

void Rules::Parse(const Table& table, size_t number, const Parameters& parameters)
{
    const std::string prefix = std::to_string(number) + ".";
    std::vector<char>& taken = TakenLines(table.text);
    std::istringstream lines(table.text);
    bool is_first = true;
    size_t at = 0;
    for (std::string line; std::getline(lines, line); at++) {
        if (!IsRule(line)) {
            continue;
        }
        const std::vector<std::string> fields =
            Split(Fill(line, table.parameters, parameters) + " ", '|');
        if (fields.size() != 6) {
            throw std::logic_error("not six fields: " + line);
        }
        const std::string name = prefix + fields[0];
        if (steps_.count(name) == 0) {
            steps_[name] = ParseCall(fields[1]);
            steps_[name].name = name;
        } else if (!fields[1].empty()) {
            throw std::logic_error("a second call in a step: " + line);
        }
        if (is_first) {
            first_.push_back(&steps_[name]);
            is_first = false;
        }
        steps_[name].rules.push_back(ParseRule(fields, prefix));
        steps_[name].rules.back().taken = &taken[at];
    }
}

Rules::Rule Rules::ParseRule(const std::vector<std::string>& fields, const std::string& prefix)
{
    Rule rule = {};
    for (const std::string& word : WordsOf(fields[2])) {
        rule.when.push_back(ParseCondition(word));
    }
    rule.says = fields[3];
    CheckText(rule.says);
    for (const std::string& word : Split(fields[4], ';')) {
        if (!word.empty()) {
            rule.effects.push_back(ParseEffect(word));
        }
    }
    const std::string& next = fields[5];
    const bool returns = next.starts_with("return ");
    if (returns && next != "return unknown") {
        CheckValue(next.substr(7));
    }
    const bool ends = returns || next == "end" || next == "last" || next == "undefined";
    rule.next = ends ? next : prefix + next;
    return rule;
}

// Each rule with the step that it leads to.
void Rules::Link()
{
    for (auto& [name, step] : steps_) {
        for (Rule& rule : step.rules) {
            const auto found = steps_.find(rule.next);
            if (found != steps_.end()) {
                rule.step = &found->second;
            } else if (rule.next.find('.') != std::string::npos) {
                throw std::logic_error(name + " leads to no step: " + rule.next);
            }
        }
    }
}

std::vector<std::string> NeverTaken(const char* text)
{
    const std::vector<char>& taken = TakenLines(text);
    std::vector<std::string> never;
    std::istringstream lines(text);
    size_t at = 0;
    for (std::string line; std::getline(lines, line); at++) {
        if (IsRule(line) && taken[at] == 0) {
            never.push_back(line);
        }
    }
    return never;
}

Rules::Step Rules::ParseCall(const std::string& text)
{
    Step step;
    const std::vector<std::string> words = WordsOf(text);
    if (words.empty()) {
        return step;
    }
    size_t next = 1;
    const ExpectedCall call = CallOf(words, &next);
    const bool counts =
        call.kind == CallKind::Seek || call.kind == CallKind::Read || call.kind == CallKind::Write;
    step.usual = counts ? static_cast<int64_t>(call.amount) : 0;
    step.call = call;
    for (; next < words.size(); next++) {
        const std::string& word = words[next];
        if (word == "transfer") {
            step.call->transfer = true;
        } else if (word == "told") {
            step.told = true;
        } else if (word == "reset") {
            step.reset = true;
        } else if (word.starts_with("usual=-E")) {
            step.usual = -ErrnoOf(word.substr(7));
        } else if (word.starts_with("usual=")) {
            step.usual = Number(word.substr(6));
        } else if (word.starts_with("gone=")) {
            step.gone = ErrnoOf(word.substr(5));
        } else {
            throw std::logic_error("unknown word '" + word + "' in: " + text);
        }
    }
    return step;
}

Rules::Condition Rules::ParseCondition(const std::string& word)
{
    using Of = Condition::Of;
    if (word.starts_with("events=")) {
        return {Of::EventsAre, '=', EventsOf(word.substr(7))};
    }
    if (word.starts_with("events&")) {
        return {Of::EventsHave, '=', EventOf(word.substr(7))};
    }
    if (word == "reached" || word == "seen") {
        return {word == "seen" ? Of::Seen : Of::Reached, '=', 1};
    }
    if (word.starts_with("!E")) {
        return {Of::NotError, '=', ErrnoOf(word.substr(1))};
    }
    const size_t relation = word.find_first_of("<=>");
    if (relation == std::string::npos) {
        return {Of::Error, '=', ErrnoOf(word)};
    }
    const Of of = relation == 0 ? Of::Answer : Of::Variable;
    const size_t variable = relation == 0 ? 0 : PlaceOf(word.substr(0, relation));
    if (word.substr(relation).starts_with(">=")) {
        return {of, 'G', Number(word.substr(relation + 2)), variable};
    }
    return {of, word[relation], Number(word.substr(relation + 1)), variable};
}

Rules::Effect Rules::ParseEffect(const std::string& word)
{
    if (word == "lock" || word == "unlock") {
        return {word[0]};
    }
    const size_t sign = word.find_first_of("=+");
    if (sign == std::string::npos) {
        throw std::logic_error("no effect: " + word);
    }
    const size_t variable = PlaceOf(word.substr(0, sign));
    const std::string value = word.substr(sign + 1);
    if (IsNumber(value)) {
        return {word[sign], Number(value), variable};
    }
    if (word[sign] != '=') {
        throw std::logic_error("only numbers are added: " + word);
    }
    if (value == "answer") {
        return {'a', 0, variable};
    }
    return {'v', 0, variable, PlaceOf(value)};
}

// --- following ---------------------------------------------------------------------

struct Rules::Machine {
    const Plan& plan;
    std::vector<int64_t> variables = std::vector<int64_t>(std::size(kVariables));
    Expected expected = {};
    int error;
    uint64_t calls = 0;            // without frees
    std::vector<uint64_t> like{};  // of each planted fault: calls like its own since then
    int64_t answer = 0;
    short events = 0;
    bool seen = false;
    bool reached = false;
    bool locked = false;

    const Planted* Due(const ExpectedCall& call);
    void Make(const Step& step);
    int64_t Usual(const Step& step);
    void Balance(const ExpectedCall& call);
    const Rule& Choose(const Step& step) const;
    void End(const std::string& how);
    bool Holds(const Condition& condition) const;
    void Do(const Effect& effect);
    void Say(const std::string& text);
    int64_t Value(const std::string& text) const;
};

// The first fault of the plan that is due, as the stand-in has it.
const Planted* Rules::Machine::Due(const ExpectedCall& call)
{
    const Planted* due = nullptr;
    for (size_t i = 0; i < plan.size(); i++) {
        if (calls < plan[i].at || !plan[i].mark.Covers(call)) {
            continue;
        }
        like[i]++;
        if (like[i] <= plan[i].times && due == nullptr) {
            due = &plan[i];
        }
    }
    return due;
}

// What the driver says, and what its work changes.
int64_t Rules::Machine::Usual(const Step& step)
{
    if (step.call->kind == CallKind::Ioctl) {
        variables[kSawCard] = variables[kCard];
        variables[kSawChanged] = variables[kChanged];
    }
    if (step.gone != 0 && variables[kCard] == 0) {
        return -step.gone;
    }
    if (step.call->kind == CallKind::Poll) {
        events = variables[kSignal] != 0 ? static_cast<short>(POLLOUT) : static_cast<short>(0);
        variables[kSignal] = 0;
        return events != 0 ? 1 : 0;
    }
    if (step.call->transfer) {
        const bool done = step.usual >= 0;
        variables[kSignal] = done || step.told ? 1 : 0;
        variables[kMoved] = done ? 1 : variables[kMoved];
    }
    if (step.reset) {
        variables[kSignal] = 0;
        variables[kResets]++;
    }
    return step.usual;
}

void Rules::Machine::Make(const Step& step)
{
    ExpectedCall call = *step.call;
    const Planted* fault = nullptr;
    if (call.kind != CallKind::Free) {
        calls++;
        fault = Due(call);
    }
    const Oddity* odd = fault != nullptr ? &fault->oddity : nullptr;
    seen = odd == nullptr || odd->reaches || (odd->error == 0 && !odd->result);
    events = 0;
    int64_t result = seen ? Usual(step) : 0;
    reached = seen && result >= 0;
    if (odd != nullptr && odd->at_most && result > *odd->at_most) {
        result = *odd->at_most;
    }
    if (odd != nullptr && odd->events) {
        events = *odd->events;
        result = events != 0 ? 1 : 0;
    }
    call.result = result < 0 ? -1 : result;
    call.error = result < 0 ? static_cast<int>(-result) : 0;
    if (odd != nullptr && (odd->error != 0 || odd->result)) {
        call.result = odd->result.value_or(-1);
        call.error = odd->error;
    }
    if (call.error != 0) {
        error = call.error;
    } else if (odd != nullptr && odd->stray_error != 0 && call.result >= 0) {
        error = odd->stray_error;
    }
    call.locked = locked;
    answer = call.result;
    Balance(call);
    if (odd != nullptr && odd->card != CardMove::Stays) {
        variables[kCard] = odd->card == CardMove::Leaves ? 0 : 1;
        variables[kChanged] = 1;
    }
    expected.calls.push_back(std::move(call));
}

// Descriptors and blocks. A file that is closed is closed, whatever is answered.
void Rules::Machine::Balance(const ExpectedCall& call)
{
    const bool took = reached && call.error == 0;
    switch (call.kind) {
        case CallKind::Open:
            variables[kFiles] += took ? 1 : 0;
            break;
        case CallKind::Close:
            variables[kFiles] -= reached ? 1 : 0;
            break;
        case CallKind::Malloc:
            variables[kBlocks] += took ? 1 : 0;
            break;
        case CallKind::Free:
            variables[kBlocks]--;
            break;
        default:
            break;
    }
}

bool Rules::Machine::Holds(const Condition& condition) const
{
    using Of = Condition::Of;
    int64_t value = 0;
    switch (condition.of) {
        case Of::Error:
            return error == condition.value;
        case Of::NotError:
            return error != condition.value;
        case Of::EventsAre:
            return events == condition.value;
        case Of::EventsHave:
            return (events & condition.value) != 0;
        case Of::Reached:
            return reached;
        case Of::Seen:
            return seen;
        case Of::Answer:
            value = answer;
            break;
        case Of::Variable:
            value = variables[condition.variable];
            break;
    }
    switch (condition.relation) {
        case '<':
            return value < condition.value;
        case '>':
            return value > condition.value;
        case 'G':
            return value >= condition.value;
        default:
            return value == condition.value;
    }
}

int64_t Rules::Machine::Value(const std::string& text) const
{
    if (IsNumber(text)) {
        return Number(text);
    }
    if (text == "-errno") {
        return -error;
    }
    if (text == "answer") {
        return answer;
    }
    return text == "unknown" ? 0 : variables[PlaceOf(text)];
}

void Rules::Machine::Do(const Effect& effect)
{
    switch (effect.what) {
        case 'l':
            locked = true;
            break;
        case 'u':
            locked = false;
            break;
        case '+':
            variables[effect.variable] += effect.value;
            break;
        case 'a':
            variables[effect.variable] = answer;
            break;
        case 'v':
            variables[effect.variable] = variables[effect.other];
            break;
        default:
            variables[effect.variable] = effect.value;
            break;
    }
}

// "E zel:Zel_Init: text"
void Rules::Machine::Say(const std::string& text)
{
    if (text.empty()) {
        return;
    }
    std::string line = text.substr(2);
    if (text[0] != 'P') {
        const size_t end = line.find(": ");
        line = "[" + line.substr(0, end) + "(#)](" + text[0] + ")" + line.substr(end + 2);
    }
    std::string filled;
    for (size_t i = 0; i < line.size(); i++) {
        const size_t end = line[i] == '{' ? line.find('}', i) : std::string::npos;
        if (end == std::string::npos) {
            filled += line[i];
            continue;
        }
        const std::string name = line.substr(i + 1, end - i - 1);
        filled += name == "errno" ? strerror(error) : std::to_string(Value(name));
        i = end;
    }
    if (filled.ends_with("~")) {
        filled.pop_back();
    } else {
        filled += "\n";
    }
    expected.printed += filled;
}

// The first rule that fits what happened.
const Rules::Rule& Rules::Machine::Choose(const Step& step) const
{
    for (const Rule& rule : step.rules) {
        bool holds = true;
        for (const Condition& condition : rule.when) {
            holds = holds && Holds(condition);
        }
        if (holds) {
            return rule;
        }
    }
    throw std::logic_error("no rule for what happened at " + step.name);
}

// "undefined" or "return X"
void Rules::Machine::End(const std::string& how)
{
    if (locked) {
        throw std::logic_error("a table ends with the lock held: " + how);
    }
    expected.any_outcome = how == "undefined";
    expected.any_result = how == "return unknown";
    expected.result = expected.any_outcome ? 0 : Value(how.substr(7));
    expected.error = error;
}

Expected Rules::Follow(const Plan& plan, int error_before, Variables* state) const
{
    Machine machine{.plan = plan, .error = error_before};
    machine.like.resize(plan.size());
    for (const auto& [name, value] : *state) {
        machine.variables[PlaceOf(name)] = value;
    }
    size_t table = 0;
    const Step* at = first_.at(0);
    for (int count = 0; at != nullptr; count++) {
        if (count == kMostSteps) {
            throw std::logic_error("the tables have no end at " + at->name);
        }
        machine.answer = 0;
        if (at->call) {
            machine.Make(*at);
        }
        const Rule& rule = machine.Choose(*at);
        *rule.taken = 1;
        machine.Say(rule.says);
        for (const Effect& effect : rule.effects) {
            machine.Do(effect);
        }
        if (rule.next == "end") {
            at = first_.at(++table);
        } else if (rule.next == "last") {
            at = first_.back();
        } else {
            at = rule.step;
        }
        if (at == nullptr) {
            machine.End(rule.next);
        }
    }
    for (auto& [name, value] : *state) {
        value = machine.variables[PlaceOf(name)];
    }
    return std::move(machine.expected);
}

}  // namespace faults
