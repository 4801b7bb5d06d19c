// SPDX-License-Identifier: MIT
//
// Which back-end a node belongs to, for every node that a system may have.
#include <sys/stat.h>

#include "tests/backends/fixture.h"

namespace {

class Detect : public testing::Test {
protected:
    // What DevDetect says of a path, which leaves the handle alone where it fails.
    Outcome Of(const std::string& path)
    {
        handle = HandleFor(path);
        handle.dev_type = 77;
        handle.dev_index = 88;
        return OutcomeOf([&] { return DevDetect(&handle); });
    }

    void ExpectUntouched() const
    {
        EXPECT_EQ(77, handle.dev_type);
        EXPECT_EQ(88, handle.dev_index);
        EXPECT_EQ(nullptr, handle.ops);
    }

    std::unique_ptr<Bench> bench = Bench::Create();
    DrvInfo handle = {};
};

TEST_F(Detect, FindsEveryUnitOfEveryBackEnd)
{
    struct Unit {
        const char* place;
        const char* node;
        int32_t type;
        int32_t index;
        const DrvOps* ops;
    };
    for (const Unit& unit : {
             Unit{"zel0", "/dev/spda", DEV_TYPE_ZEL, 0, &zel_ops},
             Unit{"zel1", "/dev/spdb", DEV_TYPE_ZEL, 1, &zel_ops},
             Unit{"zel2", "/dev/spdc", DEV_TYPE_ZEL, 2, &zel_ops},
             Unit{"zel3", "/dev/spdd", DEV_TYPE_ZEL, 3, &zel_ops},
             Unit{"zel4", "/dev/spde", DEV_TYPE_ZEL, 4, &zel_ops},
             Unit{"zel5", "/dev/spdf", DEV_TYPE_ZEL, 5, &zel_ops},
             Unit{"mivo0", "/dev/mivosdif0", DEV_TYPE_MIVO, 0, &mivo_ops},
             Unit{"mivo1", "/dev/mivosdif1", DEV_TYPE_MIVO, 1, &mivo_ops},
             Unit{"ricoh", "/dev/sdcarda", DEV_TYPE_RICOH_SD, 0, &ricoh_sd_ops},
         }) {
        SCOPED_TRACE(unit.node);
        bench->Insert(unit.place, Bytes(64 * 512));
        EXPECT_EQ(Outcome{0}, Of(unit.node));
        EXPECT_EQ(unit.type, handle.dev_type);
        EXPECT_EQ(unit.index, handle.dev_index);
        EXPECT_EQ(unit.ops, handle.ops);
        EXPECT_EQ(nullptr, handle.priv);
        EXPECT_EQ(std::string(unit.node), handle.dev_path);
        // And each opens, for itself.
        EXPECT_NE("", Printed([&] { EXPECT_EQ(0, DevInit(&handle)); }));
        uint16_t status = 0;
        EXPECT_EQ(0, CARD_Getstatus(&handle, &status));
        EXPECT_EQ(CARD_STATUS_READY, status);
        Printed([&] { DevExit(&handle); });
    }
    EXPECT_EQ("", bench->LeftBehind());
}

// The numbers decide, not the name.
TEST_F(Detect, GoesByTypeAndNumber)
{
    struct Node {
        mode_t type;
        unsigned major;
        unsigned minor;
        int64_t result;
        int32_t dev_type;
        int32_t dev_index;
        const char* refusal;
    };
    const Node nodes[] = {
        {S_IFBLK, 240, 0, 0, DEV_TYPE_ZEL, -1, nullptr},
        {S_IFBLK, 240, 2, 0, DEV_TYPE_ZEL, 0, nullptr},
        {S_IFBLK, 240, 16, 0, DEV_TYPE_ZEL, 0, nullptr},
        {S_IFBLK, 240, 17, 0, DEV_TYPE_ZEL, 1, nullptr},
        {S_IFBLK, 240, 0x12345, 0, DEV_TYPE_ZEL, 0x1234, nullptr},
        {S_IFBLK, 244, 0, 0, DEV_TYPE_RICOH_SD, 0, nullptr},
        {S_IFBLK, 244, 200, 0, DEV_TYPE_RICOH_SD, 0, nullptr},
        {S_IFCHR, 248, 0, 0, DEV_TYPE_MIVO, 0, nullptr},
        {S_IFCHR, 248, 300, 0, DEV_TYPE_MIVO, 300, nullptr},
        {S_IFBLK, 8, 1, -19, 0, 0, "Not support SM331-SD!"},
        {S_IFBLK, 179, 1, -19, 0, 0, "Not support eSDHC-SD!"},
        {S_IFBLK, 248, 1, -19, 0, 0, "Unknown device number(248:1)!"},
        {S_IFBLK, 241, 300, -19, 0, 0, "Unknown device number(241:300)!"},
        {S_IFBLK, 1000, 3, -19, 0, 0, "Unknown device number(1000:3)!"},
        {S_IFCHR, 240, 1, -19, 0, 0, "Unknown device number(240:1)!"},
        {S_IFCHR, 244, 1, -19, 0, 0, "Unknown device number(244:1)!"},
        {S_IFCHR, 8, 0, -19, 0, 0, "Unknown device number(8:0)!"},
    };
    int number = 0;
    for (const Node& node : nodes) {
        const std::string path = "/dev/carddev_test" + std::to_string(number++);
        SCOPED_TRACE(std::to_string(node.major) + ":" + std::to_string(node.minor));
        bench->MakeNode(path, node.type, node.major, node.minor);
        if (node.refusal == nullptr) {
            EXPECT_EQ(Outcome{0}, Of(path));
            EXPECT_EQ(node.dev_type, handle.dev_type);
            EXPECT_EQ(node.dev_index, handle.dev_index);
        } else {
            EXPECT_EQ(
                (Outcome{node.result, std::string("[drv:DevDetect(#)](E)") + node.refusal + "\n"}),
                Of(path));
            ExpectUntouched();
        }
    }
}

TEST_F(Detect, RefusesWhatIsNoCard)
{
    EXPECT_EQ((Outcome{-19, "[drv:DevDetect(#)](E)Unknown device number(1:3)!\n"}),
              Of("/dev/null"));
    ExpectUntouched();
    for (const char* path : {"/tmp", "/proc/self/exe"}) {
        EXPECT_EQ(
            (Outcome{-22, std::string("[drv:DevDetect(#)](E)") + path + " is not device file\n"}),
            Of(path));
        ExpectUntouched();
    }
    for (const char* path : {"/dev/nothing", "/tmp/no/such/file", "", "spda"}) {
        EXPECT_EQ((Outcome{-1,
                           std::string("[drv:DevDetect(#)](E)stat[") + path +
                               "] failed : No such file or directory\n",
                           ENOENT}),
                  Of(path));
        ExpectUntouched();
    }
    EXPECT_EQ((Outcome{-1, "[drv:DevDetect(#)](E)stat[/proc/self/exe/x] failed : Not a directory\n",
                       ENOTDIR}),
              Of("/proc/self/exe/x"));
    EXPECT_EQ((Outcome{-22, "[drv:DevDetect(#)](E)info is null\n"}),
              OutcomeOf([] { return DevDetect(nullptr); }));
}

// An index outside the back-end's units, a slot's real number with no card behind it.
TEST_F(Detect, LeavesTheRestToInit)
{
    bench->MakeNode("/dev/carddev_test", S_IFBLK, 240, 0);
    EXPECT_EQ(Outcome{0}, Of("/dev/carddev_test"));
    const Outcome refused = OutcomeOf([&] { return DevInit(&handle); });
    EXPECT_EQ(-1, refused.result);
    EXPECT_NE("", refused.printed);
    EXPECT_EQ("", bench->LeftBehind());

    struct Empty {
        const char* place;
        const char* node;
        const char* line;
        int error;
    };
    for (const Empty& empty : {
             Empty{"zel2", "/dev/spdc",
                   "[zel:Zel_Init(#)](E)open[/dev/spdc] failed : No medium found\n", ENOMEDIUM},
             Empty{"mivo0", "/dev/mivosdif0",
                   "[mivosdif:Mivo_Init(#)](E)MIVOSDIF_IOC_MNTFS ioctl[/dev/mivosdif0] failed : No "
                   "such device\n",
                   ENODEV},
             Empty{"ricoh", "/dev/sdcarda",
                   "[zel:RicohSD_Init(#)](E)open[/dev/sdcarda] failed : No medium found\n",
                   ENOMEDIUM},
         }) {
        SCOPED_TRACE(empty.node);
        bench->Insert(empty.place, Bytes(64 * 512));
        bench->Eject(empty.place);
        EXPECT_EQ(Outcome{0}, Of(empty.node));
        EXPECT_EQ((Outcome{-1, empty.line, empty.error}),
                  OutcomeOf([&] { return DevInit(&handle); }));
        EXPECT_EQ("", bench->LeftBehind());
    }
}

}  // namespace
