// SPDX-License-Identifier: MIT
//
// Cards put in, used and taken out as often as is asked for, or a day of use, second by
// second: nothing of the process's or the kernel's may grow.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include <getopt.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <time.h>
#include <unistd.h>

#include "sim/low_memory.h"
#include "tests/support/handle.h"
#include "tests/torture/unit.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr char kUsage[] =
    "soak [--cycles N | --day SECONDS] [--log FILE]\n"
    "\n"
    "  --cycles N     insert, open, transfer, eject, close; each place in turn (default: 2000)\n"
    "  --day SECONDS  cards that stay, used once a second on the bench's clock; with a wait for\n"
    "                 a silent driver each minute, for a busy one each ten minutes, and another\n"
    "                 card each hour. 86400 is a day\n"
    "  --log FILE     keep the library's lines (default: they are dropped)\n"
    "\n"
    "What the process and, on the board, the kernel hold is read after a tenth of that and at\n"
    "the end.\n";

constexpr uint32_t kSectors = 64;

// What must not grow, in bytes but where it says otherwise.
struct Holding {
    const char* what;
    long amount;
    long may_grow;
};

// "VmRSS:     1234 kB" of a file in /proc.
long Field(const char* file, const std::string& name)
{
    std::ifstream lines(file);
    std::string word;
    while (lines >> word) {
        long value = 0;
        if (word == name + ":" && lines >> value) {
            return value;
        }
    }
    throw Violation(std::string(file) + " has no " + name);
}

long CountOf(const char* folder)
{
    long count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        count += entry.path().empty() ? 0 : 1;
    }
    return count;
}

std::vector<Holding> Holdings(Bench& bench)
{
    constexpr long kKiB = 1024;
#if defined(__powerpc__)
    // In the stand-in the process is the emulator's, which takes some for itself now and then.
    const long data_may_grow = bench.AnswersEveryCall() ? 1024 * kKiB : 64 * kKiB;
#else
    constexpr long data_may_grow = 64 * kKiB;
#endif
    std::vector<Holding> holdings = {
        {"descriptors", CountOf("/proc/self/fd"), 0},
        {"threads", Field("/proc/self/status", "Threads"), 0},
        {"blocks of the library's", static_cast<long>(bench.LiveBlocks()), 0},
        {"heap in use", static_cast<long>(mallinfo2().uordblks), kKiB},
        {"VmData", Field("/proc/self/status", "VmData") * kKiB, data_may_grow},
        {"VmRSS", Field("/proc/self/status", "VmRSS") * kKiB, 256 * kKiB},
    };
    if (!bench.AnswersEveryCall()) {
        const long vmalloc = Field("/proc/meminfo", "VmallocUsed") * kKiB;
        const long fixed_slab = Field("/proc/meminfo", "SUnreclaim") * kKiB;
        const long free = Field("/proc/meminfo", "MemAvailable") * kKiB;
        holdings.push_back({"kernel: VmallocUsed", vmalloc, 64 * kKiB});
        holdings.push_back({"kernel: SUnreclaim", fixed_slab, 256 * kKiB});
        holdings.push_back({"kernel: memory that is not available", -free, 1024 * kKiB});
    }
    return holdings;
}

// The first that has grown by more than it may. All are told.
std::string Growth(FILE* out, const std::vector<Holding>& before, const std::vector<Holding>& after)
{
    std::string grown;
    for (size_t i = 0; i < before.size(); i++) {
        const long growth = after[i].amount - before[i].amount;
        fprintf(out, "  %-38s %12ld -> %12ld (%+ld, may grow by %ld)\n", before[i].what,
                before[i].amount, after[i].amount, growth, before[i].may_grow);
        if (growth > before[i].may_grow && grown.empty()) {
            grown = std::string(before[i].what) + " has grown by " + std::to_string(growth);
        }
    }
    return grown;
}

void Check(bool holds, const std::string& otherwise)
{
    if (!holds) {
        throw Violation(otherwise);
    }
}

int gone = 0;

void CountGone()
{
    gone++;
}

// A card in a place, from its insertion to its leaving.
class Visit {
public:
    Visit(Bench& bench, const Place& place) : bench_(bench), place_(place)
    {
        bench_.Insert(place_.name, Bytes(size_t{kSectors} * 512, 0x11));
        handle_ = HandleFor(place_.node);
        Check(DevDetect(&handle_) == 0 && DevInit(&handle_) == 0,
              "a card in " + place_.name + " could not be opened");
        Check(CARD_Init(&handle_, 0, CountGone) == 0, "the callback was not taken");
    }

