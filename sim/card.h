// SPDX-License-Identifier: MIT
//
// A simulated card: the card model with its sectors in a file or in memory.
#ifndef CARDSIM_CARD_H
#define CARDSIM_CARD_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/model/sd_card.h"

namespace cardsim {

// Reads and writes may come from several threads at once.
class Card {
public:
    // A blank card in memory.
    static std::unique_ptr<Card> InMemory(uint32_t sectors);
    // A card whose sectors are the file's; writes go to the file at once. Throws
    // std::runtime_error when the file cannot be opened or is no whole number of
    // sectors.
    static std::unique_ptr<Card> FromImage(const std::string& path, bool write_protected = false);

    ~Card();
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    // Capacity, registers and protection; set them before the card is in use.
    sim_card& model() { return model_; }

private:
    Card();
    static int ReadImage(void* self, uint64_t position, void* to, uint32_t length);
    static int WriteImage(void* self, uint64_t position, const void* from, uint32_t length);
    static int ReadMemory(void* self, uint64_t position, void* to, uint32_t length);
    static int WriteMemory(void* self, uint64_t position, const void* from, uint32_t length);

    sim_card model_ = {};
    int image_ = -1;
    std::mutex memory_lock_;
    std::vector<uint8_t> memory_;
};

}  // namespace cardsim

#endif
