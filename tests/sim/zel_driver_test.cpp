// SPDX-License-Identifier: MIT
//
// The stand-in's Zel driver as a program sees it, without the library in between:
// every request byte by byte, by the numbers of the driver's own side.
#include "sim/zel_driver.h"

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "sim/low_memory.h"

namespace {

using cardsim::Card;
using cardsim::LowBuffer;

using Bytes = std::vector<uint8_t>;

constexpr unsigned kUnit = 3;
constexpr uint32_t kSectors = 1024;
constexpr uint32_t kEnd = 0x80000000;

// On the block node.
constexpr uint32_t kGetSize = 0x20001260;
constexpr uint32_t kMount = 0x2000BC0A;
constexpr uint32_t kGetParams = 0x20007005;
constexpr uint32_t kGetDeviceParams = 0x20007013;
// On the character node.
constexpr uint32_t kGetStatus = 0x20007001;
constexpr uint32_t kGetProtect = 0x20007008;
constexpr uint32_t kWrite = 0x2000700C;
constexpr uint32_t kRead = 0x2000700D;
constexpr uint32_t kIdentify = 0x20007016;
constexpr uint32_t kSeqWrite = 0x20007018;
constexpr uint32_t kFsmiWrite = 0x2000701D;
constexpr uint32_t kSdCmdWrite = 0x2000701E;
constexpr uint32_t kSetParams = 0x20007029;
constexpr uint32_t kRmw = 0x2000702A;
constexpr uint32_t kReset = 0x20007032;
// On the control node.
constexpr uint32_t kLock = 0x2000EC0A;
constexpr uint32_t kUnlock = 0x2000EC0B;

Bytes Pattern(uint32_t sectors, uint32_t seed)
{
    Bytes bytes(size_t{sectors} * 512);
    for (size_t i = 0; i < bytes.size(); i++) {
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 512 * 31);
    }
    return bytes;
}

// What a call comes to: its result, or its errno as the kernel has it.
int Outcome(int result)
{
    return result == -1 ? -errno : result;
}

class ZelDriver : public testing::Test {
protected:
    ~ZelDriver() override
    {
        for (const int fd : {block, character, control}) {
            close(fd);
        }
        EXPECT_EQ(0u, kernel.OpenFiles());
    }

    static std::shared_ptr<cardsim::ZelSlots> SlotsWith(cardsim::Kernel& kernel,
                                                        const std::shared_ptr<Card>& card)
    {
        std::shared_ptr<cardsim::ZelSlots> slots = cardsim::ZelSlots::Create(kernel);
        slots->Insert(kUnit, card);
        return slots;
    }

    static int OpenNode(const std::string& path)
    {
        const int fd = open64(path.c_str(), O_RDWR);
        EXPECT_GE(fd, 0) << path;
        return fd;
    }

    static int Ask(int fd, uint32_t request, const void* argument)
    {
        return Outcome(ioctl(fd, request, argument));
    }
    static int Ask(int fd, uint32_t request, uintptr_t argument = 0)
    {
        return Outcome(ioctl(fd, request, argument));
    }

    // Events on the character node; none after no time at all.
    short Events() const
    {
        pollfd asked = {character, POLLIN | POLLOUT | POLLERR | POLLHUP, 0};
        EXPECT_LE(0, poll(&asked, 1, 0));
        return asked.revents;
    }

    // A scatter-gather list of one piece, in low memory.
    uint32_t OnePiece(uint32_t address, uint32_t length)
    {
        const uint32_t words[] = {address, length | kEnd};
        uint8_t* to = list.data();
        for (const uint32_t word : words) {
            for (int shift = 0; shift < 32; shift += 8) {
                *to++ = static_cast<uint8_t>(word >> shift);
            }
        }
        return list.address();
    }

    // One of the requests that take a direct record.
    int Direct(uint32_t request, uint32_t sector, uint32_t sectors)
    {
        const uint32_t record[] = {sector, sectors, OnePiece(memory.address(), sectors * 512), 8};
        return Ask(character, request, record);
    }

