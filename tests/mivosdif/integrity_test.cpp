// SPDX-License-Identifier: MIT
//
// Data through the Mivo back-end: what was written by any way is read by every
// other, wherever it lies on the card and in memory. Random, from fixed seeds; a
// failure names its seed and step.
#include <random>

#include "tests/mivosdif/transfer_fixture.h"

namespace {

using cardsim::LowBuffer;

constexpr uint32_t kLongest = 400;  // sectors in one request

class MivoIntegrity : public MivoTransfer, public testing::WithParamInterface<uint32_t> {
protected:
    MivoIntegrity() : random(GetParam()), shadow(Pattern(kSectors, GetParam()))
    {
        PutOnCard(0, shadow);
        Open();
    }

    uint32_t UpTo(uint32_t most) { return static_cast<uint32_t>(random() % (uint64_t{most} + 1)); }

    // A run of sectors, mostly short, at times at the card's very ends.
    void ChooseRun(uint32_t most = kLongest)
    {
        sectors = 1 + UpTo(UpTo(3) == 0 ? most - 1 : 15);
        switch (UpTo(7)) {
            case 0:
                first = 0;
                break;
            case 1:
                first = kSectors - sectors;
                break;
            default:
                first = UpTo(kSectors - sectors);
                break;
        }
    }

    // New bytes to be written, at a random place in memory.
    void ChooseData()
    {
        at = UpTo(600);
        for (uint32_t i = 0; i < sectors * 512; i++) {
            memory[at + i] = static_cast<uint8_t>(random());
        }
    }

    // Cut the run's memory into pieces of any length; neighbours may lie apart, so
    // pieces are laid out with random gaps. Returns where each byte is.
    std::vector<MemoryChunk> ChoosePieces(uint32_t most)
    {
        std::vector<MemoryChunk> pieces;
        uint32_t left = sectors * 512;
        uint32_t place = UpTo(600);
        while (left > 0) {
            uint32_t length = pieces.size() + 1 == most ? left : 1 + UpTo(left - 1);
            if (UpTo(2) == 0 && left > 512 && pieces.size() + 1 < most) {
                length = UpTo(511) + 1;
            }
            pieces.push_back({memory.address() + place, length});
            left -= length;
            place += length + (UpTo(1) == 0 ? 0 : UpTo(300));
        }
        return pieces;
    }

    static uint8_t* At(const MemoryChunk& piece)
    {
        return reinterpret_cast<uint8_t*>(uintptr_t{piece.addr});
    }

    void FillPieces(const std::vector<MemoryChunk>& pieces)
    {
        size_t position = size_t{first} * 512;
        for (const MemoryChunk& piece : pieces) {
            for (uint32_t i = 0; i < piece.len; i++) {
                const auto byte = static_cast<uint8_t>(random());
                At(piece)[i] = byte;
                shadow[position++] = byte;
            }
        }
    }

    void ExpectPieces(const std::vector<MemoryChunk>& pieces)
    {
        Bytes read;
        for (const MemoryChunk& piece : pieces) {
            read.insert(read.end(), At(piece), At(piece) + piece.len);
        }
        EXPECT_EQ(Expected(), read);
    }

    Bytes Expected() const
    {
        const uint8_t* from = &shadow[size_t{first} * 512];
        return Bytes(from, from + size_t{sectors} * 512);
    }

    void Remember(uint32_t sector, uint32_t from, uint32_t bytes)
    {
        memcpy(&shadow[size_t{sector} * 512], &memory[from], bytes);
    }

    static MemoryArray ArrayOf(const std::vector<MemoryChunk>& pieces)
    {
        MemoryArray array = {};
        for (const MemoryChunk& piece : pieces) {
            array.addr[array.count] = piece.addr;
            array.len[array.count] = piece.len;
            array.count++;
        }
        return array;
    }

    // --- the ways to write ---

    void WritePlainly()
    {
        ChooseRun();
        ChooseData();
        Remember(first, at, sectors * 512);
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Write(&handle, &memory[at], sectors, first, 0, &result));
        EXPECT_EQ(0, result.error);
        EXPECT_EQ(static_cast<int32_t>(sectors * 512), result.length);
    }

    void WriteDirectly()
    {
        ChooseRun();
        const std::vector<MemoryChunk> pieces = ChoosePieces(2000);
        FillPieces(pieces);
        Chunks chunks(pieces, static_cast<uint32_t>(pieces.size()));
        uint32_t retried = 7;
        EXPECT_EQ(static_cast<int32_t>(sectors),
                  DevDrctWrite(&handle, first, sectors, chunks.get(), UpTo(1), &retried));
        EXPECT_GE(disturbed ? 1u : 0u, retried);
    }

