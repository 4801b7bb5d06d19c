// SPDX-License-Identifier: MIT
//
// The tool as it is started: its arguments, the description of simulated cards, and what
// comes on standard input. All that it opens are simulated nodes and the files of a folder
// that is made for it, whatever names it is given.
//
// An input is: the arguments, by the tool's own table of commands, or any; the simulated
// cards, by their format, or any text.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "sim/libc.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/table.h"

// tools/cardtool/main.cpp, whose main() has this name here.
int CardtoolMain(int argc, char** argv);

namespace {

using nlohmann::json;

constexpr off_t kCardBytes = off_t{256} * 512;
constexpr int kMostWaits = 20;

// --- where the tool runs -------------------------------------------------------------

constexpr const char* kImages[] = {"a.img", "b.img", "c.img"};
constexpr const char* kFiles[] = {"a.img", "b.img", "c.img", "cards.json", "text.json",
                                  "in",    "odd",   "out",   "missing"};

class Folder {
public:
    Folder()
    {
        // In memory where there is such a place: each run writes it anew.
        const std::string memory = "/dev/shm";
        std::string name = access(memory.c_str(), W_OK) == 0
                               ? memory
                               : std::filesystem::temp_directory_path().string();
        name += "/carddev-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(name.data()) != nullptr, "no folder %s", name.c_str());
        path_ = name + "/";
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string Path(const std::string& name) const { return path_ + name; }

    // As it is before each run.
    void Fill(const std::string& description, const std::string& text) const
    {
        for (const char* image : kImages) {
            Write(image, "", kCardBytes);
        }
        Write("in", "data", off_t{4} * 512);
        Write("odd", "data", 513);
        Write("cards.json", description, static_cast<off_t>(description.size()));
        Write("text.json", text, static_cast<off_t>(text.size()));
        unlink(Path("out").c_str());
    }

    bool Holds(const std::string& path) const
    {
        return path.compare(0, path_.size(), path_) == 0 &&
               path.find('/', path_.size()) == std::string::npos && path != path_ + "..";
    }

private:
    void Write(const char* name, const std::string& begin, off_t length) const
    {
        const int fd = open64(Path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const bool good =
            fd >= 0 &&
            write(fd, begin.data(), begin.size()) == static_cast<ssize_t>(begin.size()) &&
            ftruncate(fd, length) == 0;
        FUZZ_CHECK(good, "cannot write %s", name);
        close(fd);
    }

    std::string path_;
};

const Folder& TheFolder()
{
    static const Folder folder;
    return folder;
}

bool running = false;  // the tool, and not the fuzzer
int waits = 0;

// What the tool may open besides.
bool IsHarmless(const std::string& path)
{
    return path == "/dev/null" || path == "/dev/full" || path == "/dev/zero";
}

// --- the command line ------------------------------------------------------------------

std::string Literal(fuzz::Input& input)
{
    std::string text;
    for (int length = input.Byte() % 24; length > 0; length--) {
        const uint8_t byte = input.Byte();
        text += byte == 0 ? '0' : static_cast<char>(byte);
    }
    return text;
}

template <typename List>
std::string OneOf(const List& list, fuzz::Input& input)
{
    return list[input.Byte() % std::size(list)];
}

std::string Node(fuzz::Input& input)
{
    static constexpr const char* kNodes[] = {"/dev/sdcarda",    "/dev/spda", "/dev/mivosdif0",
                                             "/dev/spdra",      "/dev/spdb", "/dev/mivosdif1",
                                             "/dev/rtctrl_zel", "/dev/null", "/dev"};
    return OneOf(kNodes, input);
}

std::string Digits(fuzz::Input& input)
{
    static constexpr const char* kNumbers[] = {
        "0",       "1",          "2",          "3",  "4",   "255",  "256",
        "8388608", "4294967295", "4294967296", "-1", "007", "0x10", ""};
    return OneOf(kNumbers, input);
}

std::string HexDigits(fuzz::Input& input, size_t bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes; i++) {
        const uint8_t byte = input.Byte();
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

std::string File(fuzz::Input& input)
{
    const size_t which = input.Byte() % (std::size(kFiles) + 3);
    return which < std::size(kFiles)        ? TheFolder().Path(kFiles[which])
           : which == std::size(kFiles)     ? "-"
           : which == std::size(kFiles) + 1 ? "/dev/full"
                                            : "/dev/zero";
}

// A value of the kind that the option takes, most often.
std::string Value(const Option& option, fuzz::Input& input)
{
    const std::string kind = option.value;
    const uint8_t how = input.Byte() % 8;
    if (how == 7) {
        return Literal(input);
    }
    if (option.choices != nullptr) {
        const std::string choices = option.choices;
        const size_t at = input.Byte() % choices.size();
        const size_t begin = choices.rfind(' ', at);
        const size_t from = begin == std::string::npos ? 0 : begin + 1;
        return choices.substr(from, choices.find(' ', at) - from);
    }
    if (kind == "FILE") {
        return File(input);
    }
    if (kind == "HEX") {
        static constexpr size_t kSizes[] = {16, 8, 64, 3};
        return HexDigits(input, kSizes[input.Byte() % std::size(kSizes)]);
    }
    return how < 4 ? std::to_string(input.Byte()) : Digits(input);
}

void AddOption(const Option& option, fuzz::Input& input, std::vector<std::string>& words)
{
    const uint8_t how = input.Byte();
    const std::string name =
        (how & 1) != 0 && !ShortName(option).empty() ? ShortName(option) : LongName(option);
    if (option.value == nullptr || (how & 0x70) == 0x70) {
        words.push_back(name);
    } else if ((how & 2) != 0) {
        words.push_back(name + "=" + Value(option, input));
    } else {
        words.push_back(name);
        words.push_back(Value(option, input));
    }
}

void AddSimulation(uint8_t how, std::vector<std::string>& words)
{
    static constexpr const char* kDescriptions[] = {"cards.json", "text.json", "a.img", "odd"};
    words.emplace_back("--sim");
    words.push_back(TheFolder().Path((how & 7) < 4 ? kDescriptions[0] : kDescriptions[how & 3]));
}

std::vector<std::string> Words(fuzz::Input& input)
{
    std::vector<std::string> words = {"cardtool"};
    const uint8_t how = input.Byte();
    if ((how & 0x80) == 0) {
        AddSimulation(how, words);
    }
    if ((how & 0x40) != 0) {
        words.emplace_back("--json");
    }
    const CommandEntry& entry = Commands()[input.Byte() % Commands().size()];
    words.emplace_back(entry.name);
    if (entry.operand != Operand::None) {
        const bool number = entry.operand == Operand::Card && (how & 0x20) != 0;
        words.push_back(number ? Digits(input) : Node(input));
    }
    size_t next = 0;
    for (int more = (how >> 3) % 4 + input.Byte() % 6; more > 0; more--) {
        const uint8_t which = input.Byte();
        if (which >= 0xF0) {
            words.push_back(Literal(input));
        } else if (which >= 0xE0) {
            static constexpr const char* kOthers[] = {"--help",     "-h",  "--version", "--",
                                                      "--generate", "man", "--json",    "list"};
            words.push_back(OneOf(kOthers, input));
        } else if (which >= 0xD8) {
            AddOption(GlobalOptions()[which % GlobalOptions().size()], input, words);
        } else if (!entry.options.empty()) {
            // One after the other: most may be given once.
            AddOption(entry.options[(which + next++) % entry.options.size()], input, words);
        }
    }
    return words;
}

// --- the simulated cards -------------------------------------------------------------

json Fault(fuzz::Input& input)
{
    static constexpr const char* kCalls[] = {"stat", "open",  "close", "seek",
                                             "read", "write", "ioctl", "poll"};
    static constexpr const char* kErrors[] = {"EIO",    "EBUSY",     "ENODEV", "EACCES", "EROFS",
                                              "EINTR",  "ETIMEDOUT", "ENXIO",  "ENOMEM", "ENOENT",
                                              "EINVAL", "ENOMEDIUM", "nothing"};
    static constexpr const char* kSlots[] = {"/dev/spda", "/dev/mivosdif0", "/dev/sdcarda"};
    static constexpr const char* kRequests[] = {"0x20007001", "0x20007008", "0x2000700D",
                                                "0x4006D300", "0xC010D324", "0x400178FF",
                                                "0x20001260", "0x20007005", "1 2"};
    const uint8_t how = input.Byte();
    json fault = {{"call", OneOf(kCalls, input)}};
    if ((how & 1) != 0) {
        fault["node"] = Node(input);
    }
    if ((how & 2) != 0) {
        fault["request"] = OneOf(kRequests, input);
    }
    if ((how & 4) != 0) {
        fault["first"] = input.Byte();
        fault["times"] = input.Byte();
    }
    if ((how & 8) != 0) {
        fault[(how & 16) != 0 ? "eject" : "insert"] = OneOf(kSlots, input);
    } else {
        fault["errno"] = OneOf(kErrors, input);
    }
    return fault;
}

std::string Description(fuzz::Input& input)
{
    static constexpr const char* kDrivers[] = {"ricoh-sd", "zel", "mivo"};
    json document = {{"cards", json::array()}, {"faults", json::array()}};
    for (size_t i = 0; i < std::size(kDrivers); i++) {
        const uint8_t how = input.Byte();
        json card = {{"driver", kDrivers[i]}, {"image", kImages[i]}};
        if ((how & 1) != 0) {
            card["write_protected"] = (how & 2) != 0;
        }
        if ((how & 4) != 0) {
            card["cid"] = HexDigits(input, 16);
        }
        if ((how & 8) != 0) {
            card["csd"] = HexDigits(input, 16);
        }
        if ((how & 16) != 0) {
            card["sd_status"] = HexDigits(input, 64);
        }
        document["cards"].push_back(card);
    }
    for (int faults = input.Byte() % 5; faults > 0; faults--) {
        document["faults"].push_back(Fault(input));
    }
    return document.dump();
}

// --- one run ---------------------------------------------------------------------------

// A file in memory, in the place of one of the standard descriptors.
class Stream {
public:
    explicit Stream(int fd) : fd_(fd), kept_(fcntl(fd, F_DUPFD_CLOEXEC, 100))
    {
        const int file = memfd_create("stream", MFD_CLOEXEC);
        FUZZ_CHECK(kept_ >= 0 && file >= 0, "no descriptors");
        dup2(file, fd);
        close(file);
        view_ = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    }
    ~Stream() { close(view_); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void Give(const std::string& text) const
    {
        FUZZ_CHECK(write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       lseek64(fd_, 0, SEEK_SET) == 0,
                   "no input");
    }
    // The program's own is back.
    void End() const
    {
        dup2(kept_, fd_);
        close(kept_);
    }
    std::string Written() const
    {
        std::string text(static_cast<size_t>(lseek64(view_, 0, SEEK_END)), '\0');
        FUZZ_CHECK(pread64(view_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                   "no output");
        return text;
    }

private:
    int fd_;
    int kept_;
    int view_;
};

struct Outcome {
    int code;
    std::string out;
    std::string err;
};

int OpenDescriptors()
{
    int open = 0;
    for (int fd = 0; fd < 64; fd++) {
        open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return open;
}

// Where the tool runs on this very thread, the signal that ended its wait is still to come.
void DropPendingSignal()
{
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    const struct timespec at_once = {};
    sigtimedwait(&interrupt, nullptr, &at_once);
}

// Signals are held while the tool runs; what was asked of them before is asked again.
Outcome Run(const std::vector<std::string>& words, const std::string& answer)
{
    std::vector<std::string> copy = words;
    std::vector<char*> argv;
    for (std::string& word : copy) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    sigset_t mask;
    struct sigaction before[2] = {};
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigaction(SIGINT, nullptr, &before[0]);
    sigaction(SIGTERM, nullptr, &before[1]);
    std::fflush(stdout);
    const int open_before = OpenDescriptors();
    const Stream in(STDIN_FILENO);
    const Stream out(STDOUT_FILENO);
    const Stream err(STDERR_FILENO);
    in.Give(answer);
    waits = 0;
    running = true;
    Outcome outcome = {CardtoolMain(static_cast<int>(words.size()), argv.data()), "", ""};
    running = false;
    std::fflush(stdout);
    err.End();
    out.End();
    in.End();
    if (waits >= kMostWaits) {
        DropPendingSignal();
    }
    sigaction(SIGINT, &before[0], nullptr);
    sigaction(SIGTERM, &before[1], nullptr);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    outcome.out = out.Written();
    outcome.err = err.Written();
    FUZZ_CHECK(OpenDescriptors() == open_before, "a descriptor is left open");
    return outcome;
}

bool IsCode(int code)
{
    const auto kinds = Kinds();
    return std::any_of(kinds.begin(), kinds.end(),
                       [&](const Kind& kind) { return static_cast<int>(kind.code) == code; });
}

// The document says how it ended, as the exit code does.
void CheckDocument(const Outcome& outcome)
{
    const json document = json::parse(outcome.out, nullptr, false);
    FUZZ_CHECK(!document.is_discarded(), "no document: %s", outcome.out.c_str());
    FUZZ_CHECK(document["ok"] == (outcome.code == 0), "ok and exit code %d", outcome.code);
    FUZZ_CHECK(document["error"].is_null() == (outcome.code == 0), "an error and exit code %d",
               outcome.code);
    FUZZ_CHECK(outcome.code == 0 || document["error"]["code"] == outcome.code,
               "another code than %d", outcome.code);
    FUZZ_CHECK(std::all_of(outcome.out.begin(), outcome.out.end(),
                           [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }),
               "the document is not plain");
}

// Two lines at the end say what is wrong and what to do.
void CheckAdvice(const Outcome& outcome)
{
    size_t lines = 0;
    for (size_t at = outcome.err.find("cardtool: "); at != std::string::npos;
         at = outcome.err.find("\ncardtool: ", at + 1)) {
        lines++;
    }
    FUZZ_CHECK(lines >= 2, "exit code %d and \"%s\"", outcome.code, outcome.err.c_str());
}

void Check(const std::vector<std::string>& words, const Outcome& outcome)
{
    FUZZ_CHECK(IsCode(outcome.code), "exit code %d", outcome.code);
    FUZZ_CHECK(outcome.code != static_cast<int>(ExitCode::Unexpected), "unexpected: %s",
               outcome.err.c_str());
    const auto is_json = [](const std::string& word) { return word == "--json"; };
    const bool wants_json = std::any_of(words.begin(), words.end(), is_json);
    // Help and the like come instead of what was asked for.
    const bool is_text = outcome.code == 0 && outcome.out.compare(0, 1, "{") != 0;
    const auto asks_for_text = [](const std::string& word) {
        return word.compare(0, 2, "-h") == 0 || word.compare(0, 3, "--h") == 0 ||
               word.compare(0, 3, "--v") == 0 || word.compare(0, 3, "--g") == 0;
    };
    if (wants_json) {
        FUZZ_CHECK(!is_text || std::any_of(words.begin(), words.end(), asks_for_text),
                   "text in the place of a document: %s", outcome.out.c_str());
    }
    if (wants_json && !is_text) {
        CheckDocument(outcome);
    }
    if (outcome.code != 0) {
        CheckAdvice(outcome);
    }
}

void Show(const std::vector<std::string>& words)
{
    for (const std::string& word : words) {
        std::fprintf(stderr, "\"%s\" ", word.c_str());
    }
    std::fprintf(stderr, "\n");
}

}  // namespace

extern "C" {

int RealOpen(const char* path, int flags,
             mode_t mode) __asm__("__real__ZN7cardsim4libc4OpenEPKcij");
int WrappedOpen(const char* path, int flags,
                mode_t mode) __asm__("__wrap__ZN7cardsim4libc4OpenEPKcij");
int __real_ppoll(struct pollfd* fds, nfds_t count, const struct timespec* limit,
                 const sigset_t* mask);
int __wrap_ppoll(struct pollfd* fds, nfds_t count, const struct timespec* limit,
                 const sigset_t* mask);

// The one way to a file that is not simulated.
int WrappedOpen(const char* path, int flags, mode_t mode)
{
    if (running && !TheFolder().Holds(path) && !IsHarmless(path)) {
        errno = ENOENT;
        return -1;
    }
    return RealOpen(path, flags, mode);
}

// No time passes; a wait that does not end is ended by the user.
int __wrap_ppoll(struct pollfd* fds, nfds_t count, const struct timespec* limit,
                 const sigset_t* mask)
{
    if (!running) {
        return __real_ppoll(fds, count, limit, mask);
    }
    if (++waits < kMostWaits) {
        return 0;
    }
    pthread_kill(pthread_self(), SIGINT);
    errno = EINTR;
    return -1;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    fuzz::Input arguments = input.Part(input.Byte());
    const std::vector<std::string> words = Words(arguments);
    const std::string answer = input.Flag() ? "yes\n" : Literal(input);
    fuzz::Input cards = input.Part(input.Number(2) % 512);
    const std::string description = Description(cards);
    std::string text;
    while (input.Left() > 0) {
        text += static_cast<char>(input.Byte());
    }
    TheFolder().Fill(description, text);
    const Outcome outcome = Run(words, answer);
    static const bool show = std::getenv("FUZZ_SHOW") != nullptr;
    if (show) {
        Show(words);
        std::fprintf(stderr, "%s\n%d\n%s%s", description.c_str(), outcome.code, outcome.out.c_str(),
                     outcome.err.c_str());
    }
    Check(words, outcome);
    return 0;
}

}  // extern "C"
