// SPDX-License-Identifier: MIT
//
// Memory below 4 GiB, and the allocations of the library under test, which are
// taken from it.
#include "sim/low_memory.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "tests/support/trace.h"

namespace {

using cardsim::CallKind;
using cardsim::Fault;
using cardsim::IsLowBlock;
using cardsim::Kernel;
using cardsim::LowAllocate;
using cardsim::LowBuffer;
using cardsim::LowFree;
using cardsim::RunOnLowStack;

bool IsLow(const void* address)
{
    const auto whole = reinterpret_cast<uintptr_t>(address);
    return static_cast<uint32_t>(whole) == whole;
}

void DieWithoutACore()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    GTEST_FLAG_SET(death_test_style, "fast");
}

// --- blocks -------------------------------------------------------------------------------

TEST(LowMemory, GivesAlignedBlocksBelow4GiB)
{
    std::vector<uint8_t*> blocks;
    const size_t sizes[] = {0, 1, 15, 16, 17, 31, 32, 4096, 65535, 1 << 20};
    for (const size_t size : sizes) {
        auto* block = static_cast<uint8_t*>(LowAllocate(size));
        ASSERT_NE(nullptr, block);
        EXPECT_TRUE(IsLow(block + size));
        EXPECT_TRUE(IsLowBlock(block));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t));
        memset(block, static_cast<int>(blocks.size()), size);
        blocks.push_back(block);
    }
    // Each keeps its own bytes.
    for (size_t i = 0; i < blocks.size(); i++) {
        for (size_t j = 0; j < sizes[i]; j++) {
            ASSERT_EQ(i, blocks[i][j]);
        }
        LowFree(blocks[i]);
    }
    EXPECT_EQ(std::size(sizes), std::set<uint8_t*>(blocks.begin(), blocks.end()).size());
}

TEST(LowMemory, HasAnEndButServesAgainWhatIsFreed)
{
    EXPECT_EQ(nullptr, LowAllocate(SIZE_MAX - 64));
    // Far more in all than there is at a time.
    for (int round = 0; round < 5000; round++) {
        void* block = LowAllocate(1 << 20);
        ASSERT_NE(nullptr, block) << round;
        LowFree(block);
    }
    LowFree(nullptr);
}

TEST(LowMemory, GivesBlocksToManyThreads)
{
    std::vector<std::thread> threads;
    std::vector<int> failures(4);
    for (size_t i = 0; i < failures.size(); i++) {
        threads.emplace_back([&failures, i] {
            for (size_t round = 0; round < 200; round++) {
                auto* block = static_cast<uint8_t*>(LowAllocate(round));
                memset(block, static_cast<int>(i), round);
                for (size_t j = 0; j < round; j++) {
                    failures[i] += block[j] == i ? 0 : 1;
                }
                LowFree(block);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::vector<int>(4, 0), failures);
}

TEST(LowMemoryDeathTest, TakesABlockBackOnce)
{
    DieWithoutACore();
    void* block = LowAllocate(64);
    const auto free_twice = [block] {
        LowFree(block);
        LowFree(block);
    };
    EXPECT_DEATH(free_twice(), "");
    LowFree(block);
}

#ifdef __has_feature  // clang, which the address sanitizer is used with
#if __has_feature(address_sanitizer)
TEST(LowMemoryDeathTest, FindsOverrunsAndUseAfterFree)
{
    DieWithoutACore();
    auto* volatile block = static_cast<uint8_t*>(LowAllocate(20));
    block[19] = 1;
    EXPECT_DEATH(block[20] = 1, "use-after-poison");
    LowFree(block);
    EXPECT_DEATH(block[0] = 1, "use-after-poison");
}
#endif
#endif

// --- stack and buffers -------------------------------------------------------------------------

TEST(LowStack, LiesBelow4GiBAndPassesTheResultOn)
{
    for (const int result : {0, 1, -1, 77}) {
        const void* local = nullptr;
        std::thread::id thread;
        EXPECT_EQ(result, RunOnLowStack([&] {
                      uint8_t bytes[100000];
                      memset(bytes, 1, sizeof bytes);
                      local = bytes;
                      thread = std::this_thread::get_id();
                      return bytes[99999] == 1 ? result : 4711;
                  }));
        EXPECT_TRUE(IsLow(local));
    }
}

// The tests themselves run on one.
TEST(LowStack, CarriesTheTests)
{
    const int local = 0;
    EXPECT_TRUE(IsLow(&local));
}

TEST(LowBuffer, IsZeroedAndLowEvenWhereItsMemoryWasUsed)
{
    for (int round = 0; round < 3; round++) {
        const LowBuffer buffer(5000);
        ASSERT_EQ(5000u, buffer.size());
        EXPECT_TRUE(IsLowBlock(buffer.data()));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer.data()), buffer.address());
        for (size_t i = 0; i < buffer.size(); i++) {
            ASSERT_EQ(0, buffer[i]);
        }
        EXPECT_EQ(&buffer.data()[4999], &buffer[4999]);
        memset(buffer.data(), 0xE1, buffer.size());
    }
}

TEST(LowBuffer, FailsWithoutMemory)
{
    EXPECT_THROW(LowBuffer(SIZE_MAX - 64), std::bad_alloc);
}

// --- malloc and free of whatever is linked statically -------------------------------------------

// Called so that no compiler leaves a pair of calls out.
void* (*volatile allocate)(size_t) = malloc;
void (*volatile release)(void*) = free;

class Heap : public testing::Test {
protected:
    Kernel kernel;
};

TEST_F(Heap, CountsBlocksAndRecordsCalls)
{
    void* one = allocate(10);
    void* two = allocate(0);
    ASSERT_NE(nullptr, one);
    ASSERT_NE(nullptr, two);
    EXPECT_TRUE(IsLow(one));
    EXPECT_TRUE(IsLowBlock(one));
    EXPECT_EQ(2u, kernel.LiveBlocks());
    release(one);
    EXPECT_EQ(1u, kernel.LiveBlocks());
    release(two);
    EXPECT_EQ(0u, kernel.LiveBlocks());
    EXPECT_EQ((Trace{"malloc(10)", "malloc(0)", "free() = 0", "free() = 0"}), TraceOf(kernel));
    EXPECT_EQ(10u, kernel.Calls().at(0).amount);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(one), kernel.Calls().at(2).argument);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(two), kernel.Calls().at(3).argument);
}

