/* SPDX-License-Identifier: MIT */
/* A program as an application developer would start it, in C99. */
#include <carddev.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    static DrvInfo handle;
    CardInfo info;

    strcpy(handle.dev_path, "/dev/null");
    if (DevDetect(&handle) != -19) {
        return 1;
    }
    handle.ops = &ricoh_sd_ops;
    if (CARD_Getinfo(&handle, &info) != CARD_CODE_ERROR) {
        return 2;
    }
    puts("C program: ok");
    return 0;
}
