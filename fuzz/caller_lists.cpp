// SPDX-License-Identifier: MIT
//
// Any list that a caller may pass, over a driver that looks at what reaches it: the pieces
// of its table are the caller's, in order and nothing else, as few as the rules make them.
//
// An input is one device and any number of calls with their lists.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "carddev.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/machine.h"

namespace {

using fuzz::Answer;
using fuzz::CallKind;
using fuzz::Input;
using fuzz::Machine;
using fuzz::SystemCall;

constexpr uint32_t kEntries = 2048;
constexpr uint32_t kMostBytes = 65536;
constexpr uint32_t kEnd = 0x80000000;
constexpr uint32_t kMostChunks = 2200;
constexpr uint32_t kMostElements = 300;

uint8_t* At(uint32_t address)
{
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(address));
}

uint32_t Word(const uint8_t* at)
{
    uint32_t word;
    memcpy(&word, at, sizeof word);
    return word;
}

uint32_t LittleEndian(const uint8_t* at)
{
    return at[0] | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 | uint32_t{at[3]} << 24;
}

struct Piece {
    uint32_t addr;
    uint32_t len;
};

// The table as its rules make it, chunk by chunk: a chunk joins the entry before it where
// it continues that one and both fit, else it takes entries of its own. The last entry of
// the table cannot be reached so.
struct Expected {
    Piece piece[kEntries];
    uint32_t count = 0;
    bool overflow = false;

    void Clear()
    {
        count = 0;
        overflow = false;
    }

    void Add(uint32_t addr, uint32_t len)
    {
        if (overflow) {
            return;
        }
        if (count > 0) {
            Piece* last = &piece[count - 1];
            if (last->addr + last->len == addr && last->len + len <= kMostBytes) {
                last->len += len;
                return;
            }
        }
        while (len > 0 && !overflow) {
            const uint32_t part = len < kMostBytes ? len : kMostBytes;
            piece[count++] = {addr, part};
            addr += part;
            len -= part;
            overflow = count == kEntries;
        }
    }
};

Expected expected;

struct Element {
    uint32_t sector;
    uint32_t sectors;
    uint32_t addr;
};

// What the call at hand should make of its arguments.
struct Plan {
    uint32_t request;
    uint32_t first;
    uint32_t length;  // as it stands in the record
    bool marked;      // the last entry carries the end mark
    bool zel;
    int32_t elements;  // -1: not a list of elements
    uint32_t chain;    // elements that there are
    uint8_t byte0;
    uint8_t byte1;
    Element element[kMostElements];
};

Plan plan;
int sent;

void CheckTable(uint32_t table, uint32_t bytes)
{
    FUZZ_CHECK(!expected.overflow, "a table that is too small was sent");
    FUZZ_CHECK(bytes == 8 * expected.count, "%u bytes for %u entries", bytes, expected.count);
    for (uint32_t i = 0; i < expected.count; i++) {
        const uint8_t* entry = At(table) + size_t{8} * i;
        const uint32_t mark = i + 1 == expected.count ? kEnd : 0;
        FUZZ_CHECK(LittleEndian(entry) == expected.piece[i].addr, "entry %u is at %x, not %x", i,
                   LittleEndian(entry), expected.piece[i].addr);
        FUZZ_CHECK(LittleEndian(entry + 4) == (expected.piece[i].len | mark),
                   "entry %u has %x, not %x", i, LittleEndian(entry + 4),
                   expected.piece[i].len | mark);
    }
}

