// SPDX-License-Identifier: MIT
//
// The library's own part of direct transfers, by the clock of this machine: a quick look before
// and after a change. libc's calls do nothing (quiet_libc.cpp). What counts is measured in
// instructions, on the board's processor.
#include <benchmark/benchmark.h>

#include "carddev.h"
#include "carddev_state.h"

namespace {

constexpr uint32_t kMostChunks = 2047;
constexpr uint32_t kAway = 0x10000000;  // where the data would lie; never touched

uint32_t chunk_memory[1 + 2 * kMostChunks];
auto* const chunks = reinterpret_cast<MemoryChunkArray*>(chunk_memory);

// With the room in front that the library's own tables have.
uint64_t table_memory[1 + 2048];

ZelDevice zel_unit;
MivoDevice mivo_unit;

DrvInfo ZelHandle()
{
    zel_unit.blk_fd = zel_unit.dev_fd = zel_unit.chr_fd = zel_unit.rt_fd = 9;
    zel_unit.sg_table = reinterpret_cast<struct SgEntry*>(&table_memory[1]);
    DrvInfo handle = {};
    handle.ops = &zel_ops;
    handle.priv = &zel_unit;
    return handle;
}

DrvInfo MivoHandle()
{
    mivo_unit.chr_fd = 9;
    mivo_unit.sg_table = reinterpret_cast<struct SgEntry*>(&table_memory[1]);
    DrvInfo handle = {};
    handle.ops = &mivo_ops;
    handle.priv = &mivo_unit;
    return handle;
}

// Pieces of 512 bytes, every other one left out.
void Scatter(uint32_t count)
{
    chunks->count = count;
    for (uint32_t i = 0; i < count; i++) {
        chunks->chunk[i] = {kAway + i * 1024, 512};
    }
}

template <DrvInfo (*kHandle)()>
void DirectRead(benchmark::State& state)
{
    DrvInfo handle = kHandle();
    Scatter(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(DevDrctRead(&handle, 8, 512, chunks));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <DrvInfo (*kHandle)()>
void DirectWrite(benchmark::State& state)
{
    DrvInfo handle = kHandle();
    uint32_t retried = 0;
    Scatter(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(DevDrctWrite(&handle, 8, 512, chunks, 0, &retried));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Sizes(benchmark::internal::Benchmark* bench)
{
    bench->Arg(1)->Arg(8)->Arg(64)->Arg(kMostChunks);
}

BENCHMARK(DirectRead<ZelHandle>)->Name("zel/DevDrctRead/pieces")->Apply(Sizes);
BENCHMARK(DirectRead<MivoHandle>)->Name("mivo/DevDrctRead/pieces")->Apply(Sizes);
BENCHMARK(DirectWrite<ZelHandle>)->Name("zel/DevDrctWrite/pieces")->Apply(Sizes);
BENCHMARK(DirectWrite<MivoHandle>)->Name("mivo/DevDrctWrite/pieces")->Apply(Sizes);

}  // namespace

BENCHMARK_MAIN();
