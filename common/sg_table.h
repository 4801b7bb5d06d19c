// SPDX-License-Identifier: MIT
//
// The scatter-gather table that a driver reads: where a direct transfer's data
// lie in the caller's memory.
#ifndef CARDDEV_COMMON_SG_TABLE_H
#define CARDDEV_COMMON_SG_TABLE_H

#include <stdint.h>

#include "carddev.h"

// A word that the driver reads with its least significant byte first, whatever
// the processor's own order.
class LittleEndian32 {
public:
    uint32_t Get() const { return Swap(stored_); }
    void Set(uint32_t value) { stored_ = Swap(value); }
    // As it stands in memory, for records that carry it on unread.
    uint32_t Stored() const { return stored_; }

private:
    static uint32_t Swap(uint32_t word)
    {
        return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? __builtin_bswap32(word) : word;
    }

    uint32_t stored_;
};

struct SgEntry {
    LittleEndian32 addr;  // where the piece starts
    LittleEndian32 len;   // its bytes, 1 to SG_MAX_LEN; SG_END on the last of a list
};

static_assert(sizeof(SgEntry) == 8);

constexpr int32_t SG_TABLE_ENTRIES = 2048;
constexpr uint32_t SG_MAX_LEN = 65536;
constexpr uint32_t SG_END = 0x80000000;

#pragma GCC visibility push(hidden)

// Memory for a table, or null with errno set; SgFree gives it back. The table has
// one entry's room in front: the end mark of an empty list goes there.
SgEntry* SgAllocate();
void SgFree(SgEntry* table);

// Add the buffer [addr, addr + len) behind the first `index` entries: merged into
// the last of them where it continues that one and both fit into SG_MAX_LEN, else
// as new entries of at most SG_MAX_LEN. Returns the entries in use; a number from
// SG_TABLE_ENTRIES on means overflow. The last slot counts as overflow even when
// everything fitted.
int32_t SgAppend(SgEntry* table, int32_t index, uint32_t addr, uint32_t len);

// Mark the entry in front of `end` as the list's last.
__attribute__((always_inline)) inline void SgMarkEnd(SgEntry* end)
{
    end[-1].len.Set(end[-1].len.Get() | SG_END);
}

// What an SgAppend for each chunk and the end mark come to, from an empty table on, in one
// pass: an entry's length stays in a register until nothing more can join it. Returns the
// place behind the last entry, or null for overflow.
__attribute__((always_inline)) inline SgEntry* SgFill(SgEntry* table, const MemoryChunk* chunk,
                                                      int32_t count)
{
    if (count <= 0) {
        SgMarkEnd(table);
        return table;
    }
    // No memory holds more chunks than this. Of a list that says so the table overflows, and
    // its end is not to lie in the midst of it because the count wrapped.
    constexpr int32_t most = INT32_MAX / static_cast<int32_t>(sizeof(MemoryChunk));
    const MemoryChunk* const last = chunk + (count < most ? count : most) - 1;
    for (; chunk->len == 0; chunk++) {
        if (chunk == last) {
            SgMarkEnd(table);
            return table;
        }
    }
    SgEntry* entry = table;
    const SgEntry* const slot_2047 = table + SG_TABLE_ENTRIES - 1;
    uint32_t addr = chunk->addr;
    uint32_t len = chunk->len;
    for (;;) {
        if (entry == slot_2047) {
            return nullptr;
        }
        entry->addr.Set(addr);
        uint32_t next_len = 0;
        if (len > SG_MAX_LEN) {
            addr += SG_MAX_LEN;
            next_len = len - SG_MAX_LEN;
            len = SG_MAX_LEN;
        } else {
            uint32_t entry_end = addr + len;
            for (;;) {
                if (chunk == last) {
                    entry->len.Set(len | SG_END);
                    return entry + 1;
                }
                chunk++;
                addr = chunk->addr;
                next_len = chunk->len;
                if (addr == entry_end && len + next_len <= SG_MAX_LEN) {
                    len += next_len;
                    entry_end += next_len;
                } else if (next_len != 0) {
                    break;
                }
            }
        }
        entry->len.Set(len);
        entry++;
        len = next_len;
    }
}

#pragma GCC visibility pop

#endif
