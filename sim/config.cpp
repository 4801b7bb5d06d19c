// SPDX-License-Identifier: MIT
#include "sim/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "sim/mivo_driver.h"
#include "sim/ricoh_driver.h"
#include "sim/zel_driver.h"

namespace cardsim {

namespace {

using nlohmann::json;

// A misspelt key would silently change nothing; it is an error instead.
void AllowOnly(const json& object, const char* what, std::initializer_list<const char*> keys)
{
    if (!object.is_object()) {
        throw std::runtime_error(std::string(what) + " must be an object in braces");
    }
    for (const auto& item : object.items()) {
        const bool known = std::any_of(keys.begin(), keys.end(),
                                       [&](const char* key) { return item.key() == key; });
        if (!known) {
            throw std::runtime_error(std::string(what) + " knows no \"" + item.key() + "\"");
        }
    }
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
    const auto text = card.at(key).get<std::string>();
    const bool all_hex =
        std::all_of(text.begin(), text.end(), [](char digit) { return HexDigit(digit) >= 0; });
    if (text.size() != 2 * size || !all_hex) {
        throw std::runtime_error(std::string("\"") + key + "\" takes " + std::to_string(2 * size) +
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
    std::shared_ptr<ZelSlots> slots;   // once a slot is named
    std::shared_ptr<MivoUnits> units;  // once a unit of the adaptor is named

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

void AddCard(Setting& setting, const json& object)
{
    AllowOnly(object, "a card",
              {"driver", "unit", "image", "write_protected", "cid", "csd", "sd_status"});
    const auto driver = object.at("driver").get<std::string>();
    if (driver != "ricoh-sd" && driver != "zel" && driver != "mivo") {
        throw std::runtime_error("there is no driver \"" + driver +
                                 "\"; there are \"ricoh-sd\", \"zel\" and \"mivo\"");
    }
    const auto image = object.at("image").get<std::string>();
    if (image.empty()) {
        throw std::runtime_error("\"image\" is empty");
    }
    std::shared_ptr<Card> card =
        Card::FromImage(Beside(setting.file, image), object.value("write_protected", false));
    sim_card& model = card->model();
    SetRegister(object, "cid", model.cid, sizeof model.cid);
    SetRegister(object, "csd", model.csd, sizeof model.csd);
    SetRegister(object, "sd_status", model.sd_status, sizeof model.sd_status);
    if (driver == "zel") {
        setting.Slots().Insert(UnitIn(object, SIM_ZEL_SLOTS), std::move(card));
    } else if (driver == "mivo") {
        setting.Units().Insert(UnitIn(object, SIM_MIVO_UNITS), std::move(card));
    } else if (object.contains("unit")) {
        throw std::runtime_error("the \"ricoh-sd\" driver has no units");
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
        throw std::runtime_error(std::string("\"") + key + "\" counts from 1");
    }
    return count.get<uint64_t>();
}

// What takes out the card behind a node.
std::function<void()> EjectFrom(Setting& setting, const std::string& node)
{
    for (unsigned unit = 0; unit < SIM_ZEL_SLOTS; unit++) {
        if (node == ZelBlockNode(unit)) {
            setting.Slots();
            return [slots = setting.slots, unit] { slots->Eject(unit); };
        }
    }
    for (unsigned unit = 0; unit < SIM_MIVO_UNITS; unit++) {
        if (node == MivoNode(unit)) {
            setting.Units();
            return [units = setting.units, unit] { units->Eject(unit); };
        }
    }
    throw std::runtime_error("no card can be ejected from \"" + node + "\"");
}

void AddFault(Setting& setting, const json& object)
{
    AllowOnly(object, "a fault", {"call", "node", "request", "first", "times", "errno", "eject"});
    Fault fault;
    fault.kind = KindNamed(object.at("call").get<std::string>());
    fault.node = object.value("node", "");
    if (object.contains("request")) {
        fault.request = RequestNumber(object.at("request").get<std::string>());
    }
    fault.first = CountIn(object, "first");
    fault.times = CountIn(object, "times");
    if (object.contains("errno")) {
        fault.error = ErrnoNamed(object.at("errno").get<std::string>());
    }
    if (object.contains("eject")) {
        fault.then = EjectFrom(setting, object.at("eject").get<std::string>());
    }
    if (fault.error == 0 && !fault.then) {
        throw std::runtime_error("a fault needs \"errno\" or \"eject\"");
    }
    setting.kernel.Inject(std::move(fault));
}

void AddFromDescription(Kernel& kernel, const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(std::strerror(errno));
    }
    const json description = json::parse(file);
    AllowOnly(description, "the description", {"cards", "faults"});
    Setting setting = {kernel, path, nullptr, nullptr};
    for (const json& card : description.at("cards")) {
        AddCard(setting, card);
    }
    for (const json& fault : description.value("faults", json::array())) {
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
