// SPDX-License-Identifier: MIT
#include "tools/cardtool/failure.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr Kind kKinds[] = {
    {ExitCode::Ok, "ok", "done"},
    {ExitCode::Unexpected, "unexpected", "unexpected: no memory, or a fault of the tool's own"},
    {ExitCode::Usage, "usage", "usage: the command line asks for what cannot be"},
    {ExitCode::NoSuchDevice, "no-such-device", "no such device"},
    {ExitCode::NotACard, "not-a-card", "not a card: no device, or one that no back-end serves"},
    {ExitCode::Removed, "removed", "the card was taken out or exchanged"},
    {ExitCode::Busy, "busy", "busy: the card is mounted or in use, or gave no answer in time"},
    {ExitCode::ReadOnly, "read-only", "the card is write-protected"},
    {ExitCode::PermissionDenied, "permission-denied", "permission denied"},
    {ExitCode::InputOutput, "input-output", "input/output error on the card or on a file"},
    {ExitCode::Mismatch, "mismatch", "the card does not hold what it was compared with"},
    {ExitCode::Interrupted, "interrupted", "interrupted by SIGINT or SIGTERM"},
    {ExitCode::Refused, "refused", "a write that was not confirmed with yes"},
    {ExitCode::ReaderGone, "reader-gone",
     "whoever read standard output went away: the tool ends without a message"},
};

const char* Advice(int error)
{
    if (error == ENOMEDIUM) {
        return "put a card in and try again";
    }
    switch (KindOf(error)) {
        case ExitCode::NoSuchDevice:
            return "check the name with ls -l, that a card is in, and that its driver is loaded";
        case ExitCode::PermissionDenied:
            return "run as root, or as a member of the group that ls -l shows for it";
        case ExitCode::Busy:
            return "end what else uses the card, wait a moment, and try again";
        case ExitCode::ReadOnly:
            return "take the card out, slide its lock open, and try again";
        default:
            return "take the card out, put it in firmly, and try again";
    }
}

}  // namespace

ExitCode KindOf(int error)
{
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case ENODEV:
        case ENXIO:
        case ENOMEDIUM:
            return ExitCode::NoSuchDevice;
        case EACCES:
        case EPERM:
            return ExitCode::PermissionDenied;
        case EBUSY:
        case EAGAIN:
        case ETIMEDOUT:
            return ExitCode::Busy;
        case EROFS:
            return ExitCode::ReadOnly;
        default:
            return ExitCode::InputOutput;
    }
}

std::span<const Kind> Kinds()
{
    return kKinds;
}

std::string NameOf(ExitCode code)
{
    for (const Kind& kind : kKinds) {
        if (kind.code == code) {
            return kind.name;
        }
    }
    return "unexpected";
}

std::string ExitCodeText()
{
    std::string text;
    for (const Kind& kind : kKinds) {
        std::string number = std::to_string(static_cast<int>(kind.code));
        number.insert(0, 4 - number.size(), ' ');
        text += number + "  " + kind.meaning + "\n";
    }
    return text;
}

std::string ForTerminal(const std::string& text)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            result += std::string("\\x") + kDigits[byte >> 4] + kDigits[byte & 0xF];
        } else {
            result += c;
        }
    }
    return result;
}

Failure SystemFailure(const std::string& what, int error, const std::string& next)
{
    return {KindOf(error), what + ": " + std::strerror(error), next.empty() ? Advice(error) : next,
            error};
}
