// SPDX-License-Identifier: MIT
#include "tools/cardtool/mounts.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tools/cardtool/failure.h"

namespace {

constexpr unsigned kZelMajor = 240;
constexpr unsigned kMinorsOfAUnit = 16;  // the card and its partitions, from minor 1 on
constexpr unsigned kRicohMajor = 244;    // one card, whatever the minor

bool IsOn(const DrvInfo& card, unsigned major, unsigned minor)
{
    if (card.dev_type == DEV_TYPE_RICOH_SD) {
        return major == kRicohMajor;
    }
    return card.dev_type == DEV_TYPE_ZEL && major == kZelMajor && minor > 0 &&
           static_cast<int32_t>((minor - 1) / kMinorsOfAUnit) == card.dev_index;
}

}  // namespace

// A line: mount id, parent's id, major:minor, root within the file system, mount point.
std::string MountPointOf(std::istream& mountinfo, const DrvInfo& card)
{
    for (std::string line; std::getline(mountinfo, line);) {
        std::istringstream words(line);
        std::string id;
        std::string parent;
        unsigned major = 0;
        unsigned minor = 0;
        char colon = 0;
        std::string root;
        std::string point;
        if (words >> id >> parent >> major >> colon >> minor >> root >> point &&
            IsOn(card, major, minor)) {
            return point;
        }
    }
    return "";
}

void RefuseMounted(const DrvInfo& card)
{
    std::ifstream mountinfo("/proc/self/mountinfo");
    const std::string point = MountPointOf(mountinfo, card);
    if (!point.empty()) {
        throw Failure(ExitCode::Busy,
                      "the card of " + std::string(card.dev_path) + " is mounted at " + point,
                      "nothing was written; unmount it first: umount " + point);
    }
}
