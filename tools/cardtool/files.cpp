// SPDX-License-Identifier: MIT
#include "tools/cardtool/files.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/cardtool/failure.h"
#include "tools/cardtool/interrupt.h"

namespace {

constexpr size_t kPiece = 1u << 20;

// A file's trouble is no device's: only a refused permission keeps its kind.
Failure FileFailure(const std::string& what, int error, const std::string& next)
{
    const bool refused = error == EACCES || error == EPERM;
    return {refused ? ExitCode::PermissionDenied : ExitCode::InputOutput,
            what + ": " + std::strerror(error), next};
}

// A pipe that is ready takes so much at once without making the writer wait.
size_t WritePiece(int fd, size_t length)
{
    struct stat64 file = {};
    const bool is_file = fstat64(fd, &file) == 0 && S_ISREG(file.st_mode);
    return is_file ? length : std::min<size_t>(length, PIPE_BUF);
}

}  // namespace

Output::Output(const std::string& path)
    : fd_(open64(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)), name_(path)
{
    if (fd_ < 0) {
        throw FileFailure("cannot create " + path, errno, "name another file with -o");
    }
}

// Another constructor first: what fails in the body then closes the file.
Output::Output(const std::string& path, uint64_t start)
    : Output(open64(path.c_str(), O_WRONLY | O_CLOEXEC), path)
{
    struct stat64 file = {};
    if (fd_ < 0 || fstat64(fd_, &file) != 0 ||
        lseek64(fd_, static_cast<off64_t>(start), SEEK_SET) < 0) {
        throw FileFailure("cannot go on in " + path, errno, "name the file that was begun");
    }
    if (static_cast<uint64_t>(file.st_size) < start) {
        throw Failure(ExitCode::Usage,
                      path + " holds only " + std::to_string(file.st_size) + " bytes",
                      "give a smaller --seek, and --first to match");
    }
}

Output::~Output()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

void Output::Write(const void* data, size_t length)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (length > 0) {
        if (!WaitFor(fd_, POLLOUT)) {
            throw Failure(ExitCode::Interrupted, "interrupted while writing to " + name_,
                          "what is there is not complete; start again");
        }
        const ssize_t moved = write(fd_, bytes, WritePiece(fd_, length));
        if (moved < 0 && errno == EPIPE && is_standard_) {
            throw Failure(ExitCode::ReaderGone, "the reader of " + name_ + " went away",
                          "let it read to the end");
        }
        if (moved < 0) {
            throw FileFailure("cannot write to " + name_, errno,
                              "what is there is not complete; make room or choose another place");
        }
        bytes += moved;
        length -= static_cast<size_t>(moved);
    }
}

void Output::Sync()
{
    // Pipes and the like have nothing to wait for.
    if (fsync(fd_) != 0 && errno != EINVAL && errno != EROFS && errno != EBADF) {
        throw FileFailure("cannot complete " + name_, errno,
                          "what is there is not complete; make room or choose another place");
    }
}

void Output::Close()
{
    const int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0) {
        throw FileFailure("cannot complete " + name_, errno,
                          "what is there is not complete; make room or choose another place");
    }
}

Input::Input(const std::string& path, uint64_t room)
    : Input(path == "-" ? STDIN_FILENO : open64(path.c_str(), O_RDONLY | O_CLOEXEC),
            path == "-" ? "standard input" : path)
{
    struct stat64 file = {};
    if (fd_ < 0 || fstat64(fd_, &file) != 0) {
        throw FileFailure("cannot open " + name_, errno, "check the name given with -i");
    }
    if (fd_ != STDIN_FILENO && S_ISREG(file.st_mode)) {
        size_ = static_cast<uint64_t>(file.st_size);
    } else {
        ReadAll(room);
    }
}

Input::~Input()
{
    if (fd_ != STDIN_FILENO) {
        close(fd_);
    }
}

size_t Input::ReadSome(void* to, size_t length)
{
    const ssize_t got = read(fd_, to, length);
    if (got < 0) {
        throw FileFailure("cannot read " + name_, errno, "check what was given with -i");
    }
    return static_cast<size_t>(got);
}

void Input::ReadAll(uint64_t room)
{
    in_memory_ = true;
    while (size_ <= room) {
        if (Interrupted() || !WaitFor(fd_, POLLIN)) {
            throw Failure(ExitCode::Interrupted, "interrupted while reading " + name_,
                          "nothing was written; start again when the input is there");
        }
        const auto piece = static_cast<size_t>(std::min<uint64_t>(kPiece, room + 1 - size_));
        memory_.resize(static_cast<size_t>(size_) + piece);
        const size_t got = ReadSome(memory_.data() + size_, piece);
        size_ += got;
        if (got == 0) {
            break;
        }
    }
}

void Input::Seek(uint64_t position)
{
    if (in_memory_) {
        taken_ = static_cast<size_t>(position);
    } else if (lseek64(fd_, static_cast<off64_t>(position), SEEK_SET) < 0) {
        throw FileFailure("cannot read " + name_, errno, "check what was given with -i");
    }
}

void Input::Read(void* to, size_t length)
{
    auto* bytes = static_cast<uint8_t*>(to);
    if (in_memory_) {
        std::memcpy(bytes, memory_.data() + taken_, length);
        taken_ += length;
        return;
    }
    while (length > 0) {
        const size_t got = ReadSome(bytes, length);
        if (got == 0) {
            throw Failure(ExitCode::InputOutput, name_ + " became shorter while it was read",
                          "the card holds only part of it; write again when nobody changes it");
        }
        bytes += got;
        length -= got;
    }
}

// One line without its end; what does not fit is no "yes" either way.
static std::string ReadLine(int fd)
{
    std::string line;
    char c = 0;
    while (line.size() < 80 && WaitFor(fd, POLLIN) && read(fd, &c, 1) == 1 && c != '\n') {
        line += c;
    }
    return line;
}

void Confirm(const std::string& question, bool stdin_is_data)
{
    const int terminal = open64("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0 && stdin_is_data) {
        throw Failure(ExitCode::Refused,
                      "cannot ask: standard input carries the data and there is no terminal",
                      "nothing was written; add --yes when you are sure");
    }
    const bool has_terminal = terminal >= 0;
    const int asked = has_terminal ? terminal : STDERR_FILENO;
    const bool shown = write(asked, question.data(), question.size()) > 0;
    const std::string answer = shown ? ReadLine(has_terminal ? terminal : STDIN_FILENO) : "";
    if (has_terminal) {
        close(terminal);
    } else {
        std::fputc('\n', stderr);  // nobody's Enter key has ended the line
    }
    if (Interrupted()) {
        throw Failure(ExitCode::Interrupted, "interrupted before the answer",
                      "nothing was written; repeat and type yes, or add --yes");
    }
    if (answer != "yes") {
        throw Failure(ExitCode::Refused, "the answer was not \"yes\"",
                      "nothing was written; repeat and type yes, or add --yes");
    }
}

bool IsSameFile(const std::string& one, const std::string& other)
{
    struct stat64 a = {};
    struct stat64 b = {};
    return stat64(one.c_str(), &a) == 0 && stat64(other.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}
