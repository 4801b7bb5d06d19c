// SPDX-License-Identifier: MIT
#include "tools/cardtool/device.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "sim/low_memory.h"
#include "tools/cardtool/failure.h"

namespace {

constexpr char kSeeLibrary[] =
    "the lines of the library above say more; take the card out, put it in firmly, and try again";

// One device is open at a time. The library tells of an eject on this thread, and
// again at every later look.
bool ejected;

void NoteEject()
{
    ejected = true;
}

// Why a transfer moved nothing. A card that leaves in the middle of one is at first
// only a failed transfer: the library looks for the card when it is asked again.
int WhyNothing(DrvInfo* handle)
{
    const int error = errno != 0 ? errno : EIO;
    uint16_t status = 0;
    const bool gone = CARD_Getstatus(handle, &status) == CARD_CODE_REMOVED;
    return gone || ejected ? ENOMEDIUM : error;
}

Moved Outcome(DrvInfo* handle, const CardIoResult& result)
{
    if (result.error != 0) {
        return {0, WhyNothing(handle)};
    }
    return {static_cast<uint32_t>(result.length) / CARD_SECTOR_SIZE, 0};
}

// Pieces of memory that do not touch each other, and the list that names them.
class ScatteredPieces {
public:
    explicit ScatteredPieces(uint32_t sectors)
        : length_(sectors * CARD_SECTOR_SIZE),
          count_((length_ + kPiece - 1) / kPiece),
          memory_(size_t{count_} * kStride),
          list_(sizeof(MemoryChunkArray) + count_ * sizeof(MemoryChunk))
    {
        list()->count = count_;
        for (uint32_t i = 0; i < count_; i++) {
            list()->chunk[i] = {memory_.address() + i * kStride,
                                std::min(kPiece, length_ - i * kPiece)};
        }
    }

    MemoryChunkArray* list() { return reinterpret_cast<MemoryChunkArray*>(list_.data()); }

    void Fill(const void* from)
    {
        for (size_t i = 0; i < count_; i++) {
            std::memcpy(memory_.data() + i * kStride,
                        static_cast<const uint8_t*>(from) + i * kPiece, list()->chunk[i].len);
        }
    }

    void Gather(void* to)
    {
        for (size_t i = 0; i < count_; i++) {
            std::memcpy(static_cast<uint8_t*>(to) + i * kPiece, memory_.data() + i * kStride,
                        list()->chunk[i].len);
        }
    }

private:
    static constexpr uint32_t kPiece = 10000;  // on purpose no whole number of sectors
    static constexpr uint32_t kStride = 12288;

    uint32_t length_;
    uint32_t count_;
    cardsim::LowBuffer memory_;
    cardsim::LowBuffer list_;
};

// Mivo counts direct transfers in sectors, Zel in bytes.
uint32_t DirectLength(int32_t type, uint32_t sectors)
{
    return type == DEV_TYPE_MIVO ? sectors : sectors * CARD_SECTOR_SIZE;
}

}  // namespace

DrvInfo Detect(const std::string& path)
{
    DrvInfo handle = {};
    if (path.size() >= sizeof handle.dev_path) {
        throw Failure(ExitCode::Usage, "the device's path is longer than 255 bytes",
                      "give a shorter one, such as a link to the node");
    }
    path.copy(handle.dev_path, sizeof handle.dev_path - 1);
    errno = 0;
    const int32_t result = DevDetect(&handle);
    const int error = errno;
    if (result == -EINVAL) {
        throw Failure(ExitCode::NotACard, path + " is not a device node",
                      "give the node of a card, such as /dev/sdcarda");
    }
    if (result == -ENODEV) {
        throw Failure(ExitCode::NotACard, path + " is a device that no back-end serves",
                      "compare its numbers in ls -l with: block 240, block 244, character 248");
    }
    if (result < 0) {
        throw SystemFailure("cannot examine " + path, error);
    }
    if (handle.dev_index < 0) {
        throw Failure(ExitCode::NoSuchDevice, path + " belongs to no unit of its back-end",
                      "give a node with a higher minor number");
    }
    return handle;
}

