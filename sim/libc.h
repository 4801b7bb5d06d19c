// SPDX-License-Identifier: MIT
//
// The calls of the real libc, below the ones that the stand-in puts in front of
// them.
#ifndef CARDSIM_LIBC_H
#define CARDSIM_LIBC_H

#include <cerrno>
#include <cstddef>

#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

namespace cardsim::libc {

int Stat(const char* path, struct stat64* node);
int Open(const char* path, int flags, mode_t mode);
int Close(int fd);
off64_t Seek(int fd, off64_t offset, int whence);
ssize_t Read(int fd, void* to, size_t length);
ssize_t Write(int fd, const void* from, size_t length);
int Ioctl(int fd, unsigned long request, void* argument);
int Poll(struct pollfd* fds, nfds_t count, int timeout_ms);
int Sleep(const struct timespec* length, struct timespec* remaining);

}  // namespace cardsim::libc

namespace cardsim {

// What the stand-in does on the side must not show in the program's errno.
class ErrnoKeeper {
public:
    ErrnoKeeper() : kept_(errno) {}
    ~ErrnoKeeper() { errno = kept_; }
    // Leave this value instead.
    void Set(int error) { kept_ = error; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int kept_;
};

}  // namespace cardsim

#endif
