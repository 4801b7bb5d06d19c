// SPDX-License-Identifier: MIT
//
// The card model: registers that say what the card is, and sectors.
#include "sim/card.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_folder.h"

namespace {

using cardsim::Card;
using Bytes = std::vector<uint8_t>;

Bytes FromHex(const std::string& text)
{
    Bytes bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

// The bits [high:low] of a 128-bit register, read a byte at a time from its end.
uint32_t Bits(const uint8_t* reg, int high, int low)
{
    uint32_t value = 0;
    for (int bit = high; bit >= low; bit--) {
        value = value << 1 | (reg[15 - bit / 8] >> (bit % 8) & 1);
    }
    return value;
}

// The capacity that a host computes, in sectors.
uint64_t CapacityOf(const uint8_t* csd)
{
    if (Bits(csd, 127, 126) == 0) {
        const uint64_t blocks = uint64_t{Bits(csd, 73, 62) + 1} << (Bits(csd, 49, 47) + 2);
        return (blocks << Bits(csd, 83, 80)) / 512;
    }
    return uint64_t{Bits(csd, 69, 48) + 1} * 1024;
}

sim_card Described(uint32_t sectors)
{
    sim_card card;
    memset(&card, 0xE1, sizeof card);
    card.write_protected = true;
    sim_card_describe(&card, sectors);
    return card;
}

// --- CRC7 ---------------------------------------------------------------------------------

TEST(Crc7, MatchesTheCommandsThatEveryHostSends)
{
    const std::pair<const char*, uint8_t> commands[] = {
        {"4000000000", 0x95},  // CMD0
        {"48000001aa", 0x87},  // CMD8
        {"5100000000", 0x55},  // CMD17, and its answer
        {"1100000900", 0x67},
    };
    for (const auto& [text, crc] : commands) {
        const Bytes bytes = FromHex(text);
        EXPECT_EQ(crc, sim_crc7(bytes.data(), 5)) << text;
    }
    EXPECT_EQ(0x01, sim_crc7(nullptr, 0));
}

TEST(Crc7, MatchesTheRegistersOfRealCards)
{
    for (const char* text : {"02544d534131364743001af44c0129e9", "400e00325b590000734f7f800a40001b",
                             "400e00325b590001dcff7f800a4040f1"}) {
        const Bytes bytes = FromHex(text);
        EXPECT_EQ(bytes[15], sim_crc7(bytes.data(), 15)) << text;
    }
}

// --- registers ------------------------------------------------------------------------------

// The yardstick first: real registers whose capacity is known.
TEST(CardRegisters, AreReadRightlyByThisTest)
{
    EXPECT_EQ(30228480u, CapacityOf(FromHex("400e00325b590000734f7f800a40001b").data()));
    EXPECT_EQ(125042688u, CapacityOf(FromHex("400e00325b590001dcff7f800a4040f1").data()));
    // READ_BL_LEN 10, C_SIZE EAFh, MULT 7: 1,971,322,880 bytes.
    Bytes csd(16, 0);
    csd[5] = 0x0A;
    csd[6] = 0x03;
    csd[7] = 0xAB;
    csd[8] = 0xC0;
    csd[9] = 0x03;
    csd[10] = 0x80;
    EXPECT_EQ(1971322880u / 512, CapacityOf(csd.data()));
}

TEST(CardRegisters, SayTheCapacityAndNeverMore)
{
    std::vector<uint32_t> capacities = {
        4,          5,          7,          8,          100,        1000,      2048,
        16384,      30720,      65535,      123456,     1000001,    0x3FFFFF,  0x400000,
        0x400001,   0x4003FF,   0x400400,   7744512,    30228480,   62333952,  125042688,
        0x10000000, 0x7FFFFFFF, 0x80000000, 0xFFFFFBFF, 0xFFFFFC00, 0xFFFFFFFF};
    for (uint32_t power = 3; power < 32; power++) {
        capacities.push_back((1u << power) - 1);
        capacities.push_back(1u << power);
        capacities.push_back((1u << power) + 1);
    }
    for (const uint32_t sectors : capacities) {
        SCOPED_TRACE(sectors);
        const sim_card card = Described(sectors);
        EXPECT_EQ(sectors, card.sectors);
        const uint64_t said = CapacityOf(card.csd);
        EXPECT_LE(said, sectors);
        // Version 1 counts to 4096 in units: less than one unit is lost.
        const uint64_t unit = sectors > 0x400000 ? 1024 : std::max<uint64_t>(4, sectors / 2048);
        EXPECT_GT(said + unit, sectors);
        EXPECT_EQ(sectors > 0x400000 ? 1u : 0u, Bits(card.csd, 127, 126));
        EXPECT_EQ(card.csd[15], sim_crc7(card.csd, 15));
    }
}

TEST(CardRegisters, SayUsualCapacitiesExactly)
{
    for (const uint32_t mebibytes : {1u, 8u, 16u, 32u, 64u, 128u, 256u, 512u, 1024u, 2048u, 4096u,
                                     8192u, 16384u, 32768u, 65536u, 131072u, 524288u, 1048576u}) {
        const uint32_t sectors = mebibytes * 2048;
        EXPECT_EQ(sectors, CapacityOf(Described(sectors).csd)) << mebibytes;
    }
}

// There is no register for less.
TEST(CardRegisters, SayFourSectorsAtLeast)
{
    for (const uint32_t sectors : {0u, 1u, 2u, 3u}) {
        EXPECT_EQ(4u, CapacityOf(Described(sectors).csd)) << sectors;
        EXPECT_EQ(sectors, Described(sectors).sectors);
    }
}

TEST(CardRegisters, HaveTheFixedFieldsOfVersion1)
{
    const sim_card card = Described(0x400000);
    EXPECT_EQ(0x26u, Bits(card.csd, 119, 112));
    EXPECT_EQ(0u, Bits(card.csd, 111, 104));
    EXPECT_EQ(0x32u, Bits(card.csd, 103, 96)) << "25 MHz";
    EXPECT_EQ(0x5B5u, Bits(card.csd, 95, 84));
    EXPECT_EQ(10u, Bits(card.csd, 83, 80)) << "2 GiB need blocks of 1024";
    EXPECT_EQ(1u, Bits(card.csd, 79, 79));
    EXPECT_EQ(7u, Bits(card.csd, 49, 47));
    EXPECT_EQ(1u, Bits(card.csd, 46, 46));
    EXPECT_EQ(0x7Fu, Bits(card.csd, 45, 39));
    EXPECT_EQ(Bits(card.csd, 83, 80), Bits(card.csd, 25, 22));
    EXPECT_EQ(9u, Bits(Described(0x200000).csd, 83, 80)) << "1 GiB does with 512";
}

TEST(CardRegisters, HaveTheFixedFieldsOfVersion2)
{
    const sim_card card = Described(62333952);
    EXPECT_EQ(0x0Eu, Bits(card.csd, 119, 112));
    EXPECT_EQ(0u, Bits(card.csd, 111, 104));
    EXPECT_EQ(0x32u, Bits(card.csd, 103, 96));
    EXPECT_EQ(9u, Bits(card.csd, 83, 80));
    EXPECT_EQ(0u, Bits(card.csd, 79, 77));
    EXPECT_EQ(1u, Bits(card.csd, 46, 46));
    EXPECT_EQ(0x7Fu, Bits(card.csd, 45, 39));
    EXPECT_EQ(0u, Bits(card.csd, 38, 31));
    EXPECT_EQ(2u, Bits(card.csd, 28, 26));
    EXPECT_EQ(9u, Bits(card.csd, 25, 22));
    EXPECT_EQ(0u, Bits(card.csd, 21, 21));
}

TEST(CardRegisters, IdentifyTheSimulatedCard)
{
    const sim_card card = Described(2048);
    EXPECT_EQ(0, card.cid[0]);
    EXPECT_EQ("CDSIM01", std::string(card.cid + 1, card.cid + 8));
    EXPECT_EQ(0x10, card.cid[8]);
    EXPECT_EQ(0x20240001u, Bits(card.cid, 55, 24));
    EXPECT_EQ(24u, Bits(card.cid, 19, 12)) << "2024";
    EXPECT_EQ(6u, Bits(card.cid, 11, 8)) << "June";
    EXPECT_EQ(card.cid[15], sim_crc7(card.cid, 15));
}

TEST(CardRegisters, TellWhatTheCardCanDo)
{
    const sim_card card = Described(2048);
    EXPECT_EQ((Bytes{0x02, 0x35, 0x80, 0, 0, 0, 0, 0}), Bytes(card.scr, card.scr + 8));
    Bytes status(64, 0);
    status[0] = 0x80;   // 4 data lines
    status[8] = 4;      // class 10
    status[10] = 0x90;  // allocation units of 4 MiB
    status[12] = 1;
    EXPECT_EQ(status, Bytes(card.sd_status, card.sd_status + 64));
}

TEST(CardRegisters, ComeWithoutMediaAndProtection)
{
    const sim_card card = Described(2048);
    sim_card marked;
    memset(&marked, 0xE1, sizeof marked);
    EXPECT_EQ(0, memcmp(&marked.media, &card.media, sizeof card.media));
    EXPECT_TRUE(card.write_protected);
}

// --- sectors ------------------------------------------------------------------------------------

struct Media {
    uint64_t position = 0;
    uint32_t length = 0;
    int calls = 0;
    int result = 0;

    int Take(uint64_t at, uint32_t bytes)
    {
        calls++;
        position = at;
        length = bytes;
        return result;
    }
    static int Read(void* self, uint64_t at, void*, uint32_t bytes)
    {
        return static_cast<Media*>(self)->Take(at, bytes);
    }
    static int Write(void* self, uint64_t at, const void*, uint32_t bytes)
    {
        return static_cast<Media*>(self)->Take(at, bytes);
    }
};

class CardSectors : public testing::Test {
protected:
    CardSectors()
    {
        card.sectors = 0xFFFFFFFF;
        card.media = {Media::Read, Media::Write, &media, nullptr};
    }

    static constexpr uint64_t kEnd = uint64_t{0xFFFFFFFF} * 512;
    Media media;
    sim_card card = {};
    uint8_t bytes[8] = {};
};

TEST_F(CardSectors, AreReachedByPositionsOf64Bits)
{
    EXPECT_EQ(8, sim_card_read(&card, kEnd - 8, bytes, 8));
    EXPECT_EQ(kEnd - 8, media.position);
    EXPECT_EQ(8u, media.length);
    EXPECT_EQ(8, sim_card_write(&card, 0x100000000, bytes, 8));
    EXPECT_EQ(0x100000000u, media.position);
    EXPECT_EQ(0xFFFFFFFF, sim_card_read(&card, 3, bytes, 0xFFFFFFFF));
    EXPECT_EQ(0xFFFFFFFF, media.length);
}

TEST_F(CardSectors, EndWithTheCard)
{
    EXPECT_EQ(3, sim_card_read(&card, kEnd - 3, bytes, 8));
    EXPECT_EQ(3u, media.length);
    EXPECT_EQ(3, sim_card_write(&card, kEnd - 3, bytes, 8));
    EXPECT_EQ(2, media.calls);
    EXPECT_EQ(0, sim_card_read(&card, kEnd, bytes, 8));
    EXPECT_EQ(0, sim_card_read(&card, UINT64_MAX, bytes, 8));
    EXPECT_EQ(-ENOSPC, sim_card_write(&card, kEnd, bytes, 8));
    EXPECT_EQ(-ENOSPC, sim_card_write(&card, UINT64_MAX, bytes, 8));
    EXPECT_EQ(0, sim_card_write(&card, kEnd, bytes, 0));
    EXPECT_EQ(0, sim_card_read(&card, 0, bytes, 0));
    EXPECT_EQ(2, media.calls);
}

TEST_F(CardSectors, FailAsTheirMediaDo)
{
    media.result = -EIO;
    EXPECT_EQ(-EIO, sim_card_read(&card, 0, bytes, 8));
    EXPECT_EQ(-EIO, sim_card_write(&card, 0, bytes, 8));
}

TEST_F(CardSectors, AreProtectedFromWrites)
{
    card.write_protected = true;
    EXPECT_EQ(-EROFS, sim_card_write(&card, 0, bytes, 8));
    EXPECT_EQ(-EROFS, sim_card_write(&card, 0, bytes, 0));
    EXPECT_EQ(-EROFS, sim_card_write(&card, kEnd, bytes, 8));
    EXPECT_EQ(0, media.calls);
    EXPECT_EQ(8, sim_card_read(&card, 0, bytes, 8));
}

TEST(CardInMemory, IsBlankAndKeepsWhatIsWritten)
{
    const std::unique_ptr<Card> card = Card::InMemory(16);
    Bytes bytes(16 * 512, 0xE1);
    EXPECT_EQ(16u, card->model().sectors);
    EXPECT_FALSE(card->model().write_protected);
    EXPECT_EQ(16 * 512, sim_card_read(&card->model(), 0, bytes.data(), 16 * 512));
    EXPECT_EQ(Bytes(16 * 512, 0), bytes);
    const Bytes written = {1, 2, 3, 4, 5};
    EXPECT_EQ(5, sim_card_write(&card->model(), 8187, written.data(), 5));
    EXPECT_EQ(16 * 512, sim_card_read(&card->model(), 0, bytes.data(), 16 * 512));
    EXPECT_EQ(written, Bytes(bytes.end() - 5, bytes.end()));
    EXPECT_EQ(0, bytes[8186]);
}

TEST(CardFromImage, IsTheFile)
{
    const TempFolder folder;
    const std::string path = folder.Text("card", std::string(1024, 'a'));
    const std::unique_ptr<Card> card = Card::FromImage(path);
    EXPECT_EQ(2u, card->model().sectors);
    EXPECT_EQ(0, memcmp(Described(2).cid, card->model().cid, 16));
    char bytes[5] = {};
    EXPECT_EQ(4, sim_card_write(&card->model(), 510, "WXYZ", 4));
    EXPECT_EQ("aaWXYZaa", FileBytes(path, 508, 8));
    EXPECT_EQ(4, sim_card_read(&card->model(), 511, bytes, 4));
    EXPECT_STREQ("XYZa", bytes);
    EXPECT_EQ(1024u, FileBytes(path, 0, 2000).size());
}

TEST(CardFromImage, IsProtectedOnRequest)
{
    const TempFolder folder;
    const std::string path = folder.Text("card", std::string(1024, 'a'));
    const std::unique_ptr<Card> card = Card::FromImage(path, true);
    EXPECT_TRUE(card->model().write_protected);
    EXPECT_EQ(-EROFS, sim_card_write(&card->model(), 0, "b", 1));
    // Even a card whose switch is moved cannot reach a file opened for reading.
    card->model().write_protected = false;
    EXPECT_EQ(-EIO, sim_card_write(&card->model(), 0, "b", 1));
    EXPECT_EQ("a", FileBytes(path, 0, 1));
}

TEST(CardFromImage, FailsWhereTheFileIsCutOff)
{
    const TempFolder folder;
    const std::string path = folder.Text("card", std::string(1024, 'a'));
    const std::unique_ptr<Card> card = Card::FromImage(path);
    folder.Text("card", "a");
    uint8_t bytes[512];
    EXPECT_EQ(-EIO, sim_card_read(&card->model(), 0, bytes, 512));
}

TEST(CardFromImage, TakesTheLargestCard)
{
    const TempFolder folder;
    const uint64_t size = uint64_t{0xFFFFFFFF} * 512;
    const std::string path = folder.Sparse("card", size);
    const std::unique_ptr<Card> card = Card::FromImage(path);
    EXPECT_EQ(0xFFFFFFFF, card->model().sectors);
    EXPECT_EQ(4, sim_card_write(&card->model(), size - 4, "last", 4));
    EXPECT_EQ("last", FileBytes(path, size - 4, 5));
}

std::string ErrorOf(const std::string& path)
{
    try {
        Card::FromImage(path);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

TEST(CardFromImage, RefusesWhatIsNoCard)
{
    const TempFolder folder;
    const std::string none = folder.Path("none");
    EXPECT_EQ("cannot open the card image " + none + ": No such file or directory", ErrorOf(none));
    const std::string empty = folder.Text("empty", "");
    EXPECT_EQ(
        "the card image " + empty + " holds 0 bytes: a card is a whole number of 512-byte sectors",
        ErrorOf(empty));
    const std::string odd = folder.Text("odd", std::string(1023, 'a'));
    EXPECT_EQ(
        "the card image " + odd + " holds 1023 bytes: a card is a whole number of 512-byte sectors",
        ErrorOf(odd));
    const std::string large = folder.Sparse("large", uint64_t{512} << 32);
    EXPECT_EQ("the card image " + large +
                  " holds 2199023255552 bytes: a card is a whole number of 512-byte sectors",
              ErrorOf(large));
}

}  // namespace
