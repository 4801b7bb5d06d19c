// SPDX-License-Identifier: MIT
#include "tools/cardtool/fields.h"

#include <algorithm>
#include <array>
#include <span>

#include "tools/cardtool/registers.h"

namespace {

struct Row {
    const char* name;
    unsigned high;
    unsigned low;
    Json (*value)(uint64_t raw);  // null: the number itself
    const char* unit;
};

constexpr size_t kNameColumn = 26;
constexpr size_t kBitsColumn = 9;

uint64_t Bits(const uint8_t* bytes, size_t size, unsigned high, unsigned low)
{
    uint64_t value = 0;
    for (unsigned bit = high + 1; bit > low; bit--) {
        const unsigned position = bit - 1;
        value = value << 1 | (bytes[size - 1 - position / 8] >> position % 8 & 1u);
    }
    return value;
}

Json Flag(uint64_t raw)
{
    return raw != 0;
}

Json PowerOfTwo(uint64_t raw)
{
    return uint64_t{1} << raw;
}

Json PlusOne(uint64_t raw)
{
    return raw + 1;
}

// Two or five characters, first one in the upper bits.
template <int kLength>
Json Characters(uint64_t raw)
{
    std::string text;
    for (int i = kLength - 1; i >= 0; i--) {
        text += static_cast<char>(raw >> 8 * i & 0xFF);
    }
    return Printable(text);
}

Json Revision(uint64_t raw)
{
    return std::to_string(raw >> 4) + "." + std::to_string(raw & 0xF);
}

Json YearAndMonth(uint64_t raw)
{
    const uint64_t month = raw & 0xF;
    return std::to_string(2000 + (raw >> 4)) + (month < 10 ? "-0" : "-") + std::to_string(month);
}

// Tenths; code 0 is not in use.
constexpr uint64_t kTenths[16] = {0, 10, 12, 13, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 70, 80};

uint64_t TenTo(uint64_t exponent)
{
    uint64_t value = 1;
    for (; exponent > 0; exponent--) {
        value *= 10;
    }
    return value;
}

// Units go from 1 ns up to 10 ms; tenths of the smallest one are 100 ps.
Json AccessTime(uint64_t raw)
{
    const uint64_t tenths = kTenths[raw >> 3 & 0xF];
    return tenths == 0 ? Json() : Json(tenths * TenTo(raw & 7) * 100);
}

// Units are 100 kbit/s, 1, 10 and 100 Mbit/s.
Json BitRate(uint64_t raw)
{
    const uint64_t tenths = kTenths[raw >> 3 & 0xF];
    const uint64_t unit = raw & 7;
    return tenths == 0 || unit > 3 ? Json() : Json(tenths * TenTo(unit) * 10000);
}

Json HundredClocks(uint64_t raw)
{
    return raw * 100;
}

// In microamperes, since the first one is half a milliampere.
Json LeastCurrent(uint64_t raw)
{
    static constexpr uint64_t kCurrents[] = {500, 1000, 5000, 10000, 25000, 35000, 60000, 100000};
    return kCurrents[raw];
}

Json MostCurrent(uint64_t raw)
{
    static constexpr uint64_t kCurrents[] = {1000, 5000, 10000, 25000, 35000, 45000, 80000, 200000};
    return kCurrents[raw];
}

Json SizeMultiplier(uint64_t raw)
{
    return uint64_t{1} << (raw + 2);
}

Json BusWidth(uint64_t raw)
{
    return raw == 0 ? Json(1) : raw == 2 ? Json(4) : Json();
}

Json SpeedClass(uint64_t raw)
{
    static constexpr int kClasses[] = {0, 2, 4, 6, 10};
    return raw < std::size(kClasses) ? Json(kClasses[raw]) : Json();
}

// FFh means without end, and there is no number for that.
Json MovePerformance(uint64_t raw)
{
    return raw == 0xFF ? Json() : Json(raw);
}

Json AllocationUnit(uint64_t raw)
{
    static constexpr uint64_t kKilobytes[] = {0,    16,   32,   64,    128,   256,   512,   1024,
                                              2048, 4096, 8192, 12288, 16384, 24576, 32768, 65536};
    return raw == 0 ? Json() : Json(kKilobytes[raw] * 1024);
}

// The Mivo back-end takes a byte for what is four bits on the card.
Json AllocationUnitOfByte(uint64_t raw)
{
    return raw > 0xF ? Json() : AllocationUnit(raw);
}

// The driver alone knows.
Json NotKnown(uint64_t)
{
    return {};
}

Json Megabytes(uint64_t raw)
{
    return raw == 0 ? Json() : Json(raw << 20);
}

Json UhsGrade(uint64_t raw)
{
    return raw == 0 ? Json(0) : raw == 1 ? Json(10) : raw == 3 ? Json(30) : Json();
}

Json PerformanceClass(uint64_t raw)
{
    return raw == 0 ? Json("none") : raw <= 2 ? Json("A" + std::to_string(raw)) : Json();
}

Json Security(uint64_t raw)
{
    switch (raw) {
        case 0:
            return "none";
        case 2:
            return "SDSC";
        case 3:
            return "SDHC";
        case 4:
            return "SDXC";
        default:
            return {};
    }
}

Json Widths(uint64_t raw)
{
    Json widths = Json::array();
    if ((raw & 1) != 0) {
        widths.push_back(1);
    }
    if ((raw & 4) != 0) {
        widths.push_back(4);
    }
    return widths;
}

constexpr Row kCid[] = {
    {"MID", 127, 120, nullptr, nullptr},      {"OID", 119, 104, Characters<2>, nullptr},
    {"PNM", 103, 64, Characters<5>, nullptr}, {"PRV", 63, 56, Revision, nullptr},
    {"PSN", 55, 24, nullptr, nullptr},        {"MDT", 19, 8, YearAndMonth, nullptr},
    {"CRC7", 7, 1, nullptr, nullptr},
};

constexpr Row kCsdHead[] = {
    {"CSD_STRUCTURE", 127, 126, PlusOne, "version"},
};

constexpr Row kCsdCommon[] = {
    {"TAAC", 119, 112, AccessTime, "ps"},
    {"NSAC", 111, 104, HundredClocks, "clocks"},
    {"TRAN_SPEED", 103, 96, BitRate, "bit/s"},
    {"CCC", 95, 84, nullptr, nullptr},
    {"READ_BL_LEN", 83, 80, PowerOfTwo, "bytes"},
    {"READ_BL_PARTIAL", 79, 79, Flag, nullptr},
    {"WRITE_BLK_MISALIGN", 78, 78, Flag, nullptr},
    {"READ_BLK_MISALIGN", 77, 77, Flag, nullptr},
    {"DSR_IMP", 76, 76, Flag, nullptr},
};

constexpr Row kCsdSize1[] = {
    {"C_SIZE", 73, 62, PlusOne, nullptr},          {"VDD_R_CURR_MIN", 61, 59, LeastCurrent, "uA"},
    {"VDD_R_CURR_MAX", 58, 56, MostCurrent, "uA"}, {"VDD_W_CURR_MIN", 55, 53, LeastCurrent, "uA"},
    {"VDD_W_CURR_MAX", 52, 50, MostCurrent, "uA"}, {"C_SIZE_MULT", 49, 47, SizeMultiplier, nullptr},
};
constexpr Row kCsdSize2[] = {{"C_SIZE", 69, 48, PlusOne, "512 KiB"}};
constexpr Row kCsdSize3[] = {{"C_SIZE", 75, 48, PlusOne, "512 KiB"}};

constexpr Row kCsdTail[] = {
    {"ERASE_BLK_EN", 46, 46, Flag, nullptr},
    {"SECTOR_SIZE", 45, 39, PlusOne, "write blocks"},
    {"WP_GRP_SIZE", 38, 32, PlusOne, "erase sectors"},
    {"WP_GRP_ENABLE", 31, 31, Flag, nullptr},
    {"R2W_FACTOR", 28, 26, PowerOfTwo, "read times"},
    {"WRITE_BL_LEN", 25, 22, PowerOfTwo, "bytes"},
    {"WRITE_BL_PARTIAL", 21, 21, Flag, nullptr},
    {"FILE_FORMAT_GRP", 15, 15, nullptr, nullptr},
    {"COPY", 14, 14, Flag, nullptr},
    {"PERM_WRITE_PROTECT", 13, 13, Flag, nullptr},
    {"TMP_WRITE_PROTECT", 12, 12, Flag, nullptr},
    {"FILE_FORMAT", 11, 10, nullptr, nullptr},
    {"WP_UPC", 9, 9, Flag, nullptr},
    {"CRC7", 7, 1, nullptr, nullptr},
};

constexpr Row kScr[] = {
    {"SCR_STRUCTURE", 63, 60, nullptr, nullptr},
    {"SD_SPEC", 59, 56, nullptr, nullptr},
    {"DATA_STAT_AFTER_ERASE", 55, 55, nullptr, nullptr},
    {"SD_SECURITY", 54, 52, Security, nullptr},
    {"SD_BUS_WIDTHS", 51, 48, Widths, "bits"},
    {"SD_SPEC3", 47, 47, Flag, nullptr},
    {"EX_SECURITY", 46, 43, nullptr, nullptr},
    {"SD_SPEC4", 42, 42, Flag, nullptr},
    {"SD_SPECX", 41, 38, nullptr, nullptr},
    {"CMD_SUPPORT_ACMD53_54", 36, 36, Flag, nullptr},
    {"CMD_SUPPORT_CMD58_59", 35, 35, Flag, nullptr},
    {"CMD_SUPPORT_CMD48_49", 34, 34, Flag, nullptr},
    {"CMD_SUPPORT_CMD23", 33, 33, Flag, nullptr},
    {"CMD_SUPPORT_CMD20", 32, 32, Flag, nullptr},
    {"MANUFACTURER", 31, 0, nullptr, nullptr},
};

constexpr Row kSdStatus[] = {
    {"DAT_BUS_WIDTH", 511, 510, BusWidth, "bits"},
    {"SECURED_MODE", 509, 509, Flag, nullptr},
    {"SD_CARD_TYPE", 495, 480, nullptr, nullptr},
    {"SIZE_OF_PROTECTED_AREA", 479, 448, nullptr, nullptr},
    {"SPEED_CLASS", 447, 440, SpeedClass, "class"},
    {"PERFORMANCE_MOVE", 439, 432, MovePerformance, "MB/s"},
    {"AU_SIZE", 431, 428, AllocationUnit, "bytes"},
    {"ERASE_SIZE", 423, 408, nullptr, "AU"},
    {"ERASE_TIMEOUT", 407, 402, nullptr, "s"},
    {"ERASE_OFFSET", 401, 400, nullptr, "s"},
    {"UHS_SPEED_GRADE", 399, 396, UhsGrade, "MB/s"},
    {"UHS_AU_SIZE", 395, 392, nullptr, nullptr},
    {"VIDEO_SPEED_CLASS", 391, 384, nullptr, "class"},
    {"VSC_AU_SIZE", 377, 368, Megabytes, "bytes"},
    {"SUS_ADDR", 367, 346, nullptr, nullptr},
    {"APP_PERF_CLASS", 339, 336, PerformanceClass, nullptr},
    {"PERFORMANCE_ENHANCE", 335, 328, nullptr, nullptr},
    {"DISCARD_SUPPORT", 313, 313, Flag, nullptr},
    {"FULE_SUPPORT", 312, 312, Flag, nullptr},
};

// Byte 1 is the fourth byte of the SCR, so that of SD_SPECX only the lower half is there.
// The driver's words for bytes 2 and 3 are not explained anywhere.
constexpr Row kMivoSpeed[] = {
    {"VIDEO_SPEED_CLASS", 255, 248, nullptr, "class"},
    {"SD_SPECX_LOWER_HALF", 247, 246, NotKnown, nullptr},
    {"CMD_SUPPORT_ACMD53_54", 244, 244, Flag, nullptr},
    {"CMD_SUPPORT_CMD58_59", 243, 243, Flag, nullptr},
    {"CMD_SUPPORT_CMD48_49", 242, 242, Flag, nullptr},
    {"CMD_SUPPORT_CMD23", 241, 241, Flag, nullptr},
    {"CMD_SUPPORT_CMD20", 240, 240, Flag, nullptr},
    {"BYTE_2", 239, 232, NotKnown, nullptr},
    {"BYTE_3", 231, 224, NotKnown, nullptr},
    {"AU_SIZE", 223, 216, AllocationUnitOfByte, "bytes"},
};

// The driver delivers these bytes ready-made, and what they mean lies with it.
constexpr Row kZelSpeed[] = {
    {"BYTE_0", 255, 248, NotKnown, nullptr}, {"BYTE_1", 247, 240, NotKnown, nullptr},
    {"BYTE_2", 239, 232, NotKnown, nullptr}, {"BYTE_3", 231, 224, NotKnown, nullptr},
    {"BYTE_4", 223, 216, NotKnown, nullptr},
};

void Add(std::vector<Field>& fields, std::span<const Row> rows, const uint8_t* bytes, size_t size)
{
    for (const Row& row : rows) {
        const uint64_t raw = Bits(bytes, size, row.high, row.low);
        fields.push_back({row.name, row.high, row.low, raw,
                          row.value == nullptr ? Json(raw) : row.value(raw), row.unit});
    }
}

std::vector<Field> CsdFields(const uint8_t* bytes)
{
    std::vector<Field> fields;
    const size_t size = SizeOf(RegisterKind::Csd);
    Add(fields, kCsdHead, bytes, size);
    const uint64_t version = fields.front().raw + 1;
    if (version > 3) {
        return fields;
    }
    Add(fields, kCsdCommon, bytes, size);
    if (version == 1) {
        Add(fields, kCsdSize1, bytes, size);
    } else {
        Add(fields, version == 2 ? kCsdSize2 : kCsdSize3, bytes, size);
    }
    Add(fields, kCsdTail, bytes, size);
    return fields;
}

// The physical layer's version: 0 is 1.0x, 1 is 1.10, 2 is 2.00, 3 is 3.0x and so on.
Json LayerVersion(const uint8_t* scr)
{
    const auto bits = [&](unsigned high, unsigned low) { return Bits(scr, 8, high, low); };
    const uint64_t extended = bits(41, 38);
    switch (bits(59, 56) + bits(47, 47) + (extended != 0 ? extended + 1 : bits(42, 42))) {
        case 0:
            return "1.0x";
        case 1:
            return "1.10";
        case 2:
            return "2.00";
        case 3:
            return "3.0x";
        default:
            return std::to_string(bits(59, 56) + bits(47, 47) +
                                  (extended != 0 ? extended + 1 : bits(42, 42))) +
                   ".xx";
    }
}

const char* CrcName(Crc crc)
{
    switch (crc) {
        case Crc::Valid:
            return "valid";
        case Crc::Absent:
            return "absent";
        case Crc::Mismatch:
            return "mismatching";
        default:
            return "not-delivered";
    }
}

}  // namespace

