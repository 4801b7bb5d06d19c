// SPDX-License-Identifier: MIT
#include "sim/kernel.h"

#include <array>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "sim/libc.h"
#include "sim/low_memory.h"

namespace cardsim {

std::atomic<Kernel*> Kernel::current_{nullptr};

// --- drivers -----------------------------------------------------------------

int Driver::Open(File&)
{
    return 0;
}

int64_t Driver::Seek(File&, int64_t, int)
{
    return -ESPIPE;
}

int64_t Driver::Read(File&, void*, uint32_t)
{
    return -EINVAL;
}

int64_t Driver::Write(File&, const void*, uint32_t)
{
    return -EINVAL;
}

int Driver::Ioctl(File&, uint32_t, uintptr_t)
{
    return -ENOTTY;
}

// Files without a poll operation of their own are always ready.
short Driver::Poll(File&)
{
    return POLLIN | POLLOUT;
}

// --- life --------------------------------------------------------------------

Kernel::Kernel()
{
    Kernel* none = nullptr;
    if (!current_.compare_exchange_strong(none, this)) {
        throw std::logic_error("there is a simulated kernel already");
    }
}

Kernel::~Kernel()
{
    current_.store(nullptr, std::memory_order_release);
    for (const auto& open : files_) {
        libc::Close(open.first);
    }
}

void Kernel::AddNode(const std::string& path, Node node)
{
    const std::lock_guard<std::mutex> lock(lock_);
    nodes_[path] = std::move(node);
}

void Kernel::RemoveNode(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(lock_);
    nodes_.erase(path);
}

bool Kernel::HasNode(const std::string& path) const
{
    const std::lock_guard<std::mutex> lock(lock_);
    return nodes_.count(path) != 0;
}

// --- faults ------------------------------------------------------------------

void Kernel::Inject(Fault fault)
{
    const std::lock_guard<std::mutex> lock(lock_);
    faults_.push_back({std::move(fault), 0});
}

void Kernel::ClearFaults()
{
    const std::lock_guard<std::mutex> lock(lock_);
    faults_.clear();
}

void Kernel::ClearFaults(const std::string& node)
{
    const std::lock_guard<std::mutex> lock(lock_);
    std::erase_if(faults_, [&](const Planned& planned) { return planned.fault.node == node; });
}

static bool Matches(const Fault& fault, const Call& call)
{
    return (!fault.kind || *fault.kind == call.kind) &&
           (fault.node.empty() || fault.node == call.node) &&
           (!fault.request || (call.kind == CallKind::Ioctl && *fault.request == call.request));
}

// Every fault counts every call that it matches; the first one that is due acts.
std::optional<Fault> Kernel::TakeFault(const Call& call)
{
    const std::lock_guard<std::mutex> lock(lock_);
    std::optional<Fault> due;
    for (Planned& planned : faults_) {
        if (!Matches(planned.fault, call)) {
            continue;
        }
        planned.seen++;
        const bool acts = planned.seen >= planned.fault.first &&
                          planned.seen - planned.fault.first < planned.fault.times;
        if (acts && !due) {
            due = planned.fault;
        }
    }
    return due;
}

static bool ReachesDriver(const std::optional<Fault>& fault)
{
    return !fault || fault->reach_driver || (fault->error == 0 && !fault->result);
}

static uint32_t Limit(const std::optional<Fault>& fault, size_t length)
{
    const auto whole = static_cast<uint32_t>(length);
    return fault && fault->at_most && *fault->at_most < whole ? *fault->at_most : whole;
}

// Turn the driver's result into libc's, overrule it where a fault says so, and
// record the call. The program's errno changes only where the call failed, or a fault says so.
int64_t Kernel::Finish(Call call, const std::optional<Fault>& fault, int64_t result,
                       ErrnoKeeper& program)
{
    call.result = result < 0 ? -1 : result;
    call.error = result < 0 ? static_cast<int>(-result) : 0;
    if (fault && (fault->error != 0 || fault->result)) {
        call.result = fault->result.value_or(-1);
        call.error = fault->error;
    }
    const int64_t answer = call.result;
    const bool is_stray = fault && call.error == 0 && answer >= 0;
    const int error = is_stray ? fault->stray_error : call.error;
    if (watcher_) {
        watcher_(call);
    }
    if (keep_calls_.load()) {
        const std::lock_guard<std::mutex> lock(lock_);
        calls_.push_back(std::move(call));
    }
    if (fault && fault->then) {
        fault->then();
    }
    if (error != 0) {
        program.Set(error);
    }
    return answer;
}

// --- what happened -------------------------------------------------------------

std::vector<Call> Kernel::Calls() const
{
    const std::lock_guard<std::mutex> lock(lock_);
    return calls_;
}

void Kernel::ClearCalls()
{
    const std::lock_guard<std::mutex> lock(lock_);
    calls_.clear();
}

size_t Kernel::OpenFiles() const
{
    const std::lock_guard<std::mutex> lock(lock_);
    return files_.size();
}

size_t Kernel::LiveBlocks() const
{
    const std::lock_guard<std::mutex> lock(lock_);
    return blocks_.size();
}

std::chrono::nanoseconds Kernel::Now() const
{
    const std::lock_guard<std::mutex> lock(lock_);
    return now_;
}

static std::string OpenFlags(int flags)
{
    std::string text = (flags & O_ACCMODE) == O_RDWR     ? "O_RDWR"
                       : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY"
                                                         : "O_RDONLY";
    int others = flags & ~O_ACCMODE;
    if ((others & O_SYNC) == O_SYNC) {
        text += "|O_SYNC";
        others &= ~O_SYNC;
    }
    if (others != 0) {
        text += "|" + std::to_string(others);
    }
    return text;
}

std::string Describe(const Call& call)
{
    std::ostringstream text;
    switch (call.kind) {
        case CallKind::Stat:
            text << "stat64(" << call.node << ")";
            break;
        case CallKind::Open:
            text << "open64(" << call.node << ", " << OpenFlags(call.flags) << ")";
            break;
        case CallKind::Close:
            text << "close(" << call.node << ")";
            break;
        case CallKind::Seek:
            text << "lseek64(" << call.node << ", " << call.amount
                 << (call.flags == SEEK_SET   ? ", SEEK_SET)"
                     : call.flags == SEEK_CUR ? ", SEEK_CUR)"
                                              : ", SEEK_END)");
            break;
        case CallKind::Read:
            text << "read(" << call.node << ", " << call.amount << ")";
            break;
        case CallKind::Write:
            text << "write(" << call.node << ", " << call.amount << ")";
            break;
        case CallKind::Ioctl:
            text << "ioctl(" << call.node << ", 0x" << std::hex << call.request << std::dec << ")";
            break;
        case CallKind::Poll:
            text << "poll(" << call.node << ", 0x" << std::hex << call.flags << std::dec << ", "
                 << static_cast<int64_t>(call.amount) << " ms)";
            break;
        case CallKind::Sleep:
            text << "nanosleep(" << call.amount << " ns)";
            break;
        case CallKind::Malloc:
            text << "malloc(" << call.amount << ")";
            break;
        case CallKind::Free:
            text << "free()";
            break;
    }
    // Descriptors and addresses differ from run to run: only failures show.
    const bool handle = call.kind == CallKind::Open || call.kind == CallKind::Malloc;
    if (!handle || call.error != 0) {
        text << " = " << call.result;
    }
    if (call.error != 0) {
        text << " " << strerrorname_np(call.error);
    }
    return text.str();
}

// --- calls -----------------------------------------------------------------------

// On a machine with simulated cards /dev holds the simulated nodes and these.
bool Kernel::Owns(const char* path)
{
    static constexpr std::array kShared = {"/dev/null",   "/dev/zero", "/dev/full",
                                           "/dev/random", "/dev/tty",  "/dev/urandom"};
    static constexpr std::array kSharedFolders = {"/dev/fd/", "/dev/pts/", "/dev/shm/", "/dev/std"};
    if (path == nullptr || std::strncmp(path, "/dev/", 5) != 0) {
        return false;
    }
    for (const char* shared : kShared) {
        if (std::strcmp(path, shared) == 0) {
            return false;
        }
    }
    for (const char* folder : kSharedFolders) {
        if (std::strncmp(path, folder, std::strlen(folder)) == 0) {
            return false;
        }
    }
    return true;
}

bool Kernel::Owns(int fd) const
{
    return fd < 0 || Find(fd) != nullptr;
}

std::shared_ptr<Kernel::OpenFile> Kernel::Find(int fd) const
{
    const std::lock_guard<std::mutex> lock(lock_);
    const auto found = files_.find(fd);
    return found == files_.end() ? nullptr : found->second;
}

int Kernel::Stat(const char* path, struct stat64* node)
{
    ErrnoKeeper program;
    Call call;
    call.kind = CallKind::Stat;
    call.node = path;
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = 0;
    if (ReachesDriver(fault)) {
        const std::lock_guard<std::mutex> lock(lock_);
        const auto found = nodes_.find(path);
        if (found == nodes_.end()) {
            result = -ENOENT;
        } else {
            std::memset(node, 0, sizeof *node);
            node->st_mode = found->second.type | 0660;
            node->st_rdev = makedev(found->second.major, found->second.minor);
        }
    }
    return static_cast<int>(Finish(std::move(call), fault, result, program));
}

int Kernel::Open(const char* path, int flags)
{
    ErrnoKeeper program;
    Call call;
    call.kind = CallKind::Open;
    call.node = path;
    call.flags = flags;
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = 0;
    if (ReachesDriver(fault)) {
        auto open = std::make_shared<OpenFile>();
        {
            const std::lock_guard<std::mutex> lock(lock_);
            const auto found = nodes_.find(path);
            if (found != nodes_.end()) {
                open->driver = found->second.driver;
            }
        }
        open->file.node = path;
        open->file.flags = flags;
        result = open->driver ? open->driver->Open(open->file) : -ENOENT;
        if (result >= 0) {
            // A number of the real kernel's, so that no other file can get it
            // and the lowest free one is given out, as programs expect.
            const int fd = libc::Open("/dev/null", O_RDWR | O_CLOEXEC, 0);
            result = fd < 0 ? -EMFILE : fd;
        }
        if (result >= 0) {
            call.fd = static_cast<int>(result);
            const std::lock_guard<std::mutex> lock(lock_);
            files_[call.fd] = std::move(open);
        }
    }
    return static_cast<int>(Finish(std::move(call), fault, result, program));
}

int Kernel::Close(int fd)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(fd);
    Call call;
    call.kind = CallKind::Close;
    call.fd = fd;
    call.node = open ? open->file.node : "";
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = open ? 0 : -EBADF;
    if (open && ReachesDriver(fault)) {
        {
            const std::lock_guard<std::mutex> lock(lock_);
            files_.erase(fd);
        }
        libc::Close(fd);
    }
    return static_cast<int>(Finish(std::move(call), fault, result, program));
}

