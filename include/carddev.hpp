// SPDX-License-Identifier: MIT
/**
 * @file carddev.hpp
 * @brief carddev.h for C++: a device that closes itself, results that carry either a
 *        value or a named error, and memory with its length.
 *
 * Header-only, C++17 or later, without exceptions and RTTI. Each function is one call of
 * carddev.h: the contract, and the lines on standard output, are those of the C function
 * named at it. A call costs what the C call and the test of its result cost; opening
 * costs a few instructions on top, which see to it that no unit is opened twice.
 *
 *     auto card = carddev::Device::Open("/dev/spda");
 *     if (!card) {
 *         std::printf("%s\n", card.error().text());
 *         return 1;
 *     }
 *     uint8_t sector[CARD_SECTOR_SIZE];
 *     auto moved = card->Read(0, sector);
 */
#ifndef CARDDEV_HPP
#define CARDDEV_HPP

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "carddev.h"

namespace carddev {

// -------------------------------------------------------------------- results --

/** Why a call failed: the C call's own result, or one of the last two. */
class [[nodiscard]] Error {
public:
    /** Results of the calls, as numbers. */
    enum : int32_t {
        kSystemCall = -1,
        kIo = -5,
        kNoMemory = -12,
        kNoDevice = -19,
        kInvalid = -22,
        kUnknownRequest = -25,
        kCardError = CARD_CODE_ERROR,
        kCommandFailed = CARD_CODE_COMMAND_FAILED,
        kNotOpen = CARD_CODE_NOT_OPEN,
        kRemoved = CARD_CODE_REMOVED,
        /** Not the library's: memory that lies above 4 GiB. */
        kTooHigh = -14,
        /** Not the library's: a Device of this program has the unit open. */
        kInUse = -16
    };

    constexpr explicit Error(int32_t code) : code_(code) {}

    constexpr int32_t code() const { return code_; }

    /** The name that stands for the code in C: "EIO", "CARD_CODE_REMOVED". */
    constexpr const char* name() const { return Lookup().name; }

    /** What it means, for a user. */
    constexpr const char* text() const { return Lookup().text; }

    friend constexpr bool operator==(Error a, Error b) { return a.code_ == b.code_; }
    friend constexpr bool operator!=(Error a, Error b) { return a.code_ != b.code_; }

private:
    struct Words {
        const char* name;
        const char* text;
    };

    constexpr Words Lookup() const
    {
        switch (code_) {
            case kSystemCall:
                return {"-1", "failed; where a system call did, errno tells why"};
            case kIo:
                return {"EIO", "the card has gone, or the driver failed"};
            case kNoMemory:
                return {"ENOMEM", "memory, or the driver's table, does not suffice"};
            case kNoDevice:
                return {"ENODEV", "no such device, or not initialised"};
            case kInvalid:
                return {"EINVAL", "invalid argument, or not offered by this device"};
            case kUnknownRequest:
                return {"ENOTTY", "a request that this device does not know"};
            case kTooHigh:
                return {"EFAULT", "the memory lies above 4 GiB, out of the driver's reach"};
            case kInUse:
                return {"EBUSY", "this program has the unit open already"};
            case kCardError:
                return {"CARD_CODE_ERROR", "failure, or an invalid argument"};
            case kCommandFailed:
                return {"CARD_CODE_COMMAND_FAILED", "the driver failed a card command"};
            case kNotOpen:
                return {"CARD_CODE_NOT_OPEN", "the device is not open"};
            case kRemoved:
                return {"CARD_CODE_REMOVED", "the card was removed or changed"};
            default:
                return {"unknown", "a code without a name"};
        }
    }

    int32_t code_;
};

/** A value, or an Error where there is none. */
template <typename T>
class [[nodiscard]] Result {
public:
    Result(Error error) : value_(), code_(error.code()) { assert(code_ != 0); }
    Result(T value) : value_(std::move(value)), code_(0) {}

    explicit operator bool() const { return code_ == 0; }
    Error error() const { return Error(code_); }

    /** Only where there is one. */
    T& operator*()
    {
        assert(code_ == 0);
        return value_;
    }
    const T& operator*() const
    {
        assert(code_ == 0);
        return value_;
    }
    T* operator->() { return &**this; }
    const T* operator->() const { return &**this; }

private:
    friend class Device;
    Result() {}  // not filled yet: the call writes into its place

