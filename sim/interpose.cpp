// SPDX-License-Identifier: MIT
//
// Definitions of libc's system calls that ask the simulated kernel first. They
// stand in the program, or in a preloaded library, and so come before libc's for
// everything that is linked dynamically; the library under test is unmodified.
#include <cstdarg>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/kernel.h"
#include "sim/libc.h"

namespace {

using cardsim::ErrnoKeeper;
using cardsim::Kernel;
namespace libc = cardsim::libc;

// The kernel to ask about a descriptor or a path, or null for the real libc.
template <typename Thing>
Kernel* KernelFor(Thing thing)
{
    const ErrnoKeeper keeper;
    Kernel* kernel = Kernel::Current();
    return kernel != nullptr && kernel->Owns(thing) ? kernel : nullptr;
}

}  // namespace

// libc declares poll's array as written by it; here it is read, too.
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// libc's own parameter names are reserved ones.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int stat64(const char* path, struct stat64* node)
{
    Kernel* kernel = KernelFor(path);
    return kernel != nullptr ? kernel->Stat(path, node) : libc::Stat(path, node);
}

int open64(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    Kernel* kernel = KernelFor(path);
    return kernel != nullptr ? kernel->Open(path, flags) : libc::Open(path, flags, mode);
}

int close(int fd)
{
    Kernel* kernel = KernelFor(fd);
    return kernel != nullptr ? kernel->Close(fd) : libc::Close(fd);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept
{
    Kernel* kernel = KernelFor(fd);
    return kernel != nullptr ? kernel->Seek(fd, offset, whence) : libc::Seek(fd, offset, whence);
}

ssize_t read(int fd, void* to, size_t length)
{
    Kernel* kernel = KernelFor(fd);
    return kernel != nullptr ? static_cast<ssize_t>(kernel->Read(fd, to, length))
                             : libc::Read(fd, to, length);
}

ssize_t write(int fd, const void* from, size_t length)
{
    Kernel* kernel = KernelFor(fd);
    return kernel != nullptr ? static_cast<ssize_t>(kernel->Write(fd, from, length))
                             : libc::Write(fd, from, length);
}

int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    Kernel* kernel = KernelFor(fd);
    return kernel != nullptr ? kernel->Ioctl(fd, request, reinterpret_cast<uintptr_t>(argument))
                             : libc::Ioctl(fd, request, argument);
}

int poll(struct pollfd* fds, nfds_t count, int timeout_ms)
{
    Kernel* kernel = count == 1 ? KernelFor(fds[0].fd) : nullptr;
    return kernel != nullptr ? kernel->Poll(fds, timeout_ms) : libc::Poll(fds, count, timeout_ms);
}

int nanosleep(const struct timespec* length, struct timespec* remaining)
{
    Kernel* kernel = Kernel::Current();
    return kernel != nullptr ? kernel->Sleep(length) : libc::Sleep(length, remaining);
}

}  // extern "C"
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
