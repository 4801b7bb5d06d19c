// SPDX-License-Identifier: MIT
#include "tools/cardtool/watch.h"

#include <cerrno>
#include <cstdio>
#include <memory>

#include "tools/cardtool/interrupt.h"
#include "tools/cardtool/quiet.h"

namespace {

// What opening a slot without a card comes to, or a card that leaves while it is opened.
bool IsNoCard(const Failure& failure)
{
    return failure.error() == ENOMEDIUM || failure.error() == ENXIO ||
           failure.code() == ExitCode::Removed;
}

class Watch {
public:
    Watch(const Arguments& arguments, Report& report) : arguments_(arguments), report_(report) {}

    void Run(const DrvInfo& detected)
    {
        Begin(detected);
        while (!HasSeenEnough() && WaitFor(-1, 0, static_cast<int>(arguments_.interval))) {
            looks_++;
            device_ ? LookForEject() : LookForCard();
        }
    }

private:
    void Open(const DrvInfo& detected)
    {
        device_ = std::make_unique<Device>(detected);
        ready_ = (device_->Status() & CARD_STATUS_READY) != 0;
    }

    void Begin(const DrvInfo& detected)
    {
        try {
            Open(detected);
        } catch (const Failure& failure) {
            device_.reset();
            if (!IsNoCard(failure)) {
                throw;
            }
            said_ = failure.what();  // by the library
        }
        Tell("state", !device_ ? "state: no card" : ready_ ? "state: ready" : "state: not ready");
    }

    // The back-end remembers the eject until the device is closed.
    void LookForEject()
    {
        try {
            device_->Status();
        } catch (const Failure& failure) {
            if (failure.code() != ExitCode::Removed) {
                throw;
            }
            device_.reset();
            events_++;
            Tell("eject", "the card was taken out or exchanged");
        }
    }

    // Opening fails as long as no card is there, and the node may be gone as well. Why is
    // said when it is news.
    void LookForCard()
    {
        try {
            const Quiet quiet;
            Open(Detect(arguments_.device));
        } catch (const Failure& failure) {
            device_.reset();
            if (said_ != failure.what()) {
                said_ = failure.what();
                std::fprintf(stderr, "cardtool: still no card: %s\n", ForTerminal(said_).c_str());
            }
            return;
        }
        said_.clear();
        events_++;
        Tell("insert", "a card was put in");
    }

    void Tell(const char* event, const std::string& text)
    {
        report_.Say(text + "\n");
        report_.result = {{"event", event},
                          {"ready", device_ && ready_},
                          {"removed", !device_},
                          {"looks", looks_}};
        report_.Event(arguments_);
    }

    bool HasSeenEnough() const
    {
        return (arguments_.looks && looks_ >= *arguments_.looks) ||
               (arguments_.events && events_ >= *arguments_.events);
    }

    const Arguments& arguments_;
    Report& report_;
    std::unique_ptr<Device> device_;  // none while no card is there
    bool ready_ = false;
    uint32_t looks_ = 1;
    uint32_t events_ = 0;
    std::string said_;  // why there is no card, as it was last said
};

}  // namespace

void WatchCard(const Arguments& arguments, const DrvInfo& detected, Report& report)
{
    if (!NoticesEjects(detected)) {
        throw Failure(ExitCode::InputOutput,
                      "cannot watch " + arguments.device + ": its back-end notices no eject",
                      "use a device of another back-end; the detect command names it");
    }
    Watch(arguments, report).Run(detected);
}
