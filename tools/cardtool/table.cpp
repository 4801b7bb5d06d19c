// SPDX-License-Identifier: MIT
#include "tools/cardtool/table.h"

#include <charconv>

#include "tools/cardtool/failure.h"

namespace {

constexpr char kSeeHelp[] = "cardtool --help shows what can be asked, with examples";

// Digits only: no sign, no octal surprise from a leading zero.
uint32_t Number(const std::string& option, const std::string& text)
{
    uint32_t number = 0;
    const char* end = text.data() + text.size();
    const std::from_chars_result parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end) {
        throw Failure(ExitCode::Usage,
                      option + ": \"" + text + "\" is no number from 0 to 4294967295", kSeeHelp);
    }
    return number;
}

constexpr Option kFirst = {"--first",
                           "SECTOR",
                           "card sector to start at, counted from 0 (default: 0)",
                           false,
                           nullptr,
                           [](Arguments& arguments, const std::string& value) {
                               arguments.first = Number("--first", value);
                           }};

constexpr Option kCount = {"--count",
                           "SECTORS",
                           "how many sectors; all to the card's end if not given",
                           false,
                           nullptr,
                           [](Arguments& arguments, const std::string& value) {
                               arguments.count = Number("--count", value);
                               if (*arguments.count == 0) {
                                   throw Failure(ExitCode::Usage,
                                                 "--count: there is nothing to read in 0 sectors",
                                                 kSeeHelp);
                               }
                           }};

constexpr Option kDirect = {
    "--direct", nullptr, "by the driver's direct memory access, in scattered pieces",
    false,      nullptr, [](Arguments& arguments, const std::string&) { arguments.direct = true; }};

constexpr Option kOutput = {
    "-o,--output",
    "FILE",
    "file to write; - is standard output",
    true,
    nullptr,
    [](Arguments& arguments, const std::string& value) { arguments.file = value; }};

constexpr Option kInput = {
    "-i,--input",
    "FILE",
    "file to read, a whole number of 512-byte sectors; - is standard input",
    true,
    nullptr,
    [](Arguments& arguments, const std::string& value) { arguments.file = value; }};

constexpr Option kYes = {
    "--yes", nullptr, "do not ask",
    false,   nullptr, [](Arguments& arguments, const std::string&) { arguments.yes = true; }};

constexpr Option kGlobal[] = {
    {"--sim", "FILE", "simulate the cards that FILE describes", false, nullptr,
     [](Arguments& arguments, const std::string& value) { arguments.sim = value; }},
    {"--json", nullptr, "one JSON document on standard output, of failures, too", false, nullptr,
     [](Arguments& arguments, const std::string&) { arguments.json = true; }},
};

constexpr Option kSeek = {"--seek",
                          "SECTORS",
                          "go on in a file that was begun, behind so many sectors",
                          false,
                          nullptr,
                          [](Arguments& arguments, const std::string& value) {
                              arguments.in_file = Number("--seek", value);
                          }};

constexpr Option kSkip = {"--skip",
                          "SECTORS",
                          "leave out so many sectors at the file's start",
                          false,
                          nullptr,
                          [](Arguments& arguments, const std::string& value) {
                              arguments.in_file = Number("--skip", value);
                          }};

constexpr Option kNoVerify = {"--no-verify",
                              nullptr,
                              "do not read back and compare afterwards",
                              false,
                              nullptr,
                              [](Arguments& arguments, const std::string&) { arguments.verify = false; }};

constexpr Option kProgress = {
    "--progress",
    "HOW",
    "how to show progress; a bar on a terminal if not given",
    false,
    "bar plain json none",
    [](Arguments& arguments, const std::string& value) { arguments.progress = value; }};

constexpr Option kInfoOptions[] = {
    {"--fields", nullptr, "show every field of the registers: bits, raw number, value", false,
     nullptr, [](Arguments& arguments, const std::string&) { arguments.fields = true; }},
};
constexpr Option kDecodeOptions[] = {
    {"--cid", "HEX", "card identification, 32 hexadecimal digits", false, nullptr,
     [](Arguments& arguments, const std::string& value) { arguments.cid = value; }},
    {"--csd", "HEX", "card-specific data, 32 digits", false, nullptr,
     [](Arguments& arguments, const std::string& value) { arguments.csd = value; }},
    {"--scr", "HEX", "SD configuration, 16 digits", false, nullptr,
     [](Arguments& arguments, const std::string& value) { arguments.scr = value; }},
    {"--sd-status", "HEX", "SD status, 128 digits", false, nullptr,
     [](Arguments& arguments, const std::string& value) { arguments.sd_status = value; }},
};
constexpr Option kRtOptions[] = {
    {"--set", "WHAT", "lock real time on, or undo one lock", false, "lock unlock",
     [](Arguments& arguments, const std::string& value) { arguments.rt = value; }},
};
constexpr Option kIoctlOptions[] = {
    {"--command", "NUMBER", "card command to send", true, "2 3 4",
     [](Arguments& arguments, const std::string& value) {
         arguments.number = Number("--command", value);
     }},
    {"--argument", "NUMBER", "its argument, handed on as it is (default: 0)", false, nullptr,
     [](Arguments& arguments, const std::string& value) {
         arguments.argument = Number("--argument", value);
     }},
    kYes,
};
constexpr Option kReadOptions[] = {kFirst, kCount, kDirect, kOutput, kSeek, kProgress};
constexpr Option kWriteOptions[] = {kFirst,  kCount, kInput,    kSkip,
                                    kDirect, kYes,   kNoVerify, kProgress};
