// SPDX-License-Identifier: MIT
#include "fuzz/machine.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>

#include "carddev_state.h"
#include "fuzz/check.h"
#include "fuzz/messages.h"
#include "sim/contents.h"

#if defined(__has_include) && __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, length)
#define ASAN_UNPOISON_MEMORY_REGION(address, length)
#endif
extern "C" {

int __real_stat64(const char* path, struct stat64* node);
int __real_open64(const char* path, int flags, mode_t mode);
int __real_close(int fd);
off64_t __real_lseek64(int fd, off64_t offset, int whence);
ssize_t __real_read(int fd, void* to, size_t length);
ssize_t __real_write(int fd, const void* from, size_t length);
int __real_ioctl(int fd, unsigned long request, void* argument);
int __real_poll(struct pollfd* fds, nfds_t count, int timeout_ms);
int __real_nanosleep(const struct timespec* length, struct timespec* remaining);
void* __real_malloc(size_t length);
void __real_free(void* block);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);

}  // extern "C"

namespace fuzz {

namespace {

// Of the thread that runs the library: the fuzzer has others.
thread_local Machine* current = nullptr;

// Static, so that the linker places it: without position independence below 4 GiB.
constexpr size_t kArenaSize = size_t{1} << 20;
constexpr size_t kGap = 32;  // poisoned, between blocks
alignas(64) uint8_t arena[kArenaSize];

struct Block {
    uint8_t* at;
    size_t length;
    bool by_library;  // not one of the caller's
    bool live;
};
constexpr size_t kMostBlocks = 1024;
Block blocks[kMostBlocks];
size_t block_count = 0;

bool InArena(const void* block)
{
    const auto* at = static_cast<const uint8_t*>(block);
    return at >= arena && at < arena + kArenaSize;
}

// Whatever the library has printed in the current call.
constexpr size_t kMostText = 65536;
char text[kMostText];

ssize_t TakeText(void*, const char* bytes, size_t length)
{
    if (current != nullptr) {
        current->Print(bytes, length);
    }
    errno = ENOTTY;  // as a first write to a pipe leaves it
    return static_cast<ssize_t>(length);
}

// The library's standard output.
FILE* Paper()
{
    static FILE* const paper = [] {
        static char buffer[4096];
        FILE* stream = fopencookie(nullptr, "w", {nullptr, TakeText, nullptr, nullptr});
        FUZZ_CHECK(stream != nullptr, "no stream");
        setvbuf(stream, buffer, _IOLBF, sizeof buffer);
        return stream;
    }();
    return paper;
}

FILE* kept_output = nullptr;

void* Cut(size_t* used, size_t length, bool library)
{
    if (length > kArenaSize || block_count == kMostBlocks) {
        return nullptr;
    }
    const size_t room = (length + kGap + 15) / 16 * 16;
    if (kArenaSize - *used < room) {
        return nullptr;
    }
    uint8_t* at = arena + *used;
    *used += room;
    ASAN_UNPOISON_MEMORY_REGION(at, length);
    blocks[block_count++] = {at, length, library, true};
    return at;
}

template <typename Units>
bool LiesIn(const Units& units, const void* lock)
{
    const auto at = reinterpret_cast<uintptr_t>(lock);
    const auto first = reinterpret_cast<uintptr_t>(&units);
    return at >= first && at < first + sizeof units;
}

}  // namespace

Machine::Machine(Driver& driver) : driver_(driver)
{
    FUZZ_CHECK(reinterpret_cast<uintptr_t>(arena + kArenaSize) <= UINT32_MAX,
               "link without position independence: memory lies above 4 GiB");
    ASAN_POISON_MEMORY_REGION(arena, kArenaSize);
    block_count = 0;
    kept_output = stdout;
    stdout = Paper();
    current = this;
}

Machine::~Machine()
{
    current = nullptr;
    stdout = kept_output;
    ASAN_UNPOISON_MEMORY_REGION(arena, kArenaSize);
}

Machine* Machine::Current()
{
    return current;
}

void* Machine::Allocate(size_t length)
{
    void* block = Cut(&used_, length, false);
    if (block != nullptr) {
        memset(block, 0, length);
    }
    return block;
}

void Machine::Begin()
{
    calls_ = 0;
    more_answers_ = 0;
    waited_ns_ = 0;
    ioctl_result_ = 0;
    printed_ = 0;
    error_ = EXFULL;
    errno = EXFULL;
}

void Machine::End(const char* what, int own)
{
    const int left = errno;
    fflush(stdout);
    FUZZ_CHECK(lock_ == nullptr, "%s returned with a lock", what);
    FUZZ_CHECK(left == error_ || (own != 0 && left == own), "%s left errno %d, not %d", what, left,
               error_);
    CheckMessages(what, text, printed_);
}

unsigned Machine::open_files() const
{
    unsigned count = 0;
    for (const bool open : open_) {
        count += open ? 1 : 0;
    }
    return count;
}

void Machine::CheckFile(int fd) const
{
    FUZZ_CHECK(fd >= 0 && fd < kMostFiles && open_[fd], "descriptor %d is not open", fd);
}

int64_t Machine::Make(const SystemCall& call, int fd, short* revents)
{
    const int kept = errno;
    calls_++;
    if (fd != kNoFile) {
        CheckFile(fd);
    }
    const Answer answer = driver_.Serve(call);
    if (revents != nullptr) {
        *revents = answer.revents;
    }
    if (call.kind == CallKind::Ioctl) {
        ioctl_result_ = answer.result;
        more_answers_ += answer.result > 0 ? 1 : 0;
    }
    errno = kept;
    if (answer.error != 0) {
        error_ = answer.error;
        errno = answer.error;
    }
    return answer.result;
}

int Machine::Open(const SystemCall& call)
{
    const int64_t result = Make(call, kNoFile, nullptr);
    if (result < 0) {
        return -1;
    }
    int fd = 0;
    if (result == 0 && !open_[0]) {
        zero_descriptor_ = true;
    } else {
        fd = next_file_++;
        FUZZ_CHECK(fd < kMostFiles, "more than %d nodes were opened", kMostFiles);
    }
    open_[fd] = true;
    return fd;
}

// As the kernel does, whatever it answers.
int Machine::Close(int fd)
{
    const SystemCall call = {.kind = CallKind::Close};
    const int result = static_cast<int>(Make(call, fd, nullptr));
    open_[fd] = false;
    return result;
}

int Machine::Poll(int fd, int timeout_ms, short* revents)
{
    const SystemCall call = {.kind = CallKind::Poll};
    const int ready = static_cast<int>(Make(call, fd, revents));
    if (ready == 0) {
        waited_ns_ += int64_t{timeout_ms} * 1000000;
    }
    return ready;
}

int Machine::Sleep(int64_t ns)
{
    const SystemCall call = {.kind = CallKind::Sleep};
    waited_ns_ += ns;
    return static_cast<int>(Make(call, kNoFile, nullptr));
}

void* Machine::Malloc(size_t length)
{
    const SystemCall call = {.kind = CallKind::Malloc, .amount = length};
    if (Make(call, kNoFile, nullptr) < 0) {
        return nullptr;
    }
    void* block = Cut(&used_, length, true);
    if (block == nullptr) {
        error_ = ENOMEM;
        errno = ENOMEM;
        return nullptr;
    }
    live_blocks_++;
    memset(block, zero_ ? 0 : fill_, length);
    if (!zero_) {
        cardsim::HasNoValue(block, length);
    }
    return block;
}

void Machine::Free(void* block)
{
    for (size_t i = 0; i < block_count; i++) {
        if (blocks[i].at == block) {
            FUZZ_CHECK(blocks[i].live && blocks[i].by_library, "a block is freed twice");
            blocks[i].live = false;
            live_blocks_--;
            ASAN_POISON_MEMORY_REGION(blocks[i].at, blocks[i].length);
            if (i + 1 == block_count) {
                used_ = static_cast<size_t>(blocks[i].at - arena);
                block_count--;
            }
            return;
        }
    }
    FUZZ_CHECK(false, "what is freed is no block");
}

void Machine::Locked(const void* lock)
{
    FUZZ_CHECK(lock_ == nullptr, "a lock is taken within a lock");
    lock_ = lock;
}

void Machine::Unlocked(const void* lock)
{
    FUZZ_CHECK(lock_ == lock, "a lock is released that is not held");
    lock_ = nullptr;
}

void Machine::Print(const char* bytes, size_t length)
{
    FUZZ_CHECK(length <= kMostText - printed_, "more than %zu bytes are printed", kMostText);
    memcpy(text + printed_, bytes, length);
    printed_ += length;
}

}  // namespace fuzz

