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
    explicit BlockDriver(std::shared_ptr<Card> card) : card_(std::move(card)) {}

    int Open(File& file) override;
    int64_t Seek(File& file, int64_t offset, int whence) override;
    int64_t Read(File& file, void* to, uint32_t length) override;
    int64_t Write(File& file, const void* from, uint32_t length) override;

protected:
    sim_card& card() { return card_->model(); }

private:
    std::shared_ptr<Card> card_;
};

// The memory of this very program.
const sim_memory& ProgramMemory();

}  // namespace cardsim

#endif