TEST_F(Heap, FillsFreshBlocks)
{
    for (const uint32_t fill : {0x00u, 0xA5u, 0xFFu}) {
        kernel.FillBlocksWith(static_cast<uint8_t>(fill));
        auto* block = static_cast<uint8_t*>(allocate(100));
        for (size_t i = 0; i < 100; i++) {
            EXPECT_EQ(fill, block[i]);
        }
        memset(block, 1, 100);
        release(block);
    }
}

TEST_F(Heap, RunsOutOfMemoryOnRequest)
{
    Fault fault;
    fault.kind = CallKind::Malloc;
    fault.error = ENOMEM;
    fault.first = 2;
    kernel.Inject(fault);
    void* block = allocate(16);
    EXPECT_NE(nullptr, block);
    errno = 0;
    EXPECT_EQ(nullptr, allocate(16));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(1u, kernel.LiveBlocks());
    release(block);
    EXPECT_EQ((Trace{"malloc(16)", "malloc(16) = -1 ENOMEM", "free() = 0"}), TraceOf(kernel));
}

TEST_F(Heap, RunsOutOfMemoryByItself)
{
    errno = 0;
    EXPECT_EQ(nullptr, allocate(SIZE_MAX - 64));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(0u, kernel.LiveBlocks());
}

TEST_F(Heap, LeavesErrnoAlone)
{
    errno = EXFULL;
    void* block = allocate(16);
    EXPECT_EQ(EXFULL, errno);
    release(block);
    EXPECT_EQ(EXFULL, errno);
    release(nullptr);
    EXPECT_EQ(EXFULL, errno);
}

TEST_F(Heap, TakesBlocksThatAreNotItsOwn)
{
    release(nullptr);
    release(strdup("allocated inside libc"));
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST(HeapWithoutAKernel, TakesBlocksFromLowMemoryAllTheSame)
{
    void* before = allocate(16);
    ASSERT_NE(nullptr, before);
    EXPECT_TRUE(IsLowBlock(before));
    void* within = nullptr;
    {
        Kernel kernel;
        release(before);
        EXPECT_TRUE(kernel.Calls().empty());
        EXPECT_EQ(0u, kernel.LiveBlocks());
        within = allocate(16);
        EXPECT_EQ(1u, kernel.LiveBlocks());
    }
    EXPECT_TRUE(IsLowBlock(within));
    release(within);
}

}  // namespace
