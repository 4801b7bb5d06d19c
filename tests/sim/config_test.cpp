// SPDX-License-Identifier: MIT
//
// Descriptions of simulated cards, and what is said about wrong ones.
#include "sim/config.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "tests/support/temp_folder.h"

namespace {

using cardsim::AddFromFile;
using cardsim::Kernel;
using Bytes = std::vector<uint8_t>;

constexpr char kNode[] = "/dev/sdcarda";

class ConfigTest : public testing::Test {
protected:
    ConfigTest() { folder.Text("card.img", std::string(1024, 'a')); }

    // What AddFromFile says about a description; nothing when it is content.
    std::string ErrorOf(const std::string& text)
    {
        const std::string path = folder.Text("cards.json", text);
        const std::string start = "cannot use " + path + ": ";
        try {
            AddFromFile(kernel, path);
        } catch (const std::runtime_error& error) {
            const std::string what = error.what();
            EXPECT_EQ(start, what.substr(0, start.size()));
            return what.substr(std::min(start.size(), what.size()));
        }
        return "";
    }

    std::string ErrorOfCard(const std::string& fields)
    {
        return ErrorOf(R"({"cards": [{)" + fields + "}]}");
    }

    std::string ErrorOfFault(const std::string& fields)
    {
        return ErrorOf(R"({"cards": [], "faults": [{)" + fields + "}]}");
    }

    // A card with so many more fields.
    std::string ErrorOfCardWith(const std::string& fields)
    {
        return ErrorOfCard(R"("driver": "ricoh-sd", "image": "card.img", )" + fields);
    }

    Bytes Asked(uint32_t request, size_t size)
    {
        Bytes bytes(size, 0xE1);
        const int fd = open64(kNode, O_RDONLY);
        EXPECT_EQ(0, ioctl(fd, request, bytes.data()));
        close(fd);
        return bytes;
    }

    TempFolder folder;
    Kernel kernel;
};

// --- images ---------------------------------------------------------------------------------

TEST_F(ConfigTest, TakesAnImageForACard)
{
    AddFromFile(kernel, folder.Path("card.img"));
    const int fd = open64(kNode, O_RDWR);
    ASSERT_LE(0, fd);
    EXPECT_EQ(1024, lseek64(fd, 0, SEEK_END));
    EXPECT_EQ(512, lseek64(fd, 512, SEEK_SET));
    EXPECT_EQ(1, write(fd, "b", 1));
    close(fd);
    EXPECT_EQ("ab", FileBytes(folder.Path("card.img"), 511, 2));
}

TEST_F(ConfigTest, TellsWhatIsWrongWithAnImage)
{
    for (const char* name : {"none.img", "json", ".json"}) {
        const std::string path = folder.Path(name);
        try {
            AddFromFile(kernel, path);
            FAIL() << path;
        } catch (const std::runtime_error& error) {
            // ".json" alone is a name without an ending.
            EXPECT_EQ((name[0] == '.' ? "cannot use " + path + ": "
                                      : "cannot open the card image " + path + ": ") +
                          "No such file or directory",
                      error.what());
        }
    }
}

// --- cards ----------------------------------------------------------------------------------

TEST_F(ConfigTest, FindsTheImageBesideTheDescription)
{
    EXPECT_EQ("", ErrorOfCard(R"("driver": "ricoh-sd", "image": "card.img")"));
    const int fd = open64(kNode, O_RDWR);
    ASSERT_LE(0, fd);
    EXPECT_EQ(1024, lseek64(fd, 0, SEEK_END));
    close(fd);
}

TEST_F(ConfigTest, FindsTheImageByItsFullPath)
{
    const TempFolder other;
    const std::string image = other.Text("other.img", std::string(512, 'b'));
    EXPECT_EQ("", ErrorOfCard(R"("driver": "ricoh-sd", "image": ")" + image + R"(")"));
    EXPECT_LE(0, open64(kNode, O_RDWR));
}

TEST_F(ConfigTest, FindsBothInTheCurrentFolder)
{
    folder.Text("cards.json", R"({"cards": [{"driver": "ricoh-sd", "image": "card.img"}]})");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder.Path("."));
    EXPECT_NO_THROW(AddFromFile(kernel, "cards.json"));
    EXPECT_NO_THROW(AddFromFile(kernel, "card.img"));
    std::filesystem::current_path(before);
    EXPECT_LE(0, open64(kNode, O_RDWR));
}

