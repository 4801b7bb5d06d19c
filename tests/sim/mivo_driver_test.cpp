// SPDX-License-Identifier: MIT
//
// The stand-in's Mivo driver as a program sees it, without the library in between:
// every request byte by byte, by the numbers of the driver's own side.
#include "sim/mivo_driver.h"

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

constexpr unsigned kUnit = 1;
constexpr uint32_t kSectors = 1024;
constexpr uint32_t kEnd = 0x80000000;

constexpr uint32_t kGetStatus = 0x4006D300;
constexpr uint32_t kGetProtect = 0x2000D307;
constexpr uint32_t kGetParams = 0x4030D30F;
constexpr uint32_t kGetCid = 0x4001D314;
constexpr uint32_t kGetCsd = 0x4001D315;
constexpr uint32_t kGetScr = 0x4001D316;
constexpr uint32_t kGetSdStatus = 0x4001D317;
constexpr uint32_t kMount = 0x2000D318;
constexpr uint32_t kUnmount = 0x2000D319;
constexpr uint32_t kRead = 0xC010D324;
constexpr uint32_t kWrite = 0x8010D325;
constexpr uint32_t kRmw = 0x800CD326;
constexpr uint32_t kCommand2 = 0x8001D327;
constexpr uint32_t kCommand3 = 0x8001D328;
constexpr uint32_t kCommand4 = 0x8001D329;
constexpr uint32_t kFsmiWrite = 0x800CD32A;
constexpr uint32_t kSdCmdWrite = 0x8008D32B;
constexpr uint32_t kAltWrite = 0x8010D32E;
constexpr uint32_t kReset = 0x2000D32F;

constexpr uint32_t kTransfers[] = {kRead, kWrite, kAltWrite, kRmw, kFsmiWrite, kSdCmdWrite};

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

class MivoDriver : public testing::Test {
protected:
    ~MivoDriver() override
    {
        close(node);
        EXPECT_EQ(0u, kernel.OpenFiles());
    }

    static std::shared_ptr<cardsim::MivoUnits> UnitsWith(cardsim::Kernel& kernel,
                                                         const std::shared_ptr<Card>& card)
    {
        std::shared_ptr<cardsim::MivoUnits> units = cardsim::MivoUnits::Create(kernel);
        units->Insert(kUnit, card);
        return units;
    }

    static int OpenNode(const std::string& path)
    {
        const int fd = open64(path.c_str(), O_RDWR);
        EXPECT_GE(fd, 0) << path;
        return fd;
    }

    int Ask(uint32_t request, const void* argument) const
    {
        return Outcome(ioctl(node, request, argument));
    }
    int Ask(uint32_t request, uintptr_t argument = 0) const
    {
        return Outcome(ioctl(node, request, argument));
    }

    // Events on the node; none after no time at all.
    short Events() const
    {
        pollfd asked = {node, POLLIN | POLLOUT | POLLERR | POLLHUP, 0};
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
        return Ask(request, record);
    }

    Bytes OnCard(uint32_t first, uint32_t sectors)
    {
        Bytes bytes(size_t{sectors} * 512);
        EXPECT_EQ(
            static_cast<int64_t>(bytes.size()),
            sim_card_read(&card->model(), uint64_t{first} * 512, bytes.data(), sectors * 512));
        return bytes;
    }

    sim_mivo State()
    {
        sim_mivo state;
        units->With([&](sim_mivo& mivo) { state = mivo; });
        return state;
    }

    std::shared_ptr<Card> card = Card::InMemory(kSectors);
    cardsim::Kernel kernel;
    std::shared_ptr<cardsim::MivoUnits> units = UnitsWith(kernel, card);
    LowBuffer memory{size_t{64} * 512};
    LowBuffer list{64};
    const int node = OpenNode("/dev/mivosdif1");
};

// --- nodes and units -----------------------------------------------------------------

TEST_F(MivoDriver, NamesAndNumbersItsNodes)
{
    const char* const names[] = {"/dev/mivosdif0", "/dev/mivosdif1"};
    for (unsigned unit = 0; unit < SIM_MIVO_UNITS; unit++) {
        EXPECT_EQ(names[unit], cardsim::MivoNode(unit));
        units->Insert(unit, Card::InMemory(8));
        struct stat64 found = {};
        ASSERT_EQ(0, stat64(names[unit], &found));
        EXPECT_TRUE(S_ISCHR(found.st_mode));
        EXPECT_EQ(248u, major(found.st_rdev));
        EXPECT_EQ(unit, minor(found.st_rdev));
    }
}

