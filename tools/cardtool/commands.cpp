// SPDX-License-Identifier: MIT
#include "tools/cardtool/commands.h"

#include <algorithm>
#include <charconv>
#include <memory>

#include "sim/config.h"
#include "tools/cardtool/registers.h"
#include "tools/cardtool/transfer.h"

namespace {

constexpr size_t kColumn = 20;  // where values stand

std::string Line(std::string label, const std::string& value)
{
    label += ':';
    label.resize(kColumn, ' ');
    return label + value + "\n";
}

// A number in `base` with leading zeros up to `width` digits.
std::string Digits(unsigned number, int base, size_t width)
{
    char text[32];
    const std::to_chars_result written = std::to_chars(text, text + sizeof text, number, base);
    const std::string digits(text, written.ptr);
    return std::string(width - std::min(width, digits.size()), '0') + digits;
}

std::string Capacity(uint64_t bytes)
{
    return SectorCount(bytes / CARD_SECTOR_SIZE) + ", " + std::to_string(bytes) + " bytes";
}

std::string OnOff(bool on)
{
    return on ? "on" : "off";
}

std::string SizeText(Device& device)
{
    return Capacity(uint64_t{device.Sectors()} * CARD_SECTOR_SIZE);
}

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

std::string CsdText(const CardInfo& info)
{
    Register reg;
    std::copy(info.csd, info.csd + sizeof info.csd, reg.begin());
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

std::string SdStatusText(Device& device)
{
    const auto status = device.SdStatus();
    std::string text;
    for (size_t at = 0; at < status.size(); at += 16) {
        const std::string row = Hex(status.data() + at, 16);
        text += at == 0 ? Line("SD status", row) : std::string(kColumn, ' ') + row + "\n";
    }
    return text;
}

// Each part stands for itself: one that fails does not hide the next, and the
// first failure is the command's.
void ShowInfo(Device& device, Output& results)
{
    std::unique_ptr<Failure> failed;
    const auto part = [&](const auto& text) {
        try {
            results.Write(text());
        } catch (const Failure& failure) {
            if (!failed) {
                failed = std::make_unique<Failure>(failure);
            }
        }
    };
    part([&] { return Line("device", device.path()) + Line("back-end", device.BackEnd()); });
    part([&] { return Line("size", SizeText(device)); });
    part([&] { return Line("write protection", OnOff(device.IsWriteProtected())); });
    part([&] {
        const CardInfo info = device.Info();
        return CidText(info, device.type()) + CsdText(info);
    });
    part([&] { return SdStatusText(device); });
    if (failed) {
        throw Failure(*failed);
    }
}

void ShowStatus(Device& device, Output& results)
{
    const unsigned status = device.Status();
    const char* meaning = (status & CARD_STATUS_READY) != 0 ? " (ready)" : " (not ready)";
    results.Write(Line("status word", "0x" + Digits(status, 16, 4) + meaning));
    results.Write(Line("write protection", OnOff(device.IsWriteProtected())));
}

std::string Done(const char* what, const Range& range, const std::string& device)
{
    return std::string(what) + " " + SectorCount(range.count) + " of " + device + " from sector " +
           std::to_string(range.first) + "\n";
}

void ReadCard(const Arguments& arguments, Device& device, Output& results)
{
    const uint32_t there = SectorsFrom(device, arguments.first);
    const Range range = {arguments.first, arguments.count.value_or(there), arguments.direct};
    if (range.count > there) {
        throw Failure(ExitCode::Usage,
                      "there is only " + SectorCount(there) + " from sector " +
                          std::to_string(range.first) + " to the end of " + device.path(),
                      "give a smaller --count, or none to read to the end");
    }
    if (arguments.file == "-") {
        ReadSectors(device, range, results);
        return;
    }
    if (!arguments.sim.empty() && IsSameFile(arguments.file, arguments.sim)) {
        throw Failure(ExitCode::Usage, arguments.file + " is the simulated card itself",
                      "name another file with -o");
    }
    Output file(arguments.file);
    ReadSectors(device, range, file);
    file.Close();
    results.Write(Done("read", range, device.path()));
}

Range RangeFor(const Input& input, const Arguments& arguments, uint64_t room)
{
    if (input.size() > room) {
        throw Failure(ExitCode::Usage,
                      input.name() + " does not fit: from sector " +
                          std::to_string(arguments.first) + " there is room for " +
                          SectorCount(room / CARD_SECTOR_SIZE),
                      "nothing was written; give a smaller --first or less input");
    }
    if (input.size() == 0 || input.size() % CARD_SECTOR_SIZE != 0) {
        throw Failure(ExitCode::Usage,
                      input.name() + " holds " + std::to_string(input.size()) +
                          " bytes: that is no whole number of 512-byte sectors",
                      "nothing was written; fill the input up with zeros (truncate -s %512 FILE)");
    }
    return {arguments.first, static_cast<uint32_t>(input.size() / CARD_SECTOR_SIZE),
            arguments.direct};
}

void WriteCard(const Arguments& arguments, Device& device, Output& results)
{
    if (device.IsWriteProtected()) {
        throw Failure(ExitCode::ReadOnly, "the card in " + device.path() + " is write-protected",
                      "take the card out, slide its lock open, and try again");
    }
    const uint64_t room = uint64_t{SectorsFrom(device, arguments.first)} * CARD_SECTOR_SIZE;
    Input input(arguments.file, room);
    const Range range = RangeFor(input, arguments, room);
    if (!arguments.yes) {
        Confirm("Write " + SectorCount(range.count) + " to " + device.path() + " from sector " +
                    std::to_string(range.first) + "? Type yes: ",
                arguments.file == "-");
    }
    WriteSectors(device, range, input);
    results.Write(Done("wrote", range, device.path()));
}

void ShowFormatParams(uint32_t capacity, Output& results)
{
    static constexpr const char* kFileSystems[] = {"FAT12", "FAT16", "FAT32", "exFAT"};
    SdFormatParams params;
    if (CalcSdParams(capacity, &params) != 0) {
        throw Failure(ExitCode::Usage, "there is no layout for a card of " + SectorCount(capacity),
                      "the largest card that has one holds 1073741824 sectors (512 GiB)");
    }
    results.Write(Line("capacity", Capacity(uint64_t{capacity} * CARD_SECTOR_SIZE)) +
                  Line("file system", kFileSystems[params.fs_type]) +
                  Line("partition start", "sector " + std::to_string(params.partition_start)) +
                  Line("data start", "sector " + std::to_string(params.data_start)) +
                  Line("root directory", SectorCount(params.root_dir_sectors)));
}

std::unique_ptr<cardsim::Kernel> Simulation(const std::string& file)
{
    if (file.empty()) {
        return nullptr;
    }
    auto kernel = std::make_unique<cardsim::Kernel>();
    kernel->KeepCalls(false);
    try {
        cardsim::AddFromFile(*kernel, file);
    } catch (const std::exception& error) {
        throw Failure(ExitCode::Usage, error.what(),
                      "give --sim a card image, or a .json file as cardtool --help shows it");
    }
    return kernel;
}

}  // namespace

void RunCommand(const Arguments& arguments, Output& results)
{
    if (arguments.capacity) {
        ShowFormatParams(*arguments.capacity, results);
        return;
    }
    const std::unique_ptr<cardsim::Kernel> simulation = Simulation(arguments.sim);
    const DrvInfo detected = Detect(arguments.device);
    if (arguments.command == Command::Detect) {
        results.Write(arguments.device + ": " + BackEndOf(detected) + "\n");
        return;
    }
    Device device(detected);
    switch (arguments.command) {
        case Command::Size:
            results.Write(SizeText(device) + "\n");
            break;
        case Command::FormatParams:
            ShowFormatParams(device.Sectors(), results);
            break;
        case Command::Status:
            ShowStatus(device, results);
            break;
        case Command::Read:
            ReadCard(arguments, device, results);
            break;
        case Command::Write:
            WriteCard(arguments, device, results);
            break;
        default:
            ShowInfo(device, results);
            break;
    }
}
