// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_SIGNAL_H
#define CARDDEV_TESTS_SIGNAL_H

#include <chrono>
#include <condition_variable>
#include <mutex>

// Something that has happened, for those who wait for it.
class Signal {
public:
    // How long a thread waits for another that is to come; no test depends on it unless
    // it fails.
    static constexpr std::chrono::seconds kPatience{60};

    void Set()
    {
        const std::lock_guard<std::mutex> lock(lock_);
        set_ = true;
        changed_.notify_all();
    }
    bool Wait(std::chrono::milliseconds patience = kPatience)
    {
        std::unique_lock<std::mutex> lock(lock_);
        return changed_.wait_for(lock, patience, [this] { return set_; });
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool set_ = false;
};

#endif