TEST_F(MivoDriver, HasNodesOnlyForUnitsThatHadACard)
{
    struct stat64 found = {};
    EXPECT_EQ(-1, stat64("/dev/mivosdif0", &found));
    EXPECT_EQ(ENOENT, errno);
    units->Eject(kUnit);
    EXPECT_EQ(0, stat64("/dev/mivosdif1", &found));
}

// A protected card's node opens for writing all the same.
TEST_F(MivoDriver, OpensWhateverTheProtection)
{
    card->model().write_protected = true;
    close(OpenNode("/dev/mivosdif1"));
}

TEST_F(MivoDriver, ShowsUnitsAsBitsOfByte3)
{
    uint8_t status[7];
    const auto present = [&] {
        memset(status, 0xEE, sizeof status);
        EXPECT_EQ(0, Ask(kGetStatus, status));
        for (const int i : {0, 1, 2, 4, 5}) {
            EXPECT_EQ(0, status[i]) << i;
        }
        EXPECT_EQ(0xEE, status[6]);  // six bytes
        return status[3];
    };
    EXPECT_EQ(0x02, present());
    units->Insert(0, Card::InMemory(8));
    EXPECT_EQ(0x03, present());
    units->Eject(kUnit);
    EXPECT_EQ(0x01, present());
    units->Eject(0);
    EXPECT_EQ(0x00, present());
    units->Insert(kUnit, card);
    EXPECT_EQ(0x02, present());
}

TEST_F(MivoDriver, MountsACardAndUnmounts)
{
    EXPECT_FALSE(State().unit[kUnit].mounted);
    EXPECT_EQ(0, Ask(kMount));
    EXPECT_TRUE(State().unit[kUnit].mounted);
    EXPECT_FALSE(State().unit[0].mounted);
    EXPECT_EQ(0, Ask(kUnmount, uintptr_t{0x1234}));  // the argument is not looked at
    EXPECT_FALSE(State().unit[kUnit].mounted);
    EXPECT_EQ(0, Ask(kMount));
    units->Eject(kUnit);
    EXPECT_EQ(-ENODEV, Ask(kMount));
    EXPECT_FALSE(State().unit[kUnit].mounted);
    EXPECT_EQ(0, Ask(kUnmount));
}

TEST_F(MivoDriver, RefusesAnEmptyUnit)
{
    units->Eject(kUnit);
    uint8_t record[64] = {};
    for (const uint32_t request : {kGetProtect, kGetParams, kGetCid, kGetCsd, kGetScr, kGetSdStatus,
                                   kCommand2, kCommand3, kCommand4, 0x12345678u}) {
        EXPECT_EQ(-ENODEV, Ask(request, record)) << std::hex << request;
    }
    for (const uint32_t request : kTransfers) {
        EXPECT_EQ(-ENODEV, Ask(request, record)) << std::hex << request;
        EXPECT_EQ(0, Events());
    }
    EXPECT_EQ(0, Ask(kReset));
    EXPECT_EQ(0, Ask(kGetStatus, record));
    EXPECT_EQ(-1, read(node, memory.data(), 512));
    EXPECT_EQ(ENXIO, errno);
    EXPECT_EQ(-1, write(node, memory.data(), 512));
    EXPECT_EQ(ENXIO, errno);
}

TEST_F(MivoDriver, KnowsNoOtherRequest)
{
    uint8_t record[64] = {};
    for (const uint32_t request : {0x2000D300u, 0x20007001u, 0x2000D330u, 0x0000D32Fu, 0u}) {
        EXPECT_EQ(-ENOTTY, Ask(request, record)) << std::hex << request;
        EXPECT_EQ(0, Events());
    }
}

TEST_F(MivoDriver, FaultsOnNull)
{
    for (const uint32_t request :
         {kGetStatus, kGetParams, kGetCid, kGetCsd, kGetScr, kGetSdStatus}) {
        EXPECT_EQ(-EFAULT, Ask(request)) << std::hex << request;
    }
    for (const uint32_t request : kTransfers) {
        EXPECT_EQ(-EFAULT, Ask(request)) << std::hex << request;
    }
    // Null behind a record.
    const uint32_t no_list[] = {0, 1, 0, 8};
    EXPECT_EQ(-EFAULT, Ask(kRead, no_list));
    const uint32_t no_elements[] = {1, 0, 0};
    EXPECT_EQ(-EFAULT, Ask(kRmw, no_elements));
    const uint32_t no_data[] = {0, 0};
    EXPECT_EQ(-EFAULT, Ask(kSdCmdWrite, no_data));
    const uint32_t no_memory[] = {0, 1, OnePiece(0, 512), 8};
    EXPECT_EQ(-EFAULT, Ask(kRead, no_memory));
    EXPECT_EQ(-EFAULT, Ask(kWrite, no_memory));
}