using fuzz::CallKind;
using fuzz::Machine;
using fuzz::SystemCall;

extern "C" {

int __wrap_stat64(const char* path, struct stat64* node)
{
    if (Machine::Current() == nullptr) {
        return __real_stat64(path, node);
    }
    const SystemCall call = {.kind = CallKind::Stat, .path = path, .node = node};
    return static_cast<int>(Machine::Current()->Make(call, fuzz::kNoFile, nullptr));
}

int __wrap_open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (Machine::Current() == nullptr) {
        return __real_open64(path, flags, mode);
    }
    const SystemCall call = {.kind = CallKind::Open, .path = path};
    return Machine::Current()->Open(call);
}

int __wrap_close(int fd)
{
    return Machine::Current() == nullptr ? __real_close(fd) : Machine::Current()->Close(fd);
}

off64_t __wrap_lseek64(int fd, off64_t offset, int whence)
{
    if (Machine::Current() == nullptr) {
        return __real_lseek64(fd, offset, whence);
    }
    const SystemCall call = {.kind = CallKind::Seek, .amount = static_cast<uint64_t>(offset)};
    return Machine::Current()->Make(call, fd, nullptr);
}

ssize_t __wrap_read(int fd, void* to, size_t length)
{
    if (Machine::Current() == nullptr) {
        return __real_read(fd, to, length);
    }
    const SystemCall call = {
        .kind = CallKind::Read, .argument = reinterpret_cast<uintptr_t>(to), .amount = length};
    return static_cast<ssize_t>(Machine::Current()->Make(call, fd, nullptr));
}