void CheckElements(const uint8_t* request)
{
    FUZZ_CHECK(Word(request) == static_cast<uint32_t>(plan.elements), "count %u", Word(request));
    FUZZ_CHECK(Word(request + 4) == 0, "the reserved word is %x", Word(request + 4));
    const uint8_t* parms = At(Word(request + 8));
    const uint32_t there = plan.elements < 0 ? 0
                           : static_cast<uint32_t>(plan.elements) < plan.chain
                               ? static_cast<uint32_t>(plan.elements)
                               : plan.chain;
    for (uint32_t i = 0; i < there; i++, parms += 16) {
        const Element& element = plan.element[i];
        const uint32_t bytes = element.sectors << 9;
        FUZZ_CHECK(Word(parms) == element.sector, "element %u at sector %x", i, Word(parms));
        FUZZ_CHECK(Word(parms + 4) == (plan.zel ? element.sectors : bytes), "element %u: %x", i,
                   Word(parms + 4));
        if (bytes == 0) {
            continue;  // it has no entry: what is handed on is the one before it
        }
        const uint32_t mark = plan.marked && bytes <= kMostBytes ? kEnd : 0;
        const uint32_t len = bytes < kMostBytes ? bytes : kMostBytes;
        FUZZ_CHECK(LittleEndian(parms + 8) == element.addr, "element %u at %x", i,
                   LittleEndian(parms + 8));
        FUZZ_CHECK(LittleEndian(parms + 12) == (len | mark), "element %u has %x", i,
                   LittleEndian(parms + 12));
    }
}

void CheckRequest(const uint8_t* record)
{
    sent++;
    if (plan.elements != -1) {
        CheckElements(record);
        return;
    }
    const bool command = plan.request == 0x2000701E || plan.request == 0x8008D32B;
    const uint8_t* words = command ? At(Word(record + 4)) : record;
    if (command) {
        FUZZ_CHECK(record[0] == plan.byte0 && record[1] == plan.byte1, "command bytes %x %x",
                   record[0], record[1]);
    }
    FUZZ_CHECK(Word(words) == plan.first, "first word %x", Word(words));
    FUZZ_CHECK(Word(words + 4) == plan.length, "length %x, not %x", Word(words + 4), plan.length);
    CheckTable(Word(words + 8), Word(words + 12));
}

// A driver that is content with everything, and checks it.
class Checker final : public fuzz::Driver {
public:
    explicit Checker(bool zel) : zel_(zel) {}

    Answer Serve(const SystemCall& call) override
    {
        switch (call.kind) {
            case CallKind::Stat:
                call.node->st_mode = zel_ ? S_IFBLK : S_IFCHR;
                call.node->st_rdev = zel_ ? makedev(240, 1) : makedev(248, 0);
                return {};
            case CallKind::Ioctl:
                if (call.request == 0x20007016) {
                    memset(reinterpret_cast<void*>(call.argument), 0x40, 512);
                } else if (call.request == 0x20001260) {
                    return {-1, EIO};  // no size: then no register is asked for
                } else if (call.request == plan.request) {
                    CheckRequest(reinterpret_cast<const uint8_t*>(call.argument));
                }
                return {};
            case CallKind::Poll:
                return {1, 0, POLLOUT};
            case CallKind::Open:
                return {1};
            default:
                return {};
        }
    }

private:
    bool zel_;
};

struct Memory {
    DrvInfo handle;
    uint32_t chunk_count;
    MemoryChunk chunk[kMostChunks];
    MemoryArray array;
    BlockList list;
    BlockListEntry entry[kMostElements];
};

class Caller {
public:
    Caller(Input input, bool zel, Machine& machine)
        : input_(input),
          zel_(zel),
          machine_(machine),
          memory_(static_cast<Memory*>(machine.Allocate(sizeof(Memory))))
    {
    }

    void Run()
    {
        memcpy(memory_->handle.dev_path, "/dev/any", 9);
        machine_.Begin();
        FUZZ_CHECK(DevDetect(&memory_->handle) == 0 && DevInit(&memory_->handle) == 0,
                   "the device cannot be opened");
        machine_.End("DevInit");
        for (int done = 0; done < 8 && input_.Left() > 0; done++) {
            One(input_.Byte() % 7);
            FUZZ_CHECK(machine_.live_blocks() == 1, "%u blocks", machine_.live_blocks());
        }
        machine_.Begin();
        DevExit(&memory_->handle);
        machine_.End("DevExit");
        FUZZ_CHECK(machine_.live_blocks() == 0 && machine_.open_files() == 0, "something is left");
    }

private:
    template <typename Body>
    int32_t Make(const char* name, Body body, int own_errno = 0)
    {
        sent = 0;
        machine_.Begin();
        const int32_t result = body();
        machine_.End(name, own_errno);
        return result;
    }

