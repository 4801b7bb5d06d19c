// SPDX-License-Identifier: MIT
//
// A file to a card, or a whole card against a file, by nothing but the library:
//
//   card_copy write|check NODE plain|direct FILE
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "carddev.h"

namespace {

constexpr uint32_t kSectorsAtOnce = 96;

[[noreturn]] void Die(const std::string& why)
{
    fprintf(stderr, "card_copy: %s\n", why.c_str());
    exit(1);
}

struct Chunks {
    uint32_t count;
    MemoryChunk chunk[2];
};

class Copier {
public:
    Copier(const char* node, bool direct) : direct_(direct)
    {
        strncpy(handle_.dev_path, node, sizeof handle_.dev_path - 1);
        if (DevDetect(&handle_) != 0 || DevInit(&handle_) < 0) {
            Die(std::string("cannot open ") + node);
        }
        // Lengths of direct transfers: in bytes, on a Mivo device in sectors.
        unit_ = handle_.dev_type == DEV_TYPE_MIVO ? 1 : CARD_SECTOR_SIZE;
    }
    ~Copier() { DevExit(&handle_); }
    Copier(const Copier&) = delete;
    Copier& operator=(const Copier&) = delete;

    // In two pieces, the longer one last.
    void Move(bool read, std::vector<uint8_t>& bytes, uint32_t first)
    {
        const auto sectors = static_cast<uint32_t>(bytes.size() / CARD_SECTOR_SIZE);
        int32_t moved = -1;
        if (direct_) {
            const auto at = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(bytes.data()));
            const uint32_t cut = 100;
            Chunks chunks = {2, {{at, cut}, {at + cut, sectors * CARD_SECTOR_SIZE - cut}}};
            auto* const list = reinterpret_cast<MemoryChunkArray*>(&chunks);
            uint32_t retried = 0;
            const int32_t done =
                read ? DevDrctRead(&handle_, first, sectors * unit_, list)
                     : DevDrctWrite(&handle_, first, sectors * unit_, list, 0, &retried);
            moved = done == static_cast<int32_t>(sectors * unit_) && retried == 0
                        ? static_cast<int32_t>(sectors * CARD_SECTOR_SIZE)
                        : -1;
        } else {
            CardIoResult result = {0, 0, -1};
            if (read) {
                CARD_Read(&handle_, bytes.data(), sectors, first, 0, &result);
            } else {
                CARD_Write(&handle_, bytes.data(), sectors, first, 0, &result);
            }
            moved = result.error == 0 ? result.length : -1;
        }
        if (moved != static_cast<int32_t>(bytes.size())) {
            Die("sector " + std::to_string(first) + " and on: not moved");
        }
    }

    // Until a plain read finds nothing more.
    uint32_t Sectors()
    {
        uint32_t low = 0;
        uint32_t high = UINT32_C(1) << 24;
        while (low < high) {
            const uint32_t middle = low + (high - low) / 2;
            uint8_t sector[CARD_SECTOR_SIZE];
            CardIoResult result = {0, 0, 0};
            CARD_Read(&handle_, sector, 1, middle, 0, &result);
            if (result.error == 0 && result.length == CARD_SECTOR_SIZE) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

private:
    DrvInfo handle_ = {};
    bool direct_;
    uint32_t unit_;
};

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5) {
        Die("usage: card_copy write|check NODE plain|direct FILE");
    }
    const bool check = strcmp(argv[1], "check") == 0;
    Copier card(argv[2], strcmp(argv[3], "direct") == 0);
    FILE* file = fopen(argv[4], "rb");
    if (file == nullptr) {
        Die(std::string("cannot open ") + argv[4]);
    }
    const uint32_t sectors = card.Sectors();
    for (uint32_t first = 0; first < sectors; first += kSectorsAtOnce) {
        const uint32_t count = sectors - first < kSectorsAtOnce ? sectors - first : kSectorsAtOnce;
        std::vector<uint8_t> bytes(size_t{count} * CARD_SECTOR_SIZE);
        if (fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
            Die("the file is shorter than the card");
        }
        if (!check) {
            card.Move(false, bytes, first);
            continue;
        }
        std::vector<uint8_t> read(bytes.size());
        card.Move(true, read, first);
        if (read != bytes) {
            Die("sector " + std::to_string(first) + " and on: not what the file has");
        }
    }
    if (fgetc(file) != EOF) {
        Die("the file is longer than the card");
    }
    fclose(file);
    return 0;
}
