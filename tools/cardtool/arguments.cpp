// SPDX-License-Identifier: MIT
#include "tools/cardtool/arguments.h"

#include <charconv>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cardtool/failure.h"

namespace {

constexpr char kExamples[] = R"(Examples:
  cardtool detect /dev/sdcarda
      Which back-end serves the device?
  cardtool read /dev/sdcarda -o card.img
      Copy the whole card into a file.
  cardtool read /dev/sdcarda --first 0 --count 1 -o - | hexdump -C
      Look at the card's first sector.
  cardtool write /dev/sdcarda -i boot.bin --first 2048
      Put a file's sectors on the card, after a question.
  cardtool read /dev/spda --direct -o card.img
      The same through the driver's direct memory access.
  cardtool format-params 15523840
      How is a card of that many sectors to be formatted?
  truncate -s 64M card.img
  cardtool --sim card.img info /dev/sdcarda
      Try the tool without a card.

Output:
  Results go to standard output, and nothing else does. The library's
  diagnostics and the tool's own messages go to standard error.

Simulated cards:
  --sim takes the image of a card, which appears as /dev/sdcarda, or a .json
  file that describes cards and the faults they are to show:
    {"cards": [{"driver": "ricoh-sd", "image": "card.img",
                "write_protected": true},
               {"driver": "zel", "unit": 0, "image": "other.img"}],
     "faults": [{"call": "read", "first": 3, "errno": "EIO"},
                {"call": "ioctl", "node": "/dev/spdra", "first": 9,
                 "eject": "/dev/spda"}]}
  Nodes are /dev/sdcarda for ricoh-sd, /dev/spda to /dev/spdf for zel, and
  /dev/mivosdif0 and 1 for mivo.
  Images are taken from the .json file's folder. Writes change the image.

Exit codes:
)";

// Digits only: no sign, no octal surprise from a leading zero.
uint32_t SectorNumber(const std::string& option, const std::string& text)
{
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        throw CLI::ValidationError(option, "\"" + text + "\" is no number from 0 to 4294967295");
    }
    return number;
}

CLI::App* AddCommand(CLI::App& app, Arguments& arguments, Command command, const char* name,
                     const char* what)
{
    CLI::App* added = app.add_subcommand(name, what);
    added->add_option("DEVICE", arguments.device, "node of the card, such as /dev/sdcarda")
        ->required();
    added->footer("cardtool --help has examples, --sim, and the exit codes.");
    added->callback([&arguments, command] { arguments.command = command; });
    return added;
}

void AddFirst(CLI::App* command, Arguments& arguments)
{
    const auto take = [&arguments](const std::string& text) {
        arguments.first = SectorNumber("--first", text);
    };
    command
        ->add_option_function<std::string>("--first", take,
                                           "card sector to start at, counted from 0")
        ->type_name("SECTOR")
        ->default_str("0");
}

void AddDirect(CLI::App* command, Arguments& arguments)
{
    command->add_flag("--direct", arguments.direct,
                      "by the driver's direct memory access, in scattered pieces");
}

// Digits are a capacity, anything else is a device.
void AddFormatParams(CLI::App& app, Arguments& arguments)
{
    CLI::App* added = app.add_subcommand(
        "format-params", "Say how a card is to be formatted, by its capacity alone");
    const auto take = [&arguments](const std::string& text) {
        if (text.find_first_not_of("0123456789") == std::string::npos) {
            arguments.capacity = SectorNumber("CARD", text);
        } else {
            arguments.device = text;
        }
    };
    added
        ->add_option_function<std::string>("CARD", take, "node of the card, or a number of sectors")
        ->required();
    added->callback([&arguments] { arguments.command = Command::FormatParams; });
}

void AddRead(CLI::App& app, Arguments& arguments)
{
    CLI::App* read =
        AddCommand(app, arguments, Command::Read, "read", "Copy sectors of the card into a file");
    AddFirst(read, arguments);
    const auto take_count = [&arguments](const std::string& text) {
        arguments.count = SectorNumber("--count", text);
        if (*arguments.count == 0) {
            throw CLI::ValidationError("--count", "there is nothing to read in 0 sectors");
        }
    };
    read->add_option_function<std::string>("--count", take_count,
                                           "how many sectors; all to the card's end if not given")
        ->type_name("SECTORS");
    AddDirect(read, arguments);
    read->add_option("-o,--output", arguments.file, "file to write; - is standard output")
        ->type_name("FILE")
        ->required();
}

void AddWrite(CLI::App& app, Arguments& arguments)
{
    CLI::App* write = AddCommand(app, arguments, Command::Write, "write",
                                 "Copy a file over sectors of the card, after a question");
    AddFirst(write, arguments);
    write
        ->add_option("-i,--input", arguments.file,
                     "file to read, a whole number of 512-byte sectors; - is standard input")
        ->type_name("FILE")
        ->required();
    AddDirect(write, arguments);
    write->add_flag("--yes", arguments.yes, "do not ask");
}

}  // namespace

std::optional<Arguments> ParseArguments(int argc, char** argv, Output& results)
{
    Arguments arguments;
    CLI::App app("Look at, read and write memory cards, sector by sector.", "cardtool");
    app.set_version_flag("--version", "cardtool " CARDTOOL_VERSION);
    app.set_help_flag("-h,--help", "Show this text, or a command's own after its name");
    app.footer(kExamples + ExitCodeText());
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--sim", arguments.sim, "Simulate the cards that FILE describes")
        ->type_name("FILE");

    AddCommand(app, arguments, Command::Detect, "detect", "Say which back-end serves the device");
    AddCommand(app, arguments, Command::Info, "info", "Show the card's registers, decoded");
    AddCommand(app, arguments, Command::Size, "size", "Show the card's size");
    AddCommand(app, arguments, Command::Status, "status", "Show whether the card is usable");
    AddFormatParams(app, arguments);
    AddRead(app, arguments);
    AddWrite(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
            throw Failure(ExitCode::Usage, error.what(),
                          "cardtool --help shows what can be asked, with examples");
        }
        std::ostringstream text;
        app.exit(error, text, text);
        results.Write(text.str());
        return std::nullopt;
    }
    return arguments;
}
