// SPDX-License-Identifier: MIT
#include "common/sg_table.h"

#include "mivosdif/mivosdif.h"

#define LOG_TAG Mivosdif
#include "common/log.h"

int32_t Mivo_SetSgEntry(MivoSgEntry* table, int32_t index, uint32_t addr, uint32_t len)
{
    if (table == nullptr) {
        return -EINVAL;
    }
    const int32_t used = SgAppend(table, index, addr, len);
    if (used >= SG_TABLE_ENTRIES) {
        LOG_ERROR("Overflow sg table(%d)!\n", used);
        return -ENOMEM;
    }
    return used;
}

namespace {

// Why there is no list: where the chunks are too many, they are put down once more, one by
// one, up to the entry that fails. The lines are Mivo_Chunk2Sg's.
__attribute__((cold, noinline)) int32_t ListFailed(const MemoryChunkArray* chunks,
                                                   MivoSgEntry* table)
{
    if (chunks == nullptr || table == nullptr) {
        LOG_ERROR_OF("Mivo_Chunk2Sg", __LINE__, "Invalid arguments!\n");
        return -EINVAL;
    }
    int32_t used = 0;
    for (const MemoryChunk* chunk = chunks->chunk; used >= 0; chunk++) {
        used = Mivo_SetSgEntry(table, used, chunk->addr, chunk->len);
    }
    LOG_ERROR_OF("Mivo_Chunk2Sg", __LINE__, "Mivo_SetSgEntry failed(%d)!\n", used);
    return used;
}

}  // namespace

// An empty list sets the end mark in front of the table, where there is room.
int32_t Mivo_Chunk2Sg(const MemoryChunkArray* chunks, MivoSgEntry* table)
{
    if (chunks == nullptr || table == nullptr) {
        return ListFailed(chunks, table);
    }
    MivoSgEntry* const end = SgFill(table, chunks->chunk, static_cast<int32_t>(chunks->count));
    if (end == nullptr) {
        return ListFailed(chunks, table);
    }
    return static_cast<int32_t>(end - table) * static_cast<int32_t>(sizeof(MivoSgEntry));
}