TEST_F(ConfigTest, ProtectsCards)
{
    EXPECT_EQ("", ErrorOfCardWith(R"("write_protected": true)"));
    EXPECT_EQ(-1, open64(kNode, O_RDWR));
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ("", ErrorOfCardWith(R"("write_protected": false)"));
    EXPECT_LE(0, open64(kNode, O_RDWR));
}

TEST_F(ConfigTest, SetsRegisters)
{
    std::string status;
    Bytes status_bytes;
    for (int i = 0; i < 64; i++) {
        const char digits[] = "0123456789abcdef";
        status += {digits[i / 4], digits[15 - i % 16]};
        status_bytes.push_back(static_cast<uint8_t>(i / 4 * 16 + 15 - i % 16));
    }
    EXPECT_EQ("", ErrorOfCardWith(R"("cid": "000102030405060708090a0b0c0d0e0f",
                                     "csd": "FfEeDdCcBbAa99887766554433221100",
                                     "sd_status": ")" +
                                  status + R"(")"));
    EXPECT_EQ((Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}), Asked(0x400178FE, 16));
    EXPECT_EQ((Bytes{0x3F, 0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA, 0x99, 0x88, 0x77, 0x66, 0x55, 0x44,
                     0x33, 0x22, 0x11, 0x00}),
              Asked(0x400178FF, 17));
    EXPECT_EQ(status_bytes, Asked(0x400178F4, 64));
}

TEST_F(ConfigTest, RefusesWrongRegisters)
{
    EXPECT_EQ("\"cid\" takes 32 hexadecimal digits",
              ErrorOfCardWith(R"("cid": "000102030405060708090a0b0c0d0e0")"));
    EXPECT_EQ("\"cid\" takes 32 hexadecimal digits",
              ErrorOfCardWith(R"("cid": "000102030405060708090a0b0c0d0e0f00")"));
    EXPECT_EQ("\"csd\" takes 32 hexadecimal digits",
              ErrorOfCardWith(R"("csd": "000102030405060708090a0b0c0d0e0g")"));
    EXPECT_EQ("\"csd\" takes 32 hexadecimal digits", ErrorOfCardWith(R"("csd": "")"));
    EXPECT_EQ("\"sd_status\" takes 128 hexadecimal digits",
              ErrorOfCardWith(R"("sd_status": "00")"));
}

TEST_F(ConfigTest, RefusesWrongCards)
{
    EXPECT_EQ("there is no driver \"mmc\"; there are \"ricoh-sd\", \"zel\" and \"mivo\"",
              ErrorOfCard(R"("driver": "mmc", "image": "card.img")"));
    EXPECT_EQ("\"image\" is empty", ErrorOfCard(R"("driver": "ricoh-sd", "image": "")"));
    EXPECT_EQ("a card knows no \"images\"",
              ErrorOfCard(R"("driver": "ricoh-sd", "images": "card.img")"));
    EXPECT_EQ("a card must be an object in braces, not a string",
              ErrorOf(R"({"cards": ["card.img"]})"));
    EXPECT_EQ(
        "cannot open the card image " + folder.Path("none.img") + ": No such file or directory",
        ErrorOfCard(R"("driver": "ricoh-sd", "image": "none.img")"));
    folder.Text("odd.img", "abc");
    EXPECT_EQ("the card image " + folder.Path("odd.img") +
                  " holds 3 bytes: a card is a whole number of 512-byte sectors",
              ErrorOfCard(R"("driver": "ricoh-sd", "image": "odd.img")"));
    EXPECT_EQ("a card needs \"driver\"", ErrorOfCard(R"("image": "card.img")"));
    EXPECT_EQ("a card needs \"image\"", ErrorOfCard(R"("driver": "ricoh-sd")"));
    EXPECT_EQ(-1, open64(kNode, O_RDONLY)) << "none was put in place";
}