    T value_;
    int32_t code_;
};

/** Success, or an Error. */
template <>
class [[nodiscard]] Result<void> {
public:
    constexpr Result() = default;
    constexpr Result(Error error) : code_(error.code()) {}

    constexpr explicit operator bool() const { return code_ == 0; }
    constexpr Error error() const { return Error(code_); }

private:
    int32_t code_ = 0;
};

// --------------------------------------------------------------------- memory --

namespace internal {

template <typename Container>
using ElementOf = std::remove_pointer_t<decltype(std::declval<Container&>().data() +
                                                 std::declval<Container&>().size())>;

// Whether the driver's 32 bits reach all of it. They always do on the board.
inline bool IsReachable(const void* data, std::size_t bytes)
{
    if constexpr (sizeof(void*) > 4) {
        const auto first = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(data));
        return first <= UINT32_MAX && bytes <= (uint64_t{1} << 32) - first;
    } else {
        static_cast<void>(data);
        static_cast<void>(bytes);
        return true;
    }
}

inline uint32_t Address(const void* data)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(data));
}

}  // namespace internal

/** Memory to be filled: an array, or whatever has data() and size() (std::span, too). */
class Buffer {
public:
    Buffer(void* address, std::size_t bytes) : address_(address), bytes_(bytes) {}
    template <typename T, std::size_t N,
              typename = std::enable_if_t<std::is_trivially_copyable_v<T> && !std::is_const_v<T>>>
    Buffer(T (&array)[N]) : address_(array), bytes_(N * sizeof(T))
    {
    }
    template <typename C, typename T = internal::ElementOf<C>,
              typename = std::enable_if_t<std::is_trivially_copyable_v<T> && !std::is_const_v<T>>>
    Buffer(C&& container) : address_(container.data()), bytes_(container.size() * sizeof(T))
    {
    }

    void* address() const { return address_; }
    std::size_t bytes() const { return bytes_; }

private:
    void* address_;
    std::size_t bytes_;
};

/** Memory to be read only: whatever a Buffer can be made of, constant or not. */
class ConstBuffer {
public:
    ConstBuffer(const void* address, std::size_t bytes) : address_(address), bytes_(bytes) {}
    ConstBuffer(const Buffer& buffer) : address_(buffer.address()), bytes_(buffer.bytes()) {}
    template <typename T, std::size_t N,
              typename = std::enable_if_t<std::is_trivially_copyable_v<T>>>
    ConstBuffer(const T (&array)[N]) : address_(array), bytes_(N * sizeof(T))
    {
    }
    template <typename C, typename T = internal::ElementOf<C>,
              typename = std::enable_if_t<std::is_trivially_copyable_v<T>>>
    ConstBuffer(C&& container) : address_(container.data()), bytes_(container.size() * sizeof(T))
    {
    }

    const void* address() const { return address_; }
    std::size_t bytes() const { return bytes_; }

private:
    const void* address_;
    std::size_t bytes_;
};

// ------------------------------------------------------------ scattered memory --

/**
 * A number of pieces that is known where they are named; see Into and From. The pieces
 * stand in the object itself: nothing is allocated.
 */
template <typename Piece, std::size_t N>
class FixedPieces {
public:
    using Element = Piece;
    static_assert(N > 0, "name at least one piece");

    template <typename... Pieces>
    explicit FixedPieces(const Pieces&... pieces)
    {
        static_assert(sizeof...(Pieces) == N);
        (Add(pieces), ...);
        if (!(internal::IsReachable(pieces.address(), pieces.bytes()) && ...)) {
            list_.count = 0;
        }
    }

    /** 0, or why they cannot be transferred. */
    int32_t code() const
    {
        if (list_.count == 0) {
            return Error::kTooHigh;
        }
        return bytes() % CARD_SECTOR_SIZE != 0 || bytes() > UINT32_MAX ? Error::kInvalid : 0;
    }
    uint32_t sectors() const { return static_cast<uint32_t>(bytes() / CARD_SECTOR_SIZE); }
    MemoryChunkArray* list() { return reinterpret_cast<MemoryChunkArray*>(&list_); }

private:
    void Add(const Piece& piece)
    {
        list_.chunk[list_.count++] = {internal::Address(piece.address()),
                                      static_cast<uint32_t>(piece.bytes())};
    }

