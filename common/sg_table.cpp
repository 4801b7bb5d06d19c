// SPDX-License-Identifier: MIT
#include "common/sg_table.h"

#include <stdlib.h>

SgEntry* SgAllocate()
{
    auto* block = static_cast<SgEntry*>(malloc((1 + SG_TABLE_ENTRIES) * sizeof(SgEntry)));
    // cppcheck-suppress memleak ; SgFree gives it back, from one entry further in front
    return block == nullptr ? nullptr : block + 1;
}

void SgFree(SgEntry* table)
{
    free(table - 1);
}

int32_t SgAppend(SgEntry* table, int32_t index, uint32_t addr, uint32_t len)
{
    if (index >= SG_TABLE_ENTRIES) {
        return index;
    }
    if (index > 0) {
        SgEntry* last = &table[index - 1];
        const uint32_t last_len = last->len.Get();  // whole, an end mark included
        if (last->addr.Get() + last_len == addr && last_len + len <= SG_MAX_LEN) {
            last->len.Set(last_len + len);
            return index;
        }
    }
    while (len > 0) {
        const uint32_t piece = len < SG_MAX_LEN ? len : SG_MAX_LEN;
        table[index].addr.Set(addr);
        table[index].len.Set(piece);
        addr += piece;
        len -= piece;
        index++;
        if (index == SG_TABLE_ENTRIES) {
            return index;
        }
    }
    return index;
}
