// SPDX-License-Identifier: MIT
//
// Every request of the drivers that moves no data, and their nodes.
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "tests/board/driver_nodes.h"

namespace board {
namespace {

constexpr uint32_t kSectors = 64;

void ExpectNode(const std::string& path, mode_t type, unsigned major, unsigned minor)
{
    struct stat64 node = {};
    ASSERT_EQ(0, stat64(path.c_str(), &node)) << path;
    EXPECT_EQ(type, node.st_mode & S_IFMT) << path;
    EXPECT_EQ(major, gnu_dev_major(node.st_rdev)) << path;
    EXPECT_EQ(minor, gnu_dev_minor(node.st_rdev)) << path;
}

class Requests : public Places {};

TEST_F(Requests, NodesAreThereWithoutCards)
{
    for (unsigned i = 0; i < 6; i++) {
        const char letter = static_cast<char>('a' + i);
        ExpectNode(std::string("/dev/spd") + letter, S_IFBLK, 240, 16 * i + 1);
        ExpectNode(std::string("/dev/spdr") + letter, S_IFCHR, 241, i);
    }
    ExpectNode("/dev/rtctrl_zel", S_IFCHR, 242, 0);
    ExpectNode("/dev/mivosdif0", S_IFCHR, 248, 0);
    ExpectNode("/dev/mivosdif1", S_IFCHR, 248, 1);
    ExpectNode("/dev/sdcarda", S_IFBLK, 244, 1);
}

TEST_F(Requests, EmptyPlacesSaySo)
{
    for (const int flags : {O_RDONLY, O_RDWR, O_RDWR | O_SYNC}) {
        EXPECT_EQ(-ENOMEDIUM, OpenOutcome("/dev/spda", flags));
        EXPECT_EQ(-ENOMEDIUM, OpenOutcome("/dev/sdcarda", flags));
    }
    const Fd zel("/dev/spdra", O_RDWR);
    uint8_t block[512];
    for (const uint32_t request : {kZelProtect, kZelIdentify, kZelRead, kZelWrite, kZelRmw}) {
        EXPECT_EQ(-ENODEV, Ask(zel, request, block)) << request;
    }
    const Fd mivo("/dev/mivosdif0", O_RDWR);
    for (const uint32_t request :
         {kMivoMount, kMivoProtect, kMivoParams, kMivoCid, kMivoRead, kMivoWrite, kMivoRmw}) {
        EXPECT_EQ(-ENODEV, Ask(mivo, request, block)) << request;
    }
    EXPECT_EQ(-ENXIO, Outcome(read(mivo.get(), block, 512)));
    EXPECT_EQ(-ENXIO, Outcome(write(mivo.get(), block, 512)));
    EXPECT_EQ(-EINVAL, Outcome(static_cast<ssize_t>(lseek64(mivo.get(), 1, SEEK_SET))));
    for (const char* file : {"cid", "csd", "scr", "sd_status", "protected", "media"}) {
        EXPECT_EQ("errno " + std::to_string(ENOMEDIUM), Get("zel0", file)) << file;
    }
}

TEST_F(Requests, ZelSlotsAndTheirStatus)
{
    const Fd node("/dev/spdrb", O_RDWR);
    uint8_t status[4] = {9, 9, 9, 9};
    ASSERT_EQ(0, Insert("zel0", Pattern(kSectors, 0)));
    ASSERT_EQ(0, Insert("zel3", Pattern(kSectors, 0)));
    ASSERT_EQ(0, Ask(node, kZelStatus, status));
    EXPECT_EQ(0x09, status[2]);
    EXPECT_EQ(0x09, status[1] & 0x09);
    const Fd block("/dev/spda", O_RDWR);
    ASSERT_EQ(0, Ask(block, kBlkMount));
    ASSERT_EQ(0, Ask(node, kZelStatus, status));
    EXPECT_EQ(0x08, status[1] & 0x09);
    ASSERT_EQ(0, Put("zel0", "eject", "1"));
    ASSERT_EQ(0, Ask(node, kZelStatus, status));
    EXPECT_EQ(0x08, status[2]);
    EXPECT_EQ(0x09, status[1] & 0x09);
}

TEST_F(Requests, ZelBlockNode)
{
    ASSERT_EQ(0, Insert("zel2", Pattern(kSectors, 0)));
    ASSERT_EQ(0, Put("zel2", "cid", "000102030405060708090a0b0c0d0e0f"));
    const Fd node("/dev/spdc", O_RDWR);
    uint32_t sectors = 0;
    ASSERT_EQ(0, Ask(node, kBlkGetSize, &sectors));
    EXPECT_EQ(kSectors, sectors);
    Bytes answer(540, 0xA5);
    uint32_t request[] = {48, Address(answer.data())};
    ASSERT_EQ(0, Ask(node, kZelGetParams, request));
    for (uint8_t i = 0; i < 16; i++) {
        EXPECT_EQ(i, answer[24u + i]);
    }
    EXPECT_EQ(0xA5, answer[536]);
    for (const uint32_t item : {33u, 52u, 60u}) {
        request[0] = item;
        EXPECT_EQ(0, Ask(node, kZelGetParams, request)) << item;
    }
    request[0] = 34;
    EXPECT_EQ(-EINVAL, Ask(node, kZelGetParams, request));
    uint32_t words[10] = {};
    words[9] = 77;
    ASSERT_EQ(0, Ask(node, kZelDeviceParams, words));
    EXPECT_EQ(kSectors, words[0]);
    EXPECT_EQ(512u, words[1]);
    EXPECT_EQ(77u, words[9]);
    const std::pair<uint32_t, const char*> commands[] = {
        {0x2000701B, "2"}, {0x2000701C, "3"}, {0x2000702B, "4"}};
    for (const auto& [number, name] : commands) {
        ASSERT_EQ(0, Ask(node, number, uintptr_t{number}));
        EXPECT_EQ(name, State("zel2", "last_command"));
        EXPECT_EQ(number, std::stoul(State("zel2", "command_word"), nullptr, 16));
    }
    EXPECT_EQ(-ENOTTY, Ask(node, kZelRead));
    EXPECT_EQ(-ENOTTY, Ask(node, 0x12345678));
}

TEST_F(Requests, ZelCharacterNode)
{
    ASSERT_EQ(0, Insert("zel2", Pattern(kSectors, 0)));
    const Fd node("/dev/spdrc", O_RDWR);
    EXPECT_EQ(0, Ask(node, kZelProtect));
    ASSERT_EQ(0, Put("zel2", "protected", "1"));
    EXPECT_EQ(1, Ask(node, kZelProtect));
    uint8_t block[513];
    block[512] = 0x77;
    ASSERT_EQ(0, Ask(node, kZelIdentify, block));
    EXPECT_EQ(0x40, block[271]);
    EXPECT_EQ(0x77, block[512]);
    ASSERT_EQ(0, Put("zel2", "state", "version 0x3f"));
    ASSERT_EQ(0, Ask(node, kZelIdentify, block));
    EXPECT_EQ(0x3F, block[271]);
    ASSERT_EQ(0, Put("zel2", "state", "version 0x40"));
    const uint32_t params[] = {0, 0, 8192};
    ASSERT_EQ(0, Ask(node, kZelSetParams, params));
    EXPECT_EQ("8192", State("zel2", "data_start"));
    const unsigned long resets = std::stoul(State("zel2", "resets"));
    ASSERT_EQ(0, Ask(node, kZelReset));
    EXPECT_EQ(std::to_string(resets + 1), State("zel2", "resets"));
    EXPECT_EQ(-ENOTTY, Ask(node, kBlkMount));
    EXPECT_EQ(-EINVAL, Outcome(read(node.get(), block, 1)));
    EXPECT_EQ(-EINVAL, Outcome(write(node.get(), block, 1)));
    EXPECT_EQ(-ESPIPE, Outcome(static_cast<ssize_t>(lseek64(node.get(), 0, SEEK_SET))));
}

TEST_F(Requests, RealTimeControl)
{
    const Fd node("/dev/rtctrl_zel", O_RDWR);
    ASSERT_EQ(0, Put("rtctrl", "state", "rt_status 3"));
    ASSERT_EQ(0, Put("rtctrl", "state", "delay_status 4"));
    ASSERT_EQ(0, Put("rtctrl", "state", "on_for_wait 255"));
    ASSERT_EQ(0, Put("rtctrl", "state", "answer 0x01020304"));
    EXPECT_EQ(-EINVAL, Put("rtctrl", "state", "rt_status 256"));
    EXPECT_EQ(-EINVAL, Put("rtctrl", "state", "nothing 1"));
    EXPECT_EQ(-EINVAL, Put("rtctrl", "state", "rt_status"));
    uint8_t byte = 0;
    EXPECT_EQ(0, Ask(node, 0x4001EC1E, &byte));
    EXPECT_EQ(3, byte);
    EXPECT_EQ(0, Ask(node, 0x4001EC1F, &byte));
    EXPECT_EQ(4, byte);
    EXPECT_EQ(0, Ask(node, 0x4001EC20, &byte));
    EXPECT_EQ(255, byte);
    const int locks = std::stoi(State("rtctrl", "locks"));
    EXPECT_EQ(0, Ask(node, 0x2000EC0A));
    EXPECT_EQ(std::to_string(locks + 1), State("rtctrl", "locks"));
    EXPECT_EQ(0, Ask(node, 0x2000EC0B));
    EXPECT_EQ(std::to_string(locks), State("rtctrl", "locks"));
    const uint32_t record[5] = {17, 2, 3, 4, 5};
    EXPECT_EQ(0, Ask(node, 0x8014EC14, record));
    EXPECT_EQ("17", State("rtctrl", "channel"));
    EXPECT_EQ("0000001100000002000000030000000400000005", State("rtctrl", "record"));
    uint32_t words[2] = {33, 0};
    EXPECT_EQ(0, Ask(node, 0xC008EC18, words));
    EXPECT_EQ("33", State("rtctrl", "channel"));
    EXPECT_EQ(0x01020304u, words[1]);
    EXPECT_EQ(0, Ask(node, 0x8004EC15, uintptr_t{49}));
    EXPECT_EQ("49", State("rtctrl", "channel"));
    EXPECT_EQ(0, Ask(node, 0x8004EC1B, uintptr_t{65}));
    EXPECT_EQ("65", State("rtctrl", "channel"));
    EXPECT_EQ(-ENOTTY, Ask(node, 0x8004EC1C));
    EXPECT_EQ(-EINVAL, Outcome(read(node.get(), &byte, 1)));
}

TEST_F(Requests, MivoUnits)
{
    ASSERT_EQ(0, Insert("mivo1", Pattern(kSectors, 5)));
    ASSERT_EQ(0, Put("mivo1", "csd", "101112131415161718191a1b1c1d1e1f"));
    const Fd node("/dev/mivosdif1", O_RDWR);
    EXPECT_EQ(0, Ask(node, kMivoMount));
    EXPECT_EQ("1", State("mivo1", "mounted"));
    uint8_t status[6] = {};
    EXPECT_EQ(0, Ask(node, kMivoStatus, status));
    EXPECT_EQ(2, status[3]);
    uint8_t answer[64] = {};
    EXPECT_EQ(0, Ask(node, kMivoCsd, answer));
    EXPECT_EQ(0x10, answer[0]);
    EXPECT_EQ(0x1F, answer[15]);
    EXPECT_EQ(0, answer[16]);
    EXPECT_EQ(0, Ask(node, kMivoCid, answer));
    EXPECT_EQ(0, Ask(node, kMivoScr, answer));
    EXPECT_EQ(0, Ask(node, kMivoSdStatus, answer));
    uint32_t params[12] = {};
    EXPECT_EQ(0, Ask(node, kMivoParams, params));
    EXPECT_EQ(kSectors, params[8]);
    EXPECT_EQ(0, Ask(node, kMivoProtect));
    EXPECT_EQ(0, Ask(node, kMivoCommand2, uintptr_t{0x1234}));
    EXPECT_EQ("0x00001234", State("mivo1", "command_word"));
    EXPECT_EQ(0, Ask(node, kMivoUnmount));
    EXPECT_EQ("0", State("mivo1", "mounted"));
    EXPECT_EQ(-ENOTTY, Ask(node, kZelRead));
}

TEST_F(Requests, MivoReadsAndWritesPlainly)
{
    const Bytes content = Pattern(kSectors, 5);
    ASSERT_EQ(0, Insert("mivo0", content));
    const Fd node("/dev/mivosdif0", O_RDWR);
    Bytes bytes(8 * 512);
    EXPECT_EQ(4096, Outcome(static_cast<ssize_t>(lseek64(node.get(), 4096, SEEK_SET))));
    EXPECT_EQ(4096, Outcome(read(node.get(), bytes.data(), 4096)));
    EXPECT_EQ(Slice(content, 8, 8), bytes);
    const Bytes written = Pattern(8, 77);
    EXPECT_EQ(4096, Outcome(pwrite64(node.get(), written.data(), 4096, 512)));
    EXPECT_EQ(written, OnCard("mivo0", 1, 8));
    // At the end.
    const off64_t last = (kSectors - 1) * 512;
    EXPECT_EQ(512, Outcome(pread64(node.get(), bytes.data(), 4096, last)));
    EXPECT_EQ(512, Outcome(pwrite64(node.get(), bytes.data(), 4096, last)));
    EXPECT_EQ(0, Outcome(pread64(node.get(), bytes.data(), 4096, last + 512)));
    EXPECT_EQ(-ENOSPC, Outcome(pwrite64(node.get(), bytes.data(), 4096, last + 512)));
    EXPECT_EQ(-EINVAL, Outcome(static_cast<ssize_t>(lseek64(node.get(), last + 513, SEEK_SET))));
    auto* kernel = reinterpret_cast<void*>(uintptr_t{0xC0000000});
    EXPECT_EQ(-EFAULT, Outcome(pread64(node.get(), kernel, 512, 0)));
    EXPECT_EQ(-EFAULT, Outcome(pwrite64(node.get(), kernel, 512, 0)));
    ASSERT_EQ(0, Put("mivo0", "protected", "1"));
    EXPECT_EQ(-EROFS, Outcome(pwrite64(node.get(), bytes.data(), 512, 0)));
}

TEST_F(Requests, RicohHost)
{
    ASSERT_EQ(0, Insert("ricoh", Pattern(kSectors, 5)));
    const Fd node("/dev/sdcarda", O_RDWR | O_SYNC);
    uint8_t answer[64] = {};
    EXPECT_EQ(0, Ask(node, kRicohCsd, answer));
    EXPECT_EQ(0x3F, answer[0]);
    EXPECT_EQ(0, Ask(node, kRicohCid, answer));
    EXPECT_EQ('C', answer[1]);
    EXPECT_EQ(0, Ask(node, kRicohSdStatus, answer));
    EXPECT_EQ(0x80, answer[0]);
    uint32_t sectors = 0;
    EXPECT_EQ(0, Ask(node, kRicohSize, &sectors));
    EXPECT_EQ(kSectors, sectors);
    EXPECT_EQ(-ENOTTY, Ask(node, kZelDeviceParams));
    ASSERT_EQ(0, Put("ricoh", "eject", "1"));
    EXPECT_EQ(-ENODEV, Ask(node, kRicohSize, &sectors));
}

TEST_F(Requests, BadAddresses)
{
    ASSERT_EQ(0, Insert("zel0", Pattern(kSectors, 5)));
    ASSERT_EQ(0, Insert("mivo0", Pattern(kSectors, 5)));
    ASSERT_EQ(0, Insert("ricoh", Pattern(kSectors, 5)));
    const Fd block("/dev/spda", O_RDWR);
    const Fd character("/dev/spdra", O_RDWR);
    const Fd control("/dev/rtctrl_zel", O_RDWR);
    const Fd mivo("/dev/mivosdif0", O_RDWR);
    const Fd ricoh("/dev/sdcarda", O_RDWR | O_SYNC);
    // None, unaligned, the kernel's, and one where only the first byte is the program's.
    Bytes room(8192);
    const uintptr_t edge = 0xBFFFFFFF;
    for (const uintptr_t bad : {uintptr_t{0}, uintptr_t{3}, uintptr_t{0xC0000000},
                                uintptr_t{0xFFFFFFFF}, uintptr_t{0xFFFFF000}, edge}) {
        SCOPED_TRACE(bad);
        for (const uint32_t request : {kZelGetParams, kZelDeviceParams}) {
            EXPECT_EQ(-EFAULT, Ask(block, request, bad)) << request;
        }
        for (const uint32_t request : {kZelStatus, kZelIdentify, kZelSetParams, kZelRead, kZelWrite,
                                       kZelSeqWrite, kZelRmw, kZelFsWrite, kZelCommandWrite}) {
            EXPECT_EQ(-EFAULT, Ask(character, request, bad)) << request;
        }
        for (const uint32_t request :
             {0x4001EC1Eu, 0x4001EC1Fu, 0x4001EC20u, 0x8014EC14u, 0xC008EC18u}) {
            EXPECT_EQ(-EFAULT, Ask(control, request, bad)) << request;
        }
        for (const uint32_t request :
             {kMivoStatus, kMivoParams, kMivoCid, kMivoCsd, kMivoScr, kMivoSdStatus, kMivoRead,
              kMivoWrite, kMivoAltWrite, kMivoRmw, kMivoFsWrite, kMivoCommandWrite}) {
            EXPECT_EQ(-EFAULT, Ask(mivo, request, bad)) << request;
        }
        for (const uint32_t request : {kRicohSdStatus, kRicohSize, kRicohCid, kRicohCsd}) {
            EXPECT_EQ(-EFAULT, Ask(ricoh, request, bad)) << request;
        }
    }
    // A good record that leads nowhere, and records at odd addresses.
    const uint32_t params[] = {48, 0xC0000000};
    EXPECT_EQ(-EFAULT, Ask(block, kZelGetParams, params));
    const uint32_t good[] = {48, Address(room.data() + 1)};
    memcpy(room.data() + 4097, good, sizeof good);
    EXPECT_EQ(0, Ask(block, kZelGetParams, room.data() + 4097));
    EXPECT_EQ(0, Ask(character, kZelIdentify, room.data() + 3));
}

TEST_F(Requests, UnknownNumbersOfEveryKind)
{
    ASSERT_EQ(0, Insert("zel0", Pattern(kSectors, 5)));
    ASSERT_EQ(0, Insert("mivo0", Pattern(kSectors, 5)));
    const Fd block("/dev/spda", O_RDWR);
    const Fd character("/dev/spdra", O_RDWR);
    const Fd control("/dev/rtctrl_zel", O_RDWR);
    const Fd mivo("/dev/mivosdif0", O_RDWR);
    // The right number with another direction or size is another request.
    for (const uint32_t known : {kZelIdentify, kZelRead, kMivoRead, kMivoCid, 0x8014EC14u}) {
        for (const uint32_t flip : {0x80000000u, 0x20000000u, 0x00010000u, 0x10000000u}) {
            EXPECT_EQ(-ENOTTY, Ask(block, known ^ flip));
            EXPECT_EQ(-ENOTTY, Ask(character, known ^ flip));
            EXPECT_EQ(-ENOTTY, Ask(control, known ^ flip));
            EXPECT_EQ(-ENOTTY, Ask(mivo, known ^ flip));
        }
    }
}

// --- control files ----------------------------------------------------------------

TEST_F(Requests, ImagesThatAreNone)
{
    EXPECT_EQ(-ENOENT, Put("zel0", "insert", "/tmp/there/is/none"));
    EXPECT_EQ(-EINVAL, Put("zel0", "insert", "/tmp"));
    EXPECT_EQ(-EINVAL, Put("zel0", "insert", "/dev/null"));
    EXPECT_EQ(-EINVAL, Insert("zel0", Bytes(511)));
    EXPECT_EQ(-EINVAL, Insert("zel0", {}));
    const std::string large = ImageFile({});
    ASSERT_EQ(0, truncate64(large.c_str(), (256 << 20) + 512));
    EXPECT_EQ(-EFBIG, Put("zel0", "insert", large));
    // As large as a card may be, but larger than this board.
    ASSERT_EQ(0, truncate64(large.c_str(), 256 << 20));
    EXPECT_EQ(-ENOMEM, Put("zel0", "insert", large));
    unlink(large.c_str());
    EXPECT_EQ("0", State("zel0", "sectors"));
    EXPECT_EQ(0, Insert("zel0", Bytes(512)));
    EXPECT_EQ("1", State("zel0", "sectors"));
}

TEST_F(Requests, RegistersAndSectorsFromOutside)
{
    const Bytes content = Pattern(kSectors, 9);
    ASSERT_EQ(0, Insert("mivo0", content));
    EXPECT_EQ(0, Put("mivo0", "scr", "0123456789abcdef\n"));
    EXPECT_EQ("0123456789abcdef\n", Get("mivo0", "scr"));
    EXPECT_EQ(-EINVAL, Put("mivo0", "scr", "0123456789abcde"));
    EXPECT_EQ(-EINVAL, Put("mivo0", "scr", "0123456789abcdeg"));
    EXPECT_EQ(0, Put("mivo0", "sd_status", std::string(128, 'e')));
    EXPECT_EQ(std::string(128, 'e') + "\n", Get("mivo0", "sd_status"));
    EXPECT_EQ(content, OnCard("mivo0", 0, kSectors));
    const Fd media(Control("mivo0", "media"), O_RDWR);
    EXPECT_EQ(2, Outcome(pwrite64(media.get(), "xy", 2, 1000)));
    EXPECT_EQ('x', OnCard("mivo0", 1, 1)[488]);
    EXPECT_EQ(-ENOSPC, Outcome(pwrite64(media.get(), "xy", 2, kSectors * 512)));
    EXPECT_EQ(0, Put("mivo0", "latency_us", "0"));
    EXPECT_EQ("0\n", Get("mivo0", "latency_us"));
    for (const char* bad : {"-1", "10000001", "x", ""}) {
        EXPECT_NE(0, Put("mivo0", "latency_us", bad)) << bad;
    }
}

// What is on a card that was pulled out can still be seen by who had its file open.
TEST_F(Requests, AnOpenMediaFileStaysWithItsCard)
{
    const Bytes first = Pattern(kSectors, 9);
    const Bytes second = Pattern(kSectors, 10);
    for (const char* place : {"zel0", "mivo0", "ricoh"}) {
        ASSERT_EQ(0, Insert(place, first));
        const Fd media(Control(place, "media"), O_RDWR);
        Bytes seen(first.size());
        ASSERT_EQ(0, Put(place, "eject", "1"));
        EXPECT_EQ("errno " + std::to_string(ENOMEDIUM), Get(place, "media"));
        EXPECT_EQ(static_cast<int>(seen.size()),
                  Outcome(pread64(media.get(), seen.data(), seen.size(), 0)));
        EXPECT_EQ(first, seen) << place;
        ASSERT_EQ(0, Insert(place, second));
        EXPECT_EQ(2, Outcome(pwrite64(media.get(), "xy", 2, 0)));
        EXPECT_EQ(static_cast<int>(seen.size()),
                  Outcome(pread64(media.get(), seen.data(), seen.size(), 0)));
        EXPECT_EQ('x', seen[0]) << place;
        EXPECT_EQ(second, OnCard(place, 0, kSectors)) << place;
    }
}

TEST_F(Requests, CountsOpenFiles)
{
    ASSERT_EQ(0, Insert("zel0", Pattern(kSectors, 9)));
    const unsigned long opens = std::stoul(State("zel0", "opens"));
    {
        const Fd block("/dev/spda", O_RDWR);
        const Fd node("/dev/spdra", O_RDWR);
        const Fd again("/dev/spdra", O_RDWR);
        ASSERT_EQ(0, Put("zel0", "faults", "call=open errno=EIO times=2"));
        EXPECT_EQ(-EIO, OpenOutcome("/dev/spda", O_RDWR));
        EXPECT_EQ(-EIO, OpenOutcome("/dev/spdra", O_RDWR));
        EXPECT_EQ("3", State("zel0", "open"));
    }
    EXPECT_EQ("0", State("zel0", "open"));
    EXPECT_EQ(std::to_string(opens + 3), State("zel0", "opens"));
}

TEST_F(Requests, RecordOfCalls)
{
    ASSERT_EQ(0, Insert("zel0", Pattern(kSectors, 9)));
    {
        const Fd block("/dev/spda", O_RDWR);
        const Fd node("/dev/spdra", O_RDWR);
        Ask(block, kBlkMount);
        Ask(node, kZelProtect);
        Ask(node, 0x1234);
        EXPECT_EQ(-1, Events(node, 1));
    }
    const std::string expected =
        "/dev/spda open = 0\n"
        "/dev/spdra open = 0\n"
        "/dev/spda ioctl 0x2000bc0a = 0\n"
        "/dev/spdra ioctl 0x20007008 = 0\n"
        "/dev/spdra ioctl 0x00001234 = -25\n"
        "/dev/spdra poll = 0x0\n"
        "/dev/spdra close = 0\n"
        "/dev/spda close = 0\n";
    EXPECT_EQ(expected, Trace("zel0"));
    ASSERT_EQ(0, Put("zel0", "trace", "clear"));
    EXPECT_EQ("", Get("zel0", "trace"));
    ASSERT_EQ(0, Put("zel0", "trace", "off"));
    const Fd node("/dev/spdra", O_RDWR);
    EXPECT_EQ("", Get("zel0", "trace"));
    ASSERT_EQ(0, Put("zel0", "trace", "clear"));
    for (int i = 0; i < 5000; i++) {
        Ask(node, kZelProtect);
    }
    EXPECT_EQ(0u, Get("zel0", "trace").find("904 lines lost\n"));
}

}  // namespace
}  // namespace board
