// SPDX-License-Identifier: MIT
#ifndef CARDDEV_TESTS_MIVOSDIF_TRANSFER_FIXTURE_H
#define CARDDEV_TESTS_MIVOSDIF_TRANSFER_FIXTURE_H

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "carddev_state.h"
#include "sim/low_memory.h"
#include "sim/mivo_driver.h"
#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/trace.h"

using Bytes = std::vector<uint8_t>;

// The driver's numbers.
constexpr uint32_t kGetStatus = 0x4006D300;
constexpr uint32_t kRead = 0xC010D324;
constexpr uint32_t kWrite = 0x8010D325;
constexpr uint32_t kRmw = 0x800CD326;
constexpr uint32_t kFsmiWrite = 0x800CD32A;
constexpr uint32_t kSdCmdWrite = 0x8008D32B;
constexpr uint32_t kAltWrite = 0x8010D32E;
constexpr uint32_t kReset = 0x2000D32F;

// Different bytes for every sector and every place in it.
inline Bytes Pattern(uint32_t sectors, uint32_t seed)
{
    Bytes bytes(size_t{sectors} * 512);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 512 * 31);
    }
    return bytes;
}

inline Bytes MemoryAt(uintptr_t address, size_t length)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(address);
    return Bytes(bytes, bytes + length);
}

inline uintptr_t AddressOf(const void* object)
{
    return reinterpret_cast<uintptr_t>(object);
}

inline uint32_t Low(const void* object)
{
    return static_cast<uint32_t>(AddressOf(object));
}

// Words as a record holds them: in the processor's own order.
inline Bytes Words(std::initializer_list<uint32_t> words)
{
    Bytes bytes(words.size() * 4);
    memcpy(bytes.data(), std::data(words), bytes.size());
    return bytes;
}

// Words as a scatter-gather table holds them, least significant byte first.
inline Bytes TableWords(std::initializer_list<uint32_t> words)
{
    Bytes bytes;
    for (const uint32_t word : words) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes.push_back(static_cast<uint8_t>(word >> shift));
        }
    }
    return bytes;
}

inline Bytes operator+(Bytes front, const Bytes& back)
{
    front.insert(front.end(), back.begin(), back.end());
    return front;
}

// "[mivosdif:Mivo_Read(#)](E)text", with its line end.
inline std::string ErrorLine(const std::string& function, const std::string& text)
{
    return "[mivosdif:" + function + "(#)](E)" + text + "\n";
}

inline std::string WarningLine(const std::string& function, const std::string& text)
{
    return "[mivosdif:" + function + "(#)](W)" + text + "\n";
}

// "-1 EIO"
inline std::string Failed(int error)
{
    return std::string("-1 ") + strerrorname_np(error);
}

// A MemoryChunkArray with its chunks.
class Chunks {
public:
    Chunks(std::initializer_list<MemoryChunk> chunks)
        : Chunks(std::vector<MemoryChunk>(chunks), static_cast<uint32_t>(chunks.size()))
    {
    }
    // The header's count need not be the truth.
    Chunks(const std::vector<MemoryChunk>& chunks, uint32_t count)
        : words_(1 + 2 * (chunks.size() + 1))
    {
        words_[0] = count;
        if (!chunks.empty()) {
            memcpy(&words_[1], chunks.data(), chunks.size() * sizeof(MemoryChunk));
        }
    }
    MemoryChunkArray* get() { return reinterpret_cast<MemoryChunkArray*>(words_.data()); }

private:
    std::vector<uint32_t> words_;
};

// A BlockList with its elements, chained in their order.
class Elements {
public:
    Elements(std::initializer_list<BlockListEntry> elements)
        : Elements(std::vector<BlockListEntry>(elements), static_cast<int32_t>(elements.size()))
    {
    }
    // The header's count need not be the truth.
    Elements(std::vector<BlockListEntry> elements, int32_t count) : elements_(std::move(elements))
    {
        for (size_t i = 0; i < elements_.size(); i++) {
            elements_[i].next = i + 1 < elements_.size() ? &elements_[i + 1] : nullptr;
        }
        list_ = {count, elements_.empty() ? nullptr : elements_.data()};
    }
    Elements(const Elements&) = delete;
    Elements& operator=(const Elements&) = delete;
    BlockList* get() { return &list_; }

private:
    std::vector<BlockListEntry> elements_;
    BlockList list_ = {};
};

// Callbacks take no argument: this is what the registered one runs.
inline std::function<void()>& OnEject()
{
    static std::function<void()> action;
    return action;
}

// A card in the second unit, behind the driver's model. The static state of the
// back-end is blank at the start of each test, and no memory or descriptor of the
// library's is left at its end.
class MivoTransfer : public testing::Test {
protected:
    static constexpr unsigned kUnit = 1;
    static constexpr uint32_t kSectors = 4096;