    void WriteAnArray()
    {
        ChooseRun();
        const std::vector<MemoryChunk> pieces = ChoosePieces(MEMORY_ARRAY_PIECES);
        FillPieces(pieces);
        const MemoryArray array = ArrayOf(pieces);
        uint32_t retried = 7;
        EXPECT_EQ(static_cast<int32_t>(sectors),
                  DevDrctWriteArray(&handle, first, sectors, &array, UpTo(1), &retried));
    }

    // Runs may overlap: the later one wins. Of a long one its first 64 KiB count.
    void WriteElements(int32_t (*write)(DrvInfo*, BlockList*))
    {
        std::vector<BlockListEntry> entries;
        const uint32_t count = 1 + UpTo(11);
        uint32_t place = 0;
        std::vector<uint32_t> places;
        for (uint32_t i = 0; i < count; i++) {
            ChooseRun(i == 0 ? 200 : 20);
            entries.push_back({memory.address() + place, sectors, first, nullptr});
            places.push_back(place);
            for (uint32_t byte = 0; byte < sectors * 512; byte++) {
                memory[place + byte] = static_cast<uint8_t>(random());
            }
            place += sectors * 512 + UpTo(37);
        }
        for (uint32_t i = 0; i < count; i++) {
            Remember(entries[i].sector, places[i], std::min(entries[i].sectors * 512, 65536u));
        }
        Elements list(entries, static_cast<int32_t>(count));
        EXPECT_EQ(0, write(&handle, list.get()));
    }

    void WriteWithACommand()
    {
        ChooseRun();
        ChooseData();
        Remember(first, at, sectors * 512);
        EXPECT_EQ(0, DevSdCmdWrite(&handle, &memory[at], sectors, first, 24, 0));
    }

    // --- the ways to read ---

    void ReadPlainly()
    {
        ChooseRun();
        at = UpTo(600);
        CardIoResult result = {};
        EXPECT_EQ(0, CARD_Read(&handle, &memory[at], sectors, first, 0, &result));
        EXPECT_EQ(static_cast<int32_t>(sectors * 512), result.length);
        EXPECT_EQ(Expected(), MemoryAt(AddressOf(&memory[at]), sectors * 512));
    }

    void ReadDirectly()
    {
        ChooseRun();
        const std::vector<MemoryChunk> pieces = ChoosePieces(2000);
        Chunks chunks(pieces, static_cast<uint32_t>(pieces.size()));
        EXPECT_EQ(static_cast<int32_t>(sectors),
                  DevDrctRead(&handle, first, sectors, chunks.get()));
        ExpectPieces(pieces);
    }

    void ReadAnArray()
    {
        ChooseRun();
        const std::vector<MemoryChunk> pieces = ChoosePieces(MEMORY_ARRAY_PIECES);
        const MemoryArray array = ArrayOf(pieces);
        EXPECT_EQ(static_cast<int32_t>(sectors), DevDrctReadArray(&handle, first, sectors, &array));
        ExpectPieces(pieces);
    }

    void Step()
    {
        switch (UpTo(8)) {
            case 0:
                return WritePlainly();
            case 1:
                return WriteDirectly();
            case 2:
                return WriteAnArray();
            case 3:
                return WriteElements(DevDrctRMW);
            case 4:
                return WriteElements(DevFatWrite);
            case 5:
                return WriteWithACommand();
            case 6:
                return ReadPlainly();
            case 7:
                return ReadDirectly();
            default:
                return ReadAnArray();
        }
    }

    std::mt19937 random;
    Bytes shadow;
    LowBuffer memory{size_t{kLongest} * 512 + 2000 * 300 + 1024};
    uint32_t first = 0;
    uint32_t sectors = 0;
    uint32_t at = 0;
    bool disturbed = false;  // a request may need another try
};

TEST_P(MivoIntegrity, EveryWayAgreesWithTheShadow)
{
    for (int step = 0; step < 120 && !HasFailure(); step++) {
        SCOPED_TRACE(testing::Message() << "seed " << GetParam() << ", step " << step);
        EXPECT_EQ("", Printed([&] { Step(); }));
        // Nothing beside the run was touched.
        EXPECT_TRUE(shadow == OnCard(0, kSectors));
    }
}

