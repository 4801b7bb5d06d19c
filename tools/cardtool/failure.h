// SPDX-License-Identifier: MIT
//
// How the tool ends, and what it says when it ends badly.
#ifndef CARDTOOL_FAILURE_H
#define CARDTOOL_FAILURE_H

#include <span>
#include <stdexcept>
#include <string>

// One value for each kind of end, so that scripts can tell them apart. The gaps
// are left for kinds to come; a value never changes its meaning.
enum class ExitCode : int {
    Ok = 0,
    Unexpected = 1,        // no memory, or a fault of the tool's own
    Usage = 2,             // the command line asks for what cannot be
    NoSuchDevice = 3,      // no node of that name, or nothing behind it
    NotACard = 4,          // a file that is no device, or a device that is no card
    Removed = 5,           // the card was taken out or exchanged meanwhile
    Busy = 6,              // in use, or no answer in time
    ReadOnly = 7,          // a write to a protected card
    PermissionDenied = 8,  // the system does not let this user
    InputOutput = 9,       // a transfer, a query, or a file failed
    Mismatch = 10,         // the card does not hold what it should
    Interrupted = 11,      // by SIGINT or SIGTERM
    Refused = 12,          // the user did not answer yes
    ReaderGone = 141,      // as a shell reports a death by SIGPIPE; nothing is said
};

struct Kind {
    ExitCode code;
    const char* name;     // for --json
    const char* meaning;  // for people
};

std::span<const Kind> Kinds();
std::string NameOf(ExitCode code);

// The list of exit codes for --help.
std::string ExitCodeText();

// The kind of failure that an errno value of a device call means.
ExitCode KindOf(int error);

// A text of ours for a terminal: bytes that would drive one as \xNN.
std::string ForTerminal(const std::string& text);

// Thrown wherever a command cannot go on: what went wrong, and what to do next.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string& what, std::string next, int error = 0)
        : std::runtime_error(what), code_(code), next_(std::move(next)), error_(error)
    {
    }
    ExitCode code() const { return code_; }
    const std::string& next() const { return next_; }
    // The errno value it comes from; 0 where there is none.
    int error() const { return error_; }

private:
    ExitCode code_;
    std::string next_;
    int error_;
};

// The failure for an errno value: "`what`: No such file or directory". `next`
// takes the place of the usual advice for that kind of failure.
Failure SystemFailure(const std::string& what, int error, const std::string& next = "");

#endif
