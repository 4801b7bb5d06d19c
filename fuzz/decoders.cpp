// SPDX-License-Identifier: MIT
//
// The tool's decoders on registers of any bytes. An input is the register's kind and the
// register.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "carddev.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/fields.h"
#include "tools/cardtool/registers.h"
#include "tools/cardtool/text.h"

namespace {

using fuzz::Input;

std::vector<uint8_t> Bytes(Input& input, size_t size)
{
    std::vector<uint8_t> bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return input.Byte(); });
    return bytes;
}

bool IsPlain(const std::string& text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

// The bits of a register, worked out one by one.
uint64_t BitsOf(const std::vector<uint8_t>& bytes, unsigned high, unsigned low)
{
    uint64_t value = 0;
    for (unsigned bit = low; bit <= high; bit++) {
        const uint32_t byte = bytes[bytes.size() - 1 - bit / 8];
        const uint64_t is_set = byte >> bit % 8 & 1u;
        value |= is_set << (bit - low);
    }
    return value;
}

void CheckFields(RegisterKind kind, const std::vector<uint8_t>& bytes)
{
    const std::vector<Field> fields = FieldsOf(kind, bytes.data());
    std::vector<bool> taken(bytes.size() * 8);
    std::set<std::string> names;
    FUZZ_CHECK(!fields.empty(), "no field");
    for (const Field& field : fields) {
        const char* name = field.name.c_str();
        FUZZ_CHECK(field.high >= field.low && field.high < taken.size(), "%s: %u to %u", name,
                   field.high, field.low);
        FUZZ_CHECK(field.raw == BitsOf(bytes, field.high, field.low), "%s: %llu", name,
                   static_cast<unsigned long long>(field.raw));
        FUZZ_CHECK(names.insert(field.name).second, "%s is there twice", name);
        for (unsigned bit = field.low; bit <= field.high; bit++) {
            FUZZ_CHECK(!taken[bit], "bit %u belongs to two fields, one of them %s", bit, name);
            taken[bit] = true;
        }
    }
    FUZZ_CHECK(IsPlain(FieldText(fields)), "the text is not plain");
}

// Whatever is shown as a number of 64 bits must come back as the same.
void CheckJson(const Json& document)
{
    const std::string text = document.dump(2, ' ', true);
    FUZZ_CHECK(IsPlain(text), "the document is not plain");
    FUZZ_CHECK(Json::parse(text) == document, "the document reads otherwise: %s", text.c_str());
}

void CheckRegister(RegisterKind kind, Input input)
{
    const bool whole = !input.Flag();
    const std::vector<uint8_t> bytes = Bytes(input, SizeOf(kind));
    CheckFields(kind, bytes);
    const Json document = RegisterJson(kind, bytes.data(), whole);
    CheckJson(document);
    const std::string hex = Hex(bytes.data(), whole ? bytes.size() : bytes.size() - 1);
    FUZZ_CHECK(document["raw"] == hex, "raw is not what it was");
    const size_t fields = FieldsOf(kind, bytes.data()).size();
    FUZZ_CHECK(document["fields"].size() == fields, "the document lacks fields");
}

// As a back-end delivers them.
void CheckInfo(Input input)
{
    const int32_t type = input.Byte() % 3;
    const std::vector<uint8_t> bytes = Bytes(input, sizeof(CardInfo));
    CardInfo info;
    std::copy_n(bytes.begin(), sizeof info.cid, info.cid);
    std::copy_n(bytes.begin() + sizeof info.cid, sizeof info.csd, info.csd);
    const Cid cid = DecodeCid(info, type);
    FUZZ_CHECK(cid.oem.size() == 2 && cid.product.size() == 5, "texts of other lengths");
    FUZZ_CHECK(cid.year >= 2000 && cid.year <= 2255 && cid.month <= 15, "made in %u-%u", cid.year,
               cid.month);
    FUZZ_CHECK(cid.revision_major <= 15 && cid.revision_minor <= 15, "a revision beyond its bits");
    FUZZ_CHECK(IsPlain(Printable(cid.oem) + Printable(cid.product)), "a text is not plain");
    FUZZ_CHECK((cid.crc == Crc::NotDelivered) == (type == DEV_TYPE_ZEL), "the check sum's state");
    Register csd = {};
    std::copy_n(info.csd, csd.size(), csd.begin());
    const Csd decoded = DecodeCsd(csd);
    FUZZ_CHECK(decoded.version >= 1 && decoded.version <= 4, "version %u", decoded.version);
    FUZZ_CHECK(decoded.capacity.has_value() == (decoded.version != 4), "a capacity of no version");
    FUZZ_CHECK(IsPlain(CrcText(decoded.crc)), "a text is not plain");
}

// Any text for a terminal: nothing that drives one is left, and nothing is lost.
void CheckText(Input input)
{
    std::string text;
    while (input.Left() > 0) {
        text += static_cast<char>(input.Byte());
    }
    const std::string printable = Printable(text);
    FUZZ_CHECK(IsPlain(printable) && printable.find('\n') == std::string::npos, "not plain: %s",
               printable.c_str());
    std::string back;
    for (size_t i = 0; i < printable.size(); i++) {
        if (printable[i] == '\\') {
            back +=
                static_cast<char>(std::strtoul(printable.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            back += printable[i];
        }
    }
    FUZZ_CHECK(back == text, "something is lost: %s", printable.c_str());
    for (const char c : ForTerminal(text)) {
        FUZZ_CHECK(static_cast<unsigned char>(c) >= ' ' && c != 0x7F, "byte %d reaches a terminal",
                   c);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    switch (input.Byte() % 6) {
        case 0:
            CheckRegister(RegisterKind::Cid, input);
            break;
        case 1:
            CheckRegister(RegisterKind::Csd, input);
            break;
        case 2:
            CheckRegister(RegisterKind::Scr, input);
            break;
        case 3:
            CheckRegister(RegisterKind::SdStatus, input);
            break;
        case 4:
            CheckInfo(input);
            break;
        default:
            CheckText(input);
            break;
    }
    return 0;
}