    void One(int which)
    {
        plan.zel = zel_;
        plan.elements = -1;
        plan.first = input_.Number(4);
        switch (which) {
            case 0:
            case 1:
                return Chunks(which == 1);
            case 2:
            case 3:
                return Array(which == 3);
            case 4:
            case 5:
                return Elements(which == 5);
            default:
                return Command();
        }
    }

    uint32_t Record(uint32_t length) const { return zel_ ? length >> 9 : length; }

    void ChooseDirect(bool write, uint32_t flag, uint32_t length)
    {
        plan.request = !write      ? (zel_ ? 0x2000700D : 0xC010D324)
                       : flag == 0 ? (zel_ ? 0x20007018 : 0x8010D32E)
                                   : (zel_ ? 0x2000700C : 0x8010D325);
        plan.length = Record(length);
    }

    void CheckDirect(const char* name, int32_t result, uint32_t length, uint32_t retried)
    {
        FUZZ_CHECK(result == (expected.overflow ? -EINVAL : static_cast<int32_t>(length)),
                   "%s gave %d", name, result);
        FUZZ_CHECK(sent == (expected.overflow ? 0 : 1), "%d requests", sent);
        FUZZ_CHECK(retried == (expected.overflow ? 7u : 0u), "retried is %u", retried);
    }

    // Runs of chunks of one kind, so that few bytes make a long list.
    uint32_t FillChunks()
    {
        uint32_t count = 0;
        for (int runs = input_.Byte() % 16; runs > 0; runs--) {
            const uint8_t how = input_.Byte();
            uint32_t addr = input_.Number(4);
            const uint32_t len = input_.Number(how & 1 ? 4 : 2);
            const uint32_t gap = (how & 2) != 0 ? input_.Number(how & 4 ? 4 : 1) : 0;
            uint32_t times = 1 + (how & 8 ? input_.Number(2) % kMostChunks : 0);
            for (; times > 0 && count < kMostChunks; times--) {
                memory_->chunk[count++] = {addr, len};
                addr += len + gap;
            }
        }
        return count;
    }

    void Chunks(bool write)
    {
        const uint32_t length = input_.Number(4);
        const uint32_t flag = input_.Byte() & 3;
        const uint32_t there = FillChunks();
        expected.Clear();
        for (uint32_t i = 0; i < there; i++) {
            expected.Add(memory_->chunk[i].addr, memory_->chunk[i].len);
        }
        uint32_t count = there;
        const uint8_t how = input_.Byte();
        if (how == 1) {
            count = 0x80000000 | input_.Number(4);  // below 0: nothing
            expected.Clear();
        } else if (how == 2 && expected.overflow) {
            count = there + input_.Number(4) % (0x7FFFFFFF - there);  // more than anybody has
        }
        memory_->chunk_count = count;
        ChooseDirect(write, flag, length);
        auto* chunks = reinterpret_cast<MemoryChunkArray*>(&memory_->chunk_count);
        uint32_t retried = 7;
        const int32_t result = Make("a direct transfer", [&] {
            return write
                       ? DevDrctWrite(&memory_->handle, plan.first, length, chunks, flag, &retried)
                       : DevDrctRead(&memory_->handle, plan.first, length, chunks);
        });
        CheckDirect("a direct transfer", result, length, write || expected.overflow ? retried : 0);
    }

    void Array(bool write)
    {
        const uint32_t length = input_.Number(4);
        const uint32_t flag = input_.Byte() & 3;
        const int count = input_.Byte() % (MEMORY_ARRAY_PIECES + 1);
        expected.Clear();
        for (int i = 0; i < MEMORY_ARRAY_PIECES; i++) {
            const uint32_t addr = input_.Number(4);
            const uint32_t len = input_.Number(4);
            memory_->array.addr[i] = addr;
            memory_->array.len[i] = len;
            if (i < count) {
                expected.Add(addr, len);
            }
        }
        memory_->array.count = count;
        ChooseDirect(write, flag, length);
        uint32_t retried = 7;
        machine_.ZeroBlocks(true);
        const int32_t result = Make("a transfer of an array", [&] {
            return write ? DevDrctWriteArray(&memory_->handle, plan.first, length, &memory_->array,
                                             flag, &retried)
                         : DevDrctReadArray(&memory_->handle, plan.first, length, &memory_->array);
        });
        machine_.ZeroBlocks(false);
        CheckDirect("a transfer of an array", result, length,
                    write || expected.overflow ? retried : 0);
    }