    ~Visit() { DevExit(&handle_); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    bool HasDirect() const { return place_.type != DEV_TYPE_RICOH_SD; }

    // Written one way and read the other.
    void UseSector(uint32_t number)
    {
        const uint32_t sector = number % (kSectors - 1);
        memset(memory_.data(), static_cast<int>(number), 1024);
        memory_[512] = static_cast<uint8_t>(number >> 8);
        if (HasDirect() && number % 2 == 0) {
            Check(Direct(false, sector) == 0, "a direct write has failed");
        } else {
            Check(Plain(false, sector), "a plain write has failed");
        }
        memset(memory_.data() + 1024, 0xEE, 1024);
        if (HasDirect() && number % 2 == 1) {
            Check(Direct(true, sector) == 0, "a direct read has failed");
        } else {
            Check(Plain(true, sector), "a plain read has failed");
        }
        Check(memcmp(memory_.data(), memory_.data() + 1024, 1024) == 0,
              "what was read is not what was written");
    }

    // Everything that is kept until the unit is closed.
    void AskAll()
    {
        CardInfo info;
        CardSpeedInfo speed;
        uint8_t status[CARD_SD_STATUS_SIZE];
        Check(CARD_Getinfo(&handle_, &info) == 0 && CARD_GetSpeedInfo(&handle_, &speed) == 0 &&
                  CARD_SecureGetinfo(&handle_, status) == 0,
              "the registers could not be read");
        CARD_GetCardSize(&handle_);
    }

    void UseElements()
    {
        const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(memory_.data()));
        BlockListEntry second = {address, 1, 9, nullptr};
        BlockListEntry first = {address, 2, 4, &second};
        BlockList list = {2, &first};
        Check(DevDrctRMW(&handle_, &list) == 0 && DevFatWrite(&handle_, &list) == 0,
              "elements could not be written");
    }

    // A direct read while the driver has this fault; how long it took.
    nanoseconds Bear(const BenchFault& fault)
    {
        bench_.Inject(place_.name, fault);
        const nanoseconds begin = bench_.Now();
        // A wait that ends without an event is judged by what errno was before.
        errno = 0;
        Check(Direct(true, 3) == 0, "a read has failed for a fault that is borne");
        const nanoseconds took = bench_.Now() - begin;
        bench_.ClearFaults(place_.name);
        return took;
    }

    void Leave()
    {
        bench_.Eject(place_.name);
        if (HasDirect()) {
            const int before = gone;
            uint16_t status = 0;
            Check(CARD_Getstatus(&handle_, &status) == CARD_CODE_REMOVED && gone == before + 1,
                  "an eject was not noticed");
        }
    }

    uint32_t ReadRequest() const { return place_.requests[0]; }

private:
    bool Plain(bool read, uint32_t sector)
    {
        CardIoResult result = {0, 0, -1};
        if (read) {
            CARD_Read(&handle_, memory_.data() + 1024, 2, sector, 0, &result);
        } else {
            CARD_Write(&handle_, memory_.data(), 2, sector, 0, &result);
        }
        return result.error == 0 && result.length == 1024;
    }

    int32_t Direct(bool read, uint32_t sector)
    {
        const uint32_t length = place_.type == DEV_TYPE_ZEL ? 1024 : 2;
        const uint32_t address = memory_.address() + (read ? 1024 : 0);
        uint32_t list[] = {2, address, 100, address + 100, 924};
        auto* const chunks = reinterpret_cast<MemoryChunkArray*>(list);
        uint32_t retried = 0;
        const int32_t result = read ? DevDrctRead(&handle_, sector, length, chunks)
                                    : DevDrctWrite(&handle_, sector, length, chunks, 1, &retried);
        return result - static_cast<int32_t>(length);
    }

    Bench& bench_;
    const Place& place_;
    DrvInfo handle_ = {};
    cardsim::LowBuffer memory_{2048};
};

BenchFault Silence(uint32_t request)
{
    BenchFault fault;
    fault.request = request;
    fault.never = true;
    return fault;
}

BenchFault Busyness(uint32_t request, uint64_t times)
{
    BenchFault fault;
    fault.request = request;
    fault.error = EBUSY;
    fault.times = times;
    return fault;
}

// What one takes that waits.
void CheckWait(nanoseconds took, milliseconds wait)
{
    const int64_t ms = duration_cast<milliseconds>(took).count();
    Check(took >= wait && took < wait + milliseconds(50),
          "a wait of " + std::to_string(wait.count()) + " ms took " + std::to_string(ms));
}

// --- cycles -----------------------------------------------------------------------------

void Cycle(Bench& bench, uint32_t number)
{
    const Place& place = Places()[number % Places().size()];
    Visit visit(bench, place);
    visit.UseSector(number);
    visit.UseSector(number + 1);
    visit.AskAll();
    if (visit.HasDirect()) {
        visit.UseElements();
        if (number % 50 == 0) {
            CheckWait(visit.Bear(Silence(visit.ReadRequest())), milliseconds(4000));
        } else if (number % 50 == 25) {
            visit.Bear(Busyness(visit.ReadRequest(), 1));
        }
    }
    visit.Leave();
}

void OpenNothing(Bench& bench, uint32_t number)
{
    const Place& place = Places()[number % Places().size()];
    if (bench.HasCard(place.name)) {
        return;
    }
    DrvInfo handle = HandleFor(place.node);
    Check(DevDetect(&handle) == 0 && DevInit(&handle) == -1, "a place without a card was opened");
}

