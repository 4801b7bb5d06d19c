// SPDX-License-Identifier: MIT
//
// The Ricoh SD host's driver in the stand-in: its node and its requests, byte by
// byte.
#include "sim/model/ricoh_host.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "sim/ricoh_driver.h"

namespace {

using cardsim::Card;
using cardsim::Kernel;
using Bytes = std::vector<uint8_t>;

// Takes the place of a program's memory.
struct Memory {
    std::vector<std::pair<uintptr_t, Bytes>> puts;
    int result = 0;

    static int Put(void* self, uintptr_t to, const void* from, uint32_t length)
    {
        auto* memory = static_cast<Memory*>(self);
        const auto* bytes = static_cast<const uint8_t*>(from);
        memory->puts.emplace_back(to, Bytes(bytes, bytes + length));
        return memory->result;
    }
};

class RicohHost : public testing::Test {
protected:
    RicohHost()
    {
        for (size_t i = 0; i < 16; i++) {
            card.cid[i] = static_cast<uint8_t>(0xA0 + i);
            card.csd[i] = static_cast<uint8_t>(0xC0 + i);
        }
        for (size_t i = 0; i < 64; i++) {
            card.sd_status[i] = static_cast<uint8_t>(i + 1);
        }
        card.sectors = 0x12345678;
    }

    int Request(uint32_t request, uintptr_t argument)
    {
        const sim_memory program = {Memory::Put, nullptr, &memory};
        return sim_ricoh_request(&card, request, &program, argument);
    }

    // The one thing that was put into the program.
    Bytes PutAt(uintptr_t address)
    {
        EXPECT_EQ(1u, memory.puts.size());
        EXPECT_EQ(address, memory.puts.at(0).first);
        const Bytes bytes = memory.puts.at(0).second;
        memory.puts.clear();
        return bytes;
    }

    sim_card card = {};
    Memory memory;
};

TEST_F(RicohHost, SendsTheWholeResponseForTheCsd)
{
    EXPECT_EQ(0, Request(0x400178FF, 0x1000F));
    Bytes expected = {0x3F};
    expected.insert(expected.end(), card.csd, card.csd + 16);
    EXPECT_EQ(expected, PutAt(0x1000F));
}

TEST_F(RicohHost, SendsTheBareCid)
{
    EXPECT_EQ(0, Request(0x400178FE, 0x10000));
    EXPECT_EQ(Bytes(card.cid, card.cid + 16), PutAt(0x10000));
}

TEST_F(RicohHost, SendsTheSdStatus)
{
    EXPECT_EQ(0, Request(0x400178F4, 0x10001));
    EXPECT_EQ(Bytes(card.sd_status, card.sd_status + 64), PutAt(0x10001));
}

TEST_F(RicohHost, SendsTheSizeAsAWordOfTheHosts)
{
    EXPECT_EQ(0, Request(0x400478FC, 0x10002));
    const Bytes bytes = PutAt(0x10002);
    uint32_t sectors = 0;
    ASSERT_EQ(sizeof sectors, bytes.size());
    memcpy(&sectors, bytes.data(), sizeof sectors);
    EXPECT_EQ(0x12345678u, sectors);
}

TEST_F(RicohHost, KnowsNoOtherRequest)
{
    for (const uint32_t request : {0u, 0x20001260u, 0x40041260u, 0x400178FDu, 0x401078FFu,
                                   0x800178FFu, 0x000178FFu, 0xFFFFFFFFu}) {
        EXPECT_EQ(-ENOTTY, Request(request, 0x10000)) << request;
    }
    EXPECT_TRUE(memory.puts.empty());
}

TEST_F(RicohHost, FailsWhereTheProgramsMemoryDoes)
{
    memory.result = -EFAULT;
    for (const uint32_t request : {0x400178FFu, 0x400178FEu, 0x400178F4u, 0x400478FCu}) {
        EXPECT_EQ(-EFAULT, Request(request, 0x10000)) << request;
    }
}

TEST(RicohDriver, HasABlockNode)
{
    Kernel kernel;
    const std::shared_ptr<Card> card = Card::InMemory(8);
    AddRicohCard(kernel, card);
    struct stat64 node;
    ASSERT_EQ(0, stat64("/dev/sdcarda", &node));
    EXPECT_TRUE(S_ISBLK(node.st_mode));
    EXPECT_EQ(244u, major(node.st_rdev));
    EXPECT_EQ(1u, minor(node.st_rdev));

    const int fd = open64("/dev/sdcarda", O_RDWR);
    uint8_t record[33];
    memset(record, 0xE1, sizeof record);
    EXPECT_EQ(0, ioctl(fd, 0x400178FF, record + 15));
    EXPECT_EQ(0xE1, record[14]);
    EXPECT_EQ(0x3F, record[15]);
    EXPECT_EQ(0, memcmp(record + 16, card->model().csd, 16));
    EXPECT_EQ(0xE1, record[32]);
    EXPECT_EQ(0, ioctl(fd, 0x400178FE, record));
    EXPECT_EQ(0, memcmp(record, card->model().cid, 16));
    uint32_t sectors = 0;
    EXPECT_EQ(0, ioctl(fd, 0x400478FC, &sectors));
    EXPECT_EQ(8u, sectors);
    EXPECT_EQ(-1, ioctl(fd, 0x400478FC, nullptr));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_EQ(-1, ioctl(fd, 0x20001260, &sectors));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(4096, lseek64(fd, 0, SEEK_END));
    EXPECT_EQ(0, close(fd));
}

TEST_F(RicohHost, HasNothingToSayWithoutACard)
{
    const sim_memory program = {Memory::Put, nullptr, &memory};
    EXPECT_EQ(-ENODEV, sim_ricoh_request(nullptr, 0x400178FF, &program, 1));
    EXPECT_EQ(-ENODEV, sim_ricoh_request(nullptr, 0, &program, 1));
    EXPECT_TRUE(memory.puts.empty());
}

}  // namespace
