// SPDX-License-Identifier: MIT
#ifndef CARDDEV_FUZZ_CHECK_H
#define CARDDEV_FUZZ_CHECK_H

#include <stdio.h>
#include <stdlib.h>

// What must hold whatever the input is. Its end is what the fuzzer takes for a finding.
#define FUZZ_CHECK(condition, ...)                                                         \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "%s:%d: does not hold: %s: ", __FILE__, __LINE__, #condition); \
            fprintf(stderr, __VA_ARGS__);                                                  \
            fputc('\n', stderr);                                                           \
            abort();                                                                       \
        }                                                                                  \
    } while (false)

#endif