    // Added up anew, so that nothing but the list has to stand in memory.
    uint64_t bytes() const
    {
        uint64_t sum = 0;
        for (const MemoryChunk& piece : list_.chunk) {
            sum += piece.len;
        }
        return sum;
    }

    struct {  // as MemoryChunkArray; count is 0 where a piece is out of reach
        uint32_t count = 0;
        MemoryChunk chunk[N];
    } list_;
};

/** Where the sectors of a direct read go, piece by piece: Into(header, body). */
template <typename... Buffers>
FixedPieces<Buffer, sizeof...(Buffers)> Into(Buffers&&... pieces)
{
    return FixedPieces<Buffer, sizeof...(Buffers)>(Buffer(std::forward<Buffers>(pieces))...);
}

/** Where the sectors of a direct write come from, piece by piece: From(header, body). */
template <typename... Buffers>
FixedPieces<ConstBuffer, sizeof...(Buffers)> From(Buffers&&... pieces)
{
    return FixedPieces<ConstBuffer, sizeof...(Buffers)>(
        ConstBuffer(std::forward<Buffers>(pieces))...);
}

/**
 * Any number of pieces, of Buffer or ConstBuffer, added one by one. Allocates as it grows;
 * a list can serve many transfers. What goes wrong on the way is told by the transfer.
 */
template <typename Piece>
class PieceList {
public:
    using Element = Piece;

    PieceList() = default;
    ~PieceList() { std::free(list_); }
    PieceList(const PieceList&) = delete;
    PieceList& operator=(const PieceList&) = delete;

    void Add(const Piece& piece)
    {
        if (!internal::IsReachable(piece.address(), piece.bytes())) {
            code_ = Error::kTooHigh;
        }
        if (code_ != 0 || !HasRoom()) {
            return;
        }
        list_->chunk[list_->count++] = {internal::Address(piece.address()),
                                        static_cast<uint32_t>(piece.bytes())};
        bytes_ += piece.bytes();
    }

    /** Forget the pieces, and what went wrong with them; keep the memory. */
    void Clear()
    {
        if (list_ != nullptr) {
            list_->count = 0;
        }
        bytes_ = 0;
        code_ = 0;
    }

    /** 0, or why they cannot be transferred. No piece at all is invalid. */
    int32_t code() const
    {
        if (code_ != 0) {
            return code_;
        }
        return bytes_ == 0 || bytes_ % CARD_SECTOR_SIZE != 0 || bytes_ > UINT32_MAX
                   ? Error::kInvalid
                   : 0;
    }
    uint32_t sectors() const { return static_cast<uint32_t>(bytes_ / CARD_SECTOR_SIZE); }
    MemoryChunkArray* list() { return list_; }

private:
    bool HasRoom()
    {
        if (list_ != nullptr && list_->count < room_) {
            return true;
        }
        const uint32_t room = room_ == 0 ? 16 : 2 * room_;
        void* grown =
            std::realloc(list_, sizeof(MemoryChunkArray) + std::size_t{room} * sizeof(MemoryChunk));
        if (grown == nullptr) {
            code_ = Error::kNoMemory;
            return false;
        }
        const bool is_first = list_ == nullptr;
        list_ = static_cast<MemoryChunkArray*>(grown);
        room_ = room;
        if (is_first) {
            list_->count = 0;
        }
        return true;
    }

    MemoryChunkArray* list_ = nullptr;
    uint32_t room_ = 0;
    uint64_t bytes_ = 0;
    int32_t code_ = 0;
};

/** Whole sectors in memory, and the card sector where they are to go. */
struct Run {
    ConstBuffer data;
    uint32_t sector;
};

/** Runs of sectors for one request: Runs<2> runs({first, second}). */
template <std::size_t N>
class Runs {
public:
    explicit Runs(const Run (&runs)[N])
    {
        for (std::size_t i = 0; i < N; i++) {
            const ConstBuffer& data = runs[i].data;
            // Of a longer one the driver would be handed the beginning alone.
            if (data.bytes() == 0 || data.bytes() % CARD_SECTOR_SIZE != 0 ||
                data.bytes() > kLongest) {
                code_ = Error::kInvalid;
            } else if (!internal::IsReachable(data.address(), data.bytes())) {
                code_ = Error::kTooHigh;
            }
            entries_[i] = {internal::Address(data.address()),
                           static_cast<uint32_t>(data.bytes() / CARD_SECTOR_SIZE), runs[i].sector,
                           i + 1 < N ? &entries_[i + 1] : nullptr};
        }
    }
    Runs(const Runs&) = delete;
    Runs& operator=(const Runs&) = delete;

