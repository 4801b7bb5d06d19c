// SPDX-License-Identifier: MIT
//
// Registers of real cards and made-up ones, and what they say.
#include "tools/cardtool/registers.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tools/cardtool/fields.h"

namespace {

Register FromHex(const std::string& hex)
{
    Register reg = {};
    EXPECT_EQ(32u, hex.size());
    for (size_t i = 0; i < reg.size(); i++) {
        reg[i] = static_cast<uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    }
    return reg;
}

CardInfo WithCid(const Register& reg)
{
    CardInfo info = {};
    std::copy(reg.begin(), reg.end(), info.cid);
    return info;
}

constexpr char kCid[] = "02544d534131364743001af44c0129e9";
constexpr char kCsd16GB[] = "400e00325b590000734f7f800a40001b";

TEST(CidRegister, IsDecoded)
{
    const Cid cid = DecodeCid(WithCid(FromHex(kCid)), DEV_TYPE_RICOH_SD);
    EXPECT_EQ(0x02u, cid.manufacturer);
    EXPECT_EQ("TM", cid.oem);
    EXPECT_EQ("SA16G", cid.product);
    EXPECT_EQ(4u, cid.revision_major);
    EXPECT_EQ(3u, cid.revision_minor);
    EXPECT_EQ(0x001AF44Cu, cid.serial);
    EXPECT_EQ(2018u, cid.year);
    EXPECT_EQ(9u, cid.month);
    EXPECT_EQ(Crc::Valid, cid.crc);
}

TEST(CidRegister, WithoutItsCrcIsNotWrong)
{
    const Cid cid = DecodeCid(WithCid(FromHex("1b534d474638533530d8466363a16700")), DEV_TYPE_MIVO);
    EXPECT_EQ(Crc::Absent, cid.crc);
    EXPECT_EQ(0x1Bu, cid.manufacturer);
    EXPECT_EQ("SM", cid.oem);
    EXPECT_EQ("GF8S5", cid.product);
    EXPECT_EQ(3u, cid.revision_major);
    EXPECT_EQ(0u, cid.revision_minor);
    EXPECT_EQ(0xD8466363u, cid.serial);
    EXPECT_EQ(2022u, cid.year);
    EXPECT_EQ(7u, cid.month);
}

// The Zel back-end puts the register one byte late and loses its last byte.
TEST(CidRegister, IsFoundInTheZelPlacement)
{
    const Register reg = FromHex(kCid);
    CardInfo info = {};
    std::copy(reg.begin(), reg.end() - 1, info.cid + 1);
    const Cid cid = DecodeCid(info, DEV_TYPE_ZEL);
    EXPECT_EQ(0x02u, cid.manufacturer);
    EXPECT_EQ("TM", cid.oem);
    EXPECT_EQ("SA16G", cid.product);
    EXPECT_EQ(4u, cid.revision_major);
    EXPECT_EQ(3u, cid.revision_minor);
    EXPECT_EQ(0x001AF44Cu, cid.serial);
    EXPECT_EQ(2018u, cid.year);
    EXPECT_EQ(9u, cid.month);
    EXPECT_EQ(Crc::NotDelivered, cid.crc);
    EXPECT_EQ(Hex(reg.data(), 15) + "00", Hex(PlaceCid(info, DEV_TYPE_ZEL).data(), 16));
}

// Also the end bit, which the CRC does not cover. A last byte of 00 is no CRC at
// all, so the bits that lead there are left out.
TEST(RegisterCrc, NoticesEverySingleBit)
{
    for (const char* hex : {kCid, kCsd16GB}) {
        Register reg = FromHex(hex);
        EXPECT_EQ(Crc::Valid, CheckCrc(reg));
        for (size_t bit = 0; bit < 128; bit++) {
            const auto mask = static_cast<uint8_t>(1u << bit % 8);
            reg[bit / 8] ^= mask;
            EXPECT_EQ(Crc::Mismatch, CheckCrc(reg)) << hex << " with bit " << bit << " flipped";
            reg[bit / 8] ^= mask;
        }
    }
}

TEST(RegisterCrc, IsNamed)
{
    EXPECT_EQ("valid", CrcText(Crc::Valid));
    EXPECT_EQ("absent (the last byte is 00)", CrcText(Crc::Absent));
    EXPECT_EQ("mismatching", CrcText(Crc::Mismatch));
    EXPECT_EQ("not delivered by this back-end", CrcText(Crc::NotDelivered));
}

struct Capacity {
    const char* csd;
    unsigned version;
    uint64_t bytes;
};

TEST(CsdRegister, TellsTheCapacityInEachVersion)
{
    const Capacity table[] = {
        // Blocks of 1024 bytes, and the smallest card that can be said.
        {"002600325b5a03abc003ff8002800051", 1, 1971322880},
        {"00000000000900000000000000000069", 1, 2048},
        {kCsd16GB, 2, 30228480ull * 512},
        // Needs more than 16 bits of the field, and the whole of it.
        {"400e00325b590001dcff7f800a4040f1", 2, 125042688ull * 512},
        {"400000000000003fffff00000000005f", 2, 2ull << 40},
        {"800e00325b59004000007f8002400061", 3, (2ull << 40) + (512 << 10)},
        {"8000000000000fffffff0000000000ef", 3, 128ull << 40},
    };
    for (const Capacity& row : table) {
        SCOPED_TRACE(row.csd);
        const Csd csd = DecodeCsd(FromHex(row.csd));
        EXPECT_EQ(row.version, csd.version);
        ASSERT_TRUE(csd.capacity.has_value());
        EXPECT_EQ(row.bytes, *csd.capacity);
        EXPECT_EQ(Crc::Valid, csd.crc);
    }
}

TEST(CsdRegister, OfAnUnknownVersionTellsNoCapacity)
{
    const Csd csd = DecodeCsd(FromHex("c00000000000003fffff0000000000d7"));
    EXPECT_EQ(4u, csd.version);
    EXPECT_FALSE(csd.capacity.has_value());
    EXPECT_EQ(Crc::Valid, csd.crc);
}

TEST(RegisterText, ShowsNothingThatDrivesATerminal)
{
    std::string all;
    for (int c = 0; c < 256; c++) {
        all += static_cast<char>(c);
    }
    const std::string shown = Printable(all);
    EXPECT_TRUE(std::all_of(shown.begin(), shown.end(), [](char c) { return c >= 32 && c < 127; }));
    EXPECT_EQ("SA16G ~", Printable("SA16G ~"));
    EXPECT_EQ("\\x1b[2J\\x07\\x80\\xff\\x7f", Printable("\x1b[2J\x07\x80\xff\x7f"));
    EXPECT_EQ("\\x5cx1b", Printable("\\x1b"));
    EXPECT_EQ(std::string("\\x00"), Printable(std::string(1, '\0')));
}

TEST(RegisterText, IsHexadecimal)
{
    const uint8_t bytes[] = {0x00, 0x0F, 0xA5, 0xFF};
    EXPECT_EQ("000fa5ff", Hex(bytes, sizeof bytes));
    EXPECT_FALSE(IsEmpty(bytes, 4));
    EXPECT_TRUE(IsEmpty(bytes, 1));
}

Json ValueIn(RegisterKind kind, const CardSpeedInfo& record, const std::string& name)
{
    for (const Field& field : FieldsOf(kind, record.bytes)) {
        if (field.name == name) {
            return field.value;
        }
    }
    return "no such field";
}

TEST(SpeedRecord, OfMivoHasAByteOfTheScr)
{
    for (const int set : {0, 1, 2, 3, 4}) {
        CardSpeedInfo record = {};
        record.bytes[1] = static_cast<uint8_t>(1 << set);
        int bit = 0;
        for (const char* name : {"CMD20", "CMD23", "CMD48_49", "CMD58_59", "ACMD53_54"}) {
            EXPECT_EQ(Json(bit == set),
                      ValueIn(RegisterKind::MivoSpeed, record, std::string("CMD_SUPPORT_") + name))
                << name;
            bit++;
        }
    }
    // Half of a field says nothing.
    const CardSpeedInfo record = {{0, 0xC0}};
    EXPECT_EQ(Json(), ValueIn(RegisterKind::MivoSpeed, record, "SD_SPECX_LOWER_HALF"));
}

TEST(SpeedRecord, OfMivoHasTheCodeOfTheAllocationUnit)
{
    const auto size = [](uint8_t code) {
        const CardSpeedInfo record = {{0, 0, 0, 0, code}};
        return ValueIn(RegisterKind::MivoSpeed, record, "AU_SIZE");
    };
    EXPECT_EQ(Json(), size(0));
    EXPECT_EQ(Json(16 << 10), size(1));
    EXPECT_EQ(Json(12 << 20), size(11));
    EXPECT_EQ(Json(64 << 20), size(15));
    EXPECT_EQ(Json(), size(17));
}

}  // namespace