size_t SizeOf(RegisterKind kind)
{
    switch (kind) {
        case RegisterKind::SdStatus:
            return CARD_SD_STATUS_SIZE;
        case RegisterKind::MivoSpeed:
        case RegisterKind::ZelSpeed:
            return sizeof(CardSpeedInfo);
        case RegisterKind::Scr:
            return 8;
        default:
            return 16;
    }
}

std::vector<Field> FieldsOf(RegisterKind kind, const uint8_t* bytes)
{
    std::vector<Field> fields;
    switch (kind) {
        case RegisterKind::Csd:
            return CsdFields(bytes);
        case RegisterKind::Cid:
            Add(fields, kCid, bytes, SizeOf(kind));
            break;
        case RegisterKind::Scr:
            Add(fields, kScr, bytes, SizeOf(kind));
            break;
        case RegisterKind::MivoSpeed:
            Add(fields, kMivoSpeed, bytes, SizeOf(kind));
            break;
        case RegisterKind::ZelSpeed:
            Add(fields, kZelSpeed, bytes, SizeOf(kind));
            break;
        default:
            Add(fields, kSdStatus, bytes, SizeOf(kind));
            break;
    }
    return fields;
}

std::string FieldText(const std::vector<Field>& fields)
{
    std::string text;
    for (const Field& field : fields) {
        std::string line = "  " + field.name;
        line.resize(kNameColumn, ' ');
        line += std::to_string(field.high) + ":" + std::to_string(field.low);
        line.resize(kNameColumn + kBitsColumn, ' ');
        line += std::to_string(field.raw);
        if (field.value.is_null()) {
            line += "  (not defined or not known)";
        } else if (field.value != Json(field.raw) || field.unit != nullptr) {
            line += "  = " +
                    (field.value.is_string() ? field.value.get<std::string>() : field.value.dump());
            line += field.unit == nullptr ? "" : std::string(" ") + field.unit;
        }
        text += line + "\n";
    }
    return text;
}