// The same while the driver fails once or twice in a row: a third try is borne.
TEST_P(MivoIntegrity, RetriesLoseNothing)
{
    disturbed = true;
    size_t resets = 0;
    for (int step = 0; step < 60 && !HasFailure(); step++) {
        SCOPED_TRACE(testing::Message() << "seed " << GetParam() << ", step " << step);
        kernel.ClearFaults();
        kernel.ClearCalls();
        cardsim::Fault fault;
        fault.kind = cardsim::CallKind::Ioctl;
        fault.error = UpTo(1) == 0 ? EIO : EBUSY;
        fault.reach_driver = UpTo(1) == 0;
        kernel.Inject(fault);
        cardsim::Fault wait;
        wait.kind = cardsim::CallKind::Poll;
        wait.first = 1 + UpTo(1);
        wait.revents = short{POLLERR};
        kernel.Inject(wait);
        Printed([&] {
            errno = 0;
            Step();
        });
        for (const cardsim::Call& call : kernel.Calls()) {
            resets += call.request == kReset ? 1u : 0u;
        }
        EXPECT_TRUE(shadow == OnCard(0, kSectors));
        EXPECT_EQ(0, dev.io_error);
    }
    EXPECT_LT(20u, resets);
}

INSTANTIATE_TEST_SUITE_P(Seeds, MivoIntegrity,
                         testing::Values(1u, 2u, 3u, 20240229u, 0xC0FFEEu, 0xFFFFFFFFu),
                         testing::PrintToStringParamName());

// --- the node -----------------------------------------------------------------------------

class MivoNode : public MivoTransfer {};

TEST_F(MivoNode, ReadsPlainlyWhatWasWrittenDirectly)
{
    Open();
    const Bytes written = Pattern(256, 17);
    FillBuffer(written);
    Chunks chunks{{buffer.address(), 256 * 512}};
    for (const uint32_t flag : {0u, 1u}) {
        const uint32_t first = 33 + 300 * flag;
        uint32_t retried = 0;
        ASSERT_EQ(256, DevDrctWrite(&handle, first, 256, chunks.get(), flag, &retried));
        Bytes read(256 * 512);
        CardIoResult result = {};
        ASSERT_EQ(0, CARD_Read(&handle, read.data(), 256, first, 0, &result));
        EXPECT_EQ(256 * 512, result.length);
        EXPECT_EQ(written, read);
    }
}

TEST_F(MivoNode, ReadsDirectlyWhatWasWrittenPlainly)
{
    Open();
    const Bytes written = Pattern(256, 23);
    CardIoResult result = {};
    ASSERT_EQ(0, CARD_Write(&handle, written.data(), 256, 77, 0, &result));
    EXPECT_EQ(256 * 512, result.length);
    Chunks chunks{{buffer.address(), 256 * 512}};
    ASSERT_EQ(256, DevDrctRead(&handle, 77, 256, chunks.get()));
    EXPECT_EQ(written, MemoryAt(buffer.address(), 256 * 512));
}

// Each unit's table and card are its own.
TEST_F(MivoNode, KeepsUnitsApart)
{
    Open();
    const std::shared_ptr<cardsim::Card> other = cardsim::Card::InMemory(kSectors);
    units->Insert(0, other);
    DrvInfo second = HandleFor("/dev/mivosdif0");
    ASSERT_EQ(0, DevDetect(&second));
    Printed([&] { ASSERT_EQ(0, DevInit(&second)); });
    EXPECT_NE(mivo_dev[0].sg_table, dev.sg_table);
    FillBuffer(Pattern(1, 1) + Pattern(1, 2));
    Chunks one{{buffer.address(), 512}};
    Chunks two{{buffer.address() + 512, 512}};
    uint32_t retried = 0;
    EXPECT_EQ(1, DevDrctWrite(&handle, 9, 1, one.get(), 0, &retried));
    EXPECT_EQ(1, DevDrctWrite(&second, 9, 1, two.get(), 0, &retried));
    EXPECT_EQ(Pattern(1, 1), OnCard(9, 1));
    Bytes sector(512);
    ASSERT_EQ(512, sim_card_read(&other->model(), 9 * 512, sector.data(), 512));
    EXPECT_EQ(Pattern(1, 2), sector);
    // One that gives up does not bar the other.
    BreakDevice();
    EXPECT_EQ(0, mivo_dev[0].io_error);
    EXPECT_EQ(1, DevDrctWrite(&second, 10, 1, two.get(), 0, &retried));
    DevExit(&second);
}

}  // namespace
