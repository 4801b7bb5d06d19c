// SPDX-License-Identifier: MIT
#include "tools/cardtool/nodes.h"

#include <algorithm>
#include <filesystem>

#include "tools/cardtool/device.h"
#include "tools/cardtool/failure.h"
#include "tools/cardtool/quiet.h"

namespace {

namespace fs = std::filesystem;

// In the order of their names. A folder that cannot be read has nothing to show.
std::vector<fs::directory_entry> EntriesOf(const fs::path& folder)
{
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    while (!error && entry != fs::directory_iterator()) {
        entries.push_back(*entry);
        entry.increment(error);
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

void AddNodes(const std::vector<fs::directory_entry>& entries, std::vector<std::string>& nodes)
{
    for (const fs::directory_entry& entry : entries) {
        std::error_code error;
        if (entry.is_symlink(error) || entry.is_block_file(error) ||
            entry.is_character_file(error)) {
            nodes.push_back(entry.path().string());
        }
    }
}

bool IsSameDevice(const DrvInfo& one, const DrvInfo& other)
{
    return one.dev_type == other.dev_type && one.dev_index == other.dev_index;
}

}  // namespace

std::vector<std::string> UsualNodes()
{
    std::vector<std::string> nodes = {"/dev/sdcarda"};
    for (char unit = 'a'; unit <= 'f'; unit++) {
        nodes.push_back(std::string("/dev/spd") + unit);
    }
    nodes.emplace_back("/dev/mivosdif0");
    nodes.emplace_back("/dev/mivosdif1");
    return nodes;
}

std::vector<std::string> NodesBelow(const std::string& folder)
{
    std::vector<std::string> nodes;
    const std::vector<fs::directory_entry> entries = EntriesOf(folder);
    AddNodes(entries, nodes);
    for (const fs::directory_entry& entry : entries) {
        std::error_code error;
        if (!entry.is_symlink(error) && entry.is_directory(error)) {
            AddNodes(EntriesOf(entry.path()), nodes);
        }
    }
    return nodes;
}

std::vector<DrvInfo> CardNodes(const std::vector<std::string>& paths)
{
    const Quiet quiet;  // most nodes are no cards
    std::vector<DrvInfo> found;
    for (const std::string& path : paths) {
        try {
            const DrvInfo detected = Detect(path);
            if (std::none_of(found.begin(), found.end(),
                             [&](const DrvInfo& other) { return IsSameDevice(detected, other); })) {
                found.push_back(detected);
            }
        } catch (const Failure&) {
            continue;
        }
    }
    return found;
}