Json RegisterJson(RegisterKind kind, const uint8_t* bytes, bool last_byte_delivered)
{
    const size_t size = SizeOf(kind);
    Json document;
    document["raw"] = Hex(bytes, last_byte_delivered ? size : size - 1);
    if (kind == RegisterKind::Cid || kind == RegisterKind::Csd) {
        Register reg = {};
        std::copy_n(bytes, reg.size(), reg.begin());
        document["crc7"] = CrcName(last_byte_delivered ? CheckCrc(reg) : Crc::NotDelivered);
        if (kind == RegisterKind::Csd) {
            const Csd csd = DecodeCsd(reg);
            document["version"] = csd.version;
            document["capacity_bytes"] = csd.capacity ? Json(*csd.capacity) : Json();
        }
    } else if (kind == RegisterKind::Scr) {
        document["layer_version"] = LayerVersion(bytes);
    }
    Json& fields = document["fields"] = Json::object();
    for (const Field& field : FieldsOf(kind, bytes)) {
        const bool missing = !last_byte_delivered && field.low < 8 && field.high < 8;
        fields[field.name] = {
            {"bits", std::to_string(field.high) + ":" + std::to_string(field.low)},
            {"raw", missing ? Json() : Json(field.raw)},
            {"value", missing ? Json() : field.value},
            {"unit", field.unit == nullptr ? Json() : Json(field.unit)}};
    }
    return document;
}
