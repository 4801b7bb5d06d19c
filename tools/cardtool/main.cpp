// SPDX-License-Identifier: MIT
//
// cardtool: memory cards from the command line, through the card library.
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "sim/low_memory.h"
#include "tools/cardtool/arguments.h"
#include "tools/cardtool/commands.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/interrupt.h"

namespace {

// The library prints on standard output. Results must not mix with its lines:
// they get a descriptor of their own, and standard output becomes standard error.
int SetResultsApart()
{
    const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (fcntl(STDERR_FILENO, F_GETFD) < 0) {
        // Else a file that the tool opens would get that number, and messages.
        const int nowhere = open64("/dev/null", O_WRONLY);
        dup2(nowhere, STDERR_FILENO);
    }
    dup2(STDERR_FILENO, STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    return results;
}

// Both lines go out whatever becomes of the document. A reader that has seen enough,
// as head has, is no trouble to tell of.
int End(const Failure& failure, const Arguments& arguments, Report& report)
{
    if (failure.code() == ExitCode::ReaderGone) {
        return static_cast<int>(failure.code());
    }
    std::fprintf(stderr, "cardtool: %s\ncardtool: %s\n", ForTerminal(failure.what()).c_str(),
                 ForTerminal(failure.next()).c_str());
    const int code = static_cast<int>(failure.code());
    try {
        report.Finish(arguments, &failure);
    } catch (const Failure&) {
        return code;  // standard output is what failed, then
    }
    return code;
}

Failure NoMemory()
{
    return {ExitCode::Unexpected, "there is not enough memory",
            "give large inputs as a file: only standard input is held in memory"};
}

int Run(int argc, char** argv, int results_fd)
{
    Output results(results_fd);
    Report report(results, WantsJson(argc, argv));
    Arguments arguments;
    try {
        const std::optional<Arguments> parsed = ParseArguments(argc, argv, results);
        if (parsed) {
            arguments = *parsed;
            RunCommand(arguments, report);
            report.Finish(arguments, nullptr);
        }
        results.Close();
        return static_cast<int>(ExitCode::Ok);
    } catch (const Failure& failure) {
        return End(failure, arguments, report);
    } catch (const std::bad_alloc&) {
        return End(NoMemory(), arguments, report);
    } catch (const std::length_error&) {
        return End(NoMemory(), arguments, report);  // more than any memory here could hold
    } catch (const std::exception& error) {
        return End({ExitCode::Unexpected, error.what(),
                    "this should not happen: please report it with the command line"},
                   arguments, report);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // A reader that goes away is a failed write, not a death, so that the device is closed.
    std::signal(SIGPIPE, SIG_IGN);
    HoldSignals();
    const int results = SetResultsApart();
    // Drivers take 32-bit addresses, also of what lies on the stack.
    return cardsim::RunOnLowStack([&] { return Run(argc, argv, results); });
}
