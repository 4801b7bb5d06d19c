// SPDX-License-Identifier: MIT
#include "tools/cardtool/device.h"

#include <cerrno>
#include <cstring>

#include "tools/cardtool/failure.h"

namespace {

constexpr char kSeeLibrary[] =
    "the lines of the library above say more; take the card out, put it in firmly, and try again";

Moved Outcome(const CardIoResult& result, int error)
{
    if (result.error != 0) {
        return {0, error != 0 ? error : EIO};
    }
    return {static_cast<uint32_t>(result.length) / CARD_SECTOR_SIZE, 0};
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

std::string BackEndOf(const DrvInfo& handle)
{
    const char* name = handle.dev_type == DEV_TYPE_ZEL    ? "Zel"
                       : handle.dev_type == DEV_TYPE_MIVO ? "Mivo"
                                                          : "Ricoh SD";
    return std::string(name) + ", unit " + std::to_string(handle.dev_index);
}

Device::Device(const DrvInfo& detected) : path_(detected.dev_path), handle_(detected)
{
    errno = 0;
    if (DevInit(&handle_) >= 0) {
        return;
    }
    // A unit number out of range is the one failure without an errno value.
    throw SystemFailure("cannot open " + path_, errno != 0 ? errno : ENODEV);
}

Device::~Device()
{
    DevExit(&handle_);
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
    if (code == CARD_CODE_REMOVED) {
        throw Failure(ExitCode::InputOutput, failed + "the card was removed or changed",
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

Moved Device::Read(uint32_t first, uint32_t sectors, void* to)
{
    CardIoResult result = {};
    errno = 0;
    CARD_Read(&handle_, to, sectors, first, 0, &result);
    return Outcome(result, errno);
}

Moved Device::Write(uint32_t first, uint32_t sectors, const void* from)
{
    CardIoResult result = {};
    errno = 0;
    CARD_Write(&handle_, from, sectors, first, 0, &result);
    return Outcome(result, errno);
}