constexpr Option kVerifyOptions[] = {kFirst, kCount, kInput, kSkip, kDirect, kProgress};
constexpr Option kBackupOptions[] = {kOutput, kFirst, kSeek, kDirect, kNoVerify, kProgress};
constexpr Option kRestoreOptions[] = {kInput, kFirst, kSkip, kDirect, kYes, kNoVerify, kProgress};
constexpr Option kWatchOptions[] = {
    {"--events", "NUMBER", "end after so many ejects and insertions; 1 ends with the eject", false,
     nullptr,
     [](Arguments& arguments, const std::string& value) {
         arguments.events = Number("--events", value);
     }},
    {"--looks", "NUMBER", "end after so many looks; without an end if not given", false, nullptr,
     [](Arguments& arguments, const std::string& value) {
         arguments.looks = Number("--looks", value);
     }},
    {"--interval", "MS", "milliseconds between two looks, up to 60000 (default: 500)", false,
     nullptr,
     [](Arguments& arguments, const std::string& value) {
         arguments.interval = Number("--interval", value);
         if (arguments.interval > 60000) {
             throw Failure(ExitCode::Usage, "--interval: that is more than a minute", kSeeHelp);
         }
     }},
};
constexpr Example kWatchExamples[] = {
    {"cardtool watch /dev/spda", "Show each card that comes and goes, until interrupted."},
    {"cardtool watch /dev/spda --events 1", "Wait until the card is taken out."}};
constexpr char kWatchDetails[] =
    "The state comes first, also of a slot without a card. Then each eject and each\n"
    "insertion is shown when a look finds it: an exchange is both. SIGINT or SIGTERM ends\n"
    "the command, with exit code 0. With --json each of these is a document of its own, on\n"
    "one line, and a failure is the last one. After an eject the device is closed, and\n"
    "opened again when that succeeds; why it does not is said once. The Ricoh SD host\n"
    "notices no eject and cannot be watched: that ends the command with exit code 9.\n";
constexpr Option kBenchOptions[] = {kFirst, kCount, kDirect};
constexpr Example kBenchExamples[] = {
    {"cardtool bench /dev/spda --direct --count 65536",
     "How fast are 32 MiB of the card read? Nothing is written."}};
constexpr Example kVerifyExamples[] = {{"cardtool verify /dev/sdcarda -i boot.bin --first 2048",
                                        "Does the card hold what the file does?"}};
constexpr Example kBackupExamples[] = {
    {"cardtool backup /dev/sdcarda -o card.img", "Copy a whole card, and compare the copy."}};
constexpr Example kRestoreExamples[] = {
    {"cardtool restore /dev/sdcarda -i card.img",
     "Put the copy of a card on a card of the same size, and compare."}};

constexpr char kListDetails[] =
    "The usual names come first, then all other nodes in /dev and in its folders,\n"
    "one level deep. A device with several nodes is named once. Nothing is opened:\n"
    "the type and number of a node decide, so that a foreign device which has the\n"
    "number of a card device is named as well. Of simulated cards only the usual\n"
    "names are looked for: they have no others.\n";
constexpr Example kListExamples[] = {{"cardtool list", "Which card nodes are there?"}};
constexpr Example kDecodeExamples[] = {{"cardtool decode --cid 02544d534131364743001af44c0129e9",
                                        "What does this register say? No card is needed."}};
constexpr Example kWriteProtectExamples[] = {
    {"cardtool write-protect /dev/spda", "Is the card's lock on?"}};
constexpr Example kRtExamples[] = {
    {"cardtool rt /dev/spda", "Is real time on for the slots?"},
    {"cardtool rt /dev/spda --set lock", "Lock it on; --set unlock undoes that."}};
constexpr Example kIoctlExamples[] = {
    {"cardtool ioctl /dev/spda --command 2", "Send a card command, after a question."}};
constexpr Example kDetectExamples[] = {
    {"cardtool detect /dev/sdcarda", "Which back-end serves the device?"}};
constexpr Example kInfoExamples[] = {
    {"cardtool info /dev/sdcarda", "What is this card?"},
    {"cardtool --json info /dev/sdcarda", "The same for a program, with every field."},
    {"truncate -s 64M card.img && cardtool --sim card.img info /dev/sdcarda",
     "Try the tool without a card."}};
constexpr Example kSizeExamples[] = {{"cardtool size /dev/spda", "How large is the card?"}};
constexpr Example kStatusExamples[] = {{"cardtool status /dev/spda", "Is the card usable?"}};
constexpr Example kFormatParamsExamples[] = {
    {"cardtool format-params 15523840", "How is a card of that many sectors to be formatted?"}};