TEST_F(ConfigTest, TellsWhatATypeShouldBe)
{
    const std::pair<const char*, const char*> values[] = {
        {"null", "null"},    {"true", "true or false"}, {"7", "a number"},
        {"1.5", "a number"}, {"[]", "a list"},          {"{}", "an object"},
    };
    for (const auto& [value, name] : values) {
        SCOPED_TRACE(value);
        const auto wrong = [&](const char* key) {
            return "\"" + std::string(key) + "\" must be a string, not " + name;
        };
        const auto with = [&](const char* key) { return "\"" + std::string(key) + "\": " + value; };
        EXPECT_EQ(wrong("driver"), ErrorOfCard(with("driver")));
        EXPECT_EQ(wrong("image"), ErrorOfCard(R"("driver": "ricoh-sd", )" + with("image")));
        for (const char* key : {"cid", "csd", "sd_status"}) {
            EXPECT_EQ(wrong(key), ErrorOfCardWith(with(key)));
        }
        EXPECT_EQ(wrong("call"), ErrorOfFault(with("call")));
        for (const char* key : {"node", "request", "errno", "eject", "insert"}) {
            EXPECT_EQ(wrong(key), ErrorOfFault(R"("call": "read", )" + with(key)));
        }
        if (value != std::string("true")) {
            EXPECT_EQ(std::string("\"write_protected\" must be true or false, not ") + name,
                      ErrorOfCardWith(with("write_protected")));
        }
        if (value != std::string("[]")) {
            EXPECT_EQ(std::string("\"cards\" must be a list in brackets, not ") + name,
                      ErrorOf("{" + with("cards") + "}"));
            EXPECT_EQ(std::string("\"faults\" must be a list in brackets, not ") + name,
                      ErrorOf(R"({"cards": [], )" + with("faults") + "}"));
        }
    }
    EXPECT_EQ("\"write_protected\" must be true or false, not a string",
              ErrorOfCardWith(R"("write_protected": "true")"));
}

TEST_F(ConfigTest, RefusesTwoCardsInOnePlace)
{
    const auto both = [&](const std::string& one, const std::string& other) {
        return ErrorOf(R"({"cards": [{"image": "card.img", )" + one +
                       R"(}, {"image": "card.img", )" + other + "}]}");
    };
    const std::string ricoh = R"("driver": "ricoh-sd")";
    const std::string zel = R"("driver": "zel", "unit": )";
    const std::string mivo = R"("driver": "mivo", "unit": )";
    EXPECT_EQ("there are two cards for /dev/sdcarda", both(ricoh, ricoh));
    EXPECT_EQ("there are two cards for /dev/spdc", both(zel + "2", zel + "2"));
    EXPECT_EQ("there are two cards for /dev/spda", both(R"("driver": "zel")", zel + "0"));
    EXPECT_EQ("there are two cards for /dev/mivosdif1", both(mivo + "1", mivo + "1"));
    EXPECT_EQ("", both(zel + "2", zel + "3"));
    EXPECT_EQ("", both(mivo + "1", zel + "1"));
}

// An image that may be read and not written: the message names the way out.
TEST_F(ConfigTest, TellsHowToUseAnImageThatCannotBeWritten)
{
    std::filesystem::permissions(folder.Path("card.img"), std::filesystem::perms(0444));
    std::filesystem::permissions(folder.Path("."), std::filesystem::perms(0755));
    const std::string description = R"({"cards": [{"driver": "ricoh-sd", "image": "card.img")";
    folder.Text("protected.json", description + R"(, "write_protected": true}]})");
    folder.Text("writable.json", description + "}]}");
    const uid_t user = geteuid();
    if (user == 0) {
        ASSERT_EQ(0, seteuid(65534));  // permissions do not stop root
    }
    std::string said;
    try {
        AddFromFile(kernel, folder.Path("writable.json"));
    } catch (const std::runtime_error& error) {
        said = error.what();
    }
    EXPECT_NO_THROW(AddFromFile(kernel, folder.Path("protected.json")));
    ASSERT_EQ(0, seteuid(user));
    EXPECT_EQ("cannot use " + folder.Path("writable.json") + ": cannot open the card image " +
                  folder.Path("card.img") +
                  ": Permission denied (a card that is not to be written needs "
                  "\"write_protected\": true in a description)",
              said);
    EXPECT_EQ(-1, open64(kNode, O_RDWR));
    EXPECT_EQ(EROFS, errno);
}

// --- faults ---------------------------------------------------------------------------------

TEST_F(ConfigTest, PlansFaults)
{
    EXPECT_EQ("", ErrorOf(R"({"cards": [{"driver": "ricoh-sd", "image": "card.img"}],
                              "faults": [{"call": "ioctl", "node": "/dev/sdcarda",
                                          "request": "0x400178FE", "first": 2, "times": 2,
                                          "errno": "EIO"},
                                         {"call": "seek", "errno": "EBUSY"},
                                         {"call": "ioctl", "request": "1074034940",
                                          "errno": "ENOMEDIUM"}]})"));
    const int fd = open64(kNode, O_RDWR);
    uint8_t bytes[64];
    std::vector<int> results;
    for (int i = 0; i < 4; i++) {
        results.push_back(ioctl(fd, 0x400178FE, bytes));
        EXPECT_EQ(0, ioctl(fd, 0x400178FF, bytes));
    }
    EXPECT_EQ((std::vector<int>{0, -1, -1, 0}), results);
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, lseek64(fd, 0, SEEK_SET));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0, lseek64(fd, 0, SEEK_SET));
    EXPECT_EQ(-1, ioctl(fd, 0x400478FC, bytes)) << "decimal numbers, too";
    EXPECT_EQ(ENOMEDIUM, errno);
}

