// SPDX-License-Identifier: MIT
//
// Requests, records and control lines at random. Nothing is asked of the answers: the
// drivers must survive them, and move nothing outside the memory that they were given.
#include <random>

#include <sys/mman.h>

#include "tests/board/driver_nodes.h"

namespace board {
namespace {

class Random : public Places {
protected:
    static constexpr size_t kRoom = 1 << 20;

    Random()
    {
        for (const char* place : {"zel0", "mivo0", "ricoh"}) {
            EXPECT_EQ(0, Insert(place, Pattern(256, 3)));
        }
        // Pages that are not there on both sides.
        auto* all = static_cast<uint8_t*>(
            mmap(nullptr, kRoom + 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        EXPECT_EQ(0, mprotect(all + 4096, kRoom, PROT_READ | PROT_WRITE));
        room = all + 4096;
    }
    ~Random() override { munmap(room - 4096, kRoom + 8192); }

    uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(random() % limit); }

    // Some of the program's room, its edges, and addresses that are not the program's.
    uint32_t AnyAddress()
    {
        const uint32_t start = Address(room);
        switch (Below(8)) {
            case 0:
                return Below(4096);
            case 1:
                return 0xC0000000 - 64 + Below(128);
            case 2:
                return 0xC0000000 + Below(0x40000000);
            case 3:
                return 0xFFFFFFFF - Below(64);
            case 4:
                return start + kRoom - Below(600);
            case 5:
                return start - Below(600);
            default:
                return start + Below(kRoom);
        }
    }
    uint32_t AnyNumber()
    {
        switch (Below(6)) {
            case 0:
                return Below(3);
            case 1:
                return 512;
            case 2:
                return Below(65600) | (Below(2) ? kEnd : 0);
            case 3:
                return static_cast<uint32_t>(random());
            case 4:
                return Below(64) * 8;
            default:
                return AnyAddress();
        }
    }
    // Words that may stand for records and lists, in both byte orders.
    void FillRoom()
    {
        for (size_t i = 0; i < 4096; i += 4) {
            uint32_t word = AnyNumber();
            if (Below(2)) {
                word = __builtin_bswap32(word);
            }
            memcpy(room + i, &word, 4);
        }
    }

    std::mt19937 random{12345};
    uint8_t* room;
};

TEST_F(Random, Requests)
{
    constexpr uint32_t kKnown[] = {
        kBlkMount,   kZelGetParams, kZelDeviceParams, kZelStatus,    kZelProtect,
        kZelWrite,   kZelRead,      kZelIdentify,     kZelSeqWrite,  kZelFsWrite,
        kZelRmw,     kZelReset,     kZelCommandWrite, kZelSetParams, kMivoStatus,
        kMivoParams, kMivoCid,      kMivoSdStatus,    kMivoRead,     kMivoWrite,
        kMivoRmw,    kMivoFsWrite,  kMivoAltWrite,    kMivoReset,    kMivoCommandWrite,
        kMivoMount,  kRicohCsd,     kRicohSdStatus,   kRicohSize,    0x8014EC14,
        0xC008EC18,  0x4001EC1E,    0x2000EC0A,       0x8004EC15};
    const Fd nodes[] = {Fd("/dev/spda", O_RDWR), Fd("/dev/spdra", O_RDWR),
                        Fd("/dev/rtctrl_zel", O_RDWR), Fd("/dev/mivosdif0", O_RDWR),
                        Fd("/dev/sdcarda", O_RDWR)};
    unsigned accepted = 0;
    for (int i = 0; i < 30000; i++) {
        if (i % 16 == 0) {
            FillRoom();
        }
        if (i % 1000 == 0) {
            Put("zel0", "latency_us", i % 2000 == 0 ? "0" : "50");
            Put("mivo0", "latency_us", i % 2000 == 0 ? "50" : "0");
        }
        const Fd& node = nodes[Below(5)];
        const uint32_t request =
            Below(20) ? kKnown[Below(std::size(kKnown))] : static_cast<uint32_t>(random());
        const uintptr_t argument = Below(3) ? Address(room) + Below(1024) * 4 : AnyAddress();
        accepted += Ask(node, request, argument) >= 0;
        if (Below(4) == 0) {
            Events(node, 0);
        }
    }
    EXPECT_LT(1000u, accepted);
}

// Records that are nearly right get further.
TEST_F(Random, Lists)
{
    const Fd nodes[] = {Fd("/dev/spdra", O_RDWR), Fd("/dev/mivosdif0", O_RDWR)};
    unsigned accepted = 0;
    for (int i = 0; i < 20000; i++) {
        if (i % 1000 == 0) {
            Put("zel0", "latency_us", i % 2000 == 0 ? "0" : "50");
            Put("mivo0", "latency_us", i % 2000 == 0 ? "50" : "0");
        }
        List list;
        uint32_t total = 0;
        const uint32_t pieces = Below(6);
        for (uint32_t piece = 0; piece < pieces; piece++) {
            const bool last = piece + 1 == pieces;
            uint32_t length = 1 + Below(3000);
            if (last) {
                length += (512 - (total + length) % 512) % 512;
            }
            total += length;
            list.Add(Below(8) ? Address(room) + Below(kRoom - 4096) : AnyAddress(),
                     length | (last ? kEnd : 0));
        }
        const uint32_t record[] = {Below(270), total / 512, list.address(), list.size()};
        const unsigned which = Below(2);
        const uint32_t requests[2][2] = {{kZelRead, kZelWrite}, {kMivoRead, kMivoWrite}};
        const int result = Ask(nodes[which], requests[which][Below(2)], record);
        accepted += result == 0;
        if (result == -EBUSY || Below(4) == 0) {
            Events(nodes[which], 10);
        }
    }
    EXPECT_LT(1000u, accepted);
}

TEST_F(Random, ControlLines)
{
    const std::string words[] = {"call=ioctl",
                                 "call=poll",
                                 "call=open",
                                 "call=read",
                                 "call=write",
                                 "errno=EIO",
                                 "errno=5",
                                 "result=1",
                                 "revents=0x8",
                                 "never",
                                 "reach",
                                 "eject",
                                 "protect",
                                 "times=2",
                                 "first=3",
                                 "request=0x2000700d",
                                 "node=block",
                                 "node=char",
                                 "times=forever",
                                 "clear",
                                 "call=transfer-end",
                                 "=",
                                 "exchange=/dev/null",
                                 "\n",
                                 "errno=99999999999",
                                 "first=-1",
                                 "\t",
                                 std::string(300, 'a')};
    const char* const places[] = {"zel0", "mivo0", "ricoh", "rtctrl"};
    const char* const files[] = {"faults", "latency_us", "cid",       "sd_status",
                                 "state",  "trace",      "protected", "insert"};
    const Fd node("/dev/spdra", O_RDWR);
    for (int i = 0; i < 5000; i++) {
        std::string line;
        for (uint32_t word = Below(5); word > 0; word--) {
            line += words[Below(std::size(words))] + " ";
        }
        const char* place = places[Below(std::size(places))];
        Put(place, Below(2) ? "faults" : files[Below(std::size(files))], line);
        if (Below(8) == 0) {
            Direct(node, kZelRead, 0, room, 1 + Below(100));
            Events(node, 0);
            Get(place, files[Below(std::size(files))]);
        }
        if (Below(50) == 0) {
            Put("zel0", "faults", "clear");
            Insert("zel0", Pattern(256, 3));
        }
    }
    for (const char* place : places) {
        Put(place, "faults", "clear");
    }
    ASSERT_EQ(0, Insert("zel0", Pattern(256, 3)));
    ASSERT_EQ(0, Put("zel0", "latency_us", "0"));
    Ask(node, kZelReset);
    ASSERT_EQ(0, Direct(node, kZelRead, 7, room, 1));
    EXPECT_EQ(Slice(Pattern(256, 3), 7, 1), Bytes(room, room + 512));
}

}  // namespace
}  // namespace board
