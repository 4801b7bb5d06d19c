// SPDX-License-Identifier: MIT
//
// The card drivers' nodes and control files, by bare system calls.
#ifndef CARDDEV_TESTS_BOARD_DRIVER_NODES_H
#define CARDDEV_TESTS_BOARD_DRIVER_NODES_H

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace board {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kEnd = 0x80000000;
inline constexpr short kAsked = POLLIN | POLLOUT | POLLERR | POLLHUP;

// Requests.
inline constexpr uint32_t kBlkGetSize = 0x20001260;
inline constexpr uint32_t kBlkMount = 0x2000BC0A;
inline constexpr uint32_t kZelGetParams = 0x20007005;
inline constexpr uint32_t kZelDeviceParams = 0x20007013;
inline constexpr uint32_t kZelStatus = 0x20007001;
inline constexpr uint32_t kZelProtect = 0x20007008;
inline constexpr uint32_t kZelWrite = 0x2000700C;
inline constexpr uint32_t kZelRead = 0x2000700D;
inline constexpr uint32_t kZelIdentify = 0x20007016;
inline constexpr uint32_t kZelSeqWrite = 0x20007018;
inline constexpr uint32_t kZelFsWrite = 0x2000701D;
inline constexpr uint32_t kZelCommandWrite = 0x2000701E;
inline constexpr uint32_t kZelSetParams = 0x20007029;
inline constexpr uint32_t kZelRmw = 0x2000702A;
inline constexpr uint32_t kZelReset = 0x20007032;
inline constexpr uint32_t kMivoStatus = 0x4006D300;
inline constexpr uint32_t kMivoProtect = 0x2000D307;
inline constexpr uint32_t kMivoParams = 0x4030D30F;
inline constexpr uint32_t kMivoCid = 0x4001D314;
inline constexpr uint32_t kMivoCsd = 0x4001D315;
inline constexpr uint32_t kMivoScr = 0x4001D316;
inline constexpr uint32_t kMivoSdStatus = 0x4001D317;
inline constexpr uint32_t kMivoMount = 0x2000D318;
inline constexpr uint32_t kMivoUnmount = 0x2000D319;
inline constexpr uint32_t kMivoRead = 0xC010D324;
inline constexpr uint32_t kMivoWrite = 0x8010D325;
inline constexpr uint32_t kMivoRmw = 0x800CD326;
inline constexpr uint32_t kMivoCommand2 = 0x8001D327;
inline constexpr uint32_t kMivoFsWrite = 0x800CD32A;
inline constexpr uint32_t kMivoCommandWrite = 0x8008D32B;
inline constexpr uint32_t kMivoAltWrite = 0x8010D32E;
inline constexpr uint32_t kMivoReset = 0x2000D32F;
inline constexpr uint32_t kRicohSdStatus = 0x400178F4;
inline constexpr uint32_t kRicohSize = 0x400478FC;
inline constexpr uint32_t kRicohCid = 0x400178FE;
inline constexpr uint32_t kRicohCsd = 0x400178FF;

// A descriptor that is closed in time.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const std::string& path, int flags) : fd_(open64(path.c_str(), flags | O_CLOEXEC)) {}
    ~Fd() { Close(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    void Close()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }
    int get() const { return fd_; }

private:
    int fd_;
};

// A call's result, or its negated errno.
inline int Outcome(ssize_t result)
{
    return result < 0 ? -errno : static_cast<int>(result);
}

inline int Ask(const Fd& fd, uint32_t request, uintptr_t argument = 0)
{
    return Outcome(ioctl(fd.get(), request, argument));
}
inline int Ask(const Fd& fd, uint32_t request, const void* argument)
{
    return Outcome(ioctl(fd.get(), request, argument));
}

inline int OpenOutcome(const std::string& path, int flags)
{
    const int fd = open64(path.c_str(), flags | O_CLOEXEC);
    const int outcome = fd < 0 ? -errno : 0;
    if (fd >= 0) {
        close(fd);
    }
    return outcome;
}

inline std::string Control(const std::string& place, const std::string& file)
{
    return "/sys/kernel/debug/cards/" + place + "/" + file;
}

// 0 or a negated errno.
inline int Put(const std::string& place, const std::string& file, const std::string& text)
{
    const Fd fd(Control(place, file), O_WRONLY);
    if (fd.get() < 0) {
        return -errno;
    }
    const ssize_t put = write(fd.get(), text.data(), text.size());
    return put == static_cast<ssize_t>(text.size()) ? 0 : put < 0 ? -errno : -1;
}

inline std::string Get(const std::string& place, const std::string& file)
{
    const Fd fd(Control(place, file), O_RDONLY);
    std::string all;
    char part[4096];
    for (;;) {
        const ssize_t got = read(fd.get(), part, sizeof part);
        if (got < 0) {
            return "errno " + std::to_string(errno);
        }
        if (got == 0) {
            return all;
        }
        all.append(part, static_cast<size_t>(got));
    }
}

// The value of a key in a place's state.
inline std::string State(const std::string& place, const std::string& key)
{
    const std::string all = "\n" + Get(place, "state");
    const size_t at = all.find("\n" + key + " ");
    if (at == std::string::npos) {
        return "absent";
    }
    const size_t from = at + key.size() + 2;
    return all.substr(from, all.find('\n', from) - from);
}

// The calls in the record, without their times.
inline std::string Trace(const std::string& place)
{
    const std::string all = Get(place, "trace");
    std::string lines;
    for (size_t at = 0; at < all.size();) {
        const size_t end = all.find('\n', at);
        const size_t blank = all.find(' ', at);
        lines += all.substr(blank + 1, end - blank);
        at = end + 1;
    }
    return lines;
}

inline Bytes Pattern(size_t sectors, unsigned seed)
{
    Bytes bytes(sectors * 512);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 512 * 31 + seed);
    }
    return bytes;
}

