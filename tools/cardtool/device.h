// SPDX-License-Identifier: MIT
//
// A card device as the commands use it: the library's calls, with their many
// ways of saying "failed" turned into Failure.
#ifndef CARDTOOL_DEVICE_H
#define CARDTOOL_DEVICE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "carddev.h"

// A handle that names the device and its back-end. Opens nothing.
DrvInfo Detect(const std::string& path);

// Whether the back-end can tell that a card has left.
bool NoticesEjects(const DrvInfo& handle);
// "Ricoh SD"
const char* BackEndName(const DrvInfo& handle);
// "Ricoh SD, unit 0"
std::string BackEndOf(const DrvInfo& handle);

// What a transfer came to. Less than was asked for is a failure; `error` is its
// errno value, ENOMEDIUM when the card has gone, or 0 when the driver just
// stopped.
struct Moved {
    uint32_t sectors;
    int error;
};

// Open from construction to destruction.
class Device {
public:
    explicit Device(const DrvInfo& detected);
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // Close and open again. The last close of a block node puts on the card what the
    // kernel still holds, and drops its copy: what is read then comes from the card.
    void Reopen();

    const std::string& path() const { return path_; }
    int32_t type() const { return handle_.dev_type; }
    std::string BackEnd() const { return BackEndOf(handle_); }
    const DrvInfo& handle() const { return handle_; }

    uint32_t Sectors();
    bool IsWriteProtected();
    uint16_t Status();
    CardInfo Info();
    std::array<uint8_t, CARD_SD_STATUS_SIZE> SdStatus();
    // None where the back-end has no speed record.
    std::optional<CardSpeedInfo> Speed();

    // Status bytes of the real-time control; none where there is no such control.
    std::optional<unsigned> Rt();
    std::optional<unsigned> RtDelay();
    std::optional<unsigned> RtOnForWait();
    void LockRt();
    void UnlockRt();
    // Card command 2, 3 or 4.
    void Command(uint32_t number, uint32_t argument);

    // The buffers must lie below 4 GiB.
    Moved Read(uint32_t first, uint32_t sectors, void* to);
    Moved Write(uint32_t first, uint32_t sectors, const void* from);
    // The same by the driver's direct memory access, in pieces that lie apart.
    Moved DirectRead(uint32_t first, uint32_t sectors, void* to);
    Moved DirectWrite(uint32_t first, uint32_t sectors, const void* from);

private:
    void Open();
    // Throws unless the back-end has the operation.
    void Need(bool offered, const char* what) const;
    // Throws unless the card code means success.
    void Check(int32_t code, const char* what) const;
    std::optional<unsigned> RtByte(int32_t (*query)(DrvInfo*), bool offered, const char* what);
    Moved DirectOutcome(int32_t result);

    std::string path_;
    DrvInfo handle_;
    bool open_ = false;
};

#endif
