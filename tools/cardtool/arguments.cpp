// SPDX-License-Identifier: MIT
#include "tools/cardtool/arguments.h"

#include <algorithm>
#include <sstream>

#include <CLI/CLI.hpp>

#include "tools/cardtool/failure.h"
#include "tools/cardtool/generate.h"
#include "tools/cardtool/table.h"

namespace {

void AddOption(CLI::App& app, const Option& option, Arguments& arguments)
{
    if (option.value == nullptr) {
        app.add_flag_callback(option.names, [&] { option.take(arguments, ""); }, option.help);
        return;
    }
    const auto take = [&](const std::string& value) { option.take(arguments, value); };
    CLI::Option* added = app.add_option_function<std::string>(option.names, take, option.help);
    added->type_name(option.value)->required(option.required);
    if (option.choices != nullptr) {
        added->check(CLI::IsMember(Words(option.choices)));
    }
}

void AddCommand(CLI::App& app, const CommandEntry& entry, Arguments& arguments)
{
    CLI::App* added = app.add_subcommand(entry.name, entry.purpose);
    if (entry.operand != Operand::None) {
        const auto take = [&](const std::string& value) {
            TakeOperand(entry.operand, arguments, value);
        };
        added
            ->add_option_function<std::string>(OperandName(entry.operand), take,
                                               OperandHelp(entry.operand))
            ->required();
    }
    for (const Option& option : entry.options) {
        AddOption(*added, option, arguments);
    }
    const std::string details = entry.details == nullptr ? "" : std::string(entry.details) + "\n";
    added->footer(details + "Examples:\n" + ExampleText(entry) +
                  "cardtool --help has the options of every command, and the exit codes.");
    added->callback([&] { arguments.command = entry.command; });
}

std::string Indented(const std::string& text, const std::string& indent)
{
    std::istringstream lines(text);
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        result += indent + line + "\n";
    }
    return result;
}

std::string Footer()
{
    std::string text = "Examples:\n";
    for (const CommandEntry& entry : Commands()) {
        text += ExampleText(entry);
    }
    return text + "\nOutput:\n" + Indented(kOutputText, "  ") + "\nSimulated cards:\n" +
           Indented(kSimulationText, "  ") + Indented(kSimulationExample, "    ") +
           Indented(kSimulationNodes, "  ") + "\nExit codes:\n" + ExitCodeText();
}

}  // namespace

bool WantsJson(int argc, char** argv)
{
    return std::any_of(argv, argv + argc,
                       [](const char* argument) { return std::string(argument) == "--json"; });
}

std::optional<Arguments> ParseArguments(int argc, char** argv, Output& results)
{
    Arguments arguments;
    std::string generated;
    CLI::App app("Look at, read and write memory cards, sector by sector.", "cardtool");
    app.set_version_flag("--version", "cardtool " CARDTOOL_VERSION);
    app.set_help_flag("-h,--help", "Show this text, or a command's own after its name");
    app.footer(Footer());
    app.require_subcommand(0, 1);
    app.fallthrough();
    for (const Option& option : GlobalOptions()) {
        AddOption(app, option, arguments);
    }
    // What the build installs; an empty group keeps it out of the help.
    app.add_option("--generate", generated)->check(CLI::IsMember(GeneratedKinds()))->group("");
    for (const CommandEntry& entry : Commands()) {
        AddCommand(app, entry, arguments);
    }
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty() && generated.empty()) {
            throw CLI::RequiredError("A subcommand");
        }
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
    if (!generated.empty()) {
        results.Write(Generate(generated));
        return std::nullopt;
    }
    return arguments;
}