    // The count may be more or less than the chain has, and the chain may end in itself.
    void Elements(bool fat)
    {
        plan.request = fat ? (zel_ ? 0x2000701D : 0x800CD32A) : (zel_ ? 0x2000702A : 0x800CD326);
        plan.marked = fat;
        const uint8_t how = input_.Byte();
        plan.chain = input_.Byte();
        bool overflow = false;
        for (uint32_t i = 0; i < plan.chain; i++) {
            const Element element = {input_.Number(2), input_.Number(how & 1 ? 4 : 1),
                                     input_.Number(4)};
            plan.element[i] = element;
            memory_->entry[i] = {element.addr, element.sectors, element.sector,
                                 i + 1 < plan.chain ? &memory_->entry[i + 1] : nullptr};
        }
        plan.elements = static_cast<int32_t>(plan.chain);
        if ((how & 6) == 2) {
            plan.elements = static_cast<int32_t>(input_.Number(4));
        } else if ((how & 6) == 4) {
            plan.elements = static_cast<int32_t>(input_.Byte());
        }
        if (plan.elements == -1) {
            plan.elements = -2;
        }
        for (uint32_t i = 0; i < plan.chain && static_cast<int32_t>(i) < plan.elements; i++) {
            const uint32_t bytes = plan.element[i].sectors << 9;
            overflow = overflow || (bytes >> 16) + ((bytes & 0xFFFF) != 0) >= kEntries;
        }
        memory_->list = {plan.elements, plan.chain > 0 ? &memory_->entry[0] : nullptr};
        // Zel asks for no room below 0, Mivo for more than there is.
        const bool has_size =
            static_cast<uint32_t>(plan.elements) < 0x10000000 || (zel_ && plan.elements < 0);
        const int32_t result = Make(
            "a write of elements",
            [&] {
                return fat ? DevFatWrite(&memory_->handle, &memory_->list)
                           : DevDrctRMW(&memory_->handle, &memory_->list);
            },
            has_size ? 0 : ENOMEM);
        if (plan.elements > 65536 || overflow) {
            FUZZ_CHECK(result == -ENOMEM && sent == 0, "result %d", result);
        } else {
            FUZZ_CHECK((result == 0 && sent == 1) || (result == -ENOMEM && sent == 0),
                       "result %d, %d requests", result, sent);
        }
    }

    void Command()
    {
        const uint32_t addr = input_.Number(4);
        const uint32_t sectors = input_.Number(input_.Flag() ? 4 : 2);
        plan.request = zel_ ? 0x2000701E : 0x8008D32B;
        plan.length = zel_ ? sectors : sectors << 9;
        plan.byte0 = input_.Byte();
        plan.byte1 = input_.Byte();
        expected.Clear();
        expected.Add(addr, sectors << 9);
        const int32_t result = Make("DevSdCmdWrite", [&] {
            return DevSdCmdWrite(&memory_->handle, At(addr), sectors, plan.first, plan.byte0,
                                 plan.byte1);
        });
        FUZZ_CHECK(result == (expected.overflow ? -ENOMEM : 0), "result %d", result);
        FUZZ_CHECK(sent == (expected.overflow ? 0 : 1), "%d requests", sent);
    }

    Input input_;
    bool zel_;
    Machine& machine_;
    Memory* memory_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const bool zel = input.Flag();
    Checker driver(zel);
    Machine machine(driver);
    machine.FillBlocksWith(0xA5);
    Caller(input, zel, machine).Run();
    return 0;
}
