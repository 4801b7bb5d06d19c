// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_OUTCOME_H
#define CARDDEV_TESTS_OUTCOME_H

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/capture.h"

using Bytes = std::vector<uint8_t>;

template <typename Record>
Bytes BytesOf(const Record& record)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(bytes, bytes + sizeof record);
}

inline Bytes BytesAt(uintptr_t address, size_t length)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(address);
    return Bytes(bytes, bytes + length);
}

inline std::vector<uint32_t> WordsAt(uintptr_t address, size_t count)
{
    std::vector<uint32_t> words(count);
    memcpy(words.data(), reinterpret_cast<const void*>(address), 4 * count);
    return words;
}

// Everything that a call shows its caller.
struct Outcome {
    int64_t result;
    std::string printed = {};
    int error = EXFULL;  // errno afterwards; EXFULL stood there before

    bool operator==(const Outcome&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Outcome& outcome)
{
    return out << outcome.result << ", errno " << strerrorname_np(outcome.error) << ", \""
               << outcome.printed << "\"";
}

inline Outcome OutcomeOf(const std::function<int64_t()>& body)
{
    Outcome outcome = {0};
    outcome.printed = Printed([&] {
        errno = EXFULL;
        outcome.result = body();
        outcome.error = errno;
    });
    return outcome;
}

#endif
