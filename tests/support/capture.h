// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_CAPTURE_H
#define CARDDEV_TESTS_CAPTURE_H

#include <functional>
#include <string>

// What `body` printed on standard output, with the source lines in the library's
// prefixes replaced: "[zel:RicohSD_Init(#)](E)...".
std::string Printed(const std::function<void()>& body);

// The same as it was printed.
std::string PrintedExactly(const std::function<void()>& body);

// Every "(123)]" becomes "(#)]".
std::string WithoutLineNumbers(const std::string& text);

// The errno that `body` leaves when it finds `before` there and nothing that it
// prints gets out: standard output is a full disk, and each printf fails.
int ErrnoAfter(int before, const std::function<void()>& body);

#endif