    Bytes OnCard(uint32_t first, uint32_t sectors)
    {
        Bytes bytes(size_t{sectors} * 512);
        EXPECT_EQ(
            static_cast<int64_t>(bytes.size()),
            sim_card_read(&card->model(), uint64_t{first} * 512, bytes.data(), sectors * 512));
        return bytes;
    }

    sim_zel State()
    {
        sim_zel state;
        slots->With([&](sim_zel& zel) { state = zel; });
        return state;
    }

    std::shared_ptr<Card> card = Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    std::shared_ptr<cardsim::ZelSlots> slots = SlotsWith(kernel, card);
    LowBuffer memory{size_t{64} * 512};
    LowBuffer list{64};
    const int block = OpenNode("/dev/spdd");
    const int character = OpenNode("/dev/spdrd");
    const int control = OpenNode("/dev/rtctrl_zel");
};

// --- nodes --------------------------------------------------------------------------

TEST_F(ZelDriver, NamesAndNumbersItsNodes)
{
    const char* const blocks[] = {"/dev/spda", "/dev/spdb", "/dev/spdc",
                                  "/dev/spdd", "/dev/spde", "/dev/spdf"};
    const char* const characters[] = {"/dev/spdra", "/dev/spdrb", "/dev/spdrc",
                                      "/dev/spdrd", "/dev/spdre", "/dev/spdrf"};
    for (unsigned unit = 0; unit < SIM_ZEL_SLOTS; unit++) {
        EXPECT_EQ(blocks[unit], cardsim::ZelBlockNode(unit));
        EXPECT_EQ(characters[unit], cardsim::ZelCharNode(unit));
        slots->Insert(unit, Card::InMemory(8));
        struct stat64 node = {};
        ASSERT_EQ(0, stat64(blocks[unit], &node));
        EXPECT_TRUE(S_ISBLK(node.st_mode));
        EXPECT_EQ(240u, major(node.st_rdev));
        EXPECT_EQ(16 * unit + 1, minor(node.st_rdev));
        ASSERT_EQ(0, stat64(characters[unit], &node));
        EXPECT_TRUE(S_ISCHR(node.st_mode));
        EXPECT_NE(248u, major(node.st_rdev));
    }
    struct stat64 node = {};
    ASSERT_EQ(0, stat64("/dev/rtctrl_zel", &node));
    EXPECT_TRUE(S_ISCHR(node.st_mode));
}

TEST_F(ZelDriver, HasNodesOnlyForSlotsThatHadACard)
{
    struct stat64 node = {};
    EXPECT_EQ(-1, stat64("/dev/spda", &node));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, stat64("/dev/spdra", &node));
    slots->Eject(kUnit);
    EXPECT_EQ(0, stat64("/dev/spdd", &node));
    EXPECT_EQ(0, stat64("/dev/spdrd", &node));
}

TEST_F(ZelDriver, KnowsEachRequestOnOneNodeOnly)
{
    const uint32_t of_block[] = {kGetSize,   kMount,     kGetParams, kGetDeviceParams,
                                 0x2000701B, 0x2000701C, 0x2000702B};
    const uint32_t of_character[] = {kGetStatus, kGetProtect, kWrite,     kRead,
                                     kIdentify,  kSeqWrite,   kFsmiWrite, kSdCmdWrite,
                                     kSetParams, kRmw,        kReset};
    const uint32_t of_control[] = {kLock,      kUnlock,    0x8014EC14, 0x8004EC15, 0xC008EC18,
                                   0x8004EC1B, 0x4001EC1E, 0x4001EC1F, 0x4001EC20};
    uint8_t record[536] = {};
    for (const uint32_t request : of_block) {
        EXPECT_EQ(-ENOTTY, Ask(character, request, record));
        EXPECT_EQ(-ENOTTY, Ask(control, request, record));
    }
    for (const uint32_t request : of_character) {
        EXPECT_EQ(-ENOTTY, Ask(block, request, record));
        EXPECT_EQ(-ENOTTY, Ask(control, request, record));
    }
    for (const uint32_t request : of_control) {
        EXPECT_EQ(-ENOTTY, Ask(block, request, record));
        EXPECT_EQ(-ENOTTY, Ask(character, request, record));
    }
}

