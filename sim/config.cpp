// SPDX-License-Identifier: MIT
#include "sim/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"

namespace cardsim {

namespace {

using nlohmann::json;

// "must be a string, not a number"
[[noreturn]] void RefuseType(const std::string& what, const char* wanted, const json& found)
{
    throw std::runtime_error(what + " must be " + wanted + ", not " +
                             (found.is_null()      ? "null"
                              : found.is_boolean() ? "true or false"
                              : found.is_number()  ? "a number"
                              : found.is_string()  ? "a string"
                              : found.is_array()   ? "a list"
                                                   : "an object"));
}

std::string Quoted(const char* key)
{
    return std::string("\"") + key + "\"";
}

// A misspelt key would silently change nothing; it is an error instead.
void AllowOnly(const json& object, const char* what, std::initializer_list<const char*> keys)
{
    if (!object.is_object()) {
        RefuseType(what, "an object in braces", object);
    }
    for (const auto& item : object.items()) {
        const bool known = std::any_of(keys.begin(), keys.end(),
                                       [&](const char* key) { return item.key() == key; });
        if (!known) {
            throw std::runtime_error(std::string(what) + " knows no \"" + item.key() + "\"");
        }
    }
}

// `what` is who needs the key: "a card".
std::string Text(const json& object, const char* what, const char* key)
{
    if (!object.contains(key)) {
        throw std::runtime_error(std::string(what) + " needs " + Quoted(key));
    }
    const json& value = object.at(key);
    if (!value.is_string()) {
        RefuseType(Quoted(key), "a string", value);
    }
    return value.get<std::string>();
}

bool Flag(const json& object, const char* key)
{
    const json value = object.value(key, json(false));
    if (!value.is_boolean()) {
        RefuseType(Quoted(key), "true or false", value);
    }
    return value.get<bool>();
}

// An empty list where it is not said.
json List(const json& object, const char* key)
{
    json value = object.value(key, json::array());
    if (!value.is_array()) {
        RefuseType(Quoted(key), "a list in brackets", value);
    }
    return value;
}

int HexDigit(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

void SetRegister(const json& card, const char* key, uint8_t* reg, size_t size)
{
    if (!card.contains(key)) {
        return;
    }
    const std::string text = Text(card, "a card", key);
    const bool all_hex =
        std::all_of(text.begin(), text.end(), [](char digit) { return HexDigit(digit) >= 0; });
    if (text.size() != 2 * size || !all_hex) {
        throw std::runtime_error(Quoted(key) + " takes " + std::to_string(2 * size) +
                                 " hexadecimal digits");
    }
    for (size_t i = 0; i < size; i++) {
        reg[i] = static_cast<uint8_t>(HexDigit(text[2 * i]) * 16 + HexDigit(text[2 * i + 1]));
    }
}

std::string Beside(const std::string& file, const std::string& name)
{
    const size_t slash = file.rfind('/');
    return name.front() == '/' || slash == std::string::npos ? name
                                                             : file.substr(0, slash + 1) + name;
}

// What a description has brought about so far.
struct Setting {
    Kernel& kernel;
    std::string file;
    std::shared_ptr<ZelSlots> slots;                          // once a slot is named
    std::shared_ptr<MivoUnits> units;                         // once a unit of the adaptor is named
    std::map<std::string, std::shared_ptr<Card>> cards = {};  // by the slot's node

    ZelSlots& Slots()
    {
        if (!slots) {
            slots = ZelSlots::Create(kernel);
        }
        return *slots;
    }

    MivoUnits& Units()
    {
        if (!units) {
            units = MivoUnits::Create(kernel);
        }
        return *units;
    }
};

unsigned UnitIn(const json& object, unsigned units)
{
    const json unit = object.value("unit", json(0u));
    if (!unit.is_number_unsigned() || unit.get<uint64_t>() >= units) {
        throw std::runtime_error("\"unit\" goes from 0 to " + std::to_string(units - 1));
    }
    return unit.get<unsigned>();
}

// The node that programs reach a card's slot by.
std::string NodeOf(const json& card, const std::string& driver)
{
    if (driver == "zel") {
        return ZelBlockNode(UnitIn(card, SIM_ZEL_SLOTS));
    }
    if (driver == "mivo") {
        return MivoNode(UnitIn(card, SIM_MIVO_UNITS));
    }
    if (driver != "ricoh-sd") {
        throw std::runtime_error("there is no driver \"" + driver +
                                 "\"; there are \"ricoh-sd\", \"zel\" and \"mivo\"");
    }
    if (card.contains("unit")) {
        throw std::runtime_error("the \"ricoh-sd\" driver has no units");
    }
    return kRicohNode;
}

void AddCard(Setting& setting, const json& object)
{
    AllowOnly(object, "a card",
              {"driver", "unit", "image", "write_protected", "cid", "csd", "sd_status"});
    const std::string driver = Text(object, "a card", "driver");
    const std::string node = NodeOf(object, driver);
    if (setting.cards.count(node) != 0) {
        throw std::runtime_error("there are two cards for " + node);
    }
    const std::string image = Text(object, "a card", "image");
    if (image.empty()) {
        throw std::runtime_error("\"image\" is empty");
    }
    std::shared_ptr<Card> card =
        Card::FromImage(Beside(setting.file, image), Flag(object, "write_protected"));
    sim_card& model = card->model();
    SetRegister(object, "cid", model.cid, sizeof model.cid);
    SetRegister(object, "csd", model.csd, sizeof model.csd);
    SetRegister(object, "sd_status", model.sd_status, sizeof model.sd_status);
    setting.cards[node] = card;
    if (driver == "zel") {
        setting.Slots().Insert(UnitIn(object, SIM_ZEL_SLOTS), std::move(card));
    } else if (driver == "mivo") {
        setting.Units().Insert(UnitIn(object, SIM_MIVO_UNITS), std::move(card));
    } else {
        AddRicohCard(setting.kernel, std::move(card));
    }
}

CallKind KindNamed(const std::string& name)
{
    static constexpr std::pair<const char*, CallKind> kNames[] = {
        {"stat", CallKind::Stat},   {"open", CallKind::Open}, {"close", CallKind::Close},
        {"seek", CallKind::Seek},   {"read", CallKind::Read}, {"write", CallKind::Write},
        {"ioctl", CallKind::Ioctl}, {"poll", CallKind::Poll},
    };
    for (const auto& known : kNames) {
        if (name == known.first) {
            return known.second;
        }
    }
    throw std::runtime_error("a fault's \"call\" cannot be \"" + name + "\"");
}

int ErrnoNamed(const std::string& name)
{
    for (int number = 1; number < 256; number++) {
        const char* known = strerrorname_np(number);
        if (known != nullptr && name == known) {
            return number;
        }
    }
    throw std::runtime_error("there is no errno value \"" + name + "\"");
}

uint32_t RequestNumber(const std::string& text)
{
    char* end = nullptr;
    const unsigned long long number = std::strtoull(text.c_str(), &end, 0);
    // Signs and blanks are strtoull's to accept, not ours.
    if (HexDigit(text.c_str()[0]) < 0 || end != text.c_str() + text.size() || number > UINT32_MAX) {
        throw std::runtime_error("\"" + text + "\" is no request number");
    }
    return static_cast<uint32_t>(number);
}

// How often, or the how manieth: from 1 on, and 1 where it is not said.
uint64_t CountIn(const json& object, const char* key)
{
    const json count = object.value(key, json(1u));
    if (!count.is_number_unsigned() || count.get<uint64_t>() == 0) {
        throw std::runtime_error(Quoted(key) + " counts from 1");
    }
    return count.get<uint64_t>();
}

// What names a node that is not there would never come about.
void RequireNode(const Setting& setting, const std::string& node)
{
    if (!setting.kernel.HasNode(node)) {
        throw std::runtime_error("a fault names " + node + ", and no card has such a node");
    }
}

// What takes out the card behind a node.
std::function<void()> EjectFrom(Setting& setting, const std::string& node)
{
    for (unsigned unit = 0; unit < SIM_ZEL_SLOTS; unit++) {
        if (node == ZelBlockNode(unit)) {
            RequireNode(setting, node);
            return [slots = setting.slots, unit] { slots->Eject(unit); };
        }
    }
    for (unsigned unit = 0; unit < SIM_MIVO_UNITS; unit++) {
        if (node == MivoNode(unit)) {
            RequireNode(setting, node);
            return [units = setting.units, unit] { units->Eject(unit); };
        }
    }
    throw std::runtime_error("no card can be ejected from \"" + node + "\"");
}

// What puts the card back that the description has for a node.
std::function<void()> InsertInto(Setting& setting, const std::string& node)
{
    const auto found = setting.cards.find(node);
    if (found == setting.cards.end() || node == kRicohNode) {
        throw std::runtime_error("no card can be put back into \"" + node + "\"");
    }
    for (unsigned unit = 0; unit < SIM_MIVO_UNITS; unit++) {
        if (node == MivoNode(unit)) {
            return
                [units = setting.units, unit, card = found->second] { units->Insert(unit, card); };
        }
    }
    const auto unit = static_cast<unsigned>(node.back() - 'a');
    return [slots = setting.slots, unit, card = found->second] { slots->Insert(unit, card); };
}

void AddFault(Setting& setting, const json& object)
{
    AllowOnly(object, "a fault",
              {"call", "node", "request", "first", "times", "errno", "eject", "insert"});
    Fault fault;
    fault.kind = KindNamed(Text(object, "a fault", "call"));
    if (object.contains("node")) {
        fault.node = Text(object, "a fault", "node");
        // These two are asked of any path.
        if (fault.kind != CallKind::Stat && fault.kind != CallKind::Open) {
            RequireNode(setting, fault.node);
        }
    }
    if (object.contains("request")) {
        fault.request = RequestNumber(Text(object, "a fault", "request"));
    }
    fault.first = CountIn(object, "first");
    fault.times = CountIn(object, "times");
    if (object.contains("errno")) {
        fault.error = ErrnoNamed(Text(object, "a fault", "errno"));
    }
    if (object.contains("eject")) {
        fault.then = EjectFrom(setting, Text(object, "a fault", "eject"));
    }
    if (object.contains("insert")) {
        if (fault.then) {
            throw std::runtime_error("a fault cannot \"eject\" and \"insert\" at once");
        }
        fault.then = InsertInto(setting, Text(object, "a fault", "insert"));
    }
    if (fault.error == 0 && !fault.then) {
        throw std::runtime_error("a fault needs \"errno\", \"eject\" or \"insert\"");
    }
    setting.kernel.Inject(std::move(fault));
}

json Parsed(std::istream& file)
{
    try {
        return json::parse(file);
    } catch (const json::parse_error& error) {
        // In front stands the JSON library's name for it.
        const std::string what = error.what();
        const size_t name_end = what.find("] ");
        throw std::runtime_error(name_end == std::string::npos ? what : what.substr(name_end + 2));
    }
}

void AddFromDescription(Kernel& kernel, const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(std::strerror(errno));
    }
    const json description = Parsed(file);
    AllowOnly(description, "the description", {"cards", "faults"});
    if (!description.contains("cards")) {
        throw std::runtime_error("the description needs \"cards\"");
    }
    Setting setting = {kernel, path, nullptr, nullptr};
    for (const json& card : List(description, "cards")) {
        AddCard(setting, card);
    }
    for (const json& fault : List(description, "faults")) {
        AddFault(setting, fault);
    }
}

}  // namespace

void AddFromFile(Kernel& kernel, const std::string& path)
{
    static constexpr char kJson[] = ".json";
    const bool is_description =
        path.size() >= sizeof kJson &&
        path.compare(path.size() - sizeof kJson + 1, std::string::npos, kJson) == 0;
    if (!is_description) {
        AddRicohCard(kernel, Card::FromImage(path));
        return;
    }
    try {
        AddFromDescription(kernel, path);
    } catch (const std::exception& error) {
        throw std::runtime_error("cannot use " + path + ": " + error.what());
    }
}

}  // namespace cardsim