TEST_F(MivoDriver, ServesTheCardThatIsThereNow)
{
    units->Insert(kUnit, Card::InMemory(16));
    memset(memory.data(), 0x5C, 512);
    ASSERT_EQ(0, Direct(kWrite, 15, 1));
    EXPECT_EQ(-ENOSPC, Direct(kWrite, 16, 1));
    EXPECT_EQ(Bytes(512, 0), OnCard(15, 1));
}

// --- plain transfers ---------------------------------------------------------------------

TEST_F(MivoDriver, ReadsAndWritesBytesOfTheCard)
{
    const Bytes written = Pattern(3, 4);
    EXPECT_EQ(1000 * 512, lseek64(node, 1000 * 512, SEEK_SET));
    EXPECT_EQ(1536, write(node, written.data(), 1536));
    EXPECT_EQ(written, OnCard(1000, 3));
    EXPECT_EQ(1000 * 512, lseek64(node, -1536, SEEK_CUR));
    Bytes got(1536);
    EXPECT_EQ(1536, read(node, got.data(), 1536));
    EXPECT_EQ(written, got);
    EXPECT_EQ(int64_t{kSectors} * 512, lseek64(node, 0, SEEK_END));
    EXPECT_EQ(0, read(node, got.data(), 512));
    EXPECT_EQ(0, Events());
}

// --- what the driver knows of a card --------------------------------------------------------

struct RegisterRow {
    uint32_t request;
    const uint8_t* content;
    size_t size;
};

TEST_F(MivoDriver, AnswersWithWholeRegisters)
{
    sim_card& model = card->model();
    for (uint8_t i = 0; i < 64; i++) {
        model.sd_status[i] = static_cast<uint8_t>(0x40 + i);
        model.cid[i % 16] = static_cast<uint8_t>(0xA0 + i % 16);
        model.csd[i % 16] = static_cast<uint8_t>(0xC0 + i % 16);
        model.scr[i % 8] = static_cast<uint8_t>(0xD0 + i % 8);
    }
    const RegisterRow rows[] = {{kGetCid, model.cid, 16},
                                {kGetCsd, model.csd, 16},
                                {kGetScr, model.scr, 8},
                                {kGetSdStatus, model.sd_status, 64}};
    for (const RegisterRow& row : rows) {
        Bytes answer(72, 0xEE);
        ASSERT_EQ(0, Ask(row.request, answer.data()));
        Bytes expected(row.content, row.content + row.size);
        expected.resize(72, 0xEE);
        EXPECT_EQ(expected, answer) << std::hex << row.request;
    }
}

TEST_F(MivoDriver, AnswersForWriteProtectionInItsResult)
{
    EXPECT_EQ(0, Ask(kGetProtect));
    card->model().write_protected = true;
    EXPECT_EQ(1, Ask(kGetProtect));
}

TEST_F(MivoDriver, AnswersForTheCardsParameters)
{
    uint8_t* const status = card->model().sd_status;
    memset(status, 0, 64);
    status[8] = 0x48;
    status[10] = 0x9F;  // the upper half: 4 MiB
    status[14] = 0x3A;  // grade 3; 8 MiB
    status[15] = 0x1E;
    status[16] = 0xFD;  // ten bits of MiB, over two bytes
    status[17] = 0x07;
    uint32_t record[13];
    memset(record, 0xEE, sizeof record);
    ASSERT_EQ(0, Ask(kGetParams, record));
    uint32_t expected[13] = {};
    expected[5] = 8192;
    expected[6] = 16384;
    expected[7] = 0x107 * 2048;
    expected[8] = kSectors;
    const uint16_t halves[2] = {0x48, 0x3A};
    memcpy(reinterpret_cast<uint8_t*>(expected) + 38, halves, 4);
    expected[11] = 0x1E;
    expected[12] = 0xEEEEEEEE;
    EXPECT_EQ(0, memcmp(expected, record, sizeof record));
}

