// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_RETRY_H
#define CARDDEV_COMMON_RETRY_H

// Counts the failures of one kind within one call. What counts as a failure, and
// how many are borne, is each back-end's own.
struct RetryCounter {
    int limit;      // the failure that ends it, counted from 1
    int count = 0;  // failures so far; messages print it

    // Count one failure. False when it was the one too many.
    bool MayRetry() { return ++count < limit; }
};

#endif
