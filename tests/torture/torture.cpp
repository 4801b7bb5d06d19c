// SPDX-License-Identifier: MIT
//
// Random operations by every way on several units from several threads, while the drivers
// fail at random and cards come and go, against a copy of what the cards may hold.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>

#include <getopt.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/torture/worker.h"

namespace {

constexpr char kUsage[] =
    "torture [OPTION...]\n"
    "\n"
    "  --seed N         what is done, and what goes wrong (default: another one each time)\n"
    "  --operations N   of each unit (default: 2000)\n"
    "  --seconds N      instead: for this long\n"
    "  --units N|NAME[,NAME...]\n"
    "                   how many, or which: zel0 to zel5, mivo0, mivo1, ricoh (default: 3)\n"
    "  --threads N      of each unit, on sectors of their own (default: 1)\n"
    "  --log FILE       keep the library's lines (default: they are dropped)\n"
    "  --trace          tell every operation on standard error\n"
    "\n"
    "With one thread a unit, a seed repeats exactly, also for each unit by itself. With more,\n"
    "each thread repeats what it does; whom a fault meets is the threads' affair.\n";

using Clock = std::chrono::steady_clock;

struct Run {
    Options options;
    Counts counts;
    std::atomic<bool> stop = false;
    std::mutex lock;
    std::string found;  // what is wrong; the first one
    std::string where;

    void Found(const std::string& place, const char* what)
    {
        const std::lock_guard<std::mutex> guard(lock);
        if (found.empty()) {
            where = place;
            found = what;
        }
        stop = true;
    }
};

// One unit, until all is done. Every round begins with opening it.
class Torture {
public:
    Torture(Run& run, Bench& bench, size_t place_number)
        : run_(run),
          bench_(bench),
          unit_(run.options, place_number, bench, run.counts),
          threads_(unit_.HasDirect() ? run.options.threads : 1)
    {
        // Whole pages of the kernel's: plain writes go to the card in those.
        const uint32_t sectors = kCardSectors / threads_ / 8 * 8;
        for (uint32_t i = 0; i < threads_; i++) {
            workers_.push_back(std::make_unique<Worker>(
                unit_, Worker::Share{i, i * sectors, sectors, threads_ == 1, i == 0}));
        }
    }

    void Work()
    {
        const Clock::time_point end = Clock::now() + std::chrono::seconds(run_.options.seconds);
        uint64_t done = 0;
        while (!run_.stop &&
               (run_.options.seconds != 0 ? Clock::now() < end : done < run_.options.operations)) {
            uint64_t operations = unit_.random.Between(20, 80);
            if (run_.options.seconds == 0) {
                operations = std::min(operations, run_.options.operations - done);
            }
            done += Round(operations);
        }
    }

private:
    uint64_t Round(uint64_t operations)
    {
        uint64_t done = operations;
        unit_.Open(threads_ == 1 && unit_.random.OneIn(12));
        if (threads_ == 1) {
            done = workers_[0]->Run(operations, {});
        } else {
            RunThreads(operations);
        }
        bench_.ClearFaults(unit_.place.name);
        unit_.card_is_in = bench_.HasCard(unit_.place.name);
        if (!run_.stop) {
            unit_.CompareAll();
        }
        return done;
    }

    void RunThreads(uint64_t operations)
    {
        Planned planned;
        for (uint32_t left = unit_.random.OneIn(3) ? 0 : unit_.random.Between(1, 6); left > 0;
             left--) {
            const auto latest = static_cast<uint32_t>(operations * 3);
            const Planned one = PlanFault(unit_, unit_.random, {latest, false});
            planned.any = true;
            planned.moves_card |= one.moves_card;
        }
        std::vector<std::unique_ptr<cardsim::LowThread>> threads;
        for (uint32_t i = 0; i < threads_; i++) {
            const uint64_t share = operations / threads_ + (i < operations % threads_ ? 1 : 0);
            threads.push_back(std::make_unique<cardsim::LowThread>([this, i, share, planned] {
                try {
                    workers_[i]->Run(share, planned);
                } catch (const std::exception& error) {
                    run_.Found(unit_.place.name, error.what());
                }
            }));
        }
    }