int64_t Kernel::Seek(int fd, int64_t offset, int whence)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(fd);
    Call call;
    call.kind = CallKind::Seek;
    call.fd = fd;
    call.node = open ? open->file.node : "";
    call.flags = whence;
    call.amount = static_cast<uint64_t>(offset);
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = open ? 0 : -EBADF;
    if (open && ReachesDriver(fault)) {
        const std::lock_guard<std::mutex> lock(open->position_lock);
        result = open->driver->Seek(open->file, offset, whence);
    }
    return Finish(std::move(call), fault, result, program);
}

int64_t Kernel::Read(int fd, void* to, size_t length)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(fd);
    Call call;
    call.kind = CallKind::Read;
    call.fd = fd;
    call.node = open ? open->file.node : "";
    call.argument = reinterpret_cast<uintptr_t>(to);
    call.amount = length;
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = open ? 0 : -EBADF;
    if (open && ReachesDriver(fault)) {
        const std::lock_guard<std::mutex> lock(open->position_lock);
        result = (open->file.flags & O_ACCMODE) == O_WRONLY
                     ? -EBADF
                     : open->driver->Read(open->file, to, Limit(fault, length));
    }
    return Finish(std::move(call), fault, result, program);
}

int64_t Kernel::Write(int fd, const void* from, size_t length)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(fd);
    Call call;
    call.kind = CallKind::Write;
    call.fd = fd;
    call.node = open ? open->file.node : "";
    call.argument = reinterpret_cast<uintptr_t>(from);
    call.amount = length;
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = open ? 0 : -EBADF;
    if (open && ReachesDriver(fault)) {
        const std::lock_guard<std::mutex> lock(open->position_lock);
        result = (open->file.flags & O_ACCMODE) == O_RDONLY
                     ? -EBADF
                     : open->driver->Write(open->file, from, Limit(fault, length));
    }
    return Finish(std::move(call), fault, result, program);
}

