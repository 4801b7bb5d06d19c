// SPDX-License-Identifier: MIT
#ifndef CARDDEV_COMMON_RETRY_H
#define CARDDEV_COMMON_RETRY_H

// Counts the failures of one kind within one call. What counts as a failure is each
// back-end's own, and so is the limit: the failure that ends it, counted from 1.
template <int limit>
struct RetryCounter {
    int count = 0;  // failures so far; messages print it

    // Count one failure. False when it was the one too many.
    bool MayRetry() { return ++count < limit; }
};

#endif