inline std::string ImageFile(const Bytes& bytes)
{
    static std::atomic<int> number = 0;
    const std::string path =
        "/tmp/driver_test." + std::to_string(getpid()) + "." + std::to_string(number++);
    const Fd fd(path, O_CREAT | O_TRUNC | O_WRONLY);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd.get(), bytes.data(), bytes.size()));
    return path;
}

inline int Insert(const std::string& place, const Bytes& bytes)
{
    const std::string path = ImageFile(bytes);
    const int outcome = Put(place, "insert", path);
    unlink(path.c_str());
    return outcome;
}

// What is on the card, past every cache.
inline Bytes OnCard(const std::string& place, size_t sector, size_t sectors)
{
    const Fd fd(Control(place, "media"), O_RDONLY);
    Bytes bytes(sectors * 512);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
              pread64(fd.get(), bytes.data(), bytes.size(), static_cast<off64_t>(sector) * 512));
    return bytes;
}

inline Bytes Slice(const Bytes& bytes, size_t sector, size_t sectors)
{
    const auto from = bytes.begin() + static_cast<std::ptrdiff_t>(sector * 512);
    return Bytes(from, from + static_cast<std::ptrdiff_t>(sectors * 512));
}

inline uint32_t Address(const void* of)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(of));
}

// A scatter-gather list as the drivers read it.
class List {
public:
    List() = default;
    List(const void* address, uint32_t length) { Add(Address(address), length | kEnd); }

    List& Add(uint32_t address, uint32_t length)
    {
        for (const uint32_t word : {address, length}) {
            for (int shift = 0; shift < 32; shift += 8) {
                bytes_.push_back(static_cast<uint8_t>(word >> shift));
            }
        }
        return *this;
    }
    uint32_t address() const { return Address(bytes_.data()); }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }
    uint8_t* data() { return bytes_.data(); }

private:
    Bytes bytes_;
};

