// SPDX-License-Identifier: MIT
#include "tests/faults/oddities.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <poll.h>

namespace faults {

using cardsim::CallKind;

namespace {

constexpr int kLastError = 133;

// A failure that leaves errno as it was.
constexpr Oddity kMute = {.name = "fails without errno", .result = -1};

// Success says nothing about errno.
const std::vector<Oddity>& Strays()
{
    static const std::vector<Oddity> kOddities = {
        {.name = "success, EBUSY", .stray_error = EBUSY},
        {.name = "success, ENODEV", .stray_error = ENODEV},
    };
    return kOddities;
}

// What a question's record holds then is what its asker has put there.
constexpr Oddity kUnwritten = {.name = "accepted, nothing written", .result = 0};

std::vector<Oddity> Errors(std::initializer_list<int> errors)
{
    std::vector<Oddity> oddities;
    for (const int error : errors) {
        oddities.push_back({.name = strerrorname_np(error), .error = error});
    }
    return oddities;
}

Oddity Events(const char* name, short events, int error = 0)
{
    return {.name = name, .result = 1, .error = error, .events = events};
}

// Every combination of these.
std::vector<Oddity> AllEvents()
{
    constexpr short kEvents[] = {POLLIN, POLLOUT, POLLERR, POLLHUP, POLLNVAL, POLLPRI};
    static std::vector<std::string> names;
    names.reserve(64);
    std::vector<Oddity> oddities;
    for (unsigned mask = 0; mask < 64; mask++) {
        short events = 0;
        for (unsigned bit = 0; bit < 6; bit++) {
            events = static_cast<short>(events | ((mask >> bit & 1) != 0 ? kEvents[bit] : 0));
        }
        names.push_back("events " + std::to_string(events));
        oddities.push_back(Events(names.back().c_str(), events));
    }
    return oddities;
}

std::vector<Oddity> operator+(std::vector<Oddity> front, const std::vector<Oddity>& back)
{
    front.insert(front.end(), back.begin(), back.end());
    return front;
}

// What a transfer's request can do that others cannot: do the work and fail, and accept the
// work and not do it.
const std::vector<Oddity>& HalfDone()
{
    static const std::vector<Oddity> kOddities = {
        {.name = "done, EIO", .error = EIO, .reaches = true},
        {.name = "done, EBUSY", .error = EBUSY, .reaches = true},
        {.name = "accepted, not done", .result = 0},
        {.name = "1, not done", .result = 1},
    };
    return kOddities;
}

const std::vector<Oddity>& OddResults()
{
    static const std::vector<Oddity> kOddities = {
        {.name = "1", .result = 1, .reaches = true},
        {.name = "2", .result = 2, .reaches = true},
        {.name = "0xFFFF", .result = 0xFFFF, .reaches = true},
        {.name = "0x10001", .result = 0x10001, .reaches = true},
        {.name = "another negative", .result = -2},
    };
    return kOddities;
}

}  // namespace

const std::vector<Oddity>& AllOf(const ExpectedCall& call)
{
    static const std::vector<Oddity> kAny =
        Errors({EBUSY, ENODEV, EIO, ENOMEDIUM, ENXIO, EINTR, EAGAIN, ENOMEM, ENOTTY, EINVAL}) +
        std::vector<Oddity>{kMute} + OddResults() + Strays();
    static const std::vector<Oddity> kRequest = kAny + std::vector<Oddity>{kUnwritten};
    static const std::vector<Oddity> kTransfer = kAny + HalfDone();
    static const std::vector<Oddity> kPoll =
        Errors({EINTR, EBUSY, ENODEV, ENOMEM, EINVAL}) +
        std::vector<Oddity>{kMute,
                            {.name = "time-out", .result = 0},
                            Events("IN, EBUSY", POLLIN, EBUSY),
                            Events("HUP, ENODEV", POLLHUP, ENODEV),
                            Events("ERR, EIO", POLLERR, EIO),
                            Events("OUT, EBUSY", POLLOUT, EBUSY),
                            Events("RDNORM", POLLRDNORM),
                            {.name = "OUT, twice", .result = 2, .events = POLLOUT},
                            {.name = "IN, twice", .result = 2, .events = POLLIN}} +
        AllEvents();
    static const std::vector<Oddity> kRead = Errors({EIO, EINTR, ENOMEDIUM, ENXIO, EBADF, EFAULT}) +
                                             std::vector<Oddity>{kMute,
                                                                 {.name = "short", .at_most = 512},
                                                                 {.name = "one byte", .at_most = 1},
                                                                 {.name = "nothing", .result = 0}} +
                                             Strays();
    static const std::vector<Oddity> kWrite = kRead + Errors({ENOSPC, EROFS, EPERM});
    static const std::vector<Oddity> kSeek =
        Errors({EINVAL, ESPIPE, EBADF}) +
        std::vector<Oddity>{kMute, {.name = "elsewhere", .result = 77, .reaches = true}};
    static const std::vector<Oddity> kOpen =
        Errors({ENOENT, EACCES, EBUSY, ENOMEDIUM, EROFS, EMFILE, ENXIO, EINTR}) +
        std::vector<Oddity>{kMute} + Strays();
    static const std::vector<Oddity> kClose = {
        {.name = "closed, EIO", .error = EIO, .reaches = true},
        {.name = "closed, EINTR", .error = EINTR, .reaches = true},
    };
    static const std::vector<Oddity> kSleep = Errors({EINTR, EBUSY});
    static const std::vector<Oddity> kMalloc = Errors({ENOMEM, EAGAIN}) + Strays();
    static const std::vector<Oddity> kStat = Errors({ENOENT, EACCES, ENOTDIR, ELOOP, EBUSY});
    static const std::vector<Oddity> kNone;
    switch (call.kind) {
        case CallKind::Ioctl:
            return call.transfer ? kTransfer : kRequest;
        case CallKind::Poll:
            return kPoll;
        case CallKind::Read:
            return kRead;
        case CallKind::Write:
            return kWrite;
        case CallKind::Seek:
            return kSeek;
        case CallKind::Open:
            return kOpen;
        case CallKind::Close:
            return kClose;
        case CallKind::Sleep:
            return kSleep;
        case CallKind::Malloc:
            return kMalloc;
        case CallKind::Stat:
            return kStat;
        case CallKind::Free:
            break;
    }
    return kNone;
}

const std::vector<Oddity>& AllErrors(const ExpectedCall& call)
{
    static const std::vector<Oddity> kAll = [] {
        std::vector<Oddity> all;
        for (int error = 1; error <= kLastError; error++) {
            if (strerrorname_np(error) != nullptr) {
                all.push_back({.name = strerrorname_np(error), .error = error});
            }
        }
        return all;
    }();
    static const std::vector<Oddity> kNone;
    switch (call.kind) {
        case CallKind::Ioctl:
        case CallKind::Read:
        case CallKind::Write:
        case CallKind::Open:
        case CallKind::Poll:
        case CallKind::Malloc:
            return kAll;
        default:
            return kNone;
    }
}

const std::vector<Oddity>& SomeOf(const ExpectedCall& call)
{
    static const std::vector<Oddity> kRequest =
        Errors({EBUSY, ENODEV, EIO}) +
        std::vector<Oddity>{OddResults()[0], OddResults()[1], kUnwritten};
    static const std::vector<Oddity> kTransfer =
        Errors({EBUSY, ENODEV, EIO}) +
        std::vector<Oddity>{HalfDone()[0], HalfDone()[2], OddResults()[0]};
    static const std::vector<Oddity> kPoll = {
        {.name = "EBUSY", .error = EBUSY},
        {.name = "time-out", .result = 0},
        Events("none", 0),
        Events("IN and OUT", POLLIN | POLLOUT),
        Events("HUP, EBUSY", POLLHUP, EBUSY),
        Events("ERR, ENODEV", POLLERR, ENODEV),
    };
    static const std::vector<Oddity> kRead =
        Errors({EIO}) + std::vector<Oddity>{{.name = "short", .at_most = 512}};
    static const std::vector<Oddity> kSeek = Errors({EINVAL});
    static const std::vector<Oddity> kOpen = Errors({ENOENT, EROFS});
    static const std::vector<Oddity> kSleep = Errors({EINTR});
    static const std::vector<Oddity> kMalloc = Errors({ENOMEM});
    switch (call.kind) {
        case CallKind::Ioctl:
            return call.transfer ? kTransfer : kRequest;
        case CallKind::Poll:
            return kPoll;
        case CallKind::Read:
        case CallKind::Write:
            return kRead;
        case CallKind::Seek:
            return kSeek;
        case CallKind::Open:
            return kOpen;
        case CallKind::Sleep:
            return kSleep;
        case CallKind::Malloc:
            return kMalloc;
        default:
            return AllOf(call);
    }
}

const std::vector<Oddity>& CardMoves()
{
    static const std::vector<Oddity> kMoves = {
        {.name = "the card leaves", .card = CardMove::Leaves},
        {.name = "the card is exchanged", .card = CardMove::IsExchanged},
    };
    return kMoves;
}

uint64_t MostTimes(const Oddity& oddity)
{
    if (oddity.card != CardMove::Stays) {
        return 1;
    }
    return oddity.result.value_or(0) > 0 && !oddity.events ? 25 : cardsim::Fault::kForEver;
}

}  // namespace faults
