// SPDX-License-Identifier: MIT
// A program as an application developer would start it, with the C++ face.
#include <carddev.hpp>

#include <cstdio>
#include <cstring>

int main()
{
    carddev::Device closed;
    const auto opened = carddev::Device::Open("/dev/null");
    if (opened || std::strcmp(opened.error().name(), "ENODEV") != 0) {
        return 1;
    }
    if (closed.Status() || closed.IsOpen()) {
        return 2;
    }
    std::printf("C++ face: %s\n", opened.error().text());
    return 0;
}
