// SPDX-License-Identifier: MIT
//
// Memory below 4 GiB. The drivers' records carry 32-bit addresses; on a host
// with 64-bit pointers whatever they point at - stack included - must lie low.
// On a 32-bit host all memory does, and these are malloc and a plain call.
#ifndef CARDSIM_LOW_MEMORY_H
#define CARDSIM_LOW_MEMORY_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <pthread.h>

namespace cardsim {

// Null when there is none left. Blocks are aligned as malloc's.
void* LowAllocate(size_t length);
// Takes null and blocks of LowAllocate.
void LowFree(void* block);
// Whether a block is one of LowAllocate's.
bool IsLowBlock(const void* block);

// Run `body` with its stack below 4 GiB and return its result.
int RunOnLowStack(const std::function<int()>& body);

// A thread with its stack below 4 GiB. Destruction waits for its end.
class LowThread {
public:
    explicit LowThread(std::function<void()> body);
    ~LowThread();
    LowThread(const LowThread&) = delete;
    LowThread& operator=(const LowThread&) = delete;

private:
    static void* Run(void* self);

    std::function<void()> body_;
    void* stack_ = nullptr;
    pthread_t thread_;
};

// A zeroed buffer below 4 GiB for a program's data.
class LowBuffer {
public:
    explicit LowBuffer(size_t size);
    uint8_t* data() const { return bytes_.get(); }
    size_t size() const { return size_; }
    uint32_t address() const
    {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(bytes_.get()));
    }
    uint8_t& operator[](size_t i) const { return bytes_.get()[i]; }

private:
    struct Freer {
        void operator()(uint8_t* bytes) const { LowFree(bytes); }
    };
    size_t size_;
    std::unique_ptr<uint8_t, Freer> bytes_;
};

}  // namespace cardsim

#endif
