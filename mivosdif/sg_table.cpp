// SPDX-License-Identifier: MIT
#include "common/sg_table.h"

#include "mivosdif/mivosdif.h"

#define LOG_TAG "mivosdif"
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

// An empty list sets the end mark in front of the table, where there is room.
int32_t Mivo_Chunk2Sg(const MemoryChunkArray* chunks, MivoSgEntry* table)
{
    if (chunks == nullptr || table == nullptr) {
        LOG_ERROR("Invalid arguments!\n");
        return -EINVAL;
    }
    const auto count = static_cast<int32_t>(chunks->count);
    int32_t used = 0;
    for (int32_t i = 0; i < count; i++) {
        used = Mivo_SetSgEntry(table, used, chunks->chunk[i].addr, chunks->chunk[i].len);
        if (used < 0) {
            LOG_ERROR("Mivo_SetSgEntry failed(%d)!\n", used);
            return used;
        }
    }
    SgMarkEnd(table, used);
    return used * static_cast<int32_t>(sizeof(MivoSgEntry));
}
