// SPDX-License-Identifier: MIT
#include "tools/cardtool/generate.h"

#include <sstream>

#include "tools/cardtool/failure.h"

namespace {

// ----------------------------------------------------------------- manual page

// Text of a page: a backslash is written out, a line never begins with a request, and
// an argument that looks like a macro is none.
std::string Escaped(const std::string& text)
{
    std::string result;
    bool at_start = true;
    for (const char c : text) {
        if (at_start && (c == '.' || c == '\'')) {
            result += "\\&";
        }
        at_start = c == '\n';
        if (c == '\\') {
            result += "\\e";
        } else if (c == '-') {
            result += "\\-";
        } else {
            result += c;
        }
    }
    return result;
}

// Sentences begin on lines of their own, as mdoc wants it.
std::string Prose(const std::string& text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        const bool ends = i >= 2 && text[i] == ' ' && text[i - 1] == '.';
        result += ends ? '\n' : text[i];
    }
    return Escaped(result);
}

std::string ManOption(const Option& option)
{
    const std::string shorter = ShortName(option);
    std::string text = ".It ";
    if (!shorter.empty()) {
        text += "Fl " + shorter.substr(1) + " , ";
    }
    text += "Fl \\-" + Escaped(LongName(option).substr(2));
    if (option.value != nullptr) {
        text += std::string(" Ar ") + option.value;
    }
    text += "\n" + Prose(option.help) + ".\n";
    if (option.choices != nullptr) {
        text += "One of " + Escaped(option.choices) + ".\n";
    }
    return text;
}

std::string ManOptions(std::span<const Option> options)
{
    std::string text = ".Bl -tag -width Ds\n";
    for (const Option& option : options) {
        text += ManOption(option);
    }
    return text + ".El\n";
}

std::string ManCommand(const CommandEntry& entry)
{
    std::string text = ".It Cm " + Escaped(entry.name);
    if (entry.operand != Operand::None) {
        text += " Ar " + OperandName(entry.operand);
    }
    if (!entry.options.empty()) {
        text += " Op Ar options";
    }
    text += "\n" + Prose(entry.purpose) + ".\n";
    text += entry.details == nullptr ? "" : Prose(entry.details);
    return entry.options.empty() ? text : text + ManOptions(entry.options);
}

std::string ManExamples()
{
    std::string text;
    for (const CommandEntry& entry : Commands()) {
        for (const Example& example : entry.examples) {
            text += (text.empty() ? "" : ".Pp\n") + Prose(example.what) + "\n.Pp\n.Dl " +
                    Escaped(example.line) + "\n";
        }
    }
    return text;
}

std::string ManExitCodes()
{
    std::string text = ".Bl -tag -width 3n\n";
    for (const Kind& kind : Kinds()) {
        text += ".It " + std::to_string(static_cast<int>(kind.code)) + "\n" + Prose(kind.meaning) +
                ".\n";
    }
    return text + ".El\n";
}

std::string Man()
{
    std::string text =
        ".\\\" SPDX-License-Identifier: MIT\n"
        ".Dd " CARDTOOL_DATE
        "\n.Dt CARDTOOL 1\n.Os\n"
        ".Sh NAME\n.Nm cardtool\n.Nd look at, read and write memory cards\n"
        ".Sh SYNOPSIS\n.Nm\n.Op Ar options\n.Ar command\n.Op Ar argument ...\n"
        ".Sh DESCRIPTION\n.Nm\ncarries out one command on the card behind a device node,\n"
        "through the card library.\n.Pp\n" +
        Prose(kOutputText) + ".Pp\nOptions that go with every command:\n" +
        ManOptions(GlobalOptions()) + ".Pp\nThe commands:\n.Bl -tag -width Ds\n";
    for (const CommandEntry& entry : Commands()) {
        text += ManCommand(entry);
    }
    return text + ".El\n.Ss Simulated cards\n" + Prose(kSimulationText) +
           ".Bd -literal -offset indent\n" + Escaped(kSimulationExample) + ".Ed\n.Pp\n" +
           Prose(kSimulationNodes) + ".Sh EXIT STATUS\n" + ManExitCodes() + ".Sh EXAMPLES\n" +
           ManExamples() + ".Sh SEE ALSO\n.Xr carddev 3 ,\n.Xr cardsim 7\n";
}

// ----------------------------------------------------------------- completions

std::string AllNames(std::span<const Option> options)
{
    std::string text;
    for (const Option& option : options) {
        text += ShortName(option).empty() ? "" : ShortName(option) + " ";
        text += LongName(option) + " ";
    }
    return text;
}

std::string CommandNames()
{
    std::string text;
    for (const CommandEntry& entry : Commands()) {
        text += (text.empty() ? "" : " ") + std::string(entry.name);
    }
    return text;
}

std::string NamePattern(const Option& option)
{
    return (ShortName(option).empty() ? "" : ShortName(option) + "|") + LongName(option);
}

// The case arms for options that take a value. One name means the same everywhere.
std::string BashValues(std::span<const Option> options, std::string& known)
{
    std::string text;
    for (const Option& option : options) {
        const std::string pattern = NamePattern(option);
        if (option.value == nullptr || known.find(" " + pattern + " ") != std::string::npos) {
            continue;
        }
        known += " " + pattern + " ";
        text += "        " + pattern + ") ";
        if (option.choices != nullptr) {
            text += "mapfile -t COMPREPLY < <(compgen -W '" + std::string(option.choices) +
                    "' -- \"$word\") ;;\n";
        } else if (std::string(option.value) == "FILE") {
            text += "mapfile -t COMPREPLY < <(compgen -f -- \"$word\") ;;\n";
        } else {
            text += "COMPREPLY=() ;;\n";
        }
    }
    return text;
}

