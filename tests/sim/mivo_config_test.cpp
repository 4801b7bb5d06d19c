// SPDX-License-Identifier: MIT
//
// Descriptions of cards in the Mivo adaptor's units, and of cards that leave.
#include <cerrno>
#include <stdexcept>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/config.h"
#include "sim/low_memory.h"
#include "sim/mivo_driver.h"
#include "tests/support/temp_folder.h"

namespace {

constexpr uint32_t kGetStatus = 0x4006D300;
constexpr uint32_t kGetProtect = 0x2000D307;
constexpr uint32_t kGetParams = 0x4030D30F;
constexpr uint32_t kGetCid = 0x4001D314;
constexpr uint32_t kReset = 0x2000D32F;

class MivoConfig : public testing::Test {
protected:
    MivoConfig()
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
        uint32_t words[12] = {};
        const int fd = open64(path.c_str(), O_RDWR);
        EXPECT_EQ(0, ioctl(fd, kGetParams, words));
        close(fd);
        return words[8];
    }

    // The units with a card.
    static int Present(int fd)
    {
        uint8_t status[6] = {};
        EXPECT_EQ(0, ioctl(fd, kGetStatus, status));
        return status[3];
    }

    TempFolder folder;
    cardsim::Kernel kernel;
};

TEST_F(MivoConfig, PutsACardIntoTheFirstUnitUnlessTold)
{
    Load(R"({"cards": [{"driver": "mivo", "image": "a.img"}]})");
    EXPECT_EQ(64u, SizeOf("/dev/mivosdif0"));
    EXPECT_FALSE(IsThere("/dev/mivosdif1"));
    EXPECT_FALSE(IsThere("/dev/spda"));
    EXPECT_FALSE(IsThere("/dev/sdcarda"));
}

TEST_F(MivoConfig, PutsCardsIntoUnitsOfOneDriver)
{
    Load(R"({"cards": [
        {"driver": "mivo", "unit": 1, "image": "b.img"},
        {"driver": "zel", "unit": 1, "image": "a.img"},
        {"driver": "mivo", "unit": 0, "image": "a.img"}]})");
    EXPECT_EQ(128u, SizeOf("/dev/mivosdif1"));
    EXPECT_EQ(64u, SizeOf("/dev/mivosdif0"));
    EXPECT_TRUE(IsThere("/dev/spdb"));
    const int fd = open64("/dev/mivosdif0", O_RDWR);
    EXPECT_EQ(0x03, Present(fd));
    close(fd);
}

TEST_F(MivoConfig, GivesTheCardItsRegistersAndProtection)
{
    Load(R"({"cards": [{"driver": "mivo", "image": "a.img", "write_protected": true,
        "cid": "000102030405060708090a0b0c0d0e0f"}]})");
    const int fd = open64("/dev/mivosdif0", O_RDWR);
    EXPECT_EQ(1, ioctl(fd, kGetProtect, nullptr));
    uint8_t cid[16] = {};
    EXPECT_EQ(0, ioctl(fd, kGetCid, cid));
    close(fd);
    for (size_t i = 0; i < 16; i++) {
        EXPECT_EQ(i, cid[i]);
    }
}

TEST_F(MivoConfig, KnowsTwoUnits)
{
    const std::string range = "\"unit\" goes from 0 to 1";
    EXPECT_EQ("(none)", Refusal(R"({"cards": [{"driver": "mivo", "unit": 1, "image": "a.img"}]})"));
    for (const char* unit : {"2", "5", "-1", "4294967296", "1.0", "\"1\""}) {
        EXPECT_EQ(range, Refusal(std::string(R"({"cards": [{"driver": "mivo", "unit": )") + unit +
                                 R"(, "image": "a.img"}]})"));
    }
}

TEST_F(MivoConfig, RefusesWhatItDoesNotKnow)
{
    EXPECT_EQ("there is no driver \"mivosdif\"; there are \"ricoh-sd\", \"zel\" and \"mivo\"",
              Refusal(R"({"cards": [{"driver": "mivosdif", "image": "a.img"}]})"));
    EXPECT_EQ("a card knows no \"slot\"",
              Refusal(R"({"cards": [{"driver": "mivo", "slot": 0, "image": "a.img"}]})"));
    for (const char* node : {"/dev/mivosdif2", "/dev/mivosdif", "/dev/mivosdif00"}) {
        EXPECT_EQ(std::string("no card can be ejected from \"") + node + "\"",
                  Refusal(std::string(R"({"cards": [], "faults": [{"call": "read", "eject": ")") +
                          node + R"("}]})"));
    }
}

TEST_F(MivoConfig, TakesACardOutDuringACall)
{
    Load(R"({"cards": [{"driver": "mivo", "unit": 1, "image": "a.img"}],
        "faults": [{"call": "ioctl", "node": "/dev/mivosdif1", "request": "0x2000D32F",
                    "first": 2, "eject": "/dev/mivosdif1"}]})");
    const int fd = open64("/dev/mivosdif1", O_RDWR);
    EXPECT_EQ(0, ioctl(fd, kReset, nullptr));
    EXPECT_EQ(0x02, Present(fd));
    EXPECT_EQ(0, ioctl(fd, kReset, nullptr));  // answered, and the card leaves
    EXPECT_EQ(0x00, Present(fd));
    close(fd);
}

TEST_F(MivoConfig, LetsACallFailAndTheCardLeave)
{
    Load(R"({"cards": [{"driver": "mivo", "image": "a.img"}],
        "faults": [{"call": "read", "errno": "EIO", "eject": "/dev/mivosdif0"}]})");
    const int fd = open64("/dev/mivosdif0", O_RDWR);
    char sector[512];
    EXPECT_EQ(-1, read(fd, sector, sizeof sector));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, read(fd, sector, sizeof sector));
    EXPECT_EQ(ENXIO, errno);
    close(fd);
}

}  // namespace
