// SPDX-License-Identifier: MIT
//
// The files that the tool reads and writes, and its one question to the user.
#ifndef CARDTOOL_FILES_H
#define CARDTOOL_FILES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Where results or a card's data go.
class Output {
public:
    // Takes over standard output. When its reader goes away, nobody wants the rest.
    explicit Output(int fd) : fd_(fd), name_("standard output"), is_standard_(true) {}
    // A file, made or emptied.
    explicit Output(const std::string& path);
    // A file that is there, from that byte on; nothing else of it changes.
    Output(const std::string& path, uint64_t start);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // All of it, or a Failure.
    void Write(const void* data, size_t length);
    void Write(const std::string& text) { Write(text.data(), text.size()); }
    // Down to the disk, where it is one.
    void Sync();
    // The file system's last word on what was written.
    void Close();

private:
    Output(int fd, const std::string& name) : fd_(fd), name_(name) {}

    int fd_;
    std::string name_;
    bool is_standard_ = false;
};

// The data for a card. A file is read as it is needed; whatever has no known
// length (standard input, a pipe) is read into memory to its end.
class Input {
public:
    // "-" is standard input. Of input without a known length no more than one
    // byte above `room` is taken: enough to see that it does not fit.
    Input(const std::string& path, uint64_t room);
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    const std::string& name() const { return name_; }
    uint64_t size() const { return size_; }
    // Where the next bytes come from, counted from the first.
    void Seek(uint64_t position);
    // The next bytes; a Failure when they cannot be had.
    void Read(void* to, size_t length);

private:
    Input(int fd, const std::string& name) : fd_(fd), name_(name) {}
    void ReadAll(uint64_t room);
    size_t ReadSome(void* to, size_t length);

    int fd_;
    std::string name_;
    uint64_t size_ = 0;
    bool in_memory_ = false;
    std::vector<uint8_t> memory_;
    size_t taken_ = 0;
};

// Ask on the terminal or, where the program has none, on standard input, unless
// that carries the data. Anything but a "yes" is a Failure.
void Confirm(const std::string& question, bool stdin_is_data);

// Whether both paths lead to one file.
bool IsSameFile(const std::string& one, const std::string& other);

#endif
