// SPDX-License-Identifier: MIT
#ifndef CARDTOOL_QUIET_H
#define CARDTOOL_QUIET_H

// While it exists the library's lines go nowhere: for calls that are expected to fail, and
// fail often. The tool's own messages and results have descriptors of their own.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int before_;
};

#endif
