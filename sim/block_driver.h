// SPDX-License-Identifier: MIT
//
// What the block nodes of all drivers have in common: sectors at byte positions.
#ifndef CARDSIM_BLOCK_DRIVER_H
#define CARDSIM_BLOCK_DRIVER_H

#include <memory>

#include "sim/card.h"
#include "sim/kernel.h"

namespace cardsim {

class BlockDriver : public Driver {
public:
    // A node whose card stays where it is. Null is for drivers that override
    // Inserted.
    explicit BlockDriver(std::shared_ptr<Card> card) : card_(std::move(card)) {}

    // A protected card can be opened for reading only.
    int Open(File& file) override;
    int64_t Seek(File& file, int64_t offset, int whence) override;
    int64_t Read(File& file, void* to, uint32_t length) override;
    int64_t Write(File& file, const void* from, uint32_t length) override;

protected:
    // The card that is there now, or null.
    virtual std::shared_ptr<Card> Inserted() { return card_; }

private:
    std::shared_ptr<Card> card_;
};

// The memory of this very program.
const sim_memory& ProgramMemory();

}  // namespace cardsim

#endif