    Run& run_;
    Bench& bench_;
    Unit unit_;
    const uint32_t threads_;
    std::vector<std::unique_ptr<Worker>> workers_;
};

void WorkOnAll(Run& run, Bench& bench)
{
    std::vector<std::unique_ptr<Torture>> tortures;
    for (const size_t unit : run.options.units) {
        tortures.push_back(std::make_unique<Torture>(run, bench, unit));
    }
    std::vector<std::unique_ptr<cardsim::LowThread>> threads;
    for (size_t i = 0; i < tortures.size(); i++) {
        const std::string& place = Places()[run.options.units[i]].name;
        threads.push_back(std::make_unique<cardsim::LowThread>([&run, &tortures, &place, i] {
            try {
                tortures[i]->Work();
            } catch (const std::exception& error) {
                run.Found(place, error.what());
            }
        }));
    }
}

std::string UnitNames(const Options& options)
{
    std::string names;
    for (const size_t unit : options.units) {
        names += (names.empty() ? "" : ",") + Places()[unit].name;
    }
    return names;
}

// How this run is repeated.
std::string Command(const std::string& program, const Options& options, const std::string& units)
{
    std::string command = program + " --seed " + std::to_string(options.seed) + " --units " +
                          units + " --threads " + std::to_string(options.threads);
    return options.seconds != 0 ? command + " --seconds " + std::to_string(options.seconds)
                                : command + " --operations " + std::to_string(options.operations);
}

// A run that is long enough has to have met everything, or it has shown little.
void CheckCoverage(Run& run)
{
    const Counts& counts = run.counts;
    if (run.stop || counts.operations < 1000) {
        return;
    }
    bool has_direct = false;
    for (const size_t unit : run.options.units) {
        has_direct |= Places()[unit].type != DEV_TYPE_RICOH_SD;
    }
    const bool has_plain = counts.written[kPlain] > 0 && counts.read[kPlain] > 0;
    bool has_all = has_plain && counts.faults > 0 && counts.ejects > 0 && counts.reads_failed > 0 &&
                   counts.writes_failed > 0 && counts.writes_refused > 0;
    for (int route = kDirect; has_direct && route < kRoutes; route++) {
        has_all &= counts.written[route] > 0;
    }
    if (!has_all) {
        run.Found("all", "this many operations ought to have met everything, and have not");
    }
}

void Report(FILE* out, const Counts& counts)
{
    fprintf(out, "  %zu operations; writes acknowledged:", counts.operations.load());
    for (int route = 0; route < kRoutes; route++) {
        fprintf(out, " %s %zu", kRouteNames[route], counts.written[route].load());
    }
    fprintf(out,
            "; ended early %zu, failed %zu, refused %zu"
            "\n"
            "  reads: plain %zu direct %zu array %zu, failed %zu"
            "\n"
            "  queries: %zu, of these of a card that has gone %zu"
            "\n"
            "  %zu faults planned, %zu ejects, %zu inits, %zu"
            " sectors compared\n",
            counts.cut_short.load(), counts.writes_failed.load(), counts.writes_refused.load(),
            counts.read[kPlain].load(), counts.read[kDirect].load(), counts.read[kArray].load(),
            counts.reads_failed.load(), counts.queries.load(), counts.told_gone.load(),
            counts.faults.load(), counts.ejects.load(), counts.inits.load(),
            counts.sectors_compared.load());
}

// All descriptors and blocks are back.
void CheckLeftBehind(Run& run, Bench& bench)
{
    const std::string left = bench.LeftBehind();
    if (!left.empty()) {
        run.Found("all", ("left open: " + left).c_str());
    }
    if (bench.LiveBlocks() != 0) {
        run.Found("all", (std::to_string(bench.LiveBlocks()) + " blocks were not freed").c_str());
    }
}

void WorkUnderWatch(Run& run, Bench& bench)
{
    bench.KeepNoCalls();
    // DevDrctWriteArray counts on it.
    for (size_t pieces = 1; pieces <= MEMORY_ARRAY_PIECES; pieces++) {
        bench.ZeroFreshBlocks(4 + 8 * pieces);
    }
    try {
        WorkOnAll(run, bench);
        CheckLeftBehind(run, bench);
    } catch (const std::exception& error) {
        run.Found("all", error.what());
    }
    CheckCoverage(run);
}

int TortureAll(Run& run, FILE* out, const char* path)
{
    const std::string names = UnitNames(run.options);
    const std::unique_ptr<Bench> bench = Bench::Create();
    // On the board programs run from a folder that is gone with it.
    const char* const name = strrchr(path, '/');
    const std::string program = bench->AnswersEveryCall() || name == nullptr
                                    ? std::string(path)
                                    : std::string("tests/torture/on-board ") + (name + 1);
    fprintf(out, "torture: %s\n", Command(program, run.options, names).c_str());
    fflush(out);
    WorkUnderWatch(run, *bench);
    Report(out, run.counts);
    if (run.found.empty()) {
        fprintf(out, "torture: 1 run ok\n");
        return 0;
    }
    fprintf(out, "torture: FAILED, seed %u, unit %s, %s\n  again: %s\n", run.options.seed,
            run.where.c_str(), run.found.c_str(),
            Command(program, run.options, run.where == "all" ? names : run.where).c_str());
    return 1;
}

// "3", or "zel0,ricoh".
std::optional<std::vector<size_t>> UnitsOf(const std::string& text)
{
    std::vector<size_t> units;
    char* end = nullptr;
    const unsigned long count = strtoul(text.c_str(), &end, 10);
    if (*end == '\0') {
        for (size_t i = 0; i < count; i++) {
            units.push_back(i);
        }
        return count >= 1 && count <= Places().size() ? std::optional(units) : std::nullopt;
    }
    for (size_t at = 0; at <= text.size();) {
        const size_t comma = std::min(text.find(',', at), text.size());
        const std::string name = text.substr(at, comma - at);
        const auto place = std::find_if(Places().begin(), Places().end(),
                                        [&](const Place& one) { return one.name == name; });
        if (place == Places().end()) {
            return {};
        }
        units.push_back(static_cast<size_t>(place - Places().begin()));
        at = comma + 1;
    }
    return units;
}

std::optional<uint64_t> NumberOf(const char* text)
{
    char* end = nullptr;
    const uint64_t number = strtoull(text, &end, 0);
    return *text != '\0' && *end == '\0' ? std::optional(number) : std::nullopt;
}

struct Arguments {
    Options options;
    std::string log = "/dev/null";
};

std::optional<Arguments> ArgumentsOf(int argc, char** argv)
{
    static const option kOptions[] = {{"seed", required_argument, nullptr, 's'},
                                      {"operations", required_argument, nullptr, 'o'},
                                      {"seconds", required_argument, nullptr, 't'},
                                      {"units", required_argument, nullptr, 'u'},
                                      {"threads", required_argument, nullptr, 'n'},
                                      {"log", required_argument, nullptr, 'l'},
                                      {"trace", no_argument, nullptr, 'v'},
                                      {nullptr, 0, nullptr, 0}};
    Arguments arguments;
    Options& options = arguments.options;
    options.seed = std::random_device{}();
    options.units = *UnitsOf("3");
    for (int option = 0; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        const bool is_number = option == 's' || option == 'o' || option == 't' || option == 'n';
        const std::optional<uint64_t> number = is_number ? NumberOf(optarg) : 0;
        if (!number || option == '?') {
            return {};
        }
        if (option == 's') {
            options.seed = static_cast<uint32_t>(*number);
        } else if (option == 'o') {
            options.operations = *number;
        } else if (option == 't') {
            options.seconds = static_cast<uint32_t>(*number);
        } else if (option == 'n') {
            options.threads = static_cast<uint32_t>(*number);
        } else if (option == 'u') {
            options.units = UnitsOf(optarg).value_or(std::vector<size_t>());
        } else if (option == 'l') {
            arguments.log = optarg;
        } else {
            options.trace = true;
        }
    }
    const bool fits = options.threads >= 1 && options.threads <= 8 && !options.units.empty();
    return fits && optind == argc ? std::optional(arguments) : std::nullopt;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::optional<Arguments> arguments = ArgumentsOf(argc, argv);
    if (!arguments) {
        fputs(kUsage, stderr);
        return 2;
    }
    // Standard output is the library's.
    FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || freopen(arguments->log.c_str(), "w", stdout) == nullptr) {
        perror(arguments->log.c_str());
        return 2;
    }
    // What goes wrong in a bench is an exception.
    GTEST_FLAG_SET(throw_on_failure, true);
    Run run;
    run.options = arguments->options;
    run.options.stop = &run.stop;
    const int status = cardsim::RunOnLowStack([&] { return TortureAll(run, out, argv[0]); });
    fclose(out);
    return status;
}
