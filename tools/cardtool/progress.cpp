// SPDX-License-Identifier: MIT
#include "tools/cardtool/progress.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include <unistd.h>

#include "carddev.h"

namespace {

constexpr int kBarWidth = 24;

struct Pace {
    double bytes_per_second;
    double seconds_left;  // negative while nothing is known
};

Pace PaceOf(uint64_t done, uint64_t total, double seconds)
{
    if (done == 0 || seconds <= 0) {
        return {0, -1};
    }
    const auto moved = static_cast<double>(done);
    const auto left = static_cast<double>(total - done);
    return {moved * CARD_SECTOR_SIZE / seconds, left * seconds / moved};
}

}  // namespace

Progress::Progress(const std::string& how, uint64_t sectors)
    : how_(how != "auto"           ? how
           : isatty(STDERR_FILENO) ? "bar"
                                   : "none"),
      total_(sectors)
{
}

Progress::~Progress()
{
    if (how_ == "bar" && shown_ != Clock::time_point()) {
        std::fputc('\n', stderr);
    }
}

void Progress::Phase(const char* name)
{
    phase_ = name;
    phase_sectors_ = 0;
}

// The end is always shown.
void Progress::Moved(uint32_t sectors)
{
    done_ += sectors;
    phase_sectors_ += sectors;
    const auto pause = std::chrono::milliseconds(how_ == "bar" ? 200 : 1000);
    if (how_ != "none" && (done_ == total_ || Clock::now() - shown_ >= pause)) {
        Show();
    }
}

void Progress::Show()
{
    shown_ = Clock::now();
    const double seconds = std::chrono::duration<double>(shown_ - begin_).count();
    if (how_ == "bar") {
        ShowBar(seconds);
    } else {
        ShowNumbers(seconds);
    }
}

// Blanks behind it take away what is left of a longer line.
void Progress::ShowBar(double seconds) const
{
    const Pace pace = PaceOf(done_, total_, seconds);
    const int marks = static_cast<int>(done_ * kBarWidth / total_);
    const std::string bar = std::string(static_cast<size_t>(marks), '#') +
                            std::string(static_cast<size_t>(kBarWidth - marks), '.');
    std::fprintf(stderr, "\r%-9s [%s] %3" PRIu64 " %%  %" PRIu64 " MiB  %.1f MB/s  %.0f s left   ",
                 phase_, bar.c_str(), done_ * 100 / total_, phase_sectors_ * CARD_SECTOR_SIZE >> 20,
                 pace.bytes_per_second / 1e6, std::max(pace.seconds_left, 0.0));
    std::fflush(stderr);
}

void Progress::ShowNumbers(double seconds) const
{
    const Pace pace = PaceOf(done_, total_, seconds);
    const uint64_t done = done_ * CARD_SECTOR_SIZE;
    const uint64_t total = total_ * CARD_SECTOR_SIZE;
    if (how_ == "plain") {
        std::fprintf(stderr, "%s: %" PRIu64 " of %" PRIu64 " bytes, %" PRIu64 " %%\n", phase_, done,
                     total, done_ * 100 / total_);
        return;
    }
    std::fprintf(stderr,
                 "{\"phase\": \"%s\", \"done_bytes\": %" PRIu64 ", \"total_bytes\": %" PRIu64
                 ", \"bytes_per_second\": %.0f, \"seconds_left\": %.1f}\n",
                 phase_, done, total, pace.bytes_per_second, std::max(pace.seconds_left, 0.0));
}