constexpr Example kReadExamples[] = {
    {"cardtool read /dev/sdcarda -o card.img", "Copy the whole card into a file."},
    {"cardtool read /dev/sdcarda --first 0 --count 1 -o - | hexdump -C",
     "Look at the card's first sector."},
    {"cardtool read /dev/spda --direct -o card.img",
     "Copy the card through the driver's direct memory access."}};
constexpr Example kWriteExamples[] = {{"cardtool write /dev/sdcarda -i boot.bin --first 2048",
                                       "Put a file's sectors on the card, after a question."}};

const CommandEntry kCommands[] = {
    {Command::List,
     "list",
     "Name the nodes of card devices that there are",
     Operand::None,
     {},
     kListExamples,
     kListDetails},
    {Command::Detect,
     "detect",
     "Say which back-end serves the device",
     Operand::Device,
     {},
     kDetectExamples},
    {Command::Info, "info", "Show the card's registers, decoded", Operand::Device, kInfoOptions,
     kInfoExamples},
    {Command::Decode, "decode", "Decode registers given in hexadecimal digits", Operand::None,
     kDecodeOptions, kDecodeExamples},
    {Command::Size, "size", "Show the card's size", Operand::Device, {}, kSizeExamples},
    {Command::Status,
     "status",
     "Show whether the card is usable",
     Operand::Device,
     {},
     kStatusExamples},
    {Command::WriteProtect,
     "write-protect",
     "Show whether the card is write-protected",
     Operand::Device,
     {},
     kWriteProtectExamples},
    {Command::FormatParams,
     "format-params",
     "Say how a card is to be formatted, by its capacity alone",
     Operand::Card,
     {},
     kFormatParamsExamples},
    {Command::Read, "read", "Copy sectors of the card into a file", Operand::Device, kReadOptions,
     kReadExamples},
    {Command::Write, "write", "Copy a file over sectors of the card, after a question",
     Operand::Device, kWriteOptions, kWriteExamples},
    {Command::Verify, "verify", "Compare sectors of the card with a file", Operand::Device,
     kVerifyOptions, kVerifyExamples},
    {Command::Backup, "backup", "Copy the whole card into a file, and compare", Operand::Device,
     kBackupOptions, kBackupExamples},
    {Command::Restore, "restore", "Copy a file over the whole card, after a question, and compare",
     Operand::Device, kRestoreOptions, kRestoreExamples},
    {Command::Bench, "bench", "Measure how fast sectors of the card are read", Operand::Device,
     kBenchOptions, kBenchExamples},
    {Command::Watch, "watch", "Show the card's state, and each eject and insertion",
     Operand::Device, kWatchOptions, kWatchExamples, kWatchDetails},
    {Command::Rt, "rt", "Show or lock real time of the card slots", Operand::Device, kRtOptions,
     kRtExamples},
    {Command::Ioctl, "ioctl", "Send a card command through the driver, after a question",
     Operand::Device, kIoctlOptions, kIoctlExamples},
};

}  // namespace

const char kOutputText[] =
    "Results go to standard output, and nothing else does. The library's\n"
    "diagnostics and the tool's own messages go to standard error.\n";

const char kSimulationText[] =
    "--sim takes the image of a card, which appears as /dev/sdcarda, or a .json\n"
    "file that describes cards and the faults they are to show:\n";

const char kSimulationExample[] =
    R"({"cards": [{"driver": "ricoh-sd", "image": "card.img",
            "write_protected": true},
           {"driver": "zel", "unit": 0, "image": "other.img"}],
 "faults": [{"call": "read", "first": 3, "errno": "EIO"},
            {"call": "ioctl", "node": "/dev/spdra", "first": 9,
             "eject": "/dev/spda"}]}
)";

const char kSimulationNodes[] =
    "Nodes are /dev/sdcarda for ricoh-sd, /dev/spda to /dev/spdf for zel, and\n"
    "/dev/mivosdif0 and 1 for mivo.\n"
    "Images are taken from the .json file's folder. Writes change the image.\n";

std::span<const CommandEntry> Commands()
{
    return kCommands;
}

std::span<const Option> GlobalOptions()
{
    return kGlobal;
}

std::string OperandName(Operand operand)
{
    switch (operand) {
        case Operand::Device:
            return "DEVICE";
        case Operand::Card:
            return "CARD";
        default:
            return "";
    }
}

std::string OperandHelp(Operand operand)
{
    return operand == Operand::Card ? "node of the card, or a number of sectors"
                                    : "node of the card, such as /dev/sdcarda";
}

// Digits are a capacity, anything else is a device.
void TakeOperand(Operand operand, Arguments& arguments, const std::string& value)
{
    if (operand == Operand::Card && value.find_first_not_of("0123456789") == std::string::npos) {
        arguments.capacity = Number("CARD", value);
    } else {
        arguments.device = value;
    }
}

std::string LongName(const Option& option)
{
    const std::string names = option.names;
    return names.substr(names.find("--"));
}

std::string ShortName(const Option& option)
{
    const std::string names = option.names;
    return names.substr(0, 2) == "--" ? "" : names.substr(0, 2);
}