std::string Bash()
{
    std::string known;
    std::string values = BashValues(GlobalOptions(), known);
    std::string arms;
    for (const CommandEntry& entry : Commands()) {
        values += BashValues(entry.options, known);
        arms += "                " + std::string(entry.name) + ") options+=' " +
                AllNames(entry.options) + "' ;;\n";
    }
    return "# SPDX-License-Identifier: MIT\n"
           "# shellcheck shell=bash\n"
           "_cardtool() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
           "    local command='' each options='--help " +
           AllNames(GlobalOptions()) +
           "'\n"
           "    for each in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
           "        [[ \" " +
           CommandNames() +
           " \" == *\" $each \"* ]] && command=$each && break\n"
           "    done\n"
           "    case $before in\n" +
           values +
           "        *)\n"
           "            case $command in\n"
           "                '') options+='--version " +
           CommandNames() + "' ;;\n" + arms +
           "            esac\n"
           "            if [[ $command && $word != -* ]]; then\n"
           "                mapfile -t COMPREPLY < <(compgen -f -- \"${word:-/dev/}\")\n"
           "            else\n"
           "                mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
           "            fi\n"
           "            ;;\n"
           "    esac\n"
           "}\n"
           "complete -o filenames -F _cardtool cardtool\n";
}

// A text between single quotes, for zsh and fish.
std::string Quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

// _arguments takes ':' and brackets as its own.
std::string ZshText(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        if (c == ':' || c == '[' || c == ']') {
            result += '\\';
        }
        result += c;
    }
    return result;
}

std::string ZshOption(const Option& option)
{
    std::string text = "[" + ZshText(option.help) + "]";
    if (option.value != nullptr) {
        const bool file = std::string(option.value) == "FILE";
        text += std::string(":") + option.value + ":";
        text += option.choices != nullptr ? "(" + std::string(option.choices) + ")"
                : file                    ? "_files"
                                          : "";
    }
    std::string lines;
    if (!ShortName(option).empty()) {
        lines = " \\\n                " + Quoted(ShortName(option) + text);
    }
    return lines + " \\\n                " + Quoted(LongName(option) + text);
}

std::string Zsh()
{
    std::string names;
    std::string arms;
    std::string global;
    for (const Option& option : GlobalOptions()) {
        global += ZshOption(option);
    }
    for (const CommandEntry& entry : Commands()) {
        names += "        " + Quoted(std::string(entry.name) + ":" + ZshText(entry.purpose)) + "\n";
        arms += "        " + std::string(entry.name) + ")\n            _arguments '--help[help]'" +
                global;
        for (const Option& option : entry.options) {
            arms += ZshOption(option);
        }
        if (entry.operand != Operand::None) {
            arms += " \\\n                " +
                    Quoted("1:" + OperandName(entry.operand) + ":_files -W /dev -P /dev/");
        }
        arms += "\n            ;;\n";
    }
    return "#compdef cardtool\n"
           "# SPDX-License-Identifier: MIT\n"
           "_cardtool() {\n"
           "    local curcontext=$curcontext state line\n"
           "    local -a commands\n"
           "    commands=(\n" +
           names +
           "    )\n"
           "    _arguments -C '--help[help]' '--version[version]'" +
           global +
           " \\\n                '1:command:->command' '*::argument:->argument'\n"
           "    [[ $state == command ]] && _describe command commands\n"
           "    [[ $state == argument ]] || return\n"
           "    case $line[1] in\n" +
           arms +
           "    esac\n"
           "}\n"
           "_cardtool \"$@\"\n";
}

std::string FishOption(const Option& option, const std::string& condition)
{
    std::string text = "complete -c cardtool";
    if (!condition.empty()) {
        text += " -n " + Quoted(condition);
    }
    if (!ShortName(option).empty()) {
        text += " -s " + ShortName(option).substr(1);
    }
    text += " -l " + LongName(option).substr(2);
    if (option.value != nullptr) {
        const bool file = std::string(option.value) == "FILE";
        text += option.choices != nullptr ? " -x -a " + Quoted(option.choices)
                : file                    ? " -r -F"
                                          : " -x";
    }
    return text + " -d " + Quoted(option.help) + "\n";
}

std::string Fish()
{
    std::string text =
        "# SPDX-License-Identifier: MIT\ncomplete -c cardtool -f\n"
        "complete -c cardtool -l help -d 'help'\n"
        "complete -c cardtool -n __fish_use_subcommand -l version -d 'version'\n";
    for (const Option& option : GlobalOptions()) {
        text += FishOption(option, "");
    }
    for (const CommandEntry& entry : Commands()) {
        text += "complete -c cardtool -n __fish_use_subcommand -a " + Quoted(entry.name) + " -d " +
                Quoted(entry.purpose) + "\n";
        const std::string condition = "__fish_seen_subcommand_from " + std::string(entry.name);
        if (entry.operand != Operand::None) {
            text += "complete -c cardtool -n " + Quoted(condition) +
                    " -a '(__fish_complete_path /dev/)'\n";
        }
        for (const Option& option : entry.options) {
            text += FishOption(option, condition);
        }
    }
    return text;
}

}  // namespace

std::vector<std::string> GeneratedKinds()
{
    return {"man", "bash", "zsh", "fish"};
}

std::string Generate(const std::string& kind)
{
    return kind == "man" ? Man() : kind == "bash" ? Bash() : kind == "zsh" ? Zsh() : Fish();
}

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

std::string ExampleText(const CommandEntry& entry)
{
    std::string text;
    for (const Example& example : entry.examples) {
        text += std::string("  ") + example.line + "\n      " + example.what + "\n";
    }
    return text;
}