std::string SoakCycles(FILE* out, Bench& bench, uint32_t cycles)
{
    std::vector<Holding> before;
    const uint32_t warm = cycles / 10;
    for (uint32_t number = 0; number < cycles; number++) {
        if (number == warm) {
            before = Holdings(bench);
        }
        Cycle(bench, number);
        if (number % 10 == 0) {
            OpenNothing(bench, number);
        }
    }
    fprintf(out, "soak: %u cycles, after %u of them and at the end:\n", cycles, warm);
    return Growth(out, before, Holdings(bench));
}

// --- a day ------------------------------------------------------------------------------

struct Visits {
    explicit Visits(Bench& bench)
        : zel(bench, Places()[0]), mivo(bench, Places()[1]), ricoh(bench, Places()[2])
    {
    }
    Visit zel;
    Visit mivo;
    Visit ricoh;
};

void SleepASecond()
{
    timespec left = {1, 0};
    while (nanosleep(&left, &left) != 0) {
        Check(errno == EINTR, "nanosleep has failed");
    }
}

std::string SoakDay(FILE* out, Bench& bench, seconds day)
{
    std::vector<Holding> before;
    std::optional<Visits> visits;
    const nanoseconds begin = bench.Now();
    unsigned transfers = 0;
    unsigned silences = 0;
    unsigned busy = 0;
    unsigned cards = 0;
    for (uint32_t second = 0; bench.Now() - begin < day; second++) {
        if (second % 3600 == 0) {
            visits.reset();
            visits.emplace(bench);
            cards += 3;
        }
        if (before.empty() && bench.Now() - begin >= day / 10) {
            before = Holdings(bench);
        }
        visits->zel.UseSector(second);
        visits->mivo.UseSector(second);
        visits->ricoh.UseSector(second);
        transfers += 6;
        if (second % 60 == 30) {
            Visit& visit = second % 120 == 30 ? visits->zel : visits->mivo;
            CheckWait(visit.Bear(Silence(visit.ReadRequest())), milliseconds(4000));
            silences++;
        }
        if (second % 600 == 300) {
            const nanoseconds took = visits->zel.Bear(Busyness(visits->zel.ReadRequest(), 9));
            CheckWait(took, milliseconds(9 * 400));
            busy++;
        }
        SleepASecond();
    }
    const nanoseconds took = bench.Now() - begin;
    fprintf(out,
            "soak: %.3f s on the bench's clock: %u transfers, %u silent and %u busy drivers waited "
            "for, %u cards\n",
            static_cast<double>(took.count()) / 1e9, transfers, silences, busy, cards);
    return Growth(out, before, Holdings(bench));
}

struct Arguments {
    uint32_t cycles = 2000;
    uint32_t day = 0;
    std::string log = "/dev/null";
};

int Soak(FILE* out, const Arguments& arguments)
{
    std::string wrong;
    // Now, and not between the two looks at the heap: its buffer lies there.
    fprintf(out, "soak: %s\n", arguments.day != 0 ? "a day" : "cycles");
    fflush(out);
    try {
        const std::unique_ptr<Bench> bench = Bench::Create();
        bench->KeepNoCalls();
        wrong = arguments.day != 0 ? SoakDay(out, *bench, seconds(arguments.day))
                                   : SoakCycles(out, *bench, arguments.cycles);
        const std::string left = bench->LeftBehind();
        wrong += wrong.empty() && !left.empty() ? "left open: " + left : "";
    } catch (const std::exception& error) {
        wrong = error.what();
    }
    if (!wrong.empty()) {
        fprintf(out, "soak: FAILED: %s\n", wrong.c_str());
        return 1;
    }
    fprintf(out, "soak: 1 run ok\n");
    return 0;
}

std::optional<Arguments> ArgumentsOf(int argc, char** argv)
{
    static const option kOptions[] = {{"cycles", required_argument, nullptr, 'c'},
                                      {"day", required_argument, nullptr, 'd'},
                                      {"log", required_argument, nullptr, 'l'},
                                      {nullptr, 0, nullptr, 0}};
    Arguments arguments;
    for (int option = 0; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (option == 'c') {
            arguments.cycles = static_cast<uint32_t>(strtoul(optarg, nullptr, 10));
        } else if (option == 'd') {
            arguments.day = static_cast<uint32_t>(strtoul(optarg, nullptr, 10));
        } else if (option == 'l') {
            arguments.log = optarg;
        } else {
            return {};
        }
    }
    const bool fits = optind == argc && arguments.cycles >= 100;
    return fits ? std::optional(arguments) : std::nullopt;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::optional<Arguments> arguments = ArgumentsOf(argc, argv);
    if (!arguments) {
        fputs(kUsage, stderr);
        return 2;
    }
    // All of the process's blocks in one heap, which mallinfo2 tells of.
    mallopt(M_ARENA_MAX, 1);
    // Standard output is the library's.
    FILE* const out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || freopen(arguments->log.c_str(), "w", stdout) == nullptr) {
        perror(arguments->log.c_str());
        return 2;
    }
    // What goes wrong in a bench is an exception.
    GTEST_FLAG_SET(throw_on_failure, true);
    const int status = cardsim::RunOnLowStack([&] { return Soak(out, *arguments); });
    fclose(out);
    return status;
}
