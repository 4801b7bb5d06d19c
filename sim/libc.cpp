// SPDX-License-Identifier: MIT
#include "sim/libc.h"

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

namespace cardsim::libc {

namespace {

// The definition that the stand-in's own one hides.
template <typename Function>
Function* Next(const char* name)
{
    void* next = dlsym(RTLD_NEXT, name);
    if (next == nullptr) {
        std::fprintf(stderr, "cardsim: libc has no %s\n", name);
        std::abort();
    }
    return reinterpret_cast<Function*>(next);
}

}  // namespace

int Stat(const char* path, struct stat64* node)
{
    static auto* const next = Next<int(const char*, struct stat64*)>("stat64");
    return next(path, node);
}

int Open(const char* path, int flags, mode_t mode)
{
    static auto* const next = Next<int(const char*, int, ...)>("open64");
    return next(path, flags, mode);
}

int Close(int fd)
{
    static auto* const next = Next<int(int)>("close");
    return next(fd);
}

off64_t Seek(int fd, off64_t offset, int whence)
{
    static auto* const next = Next<off64_t(int, off64_t, int)>("lseek64");
    return next(fd, offset, whence);
}

ssize_t Read(int fd, void* to, size_t length)
{
    static auto* const next = Next<ssize_t(int, void*, size_t)>("read");
    return next(fd, to, length);
}

ssize_t Write(int fd, const void* from, size_t length)
{
    static auto* const next = Next<ssize_t(int, const void*, size_t)>("write");
    return next(fd, from, length);
}

int Ioctl(int fd, unsigned long request, void* argument)
{
    static auto* const next = Next<int(int, unsigned long, ...)>("ioctl");
    return next(fd, request, argument);
}

int Poll(struct pollfd* fds, nfds_t count, int timeout_ms)
{
    static auto* const next = Next<int(struct pollfd*, nfds_t, int)>("poll");
    return next(fds, count, timeout_ms);
}

int Sleep(const struct timespec* length, struct timespec* remaining)
{
    static auto* const next = Next<int(const struct timespec*, struct timespec*)>("nanosleep");
    return next(length, remaining);
}

}  // namespace cardsim::libc
