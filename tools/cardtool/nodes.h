// SPDX-License-Identifier: MIT
//
// The nodes of card devices that there are.
#ifndef CARDTOOL_NODES_H
#define CARDTOOL_NODES_H

#include <string>
#include <vector>

#include "carddev.h"

// The names that nodes have on every board.
std::vector<std::string> UsualNodes();

// What may be a device node in a folder and in the folders in it, one level deep: nodes,
// and links that may lead to one. A link to a folder is not followed. By name, those of
// the folder itself first.
std::vector<std::string> NodesBelow(const std::string& folder);

// Those of the paths that a back-end serves, each device under the first name that it has.
std::vector<DrvInfo> CardNodes(const std::vector<std::string>& paths);

#endif