int Kernel::Ioctl(int fd, unsigned long request, uintptr_t argument)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(fd);
    Call call;
    call.kind = CallKind::Ioctl;
    call.fd = fd;
    call.node = open ? open->file.node : "";
    call.request = static_cast<uint32_t>(request);
    call.argument = argument;
    const std::optional<Fault> fault = TakeFault(call);
    int64_t result = open ? 0 : -EBADF;
    if (open && ReachesDriver(fault)) {
        result = open->driver->Ioctl(open->file, call.request, argument);
    }
    return static_cast<int>(Finish(std::move(call), fault, result, program));
}

// Nothing happens while a program waits: either an event is there at once, or
// the whole time passes, on the simulated clock.
int Kernel::Poll(struct pollfd* asked, int timeout_ms)
{
    ErrnoKeeper program;
    const std::shared_ptr<OpenFile> open = Find(asked->fd);
    Call call;
    call.kind = CallKind::Poll;
    call.fd = asked->fd;
    call.node = open ? open->file.node : "";
    call.flags = asked->events;
    call.amount = static_cast<uint64_t>(timeout_ms);
    const std::optional<Fault> fault = TakeFault(call);
    asked->revents = 0;
    if (open && ReachesDriver(fault)) {
        const int wanted = asked->events | POLLERR | POLLHUP | POLLNVAL;
        asked->revents = static_cast<short>(open->driver->Poll(open->file) & wanted);
    }
    if (fault && fault->revents) {
        asked->revents = *fault->revents;
    }
    const int64_t result = asked->revents != 0 ? 1 : 0;
    const bool timed_out = (fault && fault->result ? *fault->result : result) == 0;
    if (timed_out && timeout_ms > 0 && !(fault && fault->error)) {
        const std::lock_guard<std::mutex> lock(lock_);
        now_ += std::chrono::milliseconds(timeout_ms);
    }
    return static_cast<int>(Finish(std::move(call), fault, result, program));
}

