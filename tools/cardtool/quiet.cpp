// SPDX-License-Identifier: MIT
#include "tools/cardtool/quiet.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

Quiet::Quiet() : before_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    std::fflush(stdout);
    const int nowhere = open64("/dev/null", O_WRONLY | O_CLOEXEC);
    if (before_ >= 0 && nowhere >= 0) {
        dup2(nowhere, STDOUT_FILENO);
    }
    if (nowhere >= 0) {
        close(nowhere);
    }
}

Quiet::~Quiet()
{
    std::fflush(stdout);
    if (before_ >= 0) {
        dup2(before_, STDOUT_FILENO);
        close(before_);
    }
}
