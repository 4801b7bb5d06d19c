// SPDX-License-Identifier: MIT
//
// open_and_read.c through the C++ face: the device closes itself, and a result is either
// a value or an error.
//
//     open_and_read_cpp /dev/spda [SECTOR]
#include <carddev.hpp>
#include <cstdio>
#include <cstdlib>

namespace {

int Complain(const char* what, carddev::Error error)
{
    std::fprintf(stderr, "%s: %s (%s)\n", what, error.text(), error.name());
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: open_and_read_cpp NODE [SECTOR]\n");
        return 2;
    }
    const auto sector = static_cast<uint32_t>(argc > 2 ? std::strtoul(argv[2], nullptr, 0) : 0);

    auto card = carddev::Device::Open(argv[1]);
    if (!card) {
        return Complain(argv[1], card.error());
    }
    auto sectors = card->Sectors();
    if (!sectors) {
        return Complain("size", sectors.error());
    }
    auto is_protected = card->IsWriteProtected();
    if (!is_protected) {
        return Complain("write protection", is_protected.error());
    }
    std::printf("%u sectors, %s\n", static_cast<unsigned>(*sectors),
                *is_protected ? "protected" : "writable");

    uint8_t bytes[CARD_SECTOR_SIZE];
    auto moved = card->Read(sector, bytes);
    if (!moved) {
        return Complain("read", moved.error());
    }
    if (*moved != sizeof bytes) {
        std::fprintf(stderr, "the card ends before sector %u\n", static_cast<unsigned>(sector));
        return 1;
    }
    std::printf("sector %u:", static_cast<unsigned>(sector));
    for (int i = 0; i < 16; i++) {
        std::printf(" %02x", bytes[i]);
    }
    std::printf(" ...\n");
    return 0;
}