ssize_t __wrap_write(int fd, const void* from, size_t length)
{
    if (Machine::Current() == nullptr) {
        return __real_write(fd, from, length);
    }
    const SystemCall call = {
        .kind = CallKind::Write, .argument = reinterpret_cast<uintptr_t>(from), .amount = length};
    return static_cast<ssize_t>(Machine::Current()->Make(call, fd, nullptr));
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (Machine::Current() == nullptr) {
        return __real_ioctl(fd, request, argument);
    }
    const SystemCall call = {.kind = CallKind::Ioctl,
                             .request = static_cast<uint32_t>(request),
                             .argument = reinterpret_cast<uintptr_t>(argument)};
    return static_cast<int>(Machine::Current()->Make(call, fd, nullptr));
}

int __wrap_poll(struct pollfd* fds, nfds_t count, int timeout_ms)
{
    if (Machine::Current() == nullptr) {
        return __real_poll(fds, count, timeout_ms);
    }
    return Machine::Current()->Poll(fds[0].fd, timeout_ms, &fds[0].revents);
}

int __wrap_nanosleep(const struct timespec* length, struct timespec* remaining)
{
    if (Machine::Current() == nullptr) {
        return __real_nanosleep(length, remaining);
    }
    return Machine::Current()->Sleep(int64_t{length->tv_sec} * 1000000000 + length->tv_nsec);
}

void* __wrap_malloc(size_t length)
{
    return Machine::Current() == nullptr ? __real_malloc(length)
                                         : Machine::Current()->Malloc(length);
}

void __wrap_free(void* block)
{
    if (fuzz::InArena(block)) {
        Machine::Current()->Free(block);
    } else {
        __real_free(block);
    }
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex)
{
    const int result = __real_pthread_mutex_lock(mutex);
    if (Machine::Current() != nullptr &&
        (fuzz::LiesIn(zel_dev, mutex) || fuzz::LiesIn(mivo_dev, mutex))) {
        Machine::Current()->Locked(mutex);
    }
    return result;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex)
{
    if (Machine::Current() != nullptr &&
        (fuzz::LiesIn(zel_dev, mutex) || fuzz::LiesIn(mivo_dev, mutex))) {
        Machine::Current()->Unlocked(mutex);
    }
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