inline int Direct(const Fd& fd, uint32_t request, uint32_t sector, uint32_t sectors,
                  const List& list)
{
    const uint32_t record[] = {sector, sectors, list.address(), list.size()};
    return Ask(fd, request, record);
}

// Contiguous memory, in pieces as long as they may be.
inline int Direct(const Fd& fd, uint32_t request, uint32_t sector, void* memory, uint32_t sectors)
{
    List list;
    uint32_t address = Address(memory);
    for (uint32_t left = sectors * 512; left > 0;) {
        const uint32_t length = left < 65536 ? left : 65536;
        left -= length;
        list.Add(address, length | (left == 0 ? kEnd : 0));
        address += length;
    }
    return Direct(fd, request, sector, sectors, list);
}

// The events that come within the time; -1 for none.
inline int Events(const Fd& fd, int timeout_ms = 1000)
{
    pollfd asked = {fd.get(), kAsked, 0};
    const int result = poll(&asked, 1, timeout_ms);
    return result < 0 ? -errno : result == 0 ? -1 : asked.revents;
}

inline int64_t NowUs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

// Every test starts with empty places that behave, and leaves them so.
class Places : public testing::Test {
protected:
    Places() { TidyUp(); }
    ~Places() override { TidyUp(); }

    static void TidyUp()
    {
        for (const char* place :
             {"zel0", "zel1", "zel2", "zel3", "zel4", "zel5", "mivo0", "mivo1", "ricoh"}) {
            EXPECT_EQ(0, Put(place, "faults", "clear")) << place;
            EXPECT_EQ(0, Put(place, "eject", "1")) << place;
            EXPECT_EQ(0, Put(place, "latency_us", "100")) << place;
            EXPECT_EQ(0, Put(place, "trace", "clear")) << place;
        }
        EXPECT_EQ(0, Put("rtctrl", "faults", "clear"));
        EXPECT_EQ(0, Put("rtctrl", "trace", "clear"));
    }
};

// The two drivers with direct transfers, on their second unit.
struct Transfers {
    const char* place;
    const char* node;
    uint32_t read;
    uint32_t write;
    uint32_t other_write;
    uint32_t rmw;
    uint32_t fs_write;
    uint32_t command_write;
    uint32_t reset;
    uint32_t unit;  // of lengths
};

inline constexpr Transfers kZel = {"zel1",  "/dev/spdrb", kZelRead,         kZelWrite, kZelSeqWrite,
                                   kZelRmw, kZelFsWrite,  kZelCommandWrite, kZelReset, 1};
inline constexpr Transfers kMivo = {
    "mivo1",  "/dev/mivosdif1", kMivoRead,         kMivoWrite, kMivoAltWrite,
    kMivoRmw, kMivoFsWrite,     kMivoCommandWrite, kMivoReset, 512};

class BothDrivers : public Places, public testing::WithParamInterface<Transfers> {
protected:
    BothDrivers() { EXPECT_EQ(0, Insert(kPlace, content)); }

    void Latency(unsigned us) { EXPECT_EQ(0, Put(kPlace, "latency_us", std::to_string(us))); }

    int Read(uint32_t sector, uint32_t sectors)
    {
        return Direct(node, GetParam().read, sector, memory.data(), sectors);
    }
    int Write(uint32_t sector, uint32_t sectors)
    {
        return Direct(node, GetParam().write, sector, memory.data(), sectors);
    }
    // A failed request's end is told by one of the drivers.
    void ForgetEnd() { Ask(node, GetParam().reset); }

    static constexpr uint32_t kSectors = 1024;
    const std::string kPlace = GetParam().place;
    const Bytes content = Pattern(kSectors, 1);
    Bytes memory = Pattern(kSectors, 99);
    Fd node{GetParam().node, O_RDWR};
};

inline std::string NameOf(const testing::TestParamInfo<Transfers>& info)
{
    return info.param.place;
}

}  // namespace board

#endif
