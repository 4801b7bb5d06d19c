// SPDX-License-Identifier: MIT
#include "sim/preload/low_heap.h"

#include <cerrno>
#include <cstdint>

#include <pthread.h>
#include <sys/mman.h>

namespace cardsim {

namespace {

constexpr uintptr_t kLowest = 0x10000000;
constexpr uintptr_t kEnd = 0xF0000000;
constexpr uintptr_t kStep = 0x1000000;
constexpr size_t kHeapSize = size_t{1} << 30;  // of addresses; memory as it is touched
constexpr size_t kHeader = 16;
constexpr int kClasses = 31;  // powers of two

// In front of each block, at its aligned place.
struct Header {
    size_t length;         // what the owner may use
    uint32_t size_class;   // ... where the block's room is 2^size_class bytes
    uint32_t room_before;  // from the room's start to the block
};

static_assert(sizeof(Header) <= kHeader);

struct FreeRoom {
    FreeRoom* next;
};

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
uint8_t* next_room;  // null until the first block
uint8_t* heap_end;
FreeRoom* free_rooms[kClasses];

bool MapHeap()
{
    for (uintptr_t at = kLowest; at + kHeapSize <= kEnd; at += kStep) {
        auto* const place = reinterpret_cast<uint8_t*>(at);
        void* const mapped =
            mmap(place, kHeapSize, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
        if (mapped == place) {
            next_room = place;
            heap_end = place + kHeapSize;
            return true;
        }
        if (mapped != MAP_FAILED) {
            munmap(mapped, kHeapSize);
        }
    }
    return false;
}

uint32_t ClassFor(size_t bytes)
{
    uint32_t size_class = 5;
    while ((size_t{1} << size_class) < bytes) {
        size_class++;
    }
    return size_class;
}

uint8_t* TakeRoom(uint32_t size_class)
{
    FreeRoom*& spare = free_rooms[size_class];
    if (spare != nullptr) {
        auto* const room = reinterpret_cast<uint8_t*>(spare);
        spare = spare->next;
        return room;
    }
    const size_t bytes = size_t{1} << size_class;
    if ((next_room == nullptr && !MapHeap()) || static_cast<size_t>(heap_end - next_room) < bytes) {
        return nullptr;
    }
    uint8_t* const room = next_room;
    next_room += bytes;
    return room;
}

Header* HeaderOf(const void* block)
{
    return reinterpret_cast<Header*>(reinterpret_cast<uintptr_t>(block) - kHeader);
}

}  // namespace

void* LowHeapAllocate(size_t alignment, size_t length)
{
    const size_t align = alignment < kHeader ? kHeader : alignment;
    if (length > kHeapSize / 2 || align > kHeapSize / 4) {
        errno = ENOMEM;
        return nullptr;
    }
    const uint32_t size_class = ClassFor(length + kHeader + align);
    pthread_mutex_lock(&lock);
    uint8_t* const room = size_class < kClasses ? TakeRoom(size_class) : nullptr;
    pthread_mutex_unlock(&lock);
    if (room == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    const uintptr_t start = reinterpret_cast<uintptr_t>(room);
    const uintptr_t block = (start + kHeader + align - 1) / align * align;
    *HeaderOf(reinterpret_cast<void*>(block)) = {length, size_class,
                                                 static_cast<uint32_t>(block - start)};
    return reinterpret_cast<void*>(block);
}

void LowHeapFree(void* block)
{
    if (block == nullptr) {
        return;
    }
    const Header header = *HeaderOf(block);
    auto* const room =
        reinterpret_cast<FreeRoom*>(reinterpret_cast<uintptr_t>(block) - header.room_before);
    pthread_mutex_lock(&lock);
    room->next = free_rooms[header.size_class];
    free_rooms[header.size_class] = room;
    pthread_mutex_unlock(&lock);
}

size_t LowHeapSize(const void* block)
{
    return HeaderOf(block)->length;
}

}  // namespace cardsim
