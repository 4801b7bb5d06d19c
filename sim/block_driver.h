// SPDX-License-Identifier: MIT
//
// What the block nodes of all drivers have in common: sectors at byte positions.
#ifndef CARDSIM_BLOCK_DRIVER_H
#define CARDSIM_BLOCK_DRIVER_H

#include <cerrno>
#include <memory>

#include "sim/card.h"
#include "sim/kernel.h"

namespace cardsim {

class BlockDriver : public Driver {
public:
    // A node whose card stays where it is. Null is for drivers that override
    // Inserted. `no_card` is what transfers fail with without one: behind a block node
    // EIO, whatever the driver said.
    explicit BlockDriver(std::shared_ptr<Card> card, int no_card = -EIO)
        : card_(std::move(card)), no_card_(no_card)
    {
    }

    // A protected card can be opened for reading only, no card not at all.
    int Open(File& file) override;
    int64_t Seek(File& file, int64_t offset, int whence) override;
    int64_t Read(File& file, void* to, uint32_t length) override;
    int64_t Write(File& file, const void* from, uint32_t length) override;

protected:
    // The card that is there now, or null.
    virtual std::shared_ptr<Card> Inserted() { return card_; }

private:
    std::shared_ptr<Card> card_;
    int no_card_;
};

// The memory of this very program.
const sim_memory& ProgramMemory();

}  // namespace cardsim

#endif
