// SPDX-License-Identifier: MIT
//
// The model of direct transfers: which lists it takes, and that it moves what they
// say and nothing else. A library that builds wrong lists must not get away with it.
#include "sim/model/transfer.h"

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "sim/card.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSectors = 512;
constexpr uint32_t kBase = 0xF0000000;  // where the program's memory begins
constexpr uint32_t kSize = 1u << 20;
constexpr uint32_t kList = kBase;  // lists stand at the beginning, data behind
constexpr uint32_t kData = kBase + 0x8000;

struct Piece {
    uint32_t address;
    uint32_t length;  // with the end mark
};

class TransferModel : public testing::Test {
protected:
    TransferModel()
    {
        for (size_t i = 0; i < kSectors * 512; i++) {
            content.push_back(static_cast<uint8_t>(i * 7 + i / 512 * 31));
        }
        EXPECT_EQ(static_cast<int64_t>(content.size()),
                  sim_card_write(&card->model(), 0, content.data(), kSectors * 512));
        for (size_t i = 0; i < program.size(); i++) {
            program[i] = static_cast<uint8_t>(i * 13 + 5);
        }
    }

    static bool Inside(uintptr_t address, uint32_t length)
    {
        return address >= kBase && address - kBase + length <= kSize;
    }
    static int Put(void* self, uintptr_t to, const void* from, uint32_t length)
    {
        if (!Inside(to, length)) {
            return -EFAULT;
        }
        auto* test = static_cast<TransferModel*>(self);
        memcpy(&test->program[to - kBase], from, length);
        return 0;
    }
    static int Get(void* self, void* to, uintptr_t from, uint32_t length)
    {
        if (!Inside(from, length)) {
            return -EFAULT;
        }
        auto* test = static_cast<TransferModel*>(self);
        memcpy(to, &test->program[from - kBase], length);
        return 0;
    }

    void PutList(const std::vector<Piece>& pieces)
    {
        size_t place = kList - kBase;
        for (const Piece& piece : pieces) {
            for (const uint32_t word : {piece.address, piece.length}) {
                for (int shift = 0; shift < 32; shift += 8) {
                    program[place++] = static_cast<uint8_t>(word >> shift);
                }
            }
        }
    }

    int Move(sim_direction direction, uint32_t sector, uint32_t sectors,
             const std::vector<Piece>& pieces)
    {
        PutList(pieces);
        return MoveBytes(direction, sector, sectors, static_cast<uint32_t>(pieces.size() * 8));
    }
    int MoveBytes(sim_direction direction, uint32_t sector, uint32_t sectors, uint32_t list_bytes)
    {
        const int failed = sim_check_list(transfer.get(), &card->model(), direction, sector,
                                          sectors, &memory, kList, list_bytes);
        return failed != 0 ? failed : sim_carry_out(transfer.get(), &card->model(), &memory);
    }

    Bytes OnCard()
    {
        Bytes bytes(size_t{kSectors} * 512);
        EXPECT_EQ(static_cast<int64_t>(bytes.size()),
                  sim_card_read(&card->model(), 0, bytes.data(), kSectors * 512));
        return bytes;
    }

    Bytes Program(uint32_t address, uint32_t length) const
    {
        const auto from = program.begin() + static_cast<std::ptrdiff_t>(address - kBase);
        return Bytes(from, from + static_cast<std::ptrdiff_t>(length));
    }
    Bytes Content(uint32_t position, uint32_t length) const
    {
        const auto from = content.begin() + static_cast<std::ptrdiff_t>(position);
        return Bytes(from, from + static_cast<std::ptrdiff_t>(length));
    }

    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    Bytes content;
    Bytes program = Bytes(kSize);
    const std::unique_ptr<sim_transfer> transfer = std::make_unique<sim_transfer>();
    const sim_memory memory = {Put, Get, this};
};

TEST_F(TransferModel, ReadsWordsLeastSignificantByteFirst)
{
    const uint8_t bytes[] = {0x78, 0x56, 0x34, 0x92};
    EXPECT_EQ(0x92345678u, sim_get_le32(bytes));
}

TEST_F(TransferModel, ReadsIntoThePiecesInTheirOrder)
{
    Bytes expected = program;
    ASSERT_EQ(0, Move(SIM_FROM_CARD, 3, 2,
                      {{kData + 2000, 500}, {kData, 23}, {kData + 100, 501 | SIM_SG_END}}));
    EXPECT_EQ(Content(1536, 500), Program(kData + 2000, 500));
    EXPECT_EQ(Content(2036, 23), Program(kData, 23));
    EXPECT_EQ(Content(2059, 501), Program(kData + 100, 501));
    // Nothing around them.
    const Bytes list = Program(kList, 24);
    std::copy(list.begin(), list.end(), expected.begin());
    for (const auto& [at, length] : {std::pair{2000u, 500u}, {0u, 23u}, {100u, 501u}}) {
        const Bytes part = Program(kData + at, length);
        std::copy(part.begin(), part.end(), &expected[kData - kBase + at]);
    }
    EXPECT_EQ(expected, program);
}