TEST_F(MivoDriver, NamesEveryAllocationUnit)
{
    const uint32_t kib[16] = {0,    16,   32,   64,    128,   256,   512,   1024,
                              2048, 4096, 8192, 12288, 16384, 24576, 32768, 65536};
    for (uint8_t code = 0; code < 16; code++) {
        card->model().sd_status[10] = static_cast<uint8_t>(code << 4 | 0x0F);
        card->model().sd_status[14] = static_cast<uint8_t>(0xF0 | (15 - code));
        uint32_t record[12];
        ASSERT_EQ(0, Ask(kGetParams, record));
        EXPECT_EQ(kib[code] * 2, record[5]);
        EXPECT_EQ(kib[15 - code] * 2, record[6]);
    }
}

TEST_F(MivoDriver, RemembersTheLastCardCommand)
{
    const std::pair<uint32_t, uint32_t> commands[] = {
        {kCommand2, 2}, {kCommand3, 3}, {kCommand4, 4}};
    for (const auto& [request, number] : commands) {
        ASSERT_EQ(0, Ask(request, uintptr_t{0x89ABCDE0 + number}));
        EXPECT_EQ(number, State().unit[kUnit].last_command);
        EXPECT_EQ(0x89ABCDE0 + number, State().unit[kUnit].command_word);
        EXPECT_EQ(0u, State().unit[0].last_command);
    }
}

// --- transfers ---------------------------------------------------------------------------

TEST_F(MivoDriver, MovesSectorsDirectly)
{
    const Bytes written = Pattern(4, 9);
    for (const uint32_t request : {kWrite, kAltWrite}) {
        const uint32_t first = (request & 0xFF) * 8;
        memcpy(memory.data(), written.data(), written.size());
        ASSERT_EQ(0, Direct(request, first, 4));
        EXPECT_EQ(written, OnCard(first, 4));
        memset(memory.data(), 0, written.size());
        ASSERT_EQ(0, Direct(kRead, first, 4));
        EXPECT_EQ(written, Bytes(memory.data(), memory.data() + written.size()));
    }
}

TEST_F(MivoDriver, ChecksTheListOfEveryDirectRequest)
{
    memset(memory.data(), 0x5C, 1024);
    for (const uint32_t request : {kWrite, kAltWrite, kRead}) {
        for (const uint32_t sectors : {0u, 2u}) {
            const uint32_t record[] = {0, sectors, OnePiece(memory.address(), 512), 8};
            EXPECT_EQ(-EINVAL, Ask(request, record));
        }
        const uint32_t record[] = {0, 1, OnePiece(memory.address(), 512), 7};
        EXPECT_EQ(-EINVAL, Ask(request, record));
    }
    EXPECT_EQ(Bytes(1024, 0), OnCard(0, 2));
    EXPECT_EQ(Bytes(1024, 0x5C), Bytes(memory.data(), memory.data() + 1024));
}

// Elements count bytes and carry the words of a table entry as they stand there.
TEST_F(MivoDriver, WritesElements)
{
    const Bytes written = Pattern(3, 31);
    memcpy(memory.data(), written.data(), written.size());
    const LowBuffer elements(32);
    const auto put = [&](uint32_t i, uint32_t sector, uint32_t bytes, uint32_t address,
                         uint32_t length) {
        const uint32_t head[] = {sector, bytes};
        memcpy(elements.data() + i * 16, head, 8);
        OnePiece(address, length);
        memcpy(elements.data() + i * 16 + 8, list.data(), 8);
    };
    const auto ask = [&](uint32_t request, uint32_t count) {
        const uint32_t record[] = {count, 0, elements.address()};
        return Ask(request, record);
    };
    for (const uint32_t request : {kRmw, kFsmiWrite}) {
        put(0, request & 0xFF, 512, memory.address() + 1024, 512);
        put(1, 200, 2048, memory.address(), 1024);  // two sectors of its four
        ASSERT_EQ(0, ask(request, 2));
        EXPECT_EQ(Bytes(written.begin() + 1024, written.end()), OnCard(request & 0xFF, 1));
        EXPECT_EQ(Bytes(written.begin(), written.begin() + 1024), OnCard(200, 2));
        EXPECT_EQ(Bytes(1024, 0), OnCard(202, 2));
        // Without the end mark all the same.
        elements[15] = 0;
        elements[31] = 0;
        ASSERT_EQ(0, ask(request, 2));
        ASSERT_EQ(0, ask(request, 0));
        // More memory than the element, more than 64 KiB, past the card.
        put(0, 300, 511, memory.address(), 512);
        EXPECT_EQ(-EINVAL, ask(request, 1));
        put(0, 300, 1, memory.address(), 512);
        EXPECT_EQ(-EINVAL, ask(request, 1));
        put(0, 300, 102400, memory.address(), 65537);
        EXPECT_EQ(-EINVAL, ask(request, 1));
        put(0, kSectors, 512, memory.address(), 512);
        EXPECT_EQ(-ENOSPC, ask(request, 1));
        EXPECT_EQ(Bytes(512, 0), OnCard(300, 1));
    }
}

