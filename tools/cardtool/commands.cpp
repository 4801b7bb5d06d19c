// SPDX-License-Identifier: MIT
#include "tools/cardtool/commands.h"

#include <memory>
#include <vector>

#include "sim/config.h"
#include "tools/cardtool/info.h"
#include "tools/cardtool/moves.h"
#include "tools/cardtool/nodes.h"
#include "tools/cardtool/text.h"
#include "tools/cardtool/transfer.h"
#include "tools/cardtool/watch.h"

namespace {

void ShowSize(Device& device, Report& report)
{
    const uint32_t sectors = device.Sectors();
    report.Say(Capacity(uint64_t{sectors} * CARD_SECTOR_SIZE) + "\n");
    report.result = SizeJson(sectors);
}

void ShowStatus(Device& device, Report& report)
{
    const unsigned status = device.Status();
    const bool ready = (status & CARD_STATUS_READY) != 0;
    report.Say(
        Line("status word", "0x" + Digits(status, 16, 4) + (ready ? " (ready)" : " (not ready)")));
    report.result = {{"status", status}, {"ready", ready}, {"write_protected", nullptr}};
    const bool locked = device.IsWriteProtected();
    report.Say(Line("write protection", OnOff(locked)));
    report.result["write_protected"] = locked;
}

void ShowWriteProtect(Device& device, Report& report)
{
    const bool locked = device.IsWriteProtected();
    report.Say(OnOff(locked) + "\n");
    report.result = {{"write_protected", locked}};
}

Json OrNull(std::optional<unsigned> value)
{
    return value ? Json(*value) : Json();
}

void ControlRt(const Arguments& arguments, Device& device, Report& report)
{
    if (arguments.rt) {
        *arguments.rt == "lock" ? device.LockRt() : device.UnlockRt();
    }
    const auto shown = [](std::optional<unsigned> byte) {
        return byte ? std::to_string(*byte) : std::string("not offered by this back-end");
    };
    const std::optional<unsigned> status = device.Rt();
    const std::optional<unsigned> delay = device.RtDelay();
    const std::optional<unsigned> wait = device.RtOnForWait();
    report.Say(Line("real time", shown(status)) + Line("delay", shown(delay)) +
               Line("on for a wait", shown(wait)));
    report.result = {{"status", OrNull(status)},
                     {"delay", OrNull(delay)},
                     {"on_for_wait", OrNull(wait)},
                     {"set", arguments.rt ? Json(*arguments.rt) : Json()}};
}

void SendCommand(const Arguments& arguments, Device& device, Report& report)
{
    if (!arguments.yes) {
        Confirm("Send card command " + std::to_string(arguments.number) + " with argument " +
                    std::to_string(arguments.argument) + " to " + ForTerminal(device.path()) +
                    "? Type yes: ",
                false);
    }
    device.Command(arguments.number, arguments.argument);
    report.Say("card command " + std::to_string(arguments.number) + " was carried out\n");
    report.result = {{"command", arguments.number}, {"argument", arguments.argument}};
}

void ShowDetected(const DrvInfo& detected, Report& report)
{
    report.Say(ForTerminal(detected.dev_path) + ": " + BackEndOf(detected) + "\n");
    report.result = {{"back_end", BackEndName(detected)}, {"unit", detected.dev_index}};
}

// A simulated /dev cannot be listed, and its cards have the usual names.
void ListNodes(const Arguments& arguments, Report& report)
{
    std::vector<std::string> paths = UsualNodes();
    if (arguments.sim.empty()) {
        const std::vector<std::string> others = NodesBelow("/dev");
        paths.insert(paths.end(), others.begin(), others.end());
    }
    Json& nodes = (report.result = Json::object())["nodes"] = Json::array();
    for (const DrvInfo& node : CardNodes(paths)) {
        report.Say(ForTerminal(node.dev_path) + ": " + BackEndOf(node) + "\n");
        nodes.push_back(
            {{"device", node.dev_path}, {"back_end", BackEndName(node)}, {"unit", node.dev_index}});
    }
    if (nodes.empty()) {
        report.Say("there are no nodes of card devices\n");
    }
}

void ShowFormatParams(uint32_t capacity, Report& report)
{
    static constexpr const char* kFileSystems[] = {"FAT12", "FAT16", "FAT32", "exFAT"};
    SdFormatParams params;
    if (CalcSdParams(capacity, &params) != 0) {
        throw Failure(ExitCode::Usage, "there is no layout for a card of " + SectorCount(capacity),
                      "the largest card that has one holds 1073741824 sectors (512 GiB)");
    }
    report.Say(Line("capacity", Capacity(uint64_t{capacity} * CARD_SECTOR_SIZE)) +
               Line("file system", kFileSystems[params.fs_type]) +
               Line("partition start", "sector " + std::to_string(params.partition_start)) +
               Line("data start", "sector " + std::to_string(params.data_start)) +
               Line("root directory", SectorCount(params.root_dir_sectors)));
    report.result = {{"capacity_sectors", capacity},
                     {"capacity_bytes", uint64_t{capacity} * CARD_SECTOR_SIZE},
                     {"file_system", kFileSystems[params.fs_type]},
                     {"partition_start", params.partition_start},
                     {"data_start", params.data_start},
                     {"root_directory_sectors", params.root_dir_sectors}};
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

void RunCommand(const Arguments& arguments, Report& report)
{
    if (arguments.command == Command::Decode) {
        DecodeRegisters(arguments, report);
        return;
    }
    if (arguments.capacity) {
        ShowFormatParams(*arguments.capacity, report);
        return;
    }
    const std::unique_ptr<cardsim::Kernel> simulation = Simulation(arguments.sim);
    if (arguments.command == Command::List) {
        ListNodes(arguments, report);
        return;
    }
    const DrvInfo detected = Detect(arguments.device);
    if (arguments.command == Command::Detect) {
        ShowDetected(detected, report);
        return;
    }
    if (arguments.command == Command::Watch) {
        WatchCard(arguments, detected, report);
        return;
    }
    Device device(detected);
    switch (arguments.command) {
        case Command::Size:
            ShowSize(device, report);
            break;
        case Command::WriteProtect:
            ShowWriteProtect(device, report);
            break;
        case Command::FormatParams:
            ShowFormatParams(device.Sectors(), report);
            break;
        case Command::Status:
            ShowStatus(device, report);
            break;
        case Command::Read:
        case Command::Backup:
            ReadCard(arguments, device, report);
            break;
        case Command::Write:
        case Command::Restore:
            WriteCard(arguments, device, report);
            break;
        case Command::Verify:
            VerifyCard(arguments, device, report);
            break;
        case Command::Bench:
            BenchCard(arguments, device, report);
            break;
        case Command::Rt:
            ControlRt(arguments, device, report);
            break;
        case Command::Ioctl:
            SendCommand(arguments, device, report);
            break;
        default:
            ShowInfo(arguments, device, report);
            break;
    }
}