TEST_F(ConfigTest, PlansFaultsOfOneNodeOnly)
{
    kernel.AddNode("/dev/other", {S_IFBLK, 1, 2, std::make_shared<cardsim::Driver>()});
    EXPECT_EQ("", ErrorOfFault(R"("call": "open", "node": "/dev/other", "errno": "EPERM")"));
    AddFromFile(kernel, folder.Path("card.img"));
    EXPECT_LE(0, open64(kNode, O_RDWR));
    EXPECT_EQ(-1, open64("/dev/other", O_RDWR));
    EXPECT_EQ(EPERM, errno);
}

TEST_F(ConfigTest, PlansFaultsOfEveryKindOfCall)
{
    AddFromFile(kernel, folder.Path("card.img"));
    const int fd = open64(kNode, O_RDWR);
    uint8_t byte = 0;
    struct stat64 node;
    pollfd asked = {fd, POLLIN, 0};
    const std::pair<const char*, std::function<int64_t()>> calls[] = {
        {"stat", [&] { return stat64(kNode, &node); }},
        {"open", [&] { return open64(kNode, O_RDWR); }},
        {"seek", [&] { return lseek64(fd, 0, SEEK_SET); }},
        {"read", [&] { return read(fd, &byte, 1); }},
        {"write", [&] { return write(fd, &byte, 1); }},
        {"ioctl", [&] { return ioctl(fd, 0x400178FE, nullptr); }},
        {"poll", [&] { return poll(&asked, 1, 0); }},
        {"close", [&] { return close(fd); }},
    };
    for (const auto& [name, call] : calls) {
        SCOPED_TRACE(name);
        EXPECT_EQ("", ErrorOfFault(std::string(R"("call": ")") + name + R"(", "errno": "EXFULL")"));
        for (const auto& [other, other_call] : calls) {
            errno = 0;
            if (std::strcmp(name, other) == 0) {
                EXPECT_EQ(-1, other_call());
                EXPECT_EQ(EXFULL, errno);
                break;
            }
            other_call();
            EXPECT_NE(EXFULL, errno) << other;
        }
    }
}

TEST_F(ConfigTest, PutsCardsBack)
{
    for (const char* driver : {"zel", "mivo"}) {
        SCOPED_TRACE(driver);
        const std::string node = *driver == 'z' ? "/dev/spdb" : "/dev/mivosdif1";
        const auto fault = [&](const char* kind, const char* call, const char* first) {
            return R"({"node": ")" + node + R"(", "call": ")" + call + R"(", "first": )" + first +
                   R"(, ")" + kind + R"(": ")" + node + R"("})";
        };
        EXPECT_EQ(
            "", ErrorOf(R"({"cards": [{"unit": 1, "image": "card.img", "driver": ")" +
                        std::string(driver) + R"("}], "faults": [)" + fault("eject", "read", "1") +
                        ", " + fault("insert", "seek", "2") + "]}"));
        const int fd = open64(node.c_str(), O_RDWR);
        ASSERT_LE(0, fd);
        char byte = 0;
        EXPECT_EQ(1, read(fd, &byte, 1)) << "it leaves behind the call";
        EXPECT_EQ(-1, read(fd, &byte, 1));
        EXPECT_EQ(0, lseek64(fd, 0, SEEK_SET));
        EXPECT_EQ(-1, read(fd, &byte, 1));
        EXPECT_EQ(0, lseek64(fd, 0, SEEK_SET));
        EXPECT_EQ(1, read(fd, &byte, 1));
        EXPECT_EQ('a', byte);
        close(fd);
        kernel.ClearFaults();
    }
}

