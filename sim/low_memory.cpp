// SPDX-License-Identifier: MIT
#include "sim/low_memory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sys/mman.h>

#include "sim/contents.h"

// malloc and free are wrapped for the library under test; these are the real ones.
extern "C" void* __real_malloc(size_t length);
extern "C" void __real_free(void* block);

namespace cardsim {

#if UINTPTR_MAX == UINT32_MAX

void* LowAllocate(size_t length)
{
    return __real_malloc(length);
}

void LowFree(void* block)
{
    __real_free(block);
}

bool IsLowBlock(const void*)
{
    return true;  // the two are one and the same
}

int RunOnLowStack(const std::function<int()>& body)
{
    return body();
}

LowThread::LowThread(std::function<void()> body) : body_(std::move(body))
{
    if (pthread_create(&thread_, nullptr, Run, this) != 0) {
        throw std::bad_alloc();
    }
}

LowThread::~LowThread()
{
    pthread_join(thread_, nullptr);
}

#else

namespace {

constexpr uintptr_t kLowest = 0x10000000;
constexpr uintptr_t kEnd = 0x7f000000;  // sanitizers keep their own above
constexpr uintptr_t kStep = 0x1000000;
constexpr size_t kArenaSize = 256u << 20;
constexpr size_t kStackSize = 8u << 20;
constexpr size_t kGap = 16;  // poisoned, behind each block

void* MapLow(size_t length)
{
    for (uintptr_t at = kLowest; at + length < kEnd; at += kStep) {
        void* mapped =
            mmap(reinterpret_cast<void*>(at), length, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
        if (mapped == MAP_FAILED) {
            continue;
        }
        // An old kernel, or a tool that stands in for it, may take the address as a wish.
        const auto start = reinterpret_cast<uintptr_t>(mapped);
        if (start >= kLowest && start < kEnd && length <= kEnd - start) {
            return mapped;
        }
        munmap(mapped, length);
    }
    return nullptr;
}

// Blocks are cut off the arena's front; freed ones serve again for the same
// size. Records stand outside, so that an overrun hits no bookkeeping.
class Arena {
public:
    void* Allocate(size_t length)
    {
        const std::lock_guard<std::mutex> lock(lock_);
        if (length > kArenaSize) {
            return nullptr;
        }
        const size_t room = (length + kGap + 15) / 16 * 16;
        uint8_t* block = Take(room);
        if (block != nullptr) {
            sizes_[block] = room;
            HasNoValue(block, length);
        }
        return block;
    }

    void Free(void* block)
    {
        const std::lock_guard<std::mutex> lock(lock_);
        const auto found = sizes_.find(block);
        if (found == sizes_.end()) {
            std::abort();  // not a block, or freed before
        }
        IsOffLimits(block, found->second);
        free_[found->second].push_back(static_cast<uint8_t*>(block));
        sizes_.erase(found);
    }

    bool Contains(const void* block)
    {
        const std::lock_guard<std::mutex> lock(lock_);
        return start_ != nullptr && block >= start_ && block < start_ + used_;
    }

private:
    uint8_t* Take(size_t room)
    {
        std::vector<uint8_t*>& spare = free_[room];
        if (!spare.empty()) {
            uint8_t* block = spare.back();
            spare.pop_back();
            return block;
        }
        if (start_ == nullptr) {
            start_ = static_cast<uint8_t*>(MapLow(kArenaSize));
            if (start_ == nullptr) {
                return nullptr;
            }
            IsOffLimits(start_, kArenaSize);
        }
        if (kArenaSize - used_ < room) {
            return nullptr;
        }
        uint8_t* block = start_ + used_;
        used_ += room;
        return block;
    }

    std::mutex lock_;
    uint8_t* start_ = nullptr;
    size_t used_ = 0;
    std::map<void*, size_t> sizes_;
    std::map<size_t, std::vector<uint8_t*>> free_;
};

// Never destroyed: blocks may be freed by destructors that run later.
Arena& TheArena()
{
    static auto* const arena = new Arena;
    return *arena;
}

}  // namespace

void* LowAllocate(size_t length)
{
    return TheArena().Allocate(length);
}

void LowFree(void* block)
{
    if (block != nullptr) {
        TheArena().Free(block);
    }
}

bool IsLowBlock(const void* block)
{
    return TheArena().Contains(block);
}

int RunOnLowStack(const std::function<int()>& body)
{
    int result = -1;
    {
        const LowThread thread([&] { result = body(); });
    }
    return result;
}

LowThread::LowThread(std::function<void()> body)
    : body_(std::move(body)), stack_(MapLow(kStackSize))
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack_ == nullptr || pthread_attr_setstack(&attributes, stack_, kStackSize) != 0 ||
        pthread_create(&thread_, &attributes, Run, this) != 0) {
        throw std::bad_alloc();
    }
    pthread_attr_destroy(&attributes);
}

LowThread::~LowThread()
{
    pthread_join(thread_, nullptr);
    munmap(stack_, kStackSize);
}

#endif

void* LowThread::Run(void* self)
{
    static_cast<LowThread*>(self)->body_();
    return nullptr;
}

LowBuffer::LowBuffer(size_t size) : size_(size), bytes_(static_cast<uint8_t*>(LowAllocate(size)))
{
    if (bytes_ == nullptr) {
        throw std::bad_alloc();
    }
    std::memset(bytes_.get(), 0, size);
}

}  // namespace cardsim
