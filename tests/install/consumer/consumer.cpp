// SPDX-License-Identifier: MIT
// A program as an application developer would start it, in C++.
#include <carddev.h>

#include <cstring>
#include <iostream>

int main()
{
    DrvInfo handle = DrvInfo();
    std::strcpy(handle.dev_path, "/dev/null");
    if (DevDetect(&handle) != -19) {
        return 1;
    }
    handle.ops = &ricoh_sd_ops;
    uint16_t status = 1;
    if (CARD_Getstatus(&handle, &status) != CARD_CODE_NOT_OPEN || status != 0) {
        return 2;
    }
    std::cout << "C++ program: ok\n";
    return 0;
}
