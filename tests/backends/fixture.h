// SPDX-License-Identifier: MIT
//
// One card behind each back-end, on whichever bench the program was linked with.
#ifndef CARDDEV_TESTS_BACKENDS_FIXTURE_H
#define CARDDEV_TESTS_BACKENDS_FIXTURE_H

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "carddev.h"
#include "sim/low_memory.h"
#include "tests/support/bench.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/outcome.h"

constexpr uint32_t kSectors = 2048;
constexpr int kRemoved = CARD_CODE_REMOVED;

// The requests of a driver with direct transfers.
struct Requests {
    uint32_t status;
    uint32_t protection;
    uint32_t read;
    uint32_t write;
    uint32_t sequential_write;
    uint32_t rmw;
    uint32_t fat_write;
    uint32_t command_write;
    uint32_t reset;
    uint32_t command3;
};

constexpr Requests kZelRequests = {0x20007001, 0x20007008, 0x2000700D, 0x2000700C, 0x20007018,
                                   0x2000702A, 0x2000701D, 0x2000701E, 0x20007032, 0x2000701C};
constexpr Requests kMivoRequests = {0x4006D300, 0x2000D307, 0xC010D324, 0x8010D325, 0x8010D32E,
                                    0x800CD326, 0x800CD32A, 0x8008D32B, 0x2000D32F, 0x8001D328};

// A back-end as its caller sees it, and the unit that the card is in.
struct Backend {
    const char* name;
    const char* place;
    const char* node;
    const char* other_place;  // another unit; null where there is none
    const char* other_node;
    int32_t type;
    int32_t index;
    const char* banner;
    uint32_t length_unit;  // bytes that a direct length of 1 stands for; 0: not offered
    bool tells_eject;
    bool real_time;
    size_t cid_at;         // where the record's CID begins
    BenchNode plain_node;  // where plain transfers go
    const char* tag;       // of lines
    const char* function;  // what the names of its functions begin with
    const char* request;   // and those of its requests
    Requests requests;
};

constexpr Backend kRicohSd = {"RicohSD",
                              "ricoh",
                              "/dev/sdcarda",
                              nullptr,
                              nullptr,
                              DEV_TYPE_RICOH_SD,
                              0,
                              "Wrapper low-level driver for SD card-CardBus adaptor ver.0.10\n",
                              0,
                              false,
                              false,
                              0,
                              BenchNode::Block,
                              "zel",
                              "RicohSD_",
                              "",
                              {}};
constexpr Backend kZel = {"Zel",
                          "zel4",
                          "/dev/spde",
                          "zel1",
                          "/dev/spdb",
                          DEV_TYPE_ZEL,
                          4,
                          "Wrapper low-level driver for SD card-CardBus adaptor ver.0.11\n",
                          1,
                          true,
                          true,
                          1,
                          BenchNode::Block,
                          "zel",
                          "Zel_",
                          "ZEL_",
                          kZelRequests};
constexpr Backend kMivo = {"Mivo",
                           "mivo1",
                           "/dev/mivosdif1",
                           "mivo0",
                           "/dev/mivosdif0",
                           DEV_TYPE_MIVO,
                           1,
                           "Wrapper low-level driver for SD card-CardBus adaptor ver.0.11\n",
                           512,
                           true,
                           false,
                           0,
                           BenchNode::Char,
                           "mivosdif",
                           "Mivo_",
                           "MIVOSDIF_IOC_",
                           kMivoRequests};

inline void PrintTo(const Backend& backend, std::ostream* out)
{
    *out << backend.name;
}

inline std::string NameOf(const testing::TestParamInfo<Backend>& info)
{
    return info.param.name;
}

inline int ejects;

inline void CountEject()
{
    ejects++;
}

// The same for the whole program; each run has its own, unless one is asked for.
inline uint32_t Seed()
{
    static const uint32_t seed = [] {
        const char* asked = getenv("CARDDEV_TEST_SEED");
        const uint32_t chosen = asked != nullptr ? static_cast<uint32_t>(strtoul(asked, nullptr, 0))
                                                 : std::random_device{}();
        fprintf(stderr, "Random transfers: CARDDEV_TEST_SEED=%u repeats them\n", chosen);
        return chosen;
    }();
    return seed;
}

inline uint8_t* At(uint32_t address)
{
    return reinterpret_cast<uint8_t*>(uintptr_t{address});
}

inline uint32_t Address(const void* at)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(at));
}

inline Bytes Slice(const Bytes& bytes, size_t first, size_t sectors)
{
    return Bytes(bytes.data() + first * 512, bytes.data() + (first + sectors) * 512);
}

// Up to four pieces of memory.
struct Chunks {
    uint32_t count;
    MemoryChunk chunk[4];