    /** 0, or why they cannot be written. */
    int32_t code() const { return code_; }
    BlockList* list() { return &list_; }

    /** Most bytes in a run. */
    static constexpr std::size_t kLongest = 65536;

private:
    BlockListEntry entries_[N];
    BlockList list_ = {static_cast<int32_t>(N), entries_};
    int32_t code_ = 0;
};

// --------------------------------------------------------------------- device --

/** SD status register, most significant byte first. */
struct SdStatus {
    uint8_t bytes[CARD_SD_STATUS_SIZE];
};

/** How a direct write begins; see DevDrctWrite. */
enum class DirectMode : uint32_t { Sequential = 0, Plain = 1 };

/** What a direct write that succeeded has to tell. */
struct DirectWritten {
    uint32_t retried; /**< 1 once a failure was retried */
};

namespace internal {

// Units that a Device of this program has open, a bit each, by DevType: opening one
// again would lose its descriptors.
constexpr int32_t kTypes = 3;
inline std::atomic<uint32_t> units_in_use[kTypes] = {};

inline bool IsCounted(const DrvInfo& handle)
{
    return handle.dev_type >= 0 && handle.dev_type < kTypes && handle.dev_index >= 0 &&
           handle.dev_index < 32;
}

// False when it is taken. A unit that no back-end has is Init's to refuse.
inline bool TakeUnit(const DrvInfo& handle)
{
    const uint32_t bit = IsCounted(handle) ? 1u << handle.dev_index : 0;
    return bit == 0 || (units_in_use[handle.dev_type].fetch_or(bit) & bit) == 0;
}

inline void GiveUnitBack(const DrvInfo& handle)
{
    if (IsCounted(handle)) {
        units_in_use[handle.dev_type].fetch_and(~(1u << handle.dev_index));
    }
}

}  // namespace internal

/**
 * An open device, or none. Closed when it goes out of scope. The library keeps no pointer
 * to a handle, so a Device may be moved; what it is moved from is closed.
 *
 * A call on a closed one gives what carddev.h says of a null handle.
 */
