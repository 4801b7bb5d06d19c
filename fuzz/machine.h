// SPDX-License-Identifier: MIT
//
// A machine around the library each of whose answers somebody decides: system calls,
// memory and time. The linker puts it in front of libc (--wrap), for the thread that has a
// Machine and for as long as that exists. It keeps books of what the library takes and
// gives back, and ends the program where they do not add up.
//
// Unlike sim/ it does without the C++ runtime, so that it can be built with the memory
// sanitizer, which has to see every write, and a call costs little, so that there are many.
#ifndef CARDDEV_FUZZ_MACHINE_H
#define CARDDEV_FUZZ_MACHINE_H

#include <stddef.h>
#include <stdint.h>

#include <sys/stat.h>

namespace fuzz {

enum class CallKind { Stat, Open, Close, Seek, Read, Write, Ioctl, Poll, Sleep, Malloc };

// One call as the library made it.
struct SystemCall {
    CallKind kind;
    const char* path = nullptr;     // Stat, Open
    uint32_t request = 0;           // Ioctl
    uintptr_t argument = 0;         // Ioctl: third argument; Read, Write: buffer
    uint64_t amount = 0;            // Read, Write, Malloc: bytes; Seek: offset
    struct stat64* node = nullptr;  // Stat: to be filled in
};

// What it gets. Malloc fails where `result` is negative; Open gives 0 or another number.
struct Answer {
    int64_t result = 0;
    int error = 0;  // what errno is set to; 0 leaves it
    short revents = 0;
};

class Driver {
public:
    virtual Answer Serve(const SystemCall& call) = 0;

protected:
    ~Driver() = default;
};

constexpr int kNoFile = -2;

class Machine {
public:
    explicit Machine(Driver& driver);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // What the library's blocks hold when it gets them. To the memory sanitizer they hold
    // nothing, unless they are zeroed.
    void FillBlocksWith(uint8_t byte) { fill_ = byte; }
    void ZeroBlocks(bool zero) { zero_ = zero; }
    // Zeroed memory of the caller's, for as long as the machine is there; null when none is
    // left.
    void* Allocate(size_t length);

    // Around each call of the library's.
    void Begin();
    // `own` is the errno value that the library may leave by itself there, if there is one.
    void End(const char* what, int own = 0);
    // What has happened since Begin.
    unsigned calls() const { return calls_; }
    unsigned more_answers() const { return more_answers_; }  // positive ones of ioctl
    int64_t waited_ms() const { return waited_ns_ / 1000000; }
    int error() const { return error_; }  // errno
    int64_t ioctl_result() const { return ioctl_result_; }
    bool locked() const { return lock_ != nullptr; }

    // What is not given back yet.
    unsigned open_files() const;
    unsigned live_blocks() const { return live_blocks_; }
    // A failed DevInit is known to leave some behind.
    void ForgetBlocks() { live_blocks_ = 0; }
    // Descriptor 0 counts as none and is not closed.
    bool zero_descriptor() const { return zero_descriptor_; }

    // --- for the wrapped calls -----------------------------------------------------
    static Machine* Current();
    int64_t Make(const SystemCall& call, int fd, short* revents);
    int Open(const SystemCall& call);
    int Close(int fd);
    int Poll(int fd, int timeout_ms, short* revents);
    int Sleep(int64_t ns);
    void* Malloc(size_t length);
    void Free(void* block);
    void Locked(const void* lock);
    void Unlocked(const void* lock);
    void Print(const char* bytes, size_t length);

private:
    static constexpr int kMostFiles = 1024;

    void CheckFile(int fd) const;

    Driver& driver_;
    uint8_t fill_ = 0;
    bool zero_ = false;
    bool open_[kMostFiles] = {};
    int next_file_ = 3;
    bool zero_descriptor_ = false;
    size_t used_ = 0;
    unsigned live_blocks_ = 0;
    const void* lock_ = nullptr;
    unsigned calls_ = 0;
    unsigned more_answers_ = 0;
    int64_t waited_ns_ = 0;
    int error_ = 0;
    int64_t ioctl_result_ = 0;
    size_t printed_ = 0;
};

}  // namespace fuzz

#endif