bool NoticesEjects(const DrvInfo& handle)
{
    return handle.dev_type != DEV_TYPE_RICOH_SD;
}

const char* BackEndName(const DrvInfo& handle)
{
    return handle.dev_type == DEV_TYPE_ZEL    ? "Zel"
           : handle.dev_type == DEV_TYPE_MIVO ? "Mivo"
                                              : "Ricoh SD";
}

std::string BackEndOf(const DrvInfo& handle)
{
    return std::string(BackEndName(handle)) + ", unit " + std::to_string(handle.dev_index);
}

Device::Device(const DrvInfo& detected) : path_(detected.dev_path), handle_(detected)
{
    Open();
}

void Device::Open()
{
    errno = 0;
    if (DevInit(&handle_) >= 0) {
        open_ = true;
        ejected = false;
        if (handle_.ops->CardInit != nullptr) {
            CARD_Init(&handle_, 0, NoteEject);
        }
        return;
    }
    // A unit number out of range is the one failure without an errno value.
    throw SystemFailure("cannot open " + path_, errno != 0 ? errno : ENODEV);
}

Device::~Device()
{
    if (open_) {
        DevExit(&handle_);
    }
}

void Device::Reopen()
{
    // The back-end discards on closing what nobody has seen of an eject.
    if (NoticesEjects(handle_)) {
        Status();
    }
    DevExit(&handle_);
    open_ = false;
    handle_ = Detect(path_);
    Open();
}

void Device::Need(bool offered, const char* what) const
{
    if (!offered) {
        throw Failure(ExitCode::InputOutput,
                      "cannot get " + std::string(what) + " of " + path_ +
                          ": its back-end does not offer that",
                      "use a device of another back-end; the detect command names it");
    }
}

void Device::Check(int32_t code, const char* what) const
{
    const int error = errno;
    if (code == CARD_CODE_OK) {
        return;
    }
    const std::string failed = "cannot get " + std::string(what) + " of " + path_ + ": ";
    if (code == CARD_CODE_REMOVED || ejected) {
        throw Failure(ExitCode::Removed, failed + "the card was removed or changed",
                      "put the card in and start again");
    }
    const std::string reason =
        error != 0 ? std::strerror(error) : "the library answered " + std::to_string(code);
    throw Failure(ExitCode::InputOutput, failed + reason, kSeeLibrary);
}

// Failures look like small sizes, and which ones is the back-end's own.
uint32_t Device::Sectors()
{
    Need(handle_.ops->CardGetSize != nullptr, "the size");
    errno = 0;
    const uint32_t sectors = CARD_GetCardSize(&handle_);
    if (type() == DEV_TYPE_RICOH_SD) {
        Check(sectors == 0 && errno != 0 ? CARD_CODE_ERROR : CARD_CODE_OK, "the size");
        return sectors;
    }
    const bool removed = sectors == static_cast<uint32_t>(-EIO);
    const bool failed = sectors == CARD_CODE_ERROR;
    Check(removed ? CARD_CODE_REMOVED : failed ? CARD_CODE_ERROR : CARD_CODE_OK, "the size");
    return sectors;
}

bool Device::IsWriteProtected()
{
    errno = 0;
    const int32_t answer = CARD_GetWriteProtect(&handle_);
    const bool failed = answer < 0 || answer == CARD_CODE_ERROR;
    Check(failed ? answer : CARD_CODE_OK, "the write protection");
    return answer != 0;
}

uint16_t Device::Status()
{
    Need(handle_.ops->CardGetStatus != nullptr, "the status");
    uint16_t status = 0;
    errno = 0;
    Check(CARD_Getstatus(&handle_, &status), "the status");
    return status;
}

CardInfo Device::Info()
{
    Need(handle_.ops->CardGetInfo != nullptr, "the registers");
    CardInfo info = {};
    errno = 0;
    Check(CARD_Getinfo(&handle_, &info), "the registers");
    return info;
}

