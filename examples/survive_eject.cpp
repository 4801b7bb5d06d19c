// SPDX-License-Identifier: MIT
//
// Read a card from its first sector to its last, whoever pulls it out in between: when it is
// back, go on where the reading stopped.
//
//     survive_eject /dev/spda
//
// For Zel and Mivo devices; the Ricoh SD host cannot tell that a card has gone.
#include <algorithm>
#include <atomic>
#include <carddev.hpp>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

namespace {

constexpr uint32_t kStep = 8;  // sectors a read
constexpr int kPatience = 60;  // seconds

// Set on the thread that notices, with no lock held. It runs again with every call that
// finds the card still away, so that it does no more than this.
std::atomic<bool> gone;

// Without the callback the back-end would not look whether the card is there.
carddev::Result<carddev::Device> OpenWatched(const char* node)
{
    auto card = carddev::Device::Open(node);
    if (card) {
        gone = false;
        const auto watched = card->OnEject([] { gone = true; });
        if (!watched) {
            return watched.error();
        }
    }
    return card;
}

// A device whose card has gone stays so: it is opened afresh. The old one is closed by now.
std::optional<carddev::Device> WaitForCard(const char* node)
{
    for (int second = 0; second < kPatience; second++) {
        auto card = OpenWatched(node);
        if (card) {
            return std::move(*card);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: survive_eject NODE\n");
        return 2;
    }
    auto card = OpenWatched(argv[1]);
    if (!card) {
        std::fprintf(stderr, "%s: %s\n", argv[1], card.error().text());
        return 1;
    }
    auto sectors = card->Sectors();
    if (!sectors) {
        std::fprintf(stderr, "size: %s\n", sectors.error().text());
        return 1;
    }
    static uint8_t bytes[kStep * CARD_SECTOR_SIZE];
    uint32_t sum = 0;
    for (uint32_t at = 0; at < *sectors;) {
        const size_t wanted = size_t{std::min(kStep, *sectors - at)} * CARD_SECTOR_SIZE;
        auto moved = card->Read(at, carddev::Buffer(bytes, wanted));
        if (moved && *moved == wanted) {
            for (size_t i = 0; i < wanted; i++) {
                sum = sum * 31 + bytes[i];
            }
            at += kStep;
            continue;
        }
        if (!gone) {
            std::fprintf(stderr, "sector %u cannot be read\n", static_cast<unsigned>(at));
            return 1;
        }
        std::printf("the card has gone at sector %u\n", static_cast<unsigned>(at));
        card->Close();
        auto returned = WaitForCard(argv[1]);
        if (!returned) {
            std::fprintf(stderr, "the card did not come back\n");
            return 3;
        }
        *card = std::move(*returned);
        std::printf("the card is back\n");
    }
    std::printf("%u sectors read, sum %08x\n", static_cast<unsigned>(*sectors),
                static_cast<unsigned>(sum));
    return 0;
}
