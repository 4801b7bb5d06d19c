// SPDX-License-Identifier: MIT
//
// Every field of a card's registers: its bits, its value and its unit.
#ifndef CARDTOOL_FIELDS_H
#define CARDTOOL_FIELDS_H

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// Keeps the order in which fields were added.
using Json = nlohmann::ordered_json;

struct Field {
    std::string name;
    unsigned high;  // bit 0 is the register's last
    unsigned low;
    uint64_t raw;
    Json value;        // null where the bits mean nothing defined, or nothing known
    const char* unit;  // null where there is none
};

// The speed record is no register of the card's: each back-end fills it in its own way.
enum class RegisterKind { Cid, Csd, Scr, SdStatus, MivoSpeed, ZelSpeed };

// Bytes of such a register.
size_t SizeOf(RegisterKind kind);

// `bytes` holds SizeOf(kind) of them, most significant first. A CSD of a version
// that nobody knows has only the fields that say so.
std::vector<Field> FieldsOf(RegisterKind kind, const uint8_t* bytes);

// One line for each field, for people.
std::string FieldText(const std::vector<Field>& fields);

// Bits, fields and check sum for programs.
Json RegisterJson(RegisterKind kind, const uint8_t* bytes, bool last_byte_delivered = true);

#endif
