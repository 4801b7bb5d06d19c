// SPDX-License-Identifier: MIT
#include "tools/cardtool/info.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <vector>

#include "tools/cardtool/registers.h"
#include "tools/cardtool/text.h"

namespace {

std::string CidText(const CardInfo& info, int32_t dev_type)
{
    const Register reg = PlaceCid(info, dev_type);
    // The Zel back-end leaves the last byte out.
    const size_t delivered = dev_type == DEV_TYPE_ZEL ? 15 : 16;
    if (IsEmpty(reg.data(), delivered)) {
        return Line("CID", "empty: the driver delivered nothing");
    }
    const Cid cid = DecodeCid(info, dev_type);
    return Line("CID", Hex(reg.data(), delivered)) +
           Line("  manufacturer", "0x" + Digits(cid.manufacturer, 16, 2)) +
           Line("  OEM", Printable(cid.oem)) + Line("  product", Printable(cid.product)) +
           Line("  revision",
                std::to_string(cid.revision_major) + "." + std::to_string(cid.revision_minor)) +
           Line("  serial", "0x" + Digits(cid.serial, 16, 8)) +
           Line("  made", std::to_string(cid.year) + "-" + Digits(cid.month, 10, 2)) +
           Line("  CRC7", CrcText(cid.crc));
}

std::string CsdText(const Register& reg)
{
    if (IsEmpty(reg.data(), reg.size())) {
        return Line("CSD", "empty: the driver delivered nothing");
    }
    const Csd csd = DecodeCsd(reg);
    return Line("CSD", Hex(reg.data(), reg.size())) +
           Line("  version", std::to_string(csd.version)) +
           Line("  capacity",
                csd.capacity ? Capacity(*csd.capacity) : "not known in this version") +
           Line("  CRC7", CrcText(csd.crc));
}

std::string SdStatusText(const uint8_t* status)
{
    std::string text;
    for (size_t at = 0; at < CARD_SD_STATUS_SIZE; at += 16) {
        const std::string row = Hex(status + at, 16);
        text += at == 0 ? Line("SD status", row) : std::string(kColumn, ' ') + row + "\n";
    }
    return text;
}

std::string FieldsIfAsked(const Arguments& arguments, RegisterKind kind, const uint8_t* bytes)
{
    return arguments.fields && !IsEmpty(bytes, SizeOf(kind)) ? FieldText(FieldsOf(kind, bytes))
                                                             : "";
}

// What a driver did not deliver is not known.
Json OrNull(RegisterKind kind, const uint8_t* bytes, bool whole = true)
{
    return IsEmpty(bytes, SizeOf(kind)) ? Json() : RegisterJson(kind, bytes, whole);
}

void ShowRegisters(const Arguments& arguments, Device& device, Report& report)
{
    const CardInfo info = device.Info();
    const Register cid = PlaceCid(info, device.type());
    Register csd = {};
    std::copy(info.csd, info.csd + sizeof info.csd, csd.begin());
    report.Say(CidText(info, device.type()) +
               FieldsIfAsked(arguments, RegisterKind::Cid, cid.data()) + CsdText(csd) +
               FieldsIfAsked(arguments, RegisterKind::Csd, csd.data()));
    report.result["cid"] = OrNull(RegisterKind::Cid, cid.data(), device.type() != DEV_TYPE_ZEL);
    report.result["csd"] = OrNull(RegisterKind::Csd, csd.data());
}

void ShowSdStatus(const Arguments& arguments, Device& device, Report& report)
{
    const auto status = device.SdStatus();
    report.Say(SdStatusText(status.data()) +
               FieldsIfAsked(arguments, RegisterKind::SdStatus, status.data()));
    report.result["sd_status"] = RegisterJson(RegisterKind::SdStatus, status.data());
}

// Five bytes carry something.
void ShowSpeed(const Arguments& arguments, Device& device, Report& report)
{
    const std::optional<CardSpeedInfo> speed = device.Speed();
    if (speed) {
        const RegisterKind kind =
            device.type() == DEV_TYPE_MIVO ? RegisterKind::MivoSpeed : RegisterKind::ZelSpeed;
        report.Say(Line("speed record", Hex(speed->bytes, 5)) +
                   FieldsIfAsked(arguments, kind, speed->bytes));
        report.result["speed"] = RegisterJson(kind, speed->bytes);
    }
}

std::vector<uint8_t> FromHex(const std::string& option, const std::string& text, size_t size)
{
    std::vector<uint8_t> bytes(size);
    bool good = text.size() == 2 * size;
    for (size_t i = 0; good && i < size; i++) {
        const char* end = text.data() + 2 * i + 2;
        good = std::from_chars(end - 2, end, bytes[i], 16).ptr == end;
    }
    if (!good) {
        throw Failure(ExitCode::Usage,
                      option + " takes " + std::to_string(2 * size) + " hexadecimal digits",
                      "give the register most significant byte first, without blanks");
    }
    return bytes;
}

void DecodeOne(const char* key, const std::string& hex, RegisterKind kind, Report& report)
{
    report.result[key] = nullptr;
    if (hex.empty()) {
        return;
    }
    std::string option = std::string("--") + key;
    std::replace(option.begin(), option.end(), '_', '-');
    const std::vector<uint8_t> bytes = FromHex(option, hex, SizeOf(kind));
    const Json document = RegisterJson(kind, bytes.data());
    report.result[key] = document;
    std::string title = option.substr(2);
    std::transform(title.begin(), title.end(), title.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    std::string text = Line(title, Hex(bytes.data(), bytes.size()));
    if (document.contains("crc7")) {
        text += Line("  CRC7 is", document["crc7"].get<std::string>());
    }
    if (document.contains("capacity_bytes") && !document["capacity_bytes"].is_null()) {
        text += Line("  capacity", Capacity(document["capacity_bytes"].get<uint64_t>()));
    }
    if (document.contains("layer_version")) {
        text += Line("  version", document["layer_version"].get<std::string>());
    }
    report.Say(text + FieldText(FieldsOf(kind, bytes.data())));
}

}  // namespace

// Each part stands for itself: one that fails does not hide the next, and the
// first failure is the command's. No back-end offers the SCR.
void ShowInfo(const Arguments& arguments, Device& device, Report& report)
{
    std::unique_ptr<Failure> failed;
    const auto part = [&](const auto& show) {
        try {
            show();
        } catch (const Failure& failure) {
            if (!failed) {
                failed = std::make_unique<Failure>(failure);
            }
        }
    };
    report.result = {{"back_end", BackEndName(device.handle())},
                     {"unit", device.handle().dev_index},
                     {"size_sectors", nullptr},
                     {"size_bytes", nullptr},
                     {"write_protected", nullptr},
                     {"cid", nullptr},
                     {"csd", nullptr},
                     {"scr", nullptr},
                     {"sd_status", nullptr},
                     {"speed", nullptr}};
    part([&] {
        report.Say(Line("device", ForTerminal(device.path())) + Line("back-end", device.BackEnd()));
    });
    part([&] {
        const uint32_t sectors = device.Sectors();
        report.Say(Line("size", Capacity(uint64_t{sectors} * CARD_SECTOR_SIZE)));
        report.result.update(SizeJson(sectors));
    });
    part([&] {
        const bool locked = device.IsWriteProtected();
        report.Say(Line("write protection", OnOff(locked)));
        report.result["write_protected"] = locked;
    });
    part([&] { ShowRegisters(arguments, device, report); });
    part([&] { ShowSdStatus(arguments, device, report); });
    part([&] { ShowSpeed(arguments, device, report); });
    if (failed) {
        throw Failure(*failed);
    }
}

void DecodeRegisters(const Arguments& arguments, Report& report)
{
    if ((arguments.cid + arguments.csd + arguments.scr + arguments.sd_status).empty()) {
        throw Failure(ExitCode::Usage, "there is no register to decode",
                      "give at least one of --cid, --csd, --scr and --sd-status");
    }
    report.result = Json::object();
    DecodeOne("cid", arguments.cid, RegisterKind::Cid, report);
    DecodeOne("csd", arguments.csd, RegisterKind::Csd, report);
    DecodeOne("scr", arguments.scr, RegisterKind::Scr, report);
    DecodeOne("sd_status", arguments.sd_status, RegisterKind::SdStatus, report);
}