TEST_F(TransferModel, WritesThePiecesInTheirOrder)
{
    ASSERT_EQ(0, Move(SIM_TO_CARD, 510, 2,
                      {{kData + 2000, 1}, {kData, 512}, {kData + 900, 511 | SIM_SG_END}}));
    Bytes expected = content;
    Bytes written = Program(kData + 2000, 1);
    for (const auto& [at, length] : {std::pair{0u, 512u}, {900u, 511u}}) {
        const Bytes part = Program(kData + at, length);
        written.insert(written.end(), part.begin(), part.end());
    }
    std::copy(written.begin(), written.end(), expected.begin() + 510 * 512);
    EXPECT_EQ(expected, OnCard());
}

TEST_F(TransferModel, TakesAnEmptyListForNoSectorsOnly)
{
    EXPECT_EQ(0, MoveBytes(SIM_TO_CARD, 3, 0, 0));
    EXPECT_EQ(-EINVAL, MoveBytes(SIM_TO_CARD, 3, 1, 0));
    EXPECT_EQ(content, OnCard());
}

struct ListRow {
    const char* what;
    uint32_t sectors;
    std::vector<Piece> pieces;
    int result;
};

TEST_F(TransferModel, ChecksTheWholeListBeforeItMovesAnything)
{
    constexpr uint32_t kEnd = SIM_SG_END;
    const ListRow rows[] = {
        {"good", 2, {{kData, 512}, {kData, 512 | kEnd}}, 0},
        {"no end mark", 2, {{kData, 512}, {kData, 512}}, -EINVAL},
        {"an early end mark", 2, {{kData, 512 | kEnd}, {kData, 512}}, -EINVAL},
        {"two end marks", 2, {{kData, 512 | kEnd}, {kData, 512 | kEnd}}, -EINVAL},
        {"an empty piece", 1, {{kData, 512}, {kData, 0}, {kData, 0 | kEnd}}, -EINVAL},
        {"an empty piece in front", 1, {{kData, 0}, {kData, 512 | kEnd}}, -EINVAL},
        {"only an end mark", 0, {{kData, kEnd}}, -EINVAL},
        {"the longest piece", 128, {{kData, 65536 | kEnd}}, 0},
        {"a longer piece", 129, {{kData, 66048 | kEnd}}, -EINVAL},
        {"longer by a byte", 129, {{kData, 65537}, {kData, 511 | kEnd}}, -EINVAL},
        {"a byte short", 2, {{kData, 512}, {kData, 511 | kEnd}}, -EINVAL},
        {"a byte over", 2, {{kData, 512}, {kData, 513 | kEnd}}, -EINVAL},
        {"a sector short", 2, {{kData, 512 | kEnd}}, -EINVAL},
        {"a sector over", 1, {{kData, 1024 | kEnd}}, -EINVAL},
    };
    for (const ListRow& row : rows) {
        for (const sim_direction direction : {SIM_FROM_CARD, SIM_TO_CARD}) {
            SCOPED_TRACE(testing::Message()
                         << row.what << (direction == SIM_TO_CARD ? " w" : " r"));
            PutList(row.pieces);
            const Bytes before = program;
            const Bytes card_before = OnCard();
            EXPECT_EQ(row.result, MoveBytes(direction, 0, row.sectors,
                                            static_cast<uint32_t>(row.pieces.size() * 8)));
            if (row.result != 0) {
                EXPECT_EQ(before, program);
                EXPECT_EQ(card_before, OnCard());
            }
        }
    }
}

TEST_F(TransferModel, TakesWholeEntriesAndAtMost2048)
{
    PutList({{kData, 512 | SIM_SG_END}});
    for (const uint32_t bytes : {1u, 4u, 7u, 9u, 15u}) {
        EXPECT_EQ(-EINVAL, MoveBytes(SIM_FROM_CARD, 0, 1, bytes)) << bytes;
    }
    std::vector<Piece> pieces(2048, {kData, 128});
    pieces.back().length |= SIM_SG_END;
    EXPECT_EQ(0, Move(SIM_FROM_CARD, 0, 512, pieces));
    pieces.back().length = 64;
    pieces.push_back({kData, 64 | SIM_SG_END});
    EXPECT_EQ(-EINVAL, Move(SIM_FROM_CARD, 0, 512, pieces));
}

TEST_F(TransferModel, FindsAddressesThatAreNone)
{
    EXPECT_EQ(-EFAULT, Move(SIM_FROM_CARD, 0, 1, {{0x1000, 512 | SIM_SG_END}}));
    EXPECT_EQ(-EFAULT, Move(SIM_TO_CARD, 0, 1, {{0x1000, 512 | SIM_SG_END}}));
    EXPECT_EQ(content, OnCard());
    EXPECT_EQ(-EFAULT, sim_check_list(transfer.get(), &card->model(), SIM_FROM_CARD, 0, 1, &memory,
                                      0x1000, 8));
}

