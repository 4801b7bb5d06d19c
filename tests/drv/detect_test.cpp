// SPDX-License-Identifier: MIT
//
// DevDetect: which node is served by which back-end.
#include <cerrno>
#include <memory>

#include <gtest/gtest.h>

#include "tests/support/capture.h"
#include "tests/support/handle.h"
#include "tests/support/trace.h"

namespace {

using cardsim::CallKind;
using cardsim::Kernel;

constexpr char kPath[] = "/dev/card";

struct Detection {
    mode_t type;
    unsigned major;
    unsigned minor;
    int32_t result;
    int32_t dev_type;
    int32_t dev_index;
    const DrvOps* ops;
    const char* printed;
};

class Detect : public testing::Test {
protected:
    void Node(mode_t type, unsigned major, unsigned minor)
    {
        kernel.AddNode(kPath, {type, major, minor, std::make_shared<cardsim::Driver>()});
    }

    // A handle whose every field shows whether it was written.
    static DrvInfo Marked(const std::string& path)
    {
        DrvInfo handle = HandleFor(path);
        handle.dev_type = 77;
        handle.dev_index = 88;
        handle.ops = &mivo_ops;
        handle.priv = &handle;
        return handle;
    }

    static void ExpectUntouched(const DrvInfo& handle, const DrvInfo& before)
    {
        EXPECT_EQ(0, memcmp(&handle, &before, sizeof handle));
    }

