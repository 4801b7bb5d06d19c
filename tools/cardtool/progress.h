// SPDX-License-Identifier: MIT
//
// How far a transfer has come, on standard error.
#ifndef CARDTOOL_PROGRESS_H
#define CARDTOOL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

class Progress {
public:
    // `how` is "bar", "plain", "json" or "none"; with "auto" a terminal gets a bar and
    // anything else nothing. `sectors` are those of all phases together.
    Progress(const std::string& how, uint64_t sectors);
    // Ends the bar's line.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // What is being done from here on: "reading", "writing" or "comparing".
    void Phase(const char* name);
    void Moved(uint32_t sectors);
    // Sectors of this phase so far.
    uint64_t PhaseSectors() const { return phase_sectors_; }

private:
    using Clock = std::chrono::steady_clock;

    void Show();
    void ShowBar(double seconds) const;
    void ShowNumbers(double seconds) const;

    std::string how_;
    uint64_t total_;
    uint64_t done_ = 0;
    uint64_t phase_sectors_ = 0;
    const char* phase_ = "";
    Clock::time_point begin_ = Clock::now();
    Clock::time_point shown_ = {};
};

#endif