TEST_F(TransferModel, EndsWithTheCard)
{
    const Bytes before = Program(kData, 1024);
    EXPECT_EQ(-EIO, Move(SIM_FROM_CARD, kSectors, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(-EIO, Move(SIM_FROM_CARD, kSectors - 1, 2, {{kData, 1024 | SIM_SG_END}}));
    EXPECT_EQ(before, Program(kData, 1024));
    EXPECT_EQ(-ENOSPC, Move(SIM_TO_CARD, kSectors - 1, 2, {{kData, 1024 | SIM_SG_END}}));
    EXPECT_EQ(-ENOSPC, Move(SIM_TO_CARD, kSectors, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(-ENOSPC, Move(SIM_TO_CARD, 0xFFFFFFFF, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(content, OnCard());
}

TEST_F(TransferModel, RefusesToWriteToAProtectedCard)
{
    card->model().write_protected = true;
    EXPECT_EQ(-EROFS, Move(SIM_TO_CARD, 0, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(0, Move(SIM_FROM_CARD, 0, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(content, OnCard());
}

TEST_F(TransferModel, MovesPiecesOfAnyLength)
{
    const auto move = [&](sim_direction direction, const sim_piece& piece) {
        transfer->direction = direction;
        transfer->pieces = 1;
        transfer->piece[0] = piece;
        return sim_carry_out(transfer.get(), &card->model(), &memory);
    };
    ASSERT_EQ(0, move(SIM_FROM_CARD, {7 * 512, kData + 3, 65536}));
    EXPECT_EQ(Content(7 * 512, 65536), Program(kData + 3, 65536));
    ASSERT_EQ(0, move(SIM_TO_CARD, {9 * 512, kData + 500, 513}));
    Bytes expected = content;
    const Bytes written = Program(kData + 500, 513);
    std::copy(written.begin(), written.end(), expected.begin() + 9 * 512);
    EXPECT_EQ(expected, OnCard());
}

// What the program does to its list after the check does not matter.
TEST_F(TransferModel, KeepsWhatItChecked)
{
    PutList({{kData, 512 | SIM_SG_END}});
    ASSERT_EQ(
        0, sim_check_list(transfer.get(), &card->model(), SIM_FROM_CARD, 5, 1, &memory, kList, 8));
    EXPECT_NE(Content(5 * 512, 512), Program(kData, 512));
    PutList({{0x1000, 77}});
    ASSERT_EQ(0, sim_carry_out(transfer.get(), &card->model(), &memory));
    EXPECT_EQ(Content(5 * 512, 512), Program(kData, 512));
}

// A card in memory takes its data without a detour.
TEST_F(TransferModel, MovesStraightToAndFromACardInMemory)
{
    Bytes sectors = content;
    card->model().media = {nullptr, nullptr, nullptr, sectors.data()};
    ASSERT_EQ(0, Move(SIM_FROM_CARD, 3, 2, {{kData + 2000, 500}, {kData, 524 | SIM_SG_END}}));
    EXPECT_EQ(Content(1536, 500), Program(kData + 2000, 500));
    EXPECT_EQ(Content(2036, 524), Program(kData, 524));
    ASSERT_EQ(0, Move(SIM_TO_CARD, 510, 2, {{kData + 900, 1}, {kData, 1023 | SIM_SG_END}}));
    Bytes expected = content;
    expected[510 * 512] = program[kData - kBase + 900];
    const Bytes written = Program(kData, 1023);
    std::copy(written.begin(), written.end(), expected.begin() + 510 * 512 + 1);
    EXPECT_EQ(expected, sectors);
    EXPECT_EQ(-EFAULT, Move(SIM_TO_CARD, 0, 1, {{0x1000, 512 | SIM_SG_END}}));
    EXPECT_EQ(-EFAULT, Move(SIM_FROM_CARD, 0, 1, {{0x1000, 512 | SIM_SG_END}}));
    EXPECT_EQ(expected, sectors);
}

TEST_F(TransferModel, PassesAFailureOfTheMediaOn)
{
    card->model().media.read = [](void*, uint64_t, void*, uint32_t) { return -EILSEQ; };
    card->model().media.write = [](void*, uint64_t, const void*, uint32_t) { return -EDQUOT; };
    EXPECT_EQ(-EILSEQ, Move(SIM_FROM_CARD, 0, 1, {{kData, 512 | SIM_SG_END}}));
    EXPECT_EQ(-EDQUOT, Move(SIM_TO_CARD, 0, 1, {{kData, 512 | SIM_SG_END}}));
}

}  // namespace