int Kernel::Sleep(const struct timespec* length)
{
    ErrnoKeeper program;
    const auto asked =
        std::chrono::seconds(length->tv_sec) + std::chrono::nanoseconds(length->tv_nsec);
    Call call;
    call.kind = CallKind::Sleep;
    call.amount = static_cast<uint64_t>(asked.count());
    const std::optional<Fault> fault = TakeFault(call);
    if (ReachesDriver(fault)) {
        const std::lock_guard<std::mutex> lock(lock_);
        now_ += asked;
    }
    return static_cast<int>(Finish(std::move(call), fault, 0, program));
}

void* Kernel::Malloc(size_t length)
{
    ErrnoKeeper program;
    Call call;
    call.kind = CallKind::Malloc;
    call.amount = length;
    const std::optional<Fault> fault = TakeFault(call);
    void* block = ReachesDriver(fault) ? LowAllocate(length) : nullptr;
    if (block != nullptr) {
        std::memset(block, block_fill_.load(), length);
        const std::lock_guard<std::mutex> lock(lock_);
        blocks_[block] = length;
    }
    return Finish(std::move(call), fault, block ? 0 : -ENOMEM, program) == 0 ? block : nullptr;
}

void Kernel::Free(void* block)
{
    ErrnoKeeper program;
    {
        const std::lock_guard<std::mutex> lock(lock_);
        if (blocks_.erase(block) == 0) {
            return;
        }
    }
    Call call;
    call.kind = CallKind::Free;
    call.argument = reinterpret_cast<uintptr_t>(block);
    Finish(std::move(call), std::nullopt, 0, program);
}

}  // namespace cardsim
