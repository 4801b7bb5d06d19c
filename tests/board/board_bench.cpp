// SPDX-License-Identifier: MIT
//
// The bench on the emulated board: real nodes, and the control files of their drivers.
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include <malloc.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "tests/board/driver_nodes.h"
#include "tests/support/bench.h"

// The suite's memory comes from where everybody's does.
extern "C" void* __real_malloc(size_t length);
extern "C" void __real_free(void* block);

extern "C" void* __real_malloc(size_t length)
{
    return malloc(length);
}

extern "C" void __real_free(void* block)
{
    free(block);
}

namespace {

using board::Get;
using board::Put;

constexpr const char* kHolders[] = {"zel0", "zel1",  "zel2",  "zel3", "zel4",
                                    "zel5", "mivo0", "mivo1", "ricoh"};

struct KindName {
    BenchCallKind kind;
    const char* name;
};

constexpr KindName kKindNames[] = {
    {BenchCallKind::Open, "open"},   {BenchCallKind::Close, "close"}, {BenchCallKind::Read, "read"},
    {BenchCallKind::Write, "write"}, {BenchCallKind::Ioctl, "ioctl"}, {BenchCallKind::Poll, "poll"},
};

bool IsCardNode(const std::string& path)
{
    for (const char* start : {"/dev/spd", "/dev/rtctrl", "/dev/mivosdif", "/dev/sdcard"}) {
        if (path.starts_with(start)) {
            return true;
        }
    }
    return false;
}

class BoardBench : public Bench {
public:
    BoardBench()
    {
        static bool is_tidy = false;
        if (!is_tidy) {
            used_.insert(std::begin(kHolders), std::end(kHolders));
            TidyUp();
        }
        is_tidy = true;
    }

    ~BoardBench() override
    {
        mallopt(M_PERTURB, 0);
        TidyUp();
        for (const std::string& node : nodes_) {
            unlink(node.c_str());
        }
    }

    void Insert(const std::string& place, const Bytes& sectors) override
    {
        EXPECT_EQ(0, board::Insert(place, sectors)) << place;
        auto media = std::make_shared<board::Fd>(board::Control(place, "media"), O_RDWR);
        const std::lock_guard<std::mutex> lock(lock_);
        used_.insert(place);
        media_[place] = std::move(media);
    }

    void Eject(const std::string& place) override { Set(place, "eject", "1"); }

    void Protect(const std::string& place, bool is_protected) override
    {
        Set(place, "protected", is_protected ? "1" : "0");
    }

    Bytes OnCard(const std::string& place, uint32_t first, uint32_t sectors) override
    {
        return board::OnCard(place, first, sectors);
    }

    // A control file that was opened while the card was in stays with it.
    Bytes OnPulledCard(const std::string& place, uint32_t first, uint32_t sectors) override
    {
        const std::shared_ptr<board::Fd> media = MediaOf(place);
        Bytes bytes(size_t{sectors} * 512);
        EXPECT_EQ(
            static_cast<ssize_t>(bytes.size()),
            pread64(media->get(), bytes.data(), bytes.size(), static_cast<off64_t>(first) * 512));
        return bytes;
    }

    bool CachesPlain(const std::string& place) override { return !place.starts_with("mivo"); }

    // The kernel does, for a block node that is open without O_SYNC.
    bool WritesLate(const std::string& place) override { return place.starts_with("zel"); }

    // As writing to a card's sectors does, even when it is nothing that is written.
    void ForgetCaches(const std::string& place) override
    {
        EXPECT_EQ(0, write(MediaOf(place)->get(), "", 0)) << place;
    }

    bool HasCard(const std::string& place) override { return State(place, "sectors") != 0; }
    bool AnswersEveryCall() override { return false; }

    Bytes Register(const std::string& place, const std::string& name) override
    {
        const std::string digits = Get(place, name);
        Bytes bytes;
        for (size_t i = 0; i + 1 < digits.size(); i += 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
        }
        return bytes;
    }

    void SetRegister(const std::string& place, const std::string& name, const Bytes& bytes) override
    {
        std::string digits;
        for (const uint8_t byte : bytes) {
            char text[3];
            snprintf(text, sizeof text, "%02x", byte);
            digits += text;
        }
        Set(place, name, digits);
    }

    void Latency(const std::string& place, std::chrono::microseconds latency) override
    {
        Set(place, "latency_us", std::to_string(latency.count()));
    }

    void Inject(const std::string& place, const BenchFault& fault) override
    {
        std::ostringstream line;
        line << "call=" << NameOf(fault.kind);
        if (place.starts_with("zel")) {
            line << (fault.node == BenchNode::Block ? " node=block" : " node=char");
        }
        if (fault.request != 0) {
            line << " request=0x" << std::hex << fault.request << std::dec;
        }
        line << " first=" << fault.first << " times=";
        if (fault.times == BenchFault::kForEver) {
            line << "forever";
        } else {
            line << fault.times;
        }
        if (fault.error != 0) {
            line << " errno=" << fault.error;
        }
        if (fault.result) {
            line << " result=" << *fault.result;
        }
        if (fault.events) {
            line << " revents=0x" << std::hex << *fault.events << std::dec;
        }
        line << (fault.reach ? " reach" : "") << (fault.never ? " never" : "")
             << (fault.eject ? " eject" : "") << (fault.protect ? " protect" : "");
        std::string image;
        if (fault.exchange) {
            image = board::ImageFile(*fault.exchange);
            line << " exchange=" << image;
        }
        Set(place, "faults", line.str());
        unlink(image.c_str());
    }

