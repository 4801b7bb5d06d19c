// SPDX-License-Identifier: MIT
//
// Descriptions of cards in the Zel slots, and of cards that leave.
#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/config.h"
#include "sim/low_memory.h"
#include "sim/zel_driver.h"
#include "tests/support/temp_folder.h"

namespace {

constexpr uint32_t kGetStatus = 0x20007001;
constexpr uint32_t kGetSize = 0x20001260;
constexpr uint32_t kReset = 0x20007032;

class ZelConfig : public testing::Test {
protected:
    ZelConfig()
    {
        folder.Sparse("a.img", 64 * 512);
        folder.Sparse("b.img", 128 * 512);
    }

    void Load(const std::string& text)
    {
        cardsim::AddFromFile(kernel, folder.Text("cards.json", text));
    }

    // What a description that cannot be used is refused with.
    std::string Refusal(const std::string& text)
    {
        try {
            Load(text);
        } catch (const std::runtime_error& error) {
            const std::string what = error.what();
            const std::string start = "cannot use " + folder.Path("cards.json") + ": ";
            EXPECT_EQ(0u, what.find(start)) << what;
            return what.substr(std::min(what.size(), start.size()));
        }
        return "(none)";
    }

    static bool IsThere(const std::string& path)
    {
        struct stat64 node = {};
        return stat64(path.c_str(), &node) == 0;
    }

    static uint32_t SizeOf(const std::string& path)
    {
        uint32_t sectors = 0;
        const int fd = open64(path.c_str(), O_RDWR);
        EXPECT_EQ(0, ioctl(fd, kGetSize, &sectors));
        close(fd);
        return sectors;
    }

    // Present and changed masks, as one number.
    static int Masks(int fd)
    {
        uint8_t status[4] = {};
        EXPECT_EQ(0, ioctl(fd, kGetStatus, status));
        return status[2] << 8 | status[1];
    }

    TempFolder folder;
    cardsim::Kernel kernel;
};

TEST_F(ZelConfig, PutsACardIntoTheFirstSlotUnlessTold)
{
    Load(R"({"cards": [{"driver": "zel", "image": "a.img"}]})");
    EXPECT_EQ(64u, SizeOf("/dev/spda"));
    EXPECT_TRUE(IsThere("/dev/spdra"));
    EXPECT_TRUE(IsThere("/dev/rtctrl_zel"));
    EXPECT_FALSE(IsThere("/dev/spdb"));
    EXPECT_FALSE(IsThere("/dev/sdcarda"));
}

TEST_F(ZelConfig, PutsCardsIntoSlotsOfOneDriver)
{
    Load(R"({"cards": [
        {"driver": "zel", "unit": 5, "image": "b.img"},
        {"driver": "ricoh-sd", "image": "a.img"},
        {"driver": "zel", "unit": 1, "image": "a.img"}]})");
    EXPECT_EQ(128u, SizeOf("/dev/spdf"));
    EXPECT_EQ(64u, SizeOf("/dev/spdb"));
    EXPECT_TRUE(IsThere("/dev/sdcarda"));
    const int fd = open64("/dev/spdrb", O_RDWR);
    EXPECT_EQ(0x2222, Masks(fd));
    close(fd);
}

TEST_F(ZelConfig, GivesTheCardItsRegistersAndProtection)
{
    Load(R"({"cards": [{"driver": "zel", "image": "a.img", "write_protected": true,
        "cid": "000102030405060708090a0b0c0d0e0f"}]})");
    const int character = open64("/dev/spdra", O_RDWR);
    EXPECT_EQ(1, ioctl(character, 0x20007008, nullptr));
    close(character);
    const cardsim::LowBuffer answer(536);
    const uint32_t record[] = {48, answer.address()};
    const int block = open64("/dev/spda", O_RDWR);
    EXPECT_EQ(0, ioctl(block, 0x20007005, record));
    close(block);
    for (size_t i = 0; i < 16; i++) {
        EXPECT_EQ(i, answer[24 + i]);
    }
}

TEST_F(ZelConfig, KnowsSixSlots)
{
    const std::string range = "\"unit\" goes from 0 to 5";
    EXPECT_EQ("(none)", Refusal(R"({"cards": [{"driver": "zel", "unit": 5, "image": "a.img"}]})"));
    for (const char* unit : {"6", "-1", "4294967296", "18446744073709551615"}) {
        EXPECT_EQ(range, Refusal(std::string(R"({"cards": [{"driver": "zel", "unit": )") + unit +
                                 R"(, "image": "a.img"}]})"));
    }
    EXPECT_NE("(none)",
              Refusal(R"({"cards": [{"driver": "zel", "unit": "1", "image": "a.img"}]})"));
}

TEST_F(ZelConfig, RefusesWhatItDoesNotKnow)
{
    EXPECT_EQ("the \"ricoh-sd\" driver has no units",
              Refusal(R"({"cards": [{"driver": "ricoh-sd", "unit": 0, "image": "a.img"}]})"));
    EXPECT_EQ("there is no driver \"zell\"; there are \"ricoh-sd\", \"zel\" and \"mivo\"",
              Refusal(R"({"cards": [{"driver": "zell", "image": "a.img"}]})"));
    EXPECT_EQ("a card knows no \"slot\"",
              Refusal(R"({"cards": [{"driver": "zel", "slot": 0, "image": "a.img"}]})"));
    EXPECT_EQ("a fault needs \"errno\", \"eject\" or \"insert\"",
              Refusal(R"({"cards": [], "faults": [{"call": "read"}]})"));
    for (const char* node : {"/dev/spdg", "/dev/spdra", "/dev/sdcarda", ""}) {
        EXPECT_EQ(std::string("no card can be ejected from \"") + node + "\"",
                  Refusal(std::string(R"({"cards": [], "faults": [{"call": "read", "eject": ")") +
                          node + R"("}]})"));
    }
    EXPECT_EQ("a fault knows no \"ejects\"",
              Refusal(R"({"cards": [], "faults": [{"call": "read", "ejects": 1}]})"));
}

TEST_F(ZelConfig, TakesACardOutDuringACall)
{
    Load(R"({"cards": [{"driver": "zel", "unit": 2, "image": "a.img"}],
        "faults": [{"call": "ioctl", "node": "/dev/spdrc", "request": "0x20007032",
                    "first": 2, "eject": "/dev/spdc"}]})");
    const int fd = open64("/dev/spdrc", O_RDWR);
    EXPECT_EQ(0, ioctl(fd, kReset, nullptr));
    EXPECT_EQ(0x0404, Masks(fd));
    EXPECT_EQ(0, ioctl(fd, kReset, nullptr));  // answered, and the card leaves
    EXPECT_EQ(0x0004, Masks(fd));
    close(fd);
}

TEST_F(ZelConfig, LetsACallFailAndTheCardLeave)
{
    Load(R"({"cards": [{"driver": "zel", "image": "a.img"}],
        "faults": [{"call": "read", "errno": "EIO", "eject": "/dev/spda"}]})");
    const int fd = open64("/dev/spda", O_RDWR);
    char sector[512];
    EXPECT_EQ(-1, read(fd, sector, sizeof sector));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, read(fd, sector, sizeof sector));
    EXPECT_EQ(EIO, errno);
    close(fd);
}

}  // namespace
