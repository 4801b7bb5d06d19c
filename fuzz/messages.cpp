// SPDX-License-Identifier: MIT
#include "fuzz/messages.h"

#include <string.h>

#include "fuzz/check.h"

namespace fuzz {

namespace {

constexpr size_t kLongestText = 512;

// A text that is taken apart from its front.
struct Text {
    const char* at;
    const char* end;

    bool Take(const char* word)
    {
        const size_t length = strlen(word);
        if (static_cast<size_t>(end - at) < length || memcmp(at, word, length) != 0) {
            return false;
        }
        at += length;
        return true;
    }
    template <typename Accept>
    size_t TakeAll(Accept accept)
    {
        const char* const before = at;
        while (at < end && accept(*at)) {
            at++;
        }
        return static_cast<size_t>(at - before);
    }
};

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool IsOfName(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '_';
}

bool IsPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

bool TakeTag(Text* text)
{
    return text->Take("[drv:") || text->Take("[mivosdif:") || text->Take("[zel:");
}

// "[zel:Zel_Init(81)](E)"
bool TakePrefix(Text* text)
{
    return TakeTag(text) && text->TakeAll(IsOfName) > 0 && text->Take("(") &&
           text->TakeAll(IsDigit) > 0 && text->Take(")](") &&
           (text->Take("E") || text->Take("W")) && text->Take(")");
}

// The text behind a prefix. One has no line break at its end: what follows is a prefix.
bool TakeBody(Text* text)
{
    text->Take("\n");
    const char* const begin = text->at;
    const size_t length = text->TakeAll(IsPrintable);
    if (text->Take("\n")) {
        return length > 0 && length < kLongestText;
    }
    text->at = begin;
    return text->Take("fsmiw_parm malloc failed!");
}

bool TakeLine(Text* text)
{
    if (TakePrefix(text)) {
        return TakeBody(text);
    }
    if (text->Take("Wrapper low-level driver for SD card-CardBus adaptor ver.0.1")) {
        return text->TakeAll(IsDigit) == 1 && text->Take("\n");
    }
    return text->Take("** OVER 2TB : ") && text->TakeAll(IsDigit) > 0 && text->Take("\n");
}

}  // namespace

void CheckMessages(const char* what, const char* text, size_t length)
{
    Text left = {text, text + length};
    while (left.at < left.end) {
        FUZZ_CHECK(TakeLine(&left), "%s printed \"%.*s\"", what, static_cast<int>(length), text);
    }
}

}  // namespace fuzz