TEST_F(MivoDriver, WritesAtTheCommandsArgument)
{
    const Bytes written = Pattern(2, 77);
    memcpy(memory.data(), written.data(), written.size());
    const LowBuffer data(16);
    const auto ask = [&](uint32_t bytes) {
        const uint32_t words[] = {600, bytes, OnePiece(memory.address(), 1024), 8};
        memcpy(data.data(), words, sizeof words);
        uint8_t record[8] = {0x12, 0x34, 0xEE, 0xEE};
        const uint32_t address = data.address();
        memcpy(record + 4, &address, 4);
        return Ask(kSdCmdWrite, record);
    };
    // The length counts bytes of whole sectors, as many as the list has.
    for (const uint32_t bytes : {2u, 512u, 1023u, 1025u, 1536u}) {
        EXPECT_EQ(-EINVAL, ask(bytes));
        EXPECT_EQ(Bytes(1024, 0), OnCard(600, 2));
    }
    ASSERT_EQ(0, ask(1024));
    EXPECT_EQ(written, OnCard(600, 2));
}

TEST_F(MivoDriver, TellsTheEndOfATransferOnce)
{
    EXPECT_EQ(0, Events());
    uint8_t record[64] = {};
    for (const uint32_t request : {kGetStatus, kGetProtect, kGetParams, kGetCid, kGetCsd, kGetScr,
                                   kGetSdStatus, kMount, kUnmount, kCommand2, kReset}) {
        EXPECT_EQ(0, Ask(request, record));
        EXPECT_EQ(0, Events());
    }
    // A failed one has an end, too.
    for (const uint32_t request : kTransfers) {
        EXPECT_EQ(-EFAULT, Ask(request)) << std::hex << request;
        EXPECT_EQ(POLLOUT, Events());
        EXPECT_EQ(0, Events());
    }
    for (const uint32_t request : {kRead, kWrite, kAltWrite}) {
        EXPECT_EQ(0, Direct(request, 0, 1));
        EXPECT_EQ(POLLOUT, Events());
        EXPECT_EQ(0, Events());
    }
}

TEST_F(MivoDriver, ForgetsAPendingEndOnReset)
{
    ASSERT_EQ(0, Direct(kWrite, 0, 1));
    EXPECT_EQ(0u, State().unit[kUnit].resets);
    ASSERT_EQ(0, Ask(kReset));
    EXPECT_EQ(1u, State().unit[kUnit].resets);
    EXPECT_EQ(0u, State().unit[0].resets);
    EXPECT_EQ(0, Events());
}

TEST_F(MivoDriver, KeepsTheUnitsEndsApart)
{
    units->Insert(0, Card::InMemory(8));
    const int other = OpenNode("/dev/mivosdif0");
    ASSERT_EQ(0, Direct(kWrite, 0, 1));
    pollfd asked = {other, POLLOUT, 0};
    EXPECT_EQ(0, poll(&asked, 1, 0));
    EXPECT_EQ(POLLOUT, Events());
    close(other);
}

TEST_F(MivoDriver, ShowsTransfersAndNothingElse)
{
    std::vector<unsigned> seen;
    units->during_transfer = [&](unsigned unit) {
        seen.push_back(unit);
        units->With([](sim_mivo&) {});  // no lock is held
    };
    for (const uint32_t request : kTransfers) {
        seen.clear();
        Ask(request);
        EXPECT_EQ(std::vector<unsigned>{kUnit}, seen) << std::hex << request;
    }
    seen.clear();
    uint8_t record[64] = {};
    for (const uint32_t request : {kGetStatus, kGetProtect, kGetParams, kGetCid, kGetCsd, kGetScr,
                                   kGetSdStatus, kMount, kUnmount, kCommand2, kReset}) {
        Ask(request, record);
    }
    EXPECT_TRUE(seen.empty());
}

}  // namespace
