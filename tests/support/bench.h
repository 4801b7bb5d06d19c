// SPDX-License-Identifier: MIT
//
// What a test does to cards and drivers, wherever they are: in the stand-in for the
// kernel, or behind a kernel's real nodes on the emulated board.
#ifndef CARDDEV_TESTS_BENCH_H
#define CARDDEV_TESTS_BENCH_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

using Bytes = std::vector<uint8_t>;

enum class BenchCallKind { Open, Close, Read, Write, Ioctl, Poll };

// Which of a place's nodes: only the Zel slots have both.
enum class BenchNode { Block, Char };

// A call that reached the driver, or was answered in its stead.
struct BenchCall {
    BenchCallKind kind;
    BenchNode node;
    uint32_t request;  // Ioctl
    int result;        // negated errno where the call failed; Poll: whether events were told
    std::chrono::nanoseconds at;  // when it was answered
};

// What is to happen to some of the calls of a place's node. They are counted from when the
// fault was added.
struct BenchFault {
    static constexpr uint64_t kForEver = UINT64_MAX;

    BenchCallKind kind = BenchCallKind::Ioctl;
    BenchNode node = BenchNode::Char;
    uint32_t request = 0;  // Ioctl: any request when 0
    uint64_t first = 1;
    uint64_t times = 1;

    int error = 0;                         // what the call fails with
    std::optional<int> result = {};        // what a request answers
    bool reach = false;                    // with these: do the work all the same
    std::optional<short> events = {};      // what a poll tells
    std::optional<uint32_t> at_most = {};  // Read, Write: bytes that get through
    bool never = false;                    // the end of this transfer is not told
    bool eject = false;                    // the card leaves, after the call's work
    bool protect = false;                  // ... or is protected from then on
    std::optional<Bytes> exchange = {};    // ... or another one is in its place
};

// A place is one that can hold a card: "zel0" to "zel5", "mivo0", "mivo1", "ricoh".
// Faults, calls and state has "rtctrl", too. Different places may be used by different
// threads at once.
class Bench {
public:
    // Empty places that behave.
    static std::unique_ptr<Bench> Create();

    Bench() = default;
    virtual ~Bench() = default;
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    // An ordinary card with these sectors. One that is in is exchanged.
    virtual void Insert(const std::string& place, const Bytes& sectors) = 0;
    virtual void Eject(const std::string& place) = 0;
    virtual void Protect(const std::string& place, bool is_protected) = 0;
    // The sectors of the card that is in, past every cache.
    virtual Bytes OnCard(const std::string& place, uint32_t first, uint32_t sectors) = 0;
    // The same of the card that left last.
    virtual Bytes OnPulledCard(const std::string& place, uint32_t first, uint32_t sectors) = 0;
    // Whether plain transfers go by way of the kernel's memory: it may give what was written there
    // when the card has gone.
    virtual bool CachesPlain(const std::string& place) = 0;
    // Whether what a plain write was told to be done may still be on its way to the card.
    virtual bool WritesLate(const std::string& place) = 0;
    // It is on the card then, and what is read next comes from there.
    virtual void ForgetCaches(const std::string& place) = 0;
    virtual bool HasCard(const std::string& place) = 0;
    // "cid", "csd", "scr", "sd_status"
    virtual Bytes Register(const std::string& place, const std::string& name) = 0;
    virtual void SetRegister(const std::string& place, const std::string& name,
                             const Bytes& bytes) = 0;

    // Whether polls and plain transfers can be given any answer, too, and be cut short. A real
    // kernel answers these itself.
    virtual bool AnswersEveryCall() = 0;
    // How long transfers take. Without effect where nothing takes time.
    virtual void Latency(const std::string& place, std::chrono::microseconds latency) = 0;
    virtual void Inject(const std::string& place, const BenchFault& fault) = 0;
    virtual void ClearFaults(const std::string& place) = 0;

    // The calls since the last ClearCalls, oldest first.
    virtual std::vector<BenchCall> Calls(const std::string& place) = 0;
    virtual void ClearCalls(const std::string& place) = 0;
    // From now on no calls are kept: for programs that run for long.
    virtual void KeepNoCalls() = 0;

    // What the driver knows: "resets", "last_command", "command_word"; of Zel slots
    // "version", "data_start"; of Mivo units "mounted"; of the control node "rt_status",
    // "delay_status", "on_for_wait", "locks", "channel".
    virtual uint32_t State(const std::string& place, const std::string& key) = 0;
    // Of those: "version", "rt_status", "delay_status", "on_for_wait".
    virtual void SetState(const std::string& place, const std::string& key, uint32_t value) = 0;

    // A device node without a driver, for as long as the bench is there.
    virtual void MakeNode(const std::string& path, mode_t type, unsigned major, unsigned minor) = 0;

    // From now on the library finds fresh blocks of this length zeroed, as the callers of
    // DevDrctWriteArray have to see to.
    virtual void ZeroFreshBlocks(size_t length) = 0;

    virtual std::chrono::nanoseconds Now() = 0;
    // What calls that only wait may take on top, together.
    virtual std::chrono::nanoseconds Slack() = 0;

    // What the library has left open; "" for nothing.
    virtual std::string LeftBehind() = 0;
    // Blocks that it has not freed, where they can be counted; else 0.
    virtual size_t LiveBlocks() = 0;
};

#endif
