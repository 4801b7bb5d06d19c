// SPDX-License-Identifier: MIT
#ifndef CARDDEV_FUZZ_MESSAGES_H
#define CARDDEV_FUZZ_MESSAGES_H

#include <stddef.h>

namespace fuzz {

// What one call of the library's printed is nothing but whole lines of its kinds, in
// printable characters.
void CheckMessages(const char* what, const char* text, size_t length);

}  // namespace fuzz

#endif