std::array<uint8_t, CARD_SD_STATUS_SIZE> Device::SdStatus()
{
    Need(handle_.ops->CardSecureGetInfo != nullptr, "the SD status");
    std::array<uint8_t, CARD_SD_STATUS_SIZE> status = {};
    errno = 0;
    Check(CARD_SecureGetinfo(&handle_, status.data()), "the SD status");
    return status;
}

// The Ricoh SD back-end answers with its registers: that is no speed record.
std::optional<CardSpeedInfo> Device::Speed()
{
    if (handle_.ops->CardGetSpeedInfo == nullptr || type() == DEV_TYPE_RICOH_SD) {
        return std::nullopt;
    }
    CardSpeedInfo speed = {};
    errno = 0;
    Check(CARD_GetSpeedInfo(&handle_, &speed), "the speed record");
    return speed;
}

std::optional<unsigned> Device::RtByte(int32_t (*query)(DrvInfo*), bool offered, const char* what)
{
    if (!offered) {
        return std::nullopt;
    }
    const int32_t result = query(&handle_);
    if (result < 0) {
        throw SystemFailure("cannot get " + std::string(what) + " of " + path_, -result,
                            kSeeLibrary);
    }
    return static_cast<unsigned>(result);
}

std::optional<unsigned> Device::Rt()
{
    return RtByte(DevCheckRt, handle_.ops->CheckRt != nullptr, "the real-time status");
}

std::optional<unsigned> Device::RtDelay()
{
    return RtByte(DevCheckDelay, handle_.ops->CheckDelay != nullptr, "the delay status");
}

std::optional<unsigned> Device::RtOnForWait()
{
    return RtByte(DevRTOn4Wait, handle_.ops->RTOn4Wait != nullptr, "the wait status");
}

void Device::LockRt()
{
    Need(handle_.ops->LockRTOn != nullptr, "real-time control");
    DevLockRTOn(&handle_);
}

void Device::UnlockRt()
{
    Need(handle_.ops->UnlockRTOn != nullptr, "real-time control");
    DevUnlockRTOn(&handle_);
}

void Device::Command(uint32_t number, uint32_t argument)
{
    Need(handle_.ops->CardIoctl != nullptr && type() != DEV_TYPE_RICOH_SD, "card commands");
    errno = 0;
    const int32_t code =
        CARD_Ioctl(&handle_, static_cast<int32_t>(number), static_cast<int32_t>(argument));
    Check(code, ("an answer to card command " + std::to_string(number)).c_str());
}

Moved Device::DirectOutcome(int32_t result)
{
    if (result < 0) {
        return {0, WhyNothing(&handle_)};
    }
    return {static_cast<uint32_t>(result) / DirectLength(type(), 1), 0};
}

Moved Device::DirectRead(uint32_t first, uint32_t sectors, void* to)
{
    Need(handle_.ops->DrctRead != nullptr, "direct transfers");
    ScatteredPieces pieces(sectors);
    errno = 0;
    const int32_t result =
        DevDrctRead(&handle_, first, DirectLength(type(), sectors), pieces.list());
    pieces.Gather(to);
    return DirectOutcome(result);
}

Moved Device::DirectWrite(uint32_t first, uint32_t sectors, const void* from)
{
    Need(handle_.ops->DrctWrite != nullptr, "direct transfers");
    ScatteredPieces pieces(sectors);
    pieces.Fill(from);
    uint32_t retried = 0;
    errno = 0;
    const int32_t result =
        DevDrctWrite(&handle_, first, DirectLength(type(), sectors), pieces.list(), 0, &retried);
    return DirectOutcome(result);
}

Moved Device::Read(uint32_t first, uint32_t sectors, void* to)
{
    CardIoResult result = {};
    errno = 0;
    CARD_Read(&handle_, to, sectors, first, 0, &result);
    return Outcome(&handle_, result);
}

Moved Device::Write(uint32_t first, uint32_t sectors, const void* from)
{
    CardIoResult result = {};
    errno = 0;
    CARD_Write(&handle_, from, sectors, first, 0, &result);
    return Outcome(&handle_, result);
}