    void ClearFaults(const std::string& place) override { Set(place, "faults", "clear"); }

    std::vector<BenchCall> Calls(const std::string& place) override
    {
        std::vector<BenchCall> calls;
        std::istringstream trace(Get(place, "trace"));
        std::string line;
        while (std::getline(trace, line)) {
            calls.push_back(CallOf(line));
        }
        return calls;
    }

    void ClearCalls(const std::string& place) override { Set(place, "trace", "clear"); }

    void KeepNoCalls() override
    {
        for (const char* place : kHolders) {
            Set(place, "trace", "off");
        }
        Set("rtctrl", "trace", "off");
    }

    uint32_t State(const std::string& place, const std::string& key) override
    {
        return static_cast<uint32_t>(std::stoul(board::State(place, key), nullptr, 0));
    }

    void SetState(const std::string& place, const std::string& key, uint32_t value) override
    {
        Set(place, "state", key + " " + std::to_string(value));
    }

    void MakeNode(const std::string& path, mode_t type, unsigned major, unsigned minor) override
    {
        EXPECT_EQ(0, mknod(path.c_str(), type | 0600, makedev(major, minor))) << path;
        nodes_.insert(path);
    }

    // Blocks that were freed lately are handed out again as they are; when there are no
    // more of them, the allocator does as it is told.
    void ZeroFreshBlocks(size_t length) override
    {
        mallopt(M_PERTURB, 0xFF);
        for (int i = 0; i < 64; i++) {
            kept_.emplace_back(malloc(length), free);
        }
    }

    std::chrono::nanoseconds Now() override
    {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    }

    // Under board/run --exact-time, from the board's own memory, at a real-time priority: to
    // other programs the kernel wakes up late, by a thousandth of what they wait for.
    std::chrono::nanoseconds Slack() override { return std::chrono::microseconds(500); }

    std::string LeftBehind() override
    {
        std::string open;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code failed;
            const std::string path = std::filesystem::read_symlink(entry.path(), failed);
            if (!failed && IsCardNode(path)) {
                open += path + " is open\n";
            }
        }
        return open;
    }

    size_t LiveBlocks() override { return 0; }

private:
    std::shared_ptr<board::Fd> MediaOf(const std::string& place)
    {
        const std::lock_guard<std::mutex> lock(lock_);
        return media_.at(place);
    }

    // What a run before has left, or this one.
    void TidyUp()
    {
        for (const std::string& place : used_) {
            Set(place, "faults", "clear");
            Set(place, "eject", "1");
            Set(place, "latency_us", "100");
            Set(place, "trace", "clear");
        }
        for (const char* file : {"faults", "trace"}) {
            Set("rtctrl", file, "clear");
        }
        for (const char* key : {"rt_status", "delay_status", "on_for_wait"}) {
            Set("rtctrl", "state", std::string(key) + " 0");
        }
    }

    static void Set(const std::string& place, const std::string& file, const std::string& text)
    {
        EXPECT_EQ(0, Put(place, file, text)) << place << " " << file << " " << text;
    }

    static const char* NameOf(BenchCallKind kind)
    {
        for (const KindName& named : kKindNames) {
            if (named.kind == kind) {
                return named.name;
            }
        }
        return "";
    }

    // "TIME NODE CALL [REQUEST] = RESULT"
    static BenchCall CallOf(const std::string& line)
    {
        BenchCall call = {};
        std::istringstream words(line);
        int64_t time = 0;
        std::string node;
        std::string name;
        std::string result;
        words >> time >> node >> name >> result;
        call.at = std::chrono::nanoseconds(time);
        const bool character = node.starts_with("/dev/spdr") || node.starts_with("/dev/mivo") ||
                               node.starts_with("/dev/rtctrl");
        call.node = character ? BenchNode::Char : BenchNode::Block;
        if (result != "=") {
            call.request = static_cast<uint32_t>(std::stoul(result, nullptr, 0));
            words >> result;
        }
        words >> result;
        call.result = std::stoi(result, nullptr, 0);
        bool known = false;
        for (const KindName& named : kKindNames) {
            if (name == named.name) {
                call.kind = named.kind;
                known = true;
            }
        }
        EXPECT_TRUE(known) << line;
        if (call.kind == BenchCallKind::Poll) {
            call.result = call.result != 0 ? 1 : 0;
        }
        return call;
    }

    std::mutex lock_;
    std::map<std::string, std::shared_ptr<board::Fd>> media_;
    std::set<std::string> used_;
    std::set<std::string> nodes_;
    std::vector<std::unique_ptr<void, void (*)(void*)>> kept_;
};

}  // namespace

std::unique_ptr<Bench> Bench::Create()
{
    return std::make_unique<BoardBench>();
}