TEST_F(ZelDriver, FaultsOnNull)
{
    for (const uint32_t request : {kGetSize, kGetParams, kGetDeviceParams}) {
        EXPECT_EQ(-EFAULT, Ask(block, request)) << std::hex << request;
    }
    for (const uint32_t request : {kGetStatus, kWrite, kRead, kIdentify, kSeqWrite, kFsmiWrite,
                                   kSdCmdWrite, kSetParams, kRmw}) {
        EXPECT_EQ(-EFAULT, Ask(character, request)) << std::hex << request;
        EXPECT_EQ(0, Events());
    }
    for (const uint32_t request :
         {0x8014EC14u, 0xC008EC18u, 0x4001EC1Eu, 0x4001EC1Fu, 0x4001EC20u}) {
        EXPECT_EQ(-EFAULT, Ask(control, request)) << std::hex << request;
    }
    // Null behind a record.
    const uint32_t params[] = {48, 0};
    EXPECT_EQ(-EFAULT, Ask(block, kGetParams, params));
    const uint32_t no_list[] = {0, 1, 0, 8};
    EXPECT_EQ(-EFAULT, Ask(character, kRead, no_list));
    const uint32_t no_elements[] = {1, 0, 0};
    EXPECT_EQ(-EFAULT, Ask(character, kRmw, no_elements));
    const uint32_t no_data[] = {0, 0};
    EXPECT_EQ(-EFAULT, Ask(character, kSdCmdWrite, no_data));
    const uint32_t no_memory[] = {0, 1, OnePiece(0, 512), 8};
    EXPECT_EQ(-EFAULT, Ask(character, kRead, no_memory));
    EXPECT_EQ(-EFAULT, Ask(character, kWrite, no_memory));
}

// --- the card in its slot ---------------------------------------------------------------

TEST_F(ZelDriver, ShowsSlotsAsBitsOfTwoMasks)
{
    uint8_t status[6];
    const auto masks = [&] {
        memset(status, 0xEE, sizeof status);
        EXPECT_EQ(0, Ask(character, kGetStatus, status));
        EXPECT_EQ(0, status[0]);
        EXPECT_EQ(0, status[3]);
        EXPECT_EQ(0xEE, status[4]);  // four bytes
        return std::pair<int, int>(status[1], status[2]);
    };
    EXPECT_EQ(std::pair(0x08, 0x08), masks());
    ASSERT_EQ(0, Ask(block, kMount));
    EXPECT_EQ(std::pair(0x00, 0x08), masks());
    slots->Insert(0, Card::InMemory(8));
    slots->Insert(5, Card::InMemory(8));
    EXPECT_EQ(std::pair(0x21, 0x29), masks());
    slots->Eject(kUnit);
    EXPECT_EQ(std::pair(0x29, 0x21), masks());
    EXPECT_EQ(-ENODEV, Ask(block, kMount));
    slots->Insert(kUnit, card);
    EXPECT_EQ(std::pair(0x29, 0x29), masks());
    ASSERT_EQ(0, Ask(block, kMount));
    EXPECT_EQ(std::pair(0x21, 0x29), masks());
}

TEST_F(ZelDriver, RefusesAnEmptySlot)
{
    slots->Eject(kUnit);
    uint8_t record[536] = {};
    for (const uint32_t request :
         {kGetSize, kMount, kGetParams, kGetDeviceParams, 0x2000701Bu, 0x12345678u}) {
        EXPECT_EQ(-ENODEV, Ask(block, request, record)) << std::hex << request;
    }
    for (const uint32_t request :
         {kGetProtect, kWrite, kRead, kIdentify, kSeqWrite, kFsmiWrite, kSdCmdWrite, kRmw}) {
        EXPECT_EQ(-ENODEV, Ask(character, request, record)) << std::hex << request;
    }
    EXPECT_EQ(0, Ask(character, kReset));
    EXPECT_EQ(0, Ask(character, kGetStatus, record));
    EXPECT_EQ(-1, read(block, memory.data(), 512));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, write(block, memory.data(), 512));
    EXPECT_EQ(EIO, errno);
}

