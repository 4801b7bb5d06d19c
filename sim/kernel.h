// SPDX-License-Identifier: MIT
//
// The stand-in for the kernel: device nodes by path, open files, the record of
// every call, faults, and a clock on which waiting costs no time.
//
// While a Kernel exists, the libc calls in sim/interpose.cpp ask it first. It
// answers for everything below /dev except the few nodes that any program may
// use (/dev/null and the like), for the descriptors that it has handed out, for
// negative descriptors, and for all sleeping; the rest goes to the real libc.
#ifndef CARDSIM_KERNEL_H
#define CARDSIM_KERNEL_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/stat.h>

#include "sim/libc.h"

namespace cardsim {

enum class CallKind { Stat, Open, Close, Seek, Read, Write, Ioctl, Poll, Sleep, Malloc, Free };

// One call as the program made it and as it was answered.
struct Call {
    CallKind kind = CallKind::Stat;
    std::string node;        // path, also of the node behind a descriptor
    int fd = -1;             // the descriptor that was given
    int flags = 0;           // Open: flags; Seek: whence; Poll: events asked for
    uint32_t request = 0;    // Ioctl: the request's number
    uintptr_t argument = 0;  // Ioctl: third argument; Read, Write: buffer; Free: block
    uint64_t amount = 0;     // Seek: offset; Read, Write, Malloc: bytes; Poll: ms; Sleep: ns
    int64_t result = 0;      // what the program got
    int error = 0;           // errno where the call failed, else 0
};

// "ioctl(/dev/sdcarda, 0x400178ff) = -1 EIO"; addresses are left out.
std::string Describe(const Call& call);

// An open file of a node.
struct File {
    std::string node;
    int flags = 0;
    uint64_t position = 0;
};

// Where the real driver stands. Results are the kernel's: 0 or positive, or a
// negated errno value. Calls come without the Kernel's lock, from any thread.
class Driver {
public:
    Driver() = default;
    virtual ~Driver() = default;
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    virtual int Open(File& file);
    virtual int64_t Seek(File& file, int64_t offset, int whence);
    virtual int64_t Read(File& file, void* to, uint32_t length);
    virtual int64_t Write(File& file, const void* from, uint32_t length);
    virtual int Ioctl(File& file, uint32_t request, uintptr_t argument);
    // Events that are there now.
    virtual short Poll(File& file);
};

struct Node {
    mode_t type;  // S_IFBLK or S_IFCHR
    unsigned major;
    unsigned minor;
    std::shared_ptr<Driver> driver;
};

// What is to happen to some of the calls that match. Calls are counted from the
// moment of injection; `first` counts from 1. A fault with neither `error` nor
// `result` lets the call through and changes only what it names.
struct Fault {
    static constexpr uint64_t kForEver = UINT64_MAX;

    std::optional<CallKind> kind = {};     // any kind when not set
    std::string node = {};                 // any node when empty
    std::optional<uint32_t> request = {};  // any request when not set
    uint64_t first = 1;
    uint64_t times = 1;

    int error = 0;                         // errno to set, with result -1 unless given
    std::optional<int64_t> result = {};    // what to answer; errno stays unless `error` is set
    std::optional<short> revents = {};     // Poll: the events to answer
    bool reach_driver = false;             // with error or result: do the work all the same
    std::optional<uint32_t> at_most = {};  // Read, Write: bytes that get through
    int stray_error = 0;                   // errno that a call leaves which has not failed
    std::function<void()> then = {};       // run before the program gets its answer
};

class Kernel {
public:
    // There is one Kernel at a time; it serves the process until it is destroyed.
    Kernel();
    ~Kernel();
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    // The one that serves the process, or null.
    static Kernel* Current() { return current_.load(std::memory_order_acquire); }

    void AddNode(const std::string& path, Node node);
    void RemoveNode(const std::string& path);
    bool HasNode(const std::string& path) const;

    void Inject(Fault fault);
    void ClearFaults();
    void ClearFaults(const std::string& node);  // that name this node

    // Shown each call, with its answer, before the program gets that. For one thread.
    void Watch(std::function<void(const Call&)> watcher) { watcher_ = std::move(watcher); }

    // Everything since the last ClearCalls, in the order of the answers.
    std::vector<Call> Calls() const;
    void ClearCalls();
    // Programs that run for long and do not look at the record can do without.
    void KeepCalls(bool keep) { keep_calls_.store(keep); }

    size_t OpenFiles() const;              // descriptors handed out and not closed
    size_t LiveBlocks() const;             // blocks allocated and not freed
    std::chrono::nanoseconds Now() const;  // time slept or waited so far

    // The byte that fresh blocks are filled with.
    void FillBlocksWith(uint8_t byte) { block_fill_.store(byte); }

    // --- for sim/interpose.cpp and sim/heap.cpp -----------------------------
    // Results are libc's: -1 with errno set on failure, errno untouched else.
    static bool Owns(const char* path);
    bool Owns(int fd) const;
    int Stat(const char* path, struct stat64* node);
    int Open(const char* path, int flags);
    int Close(int fd);
    int64_t Seek(int fd, int64_t offset, int whence);
    int64_t Read(int fd, void* to, size_t length);
    int64_t Write(int fd, const void* from, size_t length);
    int Ioctl(int fd, unsigned long request, uintptr_t argument);
    int Poll(struct pollfd* asked, int timeout_ms);
    int Sleep(const struct timespec* length);
    void* Malloc(size_t length);
    void Free(void* block);

private:
    struct OpenFile {
        std::mutex position_lock;  // as the kernel's own on a file's position
        File file;
        std::shared_ptr<Driver> driver;
    };
    struct Planned {
        Fault fault;
        uint64_t seen = 0;
    };

    std::shared_ptr<OpenFile> Find(int fd) const;
    std::optional<Fault> TakeFault(const Call& call);
    int64_t Finish(Call call, const std::optional<Fault>& fault, int64_t result,
                   ErrnoKeeper& program);

    static std::atomic<Kernel*> current_;

    mutable std::mutex lock_;
    std::map<std::string, Node> nodes_;
    std::map<int, std::shared_ptr<OpenFile>> files_;
    std::vector<Planned> faults_;
    std::function<void(const Call&)> watcher_;
    std::vector<Call> calls_;
    std::map<void*, size_t> blocks_;
    std::chrono::nanoseconds now_{0};
    std::atomic<uint8_t> block_fill_{0};
    std::atomic<bool> keep_calls_{true};
};

}  // namespace cardsim

#endif
