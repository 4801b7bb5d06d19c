// SPDX-License-Identifier: MIT
//
// scattered_write.c through the C++ face, which knows a transfer's length from its pieces.
//
//     scattered_write_cpp /dev/spda SECTOR
//
// It overwrites three sectors of the card.
#include <algorithm>
#include <carddev.hpp>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

int Complain(const char* what, carddev::Error error)
{
    std::fprintf(stderr, "%s: %s (%s)\n", what, error.text(), error.name());
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: scattered_write_cpp NODE SECTOR\n");
        return 2;
    }
    const auto sector = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 0));
    auto card = carddev::Device::Open(argv[1]);
    if (!card) {
        return Complain(argv[1], card.error());
    }
    const std::vector<uint8_t> header(200, 'H');
    const std::vector<uint8_t> body(size_t{3} * CARD_SECTOR_SIZE - header.size(), 'B');
    auto written = card->DirectWrite(sector, carddev::From(header, body));
    if (!written) {
        return Complain("write", written.error());
    }
    std::printf("written in two pieces%s\n", written->retried ? ", at the second attempt" : "");

    std::vector<uint8_t> whole(size_t{3} * CARD_SECTOR_SIZE);
    const auto read = card->DirectRead(sector, carddev::Into(whole));
    if (!read) {
        return Complain("read", read.error());
    }
    const auto rest = whole.begin() + static_cast<std::ptrdiff_t>(header.size());
    if (!std::equal(header.begin(), header.end(), whole.begin()) ||
        !std::equal(body.begin(), body.end(), rest)) {
        std::fprintf(stderr, "the card holds something else\n");
        return 1;
    }
    std::printf("read back in one\n");
    return 0;
}