    MivoTransfer()
    {
        memset(mivo_dev, 0, sizeof mivo_dev);
        units->Insert(kUnit, card);
        handle.dev_type = DEV_TYPE_MIVO;
        handle.dev_index = kUnit;
        handle.ops = &mivo_ops;
        OnEject() = [this] { ejects++; };
    }

    ~MivoTransfer() override
    {
        Close();
        EXPECT_EQ(0u, kernel.OpenFiles());
        EXPECT_EQ(0u, kernel.LiveBlocks());
        OnEject() = nullptr;
    }

    // Opened, with the calls up to there forgotten.
    void Open()
    {
        Printed([&] { ASSERT_EQ(0, mivo_ops.Init(&handle)); });
        kernel.ClearCalls();
    }

    void Close()
    {
        kernel.ClearFaults();
        if (dev.sg_table != nullptr) {
            Printed([&] { mivo_ops.Exit(&handle); });
        }
    }

    void Reopen()
    {
        Close();
        Open();
    }

    // From now on each operation looks for the card first.
    void RegisterCallback()
    {
        ASSERT_EQ(0, mivo_ops.CardInit(&handle, 0, [] { OnEject()(); }));
    }

    void FailRequest(uint32_t request, int error, uint64_t first = 1, uint64_t times = 1)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.first = first;
        fault.times = times;
        fault.error = error;
        kernel.Inject(fault);
    }

    // The request is answered so and does not reach the driver.
    void AnswerRequest(uint32_t request, int64_t result, uint64_t times = 1)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.times = times;
        fault.result = result;
        kernel.Inject(fault);
    }

    // Whatever is waited for is done.
    void CompleteAll()
    {
        cardsim::Fault fault;
        fault.kind = cardsim::CallKind::Poll;
        fault.times = cardsim::Fault::kForEver;
        fault.revents = POLLOUT;
        kernel.Inject(fault);
    }

    // Let `look` see the program's memory while a request is with the driver. The
    // driver is left out: the request is accepted and done.
    void Intercept(uint32_t request, std::function<void(uintptr_t argument)> look)
    {
        cardsim::Fault fault;
        fault.request = request;
        fault.times = cardsim::Fault::kForEver;
        fault.result = 0;
        fault.then = [this, look = std::move(look)] { look(kernel.Calls().back().argument); };
        kernel.Inject(fault);
        CompleteAll();
    }

    // A direct transfer gave up: the latch that bars writes is set.
    void BreakDevice()
    {
        FailRequest(kRead, EIO, 1, 3);
        Chunks chunks{{buffer.address(), 512}};
        Printed([&] { ASSERT_EQ(-5, mivo_ops.DrctRead(&handle, 0, 1, chunks.get())); });
        ASSERT_EQ(1, dev.io_error);
        kernel.ClearCalls();
    }

    bool LockIsFree()
    {
        if (pthread_mutex_trylock(&dev.lock) != 0) {
            return false;
        }
        pthread_mutex_unlock(&dev.lock);
        return true;
    }

    void FillBuffer(const Bytes& bytes) { memcpy(buffer.data(), bytes.data(), bytes.size()); }

    // Sectors as they stand on the card.
    Bytes OnCard(uint32_t first, uint32_t sectors)
    {
        Bytes bytes(size_t{sectors} * 512);
        EXPECT_EQ(static_cast<int64_t>(bytes.size()),
                  sim_card_read(&card->model(), uint64_t{first} * 512, bytes.data(),
                                static_cast<uint32_t>(bytes.size())));
        return bytes;
    }

    void PutOnCard(uint32_t first, const Bytes& bytes)
    {
        ASSERT_EQ(static_cast<int64_t>(bytes.size()),
                  sim_card_write(&card->model(), uint64_t{first} * 512, bytes.data(),
                                 static_cast<uint32_t>(bytes.size())));
    }

    // Lines of a trace.
    static std::string Ioctl(uint32_t request, const std::string& result = "0")
    {
        char number[16];
        snprintf(number, sizeof number, "0x%x", request);
        return std::string("ioctl(/dev/mivosdif1, ") + number + ") = " + result;
    }
    static std::string Poll(const std::string& result = "1")
    {
        return "poll(/dev/mivosdif1, 0x1d, 4000 ms) = " + result;
    }

    std::shared_ptr<cardsim::Card> card = cardsim::Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    std::shared_ptr<cardsim::MivoUnits> units = cardsim::MivoUnits::Create(kernel);
    DrvInfo handle = HandleFor("/dev/mivosdif1");
    MivoDevice& dev = mivo_dev[kUnit];
    cardsim::LowBuffer buffer{size_t{256} * 512};
    int ejects = 0;
};

#endif