class Device {
public:
    Device() = default;
    ~Device() { Close(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    Device(Device&& other) noexcept : handle_(std::exchange(other.handle_, DrvInfo{})) {}
    Device& operator=(Device&& other) noexcept
    {
        if (this != &other) {
            Close();
            handle_ = std::exchange(other.handle_, DrvInfo{});
        }
        return *this;
    }

    /** DevDetect and DevInit. One Device at a time can have a unit open. */
    static Result<Device> Open(const char* path)
    {
        Result<Device> opened;
        opened.code_ = opened.value_.OpenNode(path);
        return opened;
    }

    bool IsOpen() const { return handle_.ops != nullptr; }

    /** DevExit. */
    void Close()
    {
        if (IsOpen()) {
            const DrvInfo closed = handle_;
            DevExit(&handle_);
            internal::GiveUnitBack(closed);
        }
    }

    /** For what is not here. The handle stays the Device's to close. */
    DrvInfo* handle() { return &handle_; }

    /** DevType of an open one. */
    int32_t type() const { return handle_.dev_type; }
    int32_t unit() const { return handle_.dev_index; }

    /**
     * CARD_Init: have `callback` called when the card is found gone. It cannot be taken
     * back before Close. A lambda that captures nothing will do.
     */
    Result<void> OnEject(CardEjectCallback callback, uint32_t argument = 0)
    {
        return Error(CARD_Init(&handle_, argument, callback));
    }

    // --- plain transfers ---

    /**
     * CARD_Read.
     * @return bytes read; fewer than asked for where the card ends
     */
    Result<uint32_t> Read(uint32_t first_sector, Buffer to)
    {
        if (!IsWholeSectors(to.bytes())) {
            return Error(Error::kInvalid);
        }
        CardIoResult record;
        record.length = -1;  // stays where the call fails
        CARD_Read(&handle_, to.address(), static_cast<uint32_t>(to.bytes() / CARD_SECTOR_SIZE),
                  first_sector, 0, &record);
        return Moved(record);
    }

    /** CARD_Write; as Read. */
    Result<uint32_t> Write(uint32_t first_sector, ConstBuffer from)
    {
        if (!IsWholeSectors(from.bytes())) {
            return Error(Error::kInvalid);
        }
        CardIoResult record;
        record.length = -1;
        CARD_Write(&handle_, from.address(), static_cast<uint32_t>(from.bytes() / CARD_SECTOR_SIZE),
                   first_sector, 0, &record);
        return Moved(record);
    }

    // --- direct transfers ---

    /** DevDrctRead into the pieces of Into(...) or a PieceList<Buffer>: all of them, or none. */
    template <typename List>
    Result<void> DirectRead(uint32_t first_sector, List&& pieces)
    {
        static_assert(std::is_same_v<typename std::decay_t<List>::Element, Buffer>,
                      "name the pieces with Into(), or in a PieceList<Buffer>");
        if (pieces.code() != 0) {
            return Error(pieces.code());
        }
        const int32_t moved =
            DevDrctRead(&handle_, first_sector, Length(pieces.sectors()), pieces.list());
        return moved < 0 ? Result<void>(Error(moved)) : Result<void>();
    }

    /** DevDrctWrite from the pieces of From(...) or a PieceList. */
    template <typename List>
    Result<DirectWritten> DirectWrite(uint32_t first_sector, List&& pieces,
                                      DirectMode mode = DirectMode::Sequential)
    {
        Result<DirectWritten> written;
        int32_t moved = pieces.code();
        if (moved == 0) {
            moved = DevDrctWrite(&handle_, first_sector, Length(pieces.sectors()), pieces.list(),
                                 static_cast<uint32_t>(mode), &written.value_.retried);
        }
        written.code_ = moved < 0 ? moved : 0;
        return written;
    }

    /** DevDrctRMW. */
    template <std::size_t N>
    Result<void> ReadModifyWrite(Runs<N>& runs)
    {
        return Error(runs.code() != 0 ? runs.code() : DevDrctRMW(&handle_, runs.list()));
    }

    /** DevFatWrite. */
    template <std::size_t N>
    Result<void> FatWrite(Runs<N>& runs)
    {
        return Error(runs.code() != 0 ? runs.code() : DevFatWrite(&handle_, runs.list()));
    }

    /** DevSdCmdWrite. */
    Result<void> SdCommandWrite(ConstBuffer from, uint32_t argument, uint8_t byte0, uint8_t byte1)
    {
        if (!IsWholeSectors(from.bytes())) {
            return Error(Error::kInvalid);
        }
        if (!internal::IsReachable(from.address(), from.bytes())) {
            return Error(Error::kTooHigh);
        }
        return Error(DevSdCmdWrite(&handle_, from.address(),
                                   static_cast<uint32_t>(from.bytes() / CARD_SECTOR_SIZE), argument,
                                   byte0, byte1));
    }

    // --- queries ---

    /** CARD_Getstatus; the word is CARD_STATUS_READY where a card is there. */
    Result<uint16_t> Status()
    {
        Result<uint16_t> status;
        status.code_ = CARD_Getstatus(&handle_, &status.value_);
        return status;
    }

    /** CARD_GetR1Status. */
    Result<void> R1Status() { return Error(CARD_GetR1Status(&handle_)); }

    /** CARD_Getinfo. */
    Result<CardInfo> Info()
    {
        Result<CardInfo> info;
        info.code_ = CARD_Getinfo(&handle_, &info.value_);
        return info;
    }

    /** CARD_GetSpeedInfo. */
    Result<CardSpeedInfo> SpeedInfo()
    {
        Result<CardSpeedInfo> speed;
        speed.code_ = CARD_GetSpeedInfo(&handle_, &speed.value_);
        return speed;
    }

    /** CARD_SecureGetinfo. */
    Result<SdStatus> SecureInfo()
    {
        Result<SdStatus> status;
        status.code_ = CARD_SecureGetinfo(&handle_, status.value_.bytes);
        return status;
    }

    /** CARD_GetCardSize, with the sizes that mean a failure told apart. */
    Result<uint32_t> Sectors()
    {
        const uint32_t sectors = CARD_GetCardSize(&handle_);
        if (sectors == kSizeRemoved) {
            return Error(Error::kRemoved);
        }
        // The Ricoh SD back-end answers a failure with 0, so that its 10 is a size.
        if (sectors == 0 || (sectors == CARD_CODE_ERROR && handle_.dev_type != DEV_TYPE_RICOH_SD)) {
            return Error(Error::kCardError);
        }
        return sectors;
    }

    /** CARD_GetWriteProtect, with the answers that mean a failure told apart. */
    Result<bool> IsWriteProtected()
    {
        const int32_t answer = CARD_GetWriteProtect(&handle_);
        if (answer == Error::kIo || answer == Error::kCardError) {
            return Error(answer);
        }
        return answer != 0;
    }

    /** CARD_Ioctl. */
    Result<void> Command(int32_t command, int32_t argument)
    {
        return Error(CARD_Ioctl(&handle_, command, argument));
    }

    /** DevIoctl; what the driver answered. */
    Result<int32_t> Ioctl(uint32_t request, void* argument)
    {
        return Counted(DevIoctl(&handle_, request, argument));
    }

    // --- real-time control ---

    /** DevCheckRt. */
    Result<int32_t> RealTimeStatus() { return Counted(DevCheckRt(&handle_)); }
    /** DevCheckDelay. */
    Result<int32_t> DelayStatus() { return Counted(DevCheckDelay(&handle_)); }
    /** DevRTOn4Wait. */
    Result<int32_t> RealTimeOnForWait() { return Counted(DevRTOn4Wait(&handle_)); }

private:
    static constexpr uint32_t kSizeRemoved = 0xFFFFFFFB;
    static constexpr std::size_t kMostSectors = 0x7FFFFF;  // in one plain transfer

    int32_t OpenNode(const char* path)
    {
        // A path without an end is DevDetect's to refuse.
        std::memcpy(handle_.dev_path, path, ::strnlen(path, sizeof handle_.dev_path));
        int32_t code = DevDetect(&handle_);
        if (code == 0) {
            code = InitUnit();
        }
        if (code != 0) {
            handle_ = DrvInfo{};  // nothing is open: nothing is to be closed
        }
        return code;
    }

    int32_t InitUnit()
    {
        if (!internal::TakeUnit(handle_)) {
            return Error::kInUse;
        }
        const int32_t code = DevInit(&handle_);
        if (code < 0) {
            internal::GiveUnitBack(handle_);
            return code;
        }
        return 0;
    }

    static bool IsWholeSectors(std::size_t bytes)
    {
        return bytes % CARD_SECTOR_SIZE == 0 && bytes / CARD_SECTOR_SIZE <= kMostSectors;
    }

    static Result<uint32_t> Moved(const CardIoResult& record)
    {
        Result<uint32_t> moved;
        moved.value_ = static_cast<uint32_t>(record.length);
        moved.code_ = record.length < 0 ? Error::kCardError : 0;
        return moved;
    }

    static Result<int32_t> Counted(int32_t answer)
    {
        return answer < 0 ? Result<int32_t>(Error(answer)) : Result<int32_t>(answer);
    }

    // A direct transfer's length in the unit that the back-end counts in.
    uint32_t Length(uint32_t sectors) const
    {
        return handle_.dev_type == DEV_TYPE_MIVO ? sectors : sectors * CARD_SECTOR_SIZE;
    }

    DrvInfo handle_ = {};
};

/**
 * DevLockRTOn from here to the end of the scope. The device stays open, and in its place,
 * until then.
 */
class RealTimeLock {
public:
    explicit RealTimeLock(Device& device) : handle_(device.handle()) { DevLockRTOn(handle_); }
    ~RealTimeLock() { DevUnlockRTOn(handle_); }
    RealTimeLock(const RealTimeLock&) = delete;
    RealTimeLock& operator=(const RealTimeLock&) = delete;

private:
    DrvInfo* handle_;
};

/** CalcSdParams. */
inline Result<SdFormatParams> FormatParams(uint32_t sectors)
{
    SdFormatParams params = {};
    const int32_t code = CalcSdParams(sectors, &params);
    return code != 0 ? Result<SdFormatParams>(Error(code)) : Result<SdFormatParams>(params);
}

}  // namespace carddev

#endif  // CARDDEV_HPP