    Kernel kernel;
};

TEST_F(Detect, ChoosesTheBackEndByTypeAndMajor)
{
    const Detection table[] = {
        {S_IFBLK, 240, 1, 0, 0, 0, &zel_ops, ""},
        {S_IFBLK, 240, 16, 0, 0, 0, &zel_ops, ""},
        {S_IFBLK, 240, 17, 0, 0, 1, &zel_ops, ""},
        {S_IFBLK, 240, 32, 0, 0, 1, &zel_ops, ""},
        {S_IFBLK, 240, 96, 0, 0, 5, &zel_ops, ""},
        {S_IFBLK, 240, 0, 0, 0, -1, &zel_ops, ""},
        {S_IFBLK, 240, 0xFFFFF, 0, 0, 0xFFFF, &zel_ops, ""},
        {S_IFBLK, 244, 0, 0, 2, 0, &ricoh_sd_ops, ""},
        {S_IFBLK, 244, 33, 0, 2, 0, &ricoh_sd_ops, ""},
        {S_IFCHR, 248, 0, 0, 1, 0, &mivo_ops, ""},
        {S_IFCHR, 248, 1, 0, 1, 1, &mivo_ops, ""},
        {S_IFCHR, 248, 0x12345, 0, 1, 0x12345, &mivo_ops, ""},
        {S_IFBLK, 8, 0, -19, 77, 88, &mivo_ops, "[drv:DevDetect(#)](E)Not support SM331-SD!\n"},
        {S_IFBLK, 179, 0, -19, 77, 88, &mivo_ops, "[drv:DevDetect(#)](E)Not support eSDHC-SD!\n"},
        {S_IFBLK, 248, 3, -19, 77, 88, &mivo_ops,
         "[drv:DevDetect(#)](E)Unknown device number(248:3)!\n"},
        {S_IFCHR, 240, 1, -19, 77, 88, &mivo_ops,
         "[drv:DevDetect(#)](E)Unknown device number(240:1)!\n"},
        {S_IFCHR, 244, 0, -19, 77, 88, &mivo_ops,
         "[drv:DevDetect(#)](E)Unknown device number(244:0)!\n"},
        {S_IFCHR, 8, 0, -19, 77, 88, &mivo_ops,
         "[drv:DevDetect(#)](E)Unknown device number(8:0)!\n"},
        {S_IFCHR, 179, 7, -19, 77, 88, &mivo_ops,
         "[drv:DevDetect(#)](E)Unknown device number(179:7)!\n"},
    };
    for (const Detection& row : table) {
        SCOPED_TRACE(testing::Message() << (row.type == S_IFBLK ? "block " : "character ")
                                        << row.major << ":" << row.minor);
        Node(row.type, row.major, row.minor);
        DrvInfo handle = Marked(kPath);
        int32_t result = 1;
        const std::string printed = Printed([&] { result = DevDetect(&handle); });
        EXPECT_EQ(row.result, result);
        EXPECT_EQ(row.dev_type, handle.dev_type);
        EXPECT_EQ(row.dev_index, handle.dev_index);
        EXPECT_EQ(row.ops, handle.ops);
        EXPECT_EQ(&handle, handle.priv);
        EXPECT_STREQ(kPath, handle.dev_path);
        EXPECT_EQ(row.printed, printed);
    }
}

TEST_F(Detect, SplitsTheDeviceNumberAcrossItsHighBits)
{
    Node(S_IFBLK, 0xABCDE, 0x54321);
    DrvInfo handle = HandleFor(kPath);
    EXPECT_EQ("[drv:DevDetect(#)](E)Unknown device number(703710:344865)!\n",
              Printed([&] { EXPECT_EQ(-19, DevDetect(&handle)); }));
}

TEST_F(Detect, AsksOnlyForTheNodesStatus)
{
    Node(S_IFBLK, 244, 1);
    DrvInfo handle = HandleFor(kPath);
    ASSERT_EQ(0, DevDetect(&handle));
    EXPECT_EQ(Trace{"stat64(/dev/card) = 0"}, TraceOf(kernel));
}

TEST_F(Detect, RefusesANullHandle)
{
    EXPECT_EQ("[drv:DevDetect(#)](E)info is null\n",
              Printed([] { EXPECT_EQ(-22, DevDetect(nullptr)); }));
}

TEST_F(Detect, PassesOnAFailedStat)
{
    DrvInfo handle = Marked("/dev/none");
    const DrvInfo before = handle;
    EXPECT_EQ("[drv:DevDetect(#)](E)stat[/dev/none] failed : No such file or directory\n",
              Printed([&] {
                  EXPECT_EQ(-1, DevDetect(&handle));
                  EXPECT_EQ(ENOENT, errno);
              }));
    ExpectUntouched(handle, before);

    cardsim::Fault denied;
    denied.kind = CallKind::Stat;
    denied.error = EACCES;
    kernel.Inject(denied);
    EXPECT_EQ("[drv:DevDetect(#)](E)stat[/dev/none] failed : Permission denied\n",
              Printed([&] { EXPECT_EQ(-1, DevDetect(&handle)); }));
}

TEST_F(Detect, RefusesWhatIsNoDevice)
{
    for (const char* path : {"/etc/passwd", "/etc"}) {
        DrvInfo handle = Marked(path);
        const DrvInfo before = handle;
        EXPECT_EQ(std::string("[drv:DevDetect(#)](E)") + path + " is not device file\n",
                  Printed([&] { EXPECT_EQ(-22, DevDetect(&handle)); }));
        ExpectUntouched(handle, before);
    }
    for (const int type : {S_IFIFO, S_IFSOCK, S_IFLNK}) {
        Node(static_cast<mode_t>(type), 240, 1);
        DrvInfo handle = HandleFor(kPath);
        EXPECT_EQ("[drv:DevDetect(#)](E)/dev/card is not device file\n",
                  Printed([&] { EXPECT_EQ(-22, DevDetect(&handle)); }));
    }
}

// The field behind the path must not be taken for more of it.
TEST_F(Detect, DoesNotReadPastAPathWithoutAnEnd)
{
    DrvInfo handle = {};
    memset(handle.dev_path, 'x', sizeof handle.dev_path);
    memset(&handle.dev_type, 'y', sizeof handle.dev_type);
    const DrvInfo before = handle;
    EXPECT_EQ(
        "[drv:DevDetect(#)](E)stat[" + std::string(256, 'x') + "] failed : File name too long\n",
        Printed([&] {
            EXPECT_EQ(-1, DevDetect(&handle));
            EXPECT_EQ(ENAMETOOLONG, errno);
        }));
    ExpectUntouched(handle, before);
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(Detect, TakesTheLongestPathThatEnds)
{
    const std::string longest = "/dev/" + std::string(250, 'z');
    kernel.AddNode(longest, {S_IFCHR, 248, 1, std::make_shared<cardsim::Driver>()});
    DrvInfo handle = HandleFor(longest);
    EXPECT_EQ(0, DevDetect(&handle));
    EXPECT_EQ(&mivo_ops, handle.ops);
}

}  // namespace