TEST_F(ZelDriver, ServesTheCardThatIsThereNow)
{
    const std::shared_ptr<Card> other = Card::InMemory(16);
    slots->Insert(kUnit, other);
    uint32_t size = 0;
    ASSERT_EQ(0, Ask(block, kGetSize, &size));
    EXPECT_EQ(16u, size);
    memset(memory.data(), 0x5C, 512);
    ASSERT_EQ(0, Direct(kWrite, 15, 1));
    EXPECT_EQ(-ENOSPC, Direct(kWrite, 16, 1));
    EXPECT_EQ(Bytes(512, 0), OnCard(15, 1));
}

// --- the block node ------------------------------------------------------------------------

TEST_F(ZelDriver, ReadsAndWritesBytesOfTheCard)
{
    const Bytes written = Pattern(3, 4);
    EXPECT_EQ(1000 * 512, lseek64(block, 1000 * 512, SEEK_SET));
    EXPECT_EQ(1536, write(block, written.data(), 1536));
    EXPECT_EQ(written, OnCard(1000, 3));
    EXPECT_EQ(1003 * 512, lseek64(block, 0, SEEK_CUR));
    EXPECT_EQ(1000 * 512, lseek64(block, -1536, SEEK_CUR));
    Bytes got(1536);
    EXPECT_EQ(1536, read(block, got.data(), 1536));
    EXPECT_EQ(written, got);
    EXPECT_EQ(int64_t{kSectors} * 512, lseek64(block, 0, SEEK_END));
    EXPECT_EQ(0, read(block, got.data(), 512));
    EXPECT_EQ(-1, lseek64(block, 1, SEEK_END));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(ZelDriver, AnswersForTheCardsSizeAndParameters)
{
    uint32_t size[2] = {0, 0xEEEEEEEE};
    ASSERT_EQ(0, Ask(block, kGetSize, size));
    EXPECT_EQ(kSectors, size[0]);
    EXPECT_EQ(0xEEEEEEEEu, size[1]);

    uint32_t words[10];
    memset(words, 0xEE, sizeof words);
    ASSERT_EQ(0, Ask(block, kGetDeviceParams, words));
    EXPECT_EQ(kSectors, words[0]);
    EXPECT_EQ(512u, words[1]);
    for (int i = 2; i < 9; i++) {
        EXPECT_EQ(0u, words[i]);
    }
    EXPECT_EQ(0xEEEEEEEEu, words[9]);
}

struct ItemRow {
    uint32_t item;
    const uint8_t* content;
    size_t size;
};

TEST_F(ZelDriver, AnswersWithA536ByteBlockForEachItem)
{
    sim_card& model = card->model();
    for (uint8_t i = 0; i < 64; i++) {
        model.sd_status[i] = static_cast<uint8_t>(0x40 + i);
    }
    for (uint8_t i = 0; i < 16; i++) {
        model.cid[i] = static_cast<uint8_t>(0xA0 + i);
        model.csd[i] = static_cast<uint8_t>(0xC0 + i);
    }
    const LowBuffer answer(540);
    const auto ask = [&](uint32_t item) {
        memset(answer.data(), 0xEE, answer.size());
        const uint32_t record[] = {item, answer.address()};
        return Ask(block, kGetParams, record);
    };
    const ItemRow rows[] = {{48, model.cid, 16}, {52, model.csd, 16}, {60, model.sd_status, 64}};
    for (const ItemRow& row : rows) {
        ASSERT_EQ(0, ask(row.item));
        Bytes expected(536, 0);
        std::copy(row.content, row.content + row.size, expected.begin() + 24);
        expected.resize(540, 0xEE);
        EXPECT_EQ(expected, Bytes(answer.data(), answer.data() + 540));
    }
    ASSERT_EQ(0, ask(33));
    Bytes expected(536, 0);
    expected[148] = 0x48;
    expected[152] = 0x49;
    expected[157] = 0x4C;
    expected[158] = 0x4D;
    expected[163] = 0x04;  // the upper half of byte 10
    expected.resize(540, 0xEE);
    EXPECT_EQ(expected, Bytes(answer.data(), answer.data() + 540));
    for (const uint32_t item : {0u, 32u, 34u, 47u, 49u, 61u, 0xFFFFFFFFu}) {
        EXPECT_EQ(-EINVAL, ask(item));
        EXPECT_EQ(0xEE, answer[0]);
    }
}

TEST_F(ZelDriver, RemembersTheLastCardCommand)
{
    const std::pair<uint32_t, uint32_t> commands[] = {
        {0x2000701B, 2}, {0x2000701C, 3}, {0x2000702B, 4}};
    for (const auto& [request, number] : commands) {
        ASSERT_EQ(0, Ask(block, request, uintptr_t{0x89ABCDE0 + number}));
        EXPECT_EQ(number, State().slot[kUnit].last_command);
        EXPECT_EQ(0x89ABCDE0 + number, State().slot[kUnit].command_word);
        EXPECT_EQ(0u, State().slot[0].last_command);
    }
}

// --- the character node -----------------------------------------------------------------------

TEST_F(ZelDriver, IdentifiesItselfInByte271)
{
    for (const uint8_t version : {uint8_t{0x40}, uint8_t{0x3F}}) {
        uint8_t identity[513];
        memset(identity, 0xEE, sizeof identity);
        slots->With([&](sim_zel& zel) {
            EXPECT_EQ(0x40, zel.slot[0].version);
            zel.slot[kUnit].version = version;
        });
        ASSERT_EQ(0, Ask(character, kIdentify, identity));
        for (size_t i = 0; i < 512; i++) {
            EXPECT_EQ(i == 271 ? version : 0, identity[i]) << i;
        }
        EXPECT_EQ(0xEE, identity[512]);
    }
}

TEST_F(ZelDriver, AnswersForWriteProtectionInItsResult)
{
    EXPECT_EQ(0, Ask(character, kGetProtect));
    card->model().write_protected = true;
    EXPECT_EQ(1, Ask(character, kGetProtect));
}

TEST_F(ZelDriver, TakesTheDataAreasStartFromTheThirdWord)
{
    const uint32_t words[] = {0x11, 0x22, 0x89ABCDEF};
    EXPECT_EQ(0u, State().slot[kUnit].data_start);
    ASSERT_EQ(0, Ask(character, kSetParams, words));
    EXPECT_EQ(0x89ABCDEFu, State().slot[kUnit].data_start);
    EXPECT_EQ(0u, State().slot[0].data_start);
}

TEST_F(ZelDriver, MovesSectorsDirectly)
{
    const Bytes written = Pattern(4, 9);
    for (const uint32_t request : {kWrite, kSeqWrite}) {
        memcpy(memory.data(), written.data(), written.size());
        ASSERT_EQ(0, Direct(request, request & 0xFF, 4));
        EXPECT_EQ(written, OnCard(request & 0xFF, 4));
        memset(memory.data(), 0, written.size());
        ASSERT_EQ(0, Direct(kRead, request & 0xFF, 4));
        EXPECT_EQ(written, Bytes(memory.data(), memory.data() + written.size()));
    }
}

TEST_F(ZelDriver, ChecksTheListOfEveryDirectRequest)
{
    memset(memory.data(), 0x5C, 1024);
    for (const uint32_t request : {kWrite, kSeqWrite, kRead}) {
        for (const uint32_t sectors : {0u, 2u}) {
            const uint32_t record[] = {0, sectors, OnePiece(memory.address(), 512), 8};
            EXPECT_EQ(-EINVAL, Ask(character, request, record));
        }
        const uint32_t record[] = {0, 1, OnePiece(memory.address(), 512), 7};
        EXPECT_EQ(-EINVAL, Ask(character, request, record));
        EXPECT_EQ(0, Events());
    }
    EXPECT_EQ(Bytes(1024, 0), OnCard(0, 2));
    EXPECT_EQ(Bytes(1024, 0x5C), Bytes(memory.data(), memory.data() + 1024));
}

// Elements carry the words of a table entry as they stand there.
TEST_F(ZelDriver, WritesElements)
{
    const Bytes written = Pattern(3, 31);
    memcpy(memory.data(), written.data(), written.size());
    const LowBuffer elements(32);
    const auto put = [&](uint32_t i, uint32_t sector, uint32_t sectors, uint32_t address,
                         uint32_t length) {
        const uint32_t head[] = {sector, sectors};
        memcpy(elements.data() + i * 16, head, 8);
        OnePiece(address, length);
        memcpy(elements.data() + i * 16 + 8, list.data(), 8);
    };
    const auto ask = [&](uint32_t request, uint32_t count) {
        const uint32_t record[] = {count, 0, elements.address()};
        return Ask(character, request, record);
    };
    for (const uint32_t request : {kRmw, kFsmiWrite}) {
        put(0, request & 0xFF, 1, memory.address() + 1024, 512);
        put(1, 200, 4, memory.address(), 1024);  // two sectors of its four
        ASSERT_EQ(0, ask(request, 2));
        EXPECT_EQ(Bytes(written.begin() + 1024, written.end()), OnCard(request & 0xFF, 1));
        EXPECT_EQ(Bytes(written.begin(), written.begin() + 1024), OnCard(200, 2));
        EXPECT_EQ(Bytes(1024, 0), OnCard(202, 2));
        EXPECT_EQ(POLLOUT, Events());
        // Without the end mark all the same.
        elements[15] = 0;
        elements[31] = 0;
        ASSERT_EQ(0, ask(request, 2));
        // None, or fewer.
        ASSERT_EQ(0, ask(request, 0));
        ASSERT_EQ(0, ask(request, 0xFFFFFFFF));
        // More than the driver has room for.
        EXPECT_EQ(-EINVAL, ask(request, SIM_MOST_PIECES + 1));
        EXPECT_EQ(-EINVAL, ask(request, 0x7FFFFFFF));
        ASSERT_EQ(0, ask(request, 0));
        EXPECT_EQ(POLLOUT, Events());
        // More memory than sectors, more than 64 KiB, past the card.
        put(0, 300, 1, memory.address(), 513);
        EXPECT_EQ(-EINVAL, ask(request, 1));
        put(0, 300, 200, memory.address(), 65537);
        EXPECT_EQ(-EINVAL, ask(request, 1));
        put(0, kSectors, 1, memory.address(), 512);
        EXPECT_EQ(-ENOSPC, ask(request, 1));
        EXPECT_EQ(Bytes(512, 0), OnCard(300, 1));
        EXPECT_EQ(0, Events());
    }
}

TEST_F(ZelDriver, WritesAtTheCommandsArgument)
{
    const Bytes written = Pattern(2, 77);
    memcpy(memory.data(), written.data(), written.size());
    const LowBuffer data(16);
    const uint32_t words[] = {600, 2, OnePiece(memory.address(), 1024), 8};
    memcpy(data.data(), words, sizeof words);
    uint8_t record[8] = {0x12, 0x34, 0xEE, 0xEE};
    const uint32_t address = data.address();
    memcpy(record + 4, &address, 4);
    ASSERT_EQ(0, Ask(character, kSdCmdWrite, record));
    EXPECT_EQ(written, OnCard(600, 2));
    EXPECT_EQ(POLLOUT, Events());
}

TEST_F(ZelDriver, TellsTheEndOfATransferOnce)
{
    EXPECT_EQ(0, Events());
    ASSERT_EQ(0, Direct(kWrite, 0, 1));
    EXPECT_EQ(POLLOUT, Events());
    EXPECT_EQ(0, Events());
    // A failed one has no end, and takes an earlier one's away.
    ASSERT_EQ(0, Direct(kRead, 0, 1));
    EXPECT_EQ(-EIO, Direct(kRead, kSectors, 1));
    EXPECT_EQ(0, Events());
    // Nor has anything that moves no data.
    EXPECT_EQ(0, Ask(character, kGetProtect));
    EXPECT_EQ(0, Ask(character, kReset));
    EXPECT_EQ(0, Events());
}

TEST_F(ZelDriver, ForgetsAPendingEndOnReset)
{
    ASSERT_EQ(0, Direct(kWrite, 0, 1));
    EXPECT_EQ(0u, State().slot[kUnit].resets);
    ASSERT_EQ(0, Ask(character, kReset));
    EXPECT_EQ(1u, State().slot[kUnit].resets);
    EXPECT_EQ(0u, State().slot[0].resets);
    EXPECT_EQ(0, Events());
}

TEST_F(ZelDriver, KeepsTheSlotsEndsApart)
{
    slots->Insert(0, Card::InMemory(8));
    const int other = OpenNode("/dev/spdra");
    ASSERT_EQ(0, Direct(kWrite, 0, 1));
    pollfd asked = {other, POLLOUT, 0};
    EXPECT_EQ(0, poll(&asked, 1, 0));
    EXPECT_EQ(POLLOUT, Events());
    close(other);
}

TEST_F(ZelDriver, ShowsTransfersAndNothingElse)
{
    std::vector<unsigned> units;
    slots->during_transfer = [&](unsigned unit) {
        units.push_back(unit);
        slots->With([](sim_zel&) {});  // no lock is held
    };
    for (const uint32_t request : {kWrite, kRead, kSeqWrite, kFsmiWrite, kSdCmdWrite, kRmw}) {
        units.clear();
        Ask(character, request);
        EXPECT_EQ(std::vector<unsigned>{kUnit}, units) << std::hex << request;
    }
    units.clear();
    uint8_t record[512];
    for (const uint32_t request : {kGetStatus, kGetProtect, kIdentify, kSetParams, kReset}) {
        Ask(character, request, record);
    }
    EXPECT_TRUE(units.empty());
}

// --- the control node --------------------------------------------------------------------

TEST_F(ZelDriver, CountsLocksAndAnswersWithBytes)
{
    EXPECT_EQ(0, Ask(control, kLock));
    EXPECT_EQ(0, Ask(control, kLock));
    EXPECT_EQ(2, State().rt.locks);
    EXPECT_EQ(0, Ask(control, kUnlock));
    EXPECT_EQ(1, State().rt.locks);
    slots->With([](sim_zel& zel) {
        zel.rt.rt_status = 0x81;
        zel.rt.delay_status = 0x92;
        zel.rt.on_for_wait = 0xA3;
    });
    const std::pair<uint32_t, uint8_t> bytes[] = {
        {0x4001EC1E, 0x81}, {0x4001EC1F, 0x92}, {0x4001EC20, 0xA3}};
    for (const auto& [request, expected] : bytes) {
        uint8_t answer[2] = {0, 0xEE};
        EXPECT_EQ(0, Ask(control, request, answer));
        EXPECT_EQ(expected, answer[0]);
        EXPECT_EQ(0xEE, answer[1]);
    }
}

TEST_F(ZelDriver, TakesRecordsAndChannels)
{
    uint32_t record[5] = {0x89ABCDEF, 2, 3, 4, 0xF5F6F7F8};
    EXPECT_EQ(0, Ask(control, 0x8014EC14, record));
    sim_rtctrl rt = State().rt;
    EXPECT_EQ(0, memcmp(record, rt.record, 20));
    EXPECT_EQ(0x89ABCDEFu, rt.channel);

    slots->With([](sim_zel& zel) { memcpy(zel.rt.answer, "\x31\x32\x33\x34", 4); });
    uint8_t pair[9] = {1, 2, 3, 4, 5, 6, 7, 8, 0xEE};
    EXPECT_EQ(0, Ask(control, 0xC008EC18, pair));
    const uint8_t expected[9] = {1, 2, 3, 4, 0x31, 0x32, 0x33, 0x34, 0xEE};
    EXPECT_EQ(0, memcmp(expected, pair, 9));
    uint32_t channel = 0;
    memcpy(&channel, pair, 4);
    EXPECT_EQ(channel, State().rt.channel);

    EXPECT_EQ(0, Ask(control, 0x8004EC15, uintptr_t{0x87654321}));
    EXPECT_EQ(0x87654321u, State().rt.channel);
    EXPECT_EQ(0, Ask(control, 0x8004EC1B, uintptr_t{0}));
    EXPECT_EQ(0u, State().rt.channel);
}

}  // namespace
