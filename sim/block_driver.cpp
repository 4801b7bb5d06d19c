// SPDX-License-Identifier: MIT
#include "sim/block_driver.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace cardsim {

int BlockDriver::Open(File& file)
{
    const std::shared_ptr<Card> card = Inserted();
    if (!card) {
        return -ENOMEDIUM;
    }
    const bool for_writing = (file.flags & O_ACCMODE) != O_RDONLY;
    return card->model().write_protected && for_writing ? -EROFS : 0;
}

int64_t BlockDriver::Seek(File& file, int64_t offset, int whence)
{
    const std::shared_ptr<Card> card = Inserted();
    const int64_t end = card ? int64_t{card->model().sectors} * SIM_SECTOR_SIZE : 0;
    const int64_t base = whence == SEEK_CUR   ? static_cast<int64_t>(file.position)
                         : whence == SEEK_END ? end
                                              : 0;
    if (base + offset < 0 || base + offset > end) {
        return -EINVAL;
    }
    file.position = static_cast<uint64_t>(base + offset);
    return base + offset;
}

int64_t BlockDriver::Read(File& file, void* to, uint32_t length)
{
    const std::shared_ptr<Card> card = Inserted();
    if (!card) {
        return no_card_;
    }
    const int64_t moved = sim_card_read(&card->model(), file.position, to, length);
    file.position += moved > 0 ? static_cast<uint64_t>(moved) : 0;
    return moved;
}

int64_t BlockDriver::Write(File& file, const void* from, uint32_t length)
{
    const std::shared_ptr<Card> card = Inserted();
    if (!card) {
        return no_card_;
    }
    const int64_t moved = sim_card_write(&card->model(), file.position, from, length);
    file.position += moved > 0 ? static_cast<uint64_t>(moved) : 0;
    return moved;
}

// Addresses arrive as the program passed them. Null is the one bad address that
// can be told from inside the program.
static int PutInProgram(void*, uintptr_t to, const void* from, uint32_t length)
{
    if (to == 0) {
        return -EFAULT;
    }
    std::memcpy(reinterpret_cast<void*>(to), from, length);
    return 0;
}

static int GetFromProgram(void*, void* to, uintptr_t from, uint32_t length)
{
    if (from == 0) {
        return -EFAULT;
    }
    std::memcpy(to, reinterpret_cast<const void*>(from), length);
    return 0;
}

const sim_memory& ProgramMemory()
{
    static constexpr sim_memory kMemory = {PutInProgram, GetFromProgram, nullptr};
    return kMemory;
}

}  // namespace cardsim
