// SPDX-License-Identifier: MIT
#include "sim/card.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "sim/libc.h"

namespace cardsim {

Card::Card() = default;

Card::~Card()
{
    if (image_ >= 0) {
        libc::Close(image_);
    }
}

std::unique_ptr<Card> Card::InMemory(uint32_t sectors)
{
    std::unique_ptr<Card> card(new Card);
    card->memory_.resize(size_t{sectors} * SIM_SECTOR_SIZE);
    card->model_.media = {ReadMemory, WriteMemory, card.get(), nullptr};
    sim_card_describe(&card->model_, sectors);
    return card;
}

// What helps where an image may be read and not written.
static const char* Remedy(int error, bool write_protected)
{
    const bool is_for_reading = error == EACCES || error == EPERM || error == EROFS;
    return is_for_reading && !write_protected
               ? " (a card that is not to be written needs \"write_protected\": true in a "
                 "description)"
               : "";
}

std::unique_ptr<Card> Card::FromImage(const std::string& path, bool write_protected)
{
    std::unique_ptr<Card> card(new Card);
    card->image_ = libc::Open(path.c_str(), (write_protected ? O_RDONLY : O_RDWR) | O_CLOEXEC, 0);
    if (card->image_ < 0) {
        const int error = errno;
        throw std::runtime_error("cannot open the card image " + path + ": " +
                                 std::strerror(error) + Remedy(error, write_protected));
    }
    const off64_t size = libc::Seek(card->image_, 0, SEEK_END);
    if (size <= 0 || size % SIM_SECTOR_SIZE != 0 || size / SIM_SECTOR_SIZE > UINT32_MAX) {
        throw std::runtime_error("the card image " + path + " holds " + std::to_string(size) +
                                 " bytes: a card is a whole number of 512-byte sectors");
    }
    card->model_.media = {ReadImage, WriteImage, card.get(), nullptr};
    card->model_.write_protected = write_protected;
    sim_card_describe(&card->model_, static_cast<uint32_t>(size / SIM_SECTOR_SIZE));
    return card;
}

int Card::ReadImage(void* self, uint64_t position, void* to, uint32_t length)
{
    const int image = static_cast<Card*>(self)->image_;
    auto* bytes = static_cast<uint8_t*>(to);
    while (length > 0) {
        const ssize_t moved = pread64(image, bytes, length, static_cast<off64_t>(position));
        if (moved <= 0) {
            return -EIO;
        }
        bytes += moved;
        position += static_cast<uint64_t>(moved);
        length -= static_cast<uint32_t>(moved);
    }
    return 0;
}

int Card::WriteImage(void* self, uint64_t position, const void* from, uint32_t length)
{
    const int image = static_cast<Card*>(self)->image_;
    const auto* bytes = static_cast<const uint8_t*>(from);
    while (length > 0) {
        const ssize_t moved = pwrite64(image, bytes, length, static_cast<off64_t>(position));
        if (moved <= 0) {
            return -EIO;
        }
        bytes += moved;
        position += static_cast<uint64_t>(moved);
        length -= static_cast<uint32_t>(moved);
    }
    return 0;
}

int Card::ReadMemory(void* self, uint64_t position, void* to, uint32_t length)
{
    auto* card = static_cast<Card*>(self);
    const std::lock_guard<std::mutex> lock(card->memory_lock_);
    std::memcpy(to, card->memory_.data() + position, length);
    return 0;
}

int Card::WriteMemory(void* self, uint64_t position, const void* from, uint32_t length)
{
    auto* card = static_cast<Card*>(self);
    const std::lock_guard<std::mutex> lock(card->memory_lock_);
    std::memcpy(card->memory_.data() + position, from, length);
    return 0;
}

}  // namespace cardsim