TEST_F(ConfigTest, RefusesWrongFaults)
{
    for (const char* name : {"malloc", "sleep", "lseek", "", "Open"}) {
        EXPECT_EQ(std::string("a fault's \"call\" cannot be \"") + name + "\"",
                  ErrorOfFault(std::string(R"("call": ")") + name + R"(", "errno": "EIO")"));
    }
    for (const char* name : {"EWRONG", "eio", "5", ""}) {
        EXPECT_EQ(std::string("there is no errno value \"") + name + "\"",
                  ErrorOfFault(std::string(R"("call": "read", "errno": ")") + name + R"(")"));
    }
    for (const char* number : {"", "x", "0x", "0x400178FE ", " 1", "-1", "+1", "1z", "4294967296",
                               "0x1400178FE", "99999999999999999999", "0x400178FE,", "abc"}) {
        EXPECT_EQ(std::string("\"") + number + "\" is no request number",
                  ErrorOfFault(std::string(R"("call": "ioctl", "errno": "EIO", "request": ")") +
                               number + R"(")"));
    }
    EXPECT_EQ("a fault knows no \"time\"",
              ErrorOfFault(R"("call": "read", "errno": "EIO", "time": 2)"));
    EXPECT_EQ("a fault must be an object in braces, not a number",
              ErrorOf(R"({"cards": [], "faults": [1]})"));
    EXPECT_EQ("a fault needs \"call\"", ErrorOfFault(R"("errno": "EIO")"));
    EXPECT_EQ("", ErrorOfFault(R"("call": "stat", "node": "/dev/spdb", "errno": "EIO")"));
    EXPECT_EQ("", ErrorOfFault(R"("call": "open", "node": "/dev/spdb", "errno": "EIO")"));
    EXPECT_EQ("a fault names /dev/spdb, and no card has such a node",
              ErrorOfFault(R"("call": "read", "node": "/dev/spdb", "errno": "EIO")"));
    EXPECT_EQ("a fault names /dev/spdb, and no card has such a node",
              ErrorOfFault(R"("call": "read", "eject": "/dev/spdb")"));
    for (const char* node : {"/dev/spdb", "/dev/mivosdif0", "/dev/sdcarda", ""}) {
        EXPECT_EQ(std::string("no card can be put back into \"") + node + "\"",
                  ErrorOfFault(std::string(R"("call": "read", "insert": ")") + node + R"(")"));
    }
    EXPECT_EQ("a fault cannot \"eject\" and \"insert\" at once",
              ErrorOf(R"({"cards": [{"driver": "zel", "image": "card.img"}],
                          "faults": [{"call": "read", "eject": "/dev/spda",
                                      "insert": "/dev/spda"}]})"));
    EXPECT_EQ("a fault names /dev/mivosdif0, and no card has such a node",
              ErrorOfFault(R"("call": "read", "eject": "/dev/mivosdif0")"));
    EXPECT_EQ("a fault needs \"errno\", \"eject\" or \"insert\"",
              ErrorOfFault(R"("call": "read")"));
    for (const char* count : {"0", "-1", "\"2\"", "1.5", "null"}) {
        EXPECT_EQ(
            "\"first\" counts from 1",
            ErrorOfFault(std::string(R"("call": "read", "errno": "EIO", "first": )") + count));
        EXPECT_EQ(
            "\"times\" counts from 1",
            ErrorOfFault(std::string(R"("call": "read", "errno": "EIO", "times": )") + count));
    }
    AddFromFile(kernel, folder.Path("card.img"));
    const int fd = open64(kNode, O_RDWR);
    uint8_t byte = 0;
    EXPECT_EQ(1, read(fd, &byte, 1)) << "none was planned";
}

// --- descriptions ------------------------------------------------------------------------------

TEST_F(ConfigTest, RefusesWrongDescriptions)
{
    EXPECT_EQ("the description must be an object in braces, not a list", ErrorOf("[]"));
    EXPECT_EQ("the description knows no \"card\"", ErrorOf(R"({"cards": [], "card": []})"));
    EXPECT_EQ("the description needs \"cards\"", ErrorOf("{}"));
    EXPECT_EQ(0u, ErrorOf("").find("parse error at line 1, column 1: "));
    EXPECT_EQ(0u, ErrorOf("{\"cards\": [}").find("parse error at line 1, column 12: "));
    EXPECT_EQ("", ErrorOf(R"({"cards": []})"));
    EXPECT_EQ(-1, open64(kNode, O_RDONLY));
    EXPECT_EQ(ENOENT, errno);

    const std::string none = folder.Path("none.json");
    try {
        AddFromFile(kernel, none);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ("cannot use " + none + ": No such file or directory", error.what());
    }
}

}  // namespace
