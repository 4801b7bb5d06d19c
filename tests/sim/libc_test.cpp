// SPDX-License-Identifier: MIT
//
// What is not the stand-in's reaches the real libc, with a Kernel or without.
#include <chrono>
#include <optional>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "sim/kernel.h"
#include "tests/support/temp_folder.h"

namespace {

using cardsim::Kernel;

class LibcTest : public testing::TestWithParam<bool> {
protected:
    LibcTest()
    {
        if (GetParam()) {
            kernel.emplace();
        }
    }
    ~LibcTest() override { EXPECT_TRUE(!kernel || kernel->Calls().empty()); }

    std::optional<Kernel> kernel;
};

INSTANTIATE_TEST_SUITE_P(WithAndWithoutAKernel, LibcTest, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& which) {
                             return which.param ? "With" : "Without";
                         });

TEST_P(LibcTest, ServesFiles)
{
    const TempFolder folder;
    const std::string path = folder.Path("file");
    const mode_t before = umask(0);
    const int fd = open64(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    umask(before);
    ASSERT_LE(0, fd);
    EXPECT_EQ(5, write(fd, "hello", 5));
    EXPECT_EQ(0x100000001, lseek64(fd, 0x100000001, SEEK_SET));
    EXPECT_EQ(1, lseek64(fd, 1, SEEK_SET));
    char text[4] = {};
    EXPECT_EQ(4, read(fd, text, 4));
    EXPECT_EQ("ello", std::string(text, 4));
    struct stat64 file;
    EXPECT_EQ(0, stat64(path.c_str(), &file));
    EXPECT_EQ(S_IFREG | 0640u, file.st_mode);
    EXPECT_EQ(5, file.st_size);
    EXPECT_EQ(0, close(fd));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    EXPECT_EQ(-1, open64(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640));
    EXPECT_EQ(EEXIST, errno);
}

TEST_P(LibcTest, ServesPipes)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    pollfd asked = {ends[0], POLLIN, 0};
    EXPECT_EQ(0, poll(&asked, 1, 0));
    EXPECT_EQ(3, write(ends[1], "abc", 3));
    EXPECT_EQ(1, poll(&asked, 1, 1000));
    EXPECT_EQ(POLLIN, asked.revents);
    int waiting = 0;
    EXPECT_EQ(0, ioctl(ends[0], FIONREAD, &waiting));
    EXPECT_EQ(3, waiting);
    pollfd both[2] = {{ends[0], POLLIN, 0}, {ends[1], POLLOUT, 0}};
    EXPECT_EQ(2, poll(both, 2, 1000));
    EXPECT_EQ(-1, lseek64(ends[0], 0, SEEK_SET));
    EXPECT_EQ(ESPIPE, errno);
    EXPECT_EQ(0, close(ends[0]));
    EXPECT_EQ(0, close(ends[1]));
}

TEST_P(LibcTest, ServesTheDevicesOfEveryProgram)
{
    const int fd = open64("/dev/zero", O_RDONLY);
    ASSERT_LE(0, fd);
    uint8_t byte = 1;
    EXPECT_EQ(1, read(fd, &byte, 1));
    EXPECT_EQ(0, byte);
    EXPECT_EQ(0, close(fd));
    struct stat64 node;
    EXPECT_EQ(0, stat64("/dev/null", &node));
    EXPECT_TRUE(S_ISCHR(node.st_mode));
    EXPECT_EQ(0, stat64("/dev", &node));
    EXPECT_TRUE(S_ISDIR(node.st_mode));
}

TEST_P(LibcTest, LeavesErrnoAlone)
{
    errno = EXFULL;
    const int fd = open64("/dev/null", O_RDWR);
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(1, write(fd, "x", 1));
    EXPECT_EQ(EXFULL, errno);
    EXPECT_EQ(0, close(fd));
    EXPECT_EQ(EXFULL, errno);
}

TEST(LibcWithoutAKernel, ReachesTheRealDevicesAndSleeps)
{
    struct stat64 node;
    EXPECT_EQ(-1, stat64("/dev/sdcarda-of-no-machine", &node));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, close(-1));
    EXPECT_EQ(EBADF, errno);
    const auto before = std::chrono::steady_clock::now();
    const timespec length = {0, 2000000};
    EXPECT_EQ(0, nanosleep(&length, nullptr));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(2));
}

}  // namespace