    MemoryChunkArray* list() { return reinterpret_cast<MemoryChunkArray*>(this); }
};

inline std::vector<MemoryChunk> Pieces(const Chunks& chunks)
{
    return {chunks.chunk, chunks.chunk + chunks.count};
}

// A device that is open, and closed in time.
class Device {
public:
    explicit Device(const Backend& backend, const char* node = nullptr)
        : backend_(backend), handle_(HandleFor(node != nullptr ? node : backend.node))
    {
    }
    ~Device()
    {
        if (handle_.ops != nullptr) {
            Printed([&] { DevExit(&handle_); });
        }
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void Open()
    {
        const std::string printed = Printed([&] {
            ASSERT_EQ(0, DevDetect(&handle_));
            ASSERT_EQ(0, DevInit(&handle_));
        });
        EXPECT_EQ(backend_.banner, printed);
    }

    operator DrvInfo*() { return &handle_; }

    // Sectors in the unit that the back-end counts direct transfers in.
    uint32_t Length(uint32_t sectors) const { return sectors * (512 / backend_.length_unit); }

    int32_t Read(uint32_t first, uint8_t* memory, uint32_t sectors)
    {
        Chunks chunks = {1, {{Address(memory), sectors * 512}}};
        return DevDrctRead(&handle_, first, Length(sectors), chunks.list());
    }
    int32_t Write(uint32_t first, const uint8_t* memory, uint32_t sectors, uint32_t flag = 1)
    {
        Chunks chunks = {1, {{Address(memory), sectors * 512}}};
        return DevDrctWrite(&handle_, first, Length(sectors), chunks.list(), flag, &retried);
    }

    uint32_t retried = 0;

private:
    const Backend& backend_;
    DrvInfo handle_;
};

class Backends : public testing::TestWithParam<Backend> {
protected:
    Backends()
    {
        ejects = 0;
        Insert();
    }

    ~Backends() override
    {
        Exit();
        EXPECT_EQ("", bench->LeftBehind());
        EXPECT_GE(lost_blocks, bench->LiveBlocks());
    }

    void Insert()
    {
        bench->Insert(backend.place, Bytes(size_t{kSectors} * 512));
        Bytes status(CARD_SD_STATUS_SIZE);
        for (size_t i = 0; i < status.size(); i++) {
            // The bytes that sizes are computed from stay zero.
            status[i] = i < 4 || i > 7 ? static_cast<uint8_t>(i * 5 + 1) : uint8_t{0};
        }
        bench->SetRegister(backend.place, "sd_status", status);
    }

    void Open()
    {
        const std::string printed = Printed([&] {
            ASSERT_EQ(0, DevDetect(&handle));
            ASSERT_EQ(0, DevInit(&handle));
        });
        EXPECT_EQ(backend.banner, printed);
    }

    void Exit()
    {
        if (handle.ops != nullptr) {
            Printed([&] { DevExit(&handle); });
        }
    }

    bool Direct() const { return backend.length_unit != 0; }

    // Sectors in the unit that the back-end counts direct transfers in.
    uint32_t Length(uint32_t sectors) const { return sectors * (512 / backend.length_unit); }

    Bytes OnCard(uint32_t first, uint32_t sectors)
    {
        return bench->OnCard(backend.place, first, sectors);
    }

    Bytes Random(size_t length)
    {
        Bytes bytes(length);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        return bytes;
    }

    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

    // Requests that reached the unit's drivers since the last ClearCalls.
    std::vector<uint32_t> SentRequests()
    {
        std::vector<uint32_t> requests;
        for (const BenchCall& call : bench->Calls(backend.place)) {
            if (call.kind == BenchCallKind::Ioctl) {
                requests.push_back(call.request);
            }
        }
        return requests;
    }

    // "[drv:DevDrctRead(#)](W)\nNOT supported DrctRead method!\n"
    static std::string NotOffered(const std::string& function, const std::string& slot)
    {
        return "[drv:" + function + "(#)](W)\nNOT supported " + slot + " method!\n";
    }

    // "[zel:Zel_DrctRead(#)](E)..."
    std::string Line(const std::string& slot, char level, const std::string& text) const
    {
        return std::string("[") + backend.tag + ":" + backend.function + slot + "(#)](" + level +
               ")" + text + "\n";
    }

    const Backend& backend = GetParam();
    std::unique_ptr<Bench> bench = Bench::Create();
    DrvInfo handle = HandleFor(backend.node);
    cardsim::LowBuffer memory{size_t{128} * 512 + 8192};
    std::mt19937 random{Seed()};
    size_t lost_blocks = 0;  // that the library is known not to free
};

#endif
