// SPDX-License-Identifier: MIT
// The headers that CMakeLists.txt has the compiler read once.
