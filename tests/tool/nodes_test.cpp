// SPDX-License-Identifier: MIT
//
// Which nodes the tool finds, where, and that it is silent about it.
#include "tools/cardtool/nodes.h"

#include <filesystem>
#include <memory>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "sim/kernel.h"
#include "tests/support/temp_folder.h"

namespace {

namespace fs = std::filesystem;

class Nodes : public testing::Test {
protected:
    void AddNode(const std::string& path, unsigned type, unsigned major, unsigned minor)
    {
        kernel.AddNode(path, {type, major, minor, std::make_shared<cardsim::Driver>()});
        paths.push_back(path);
    }

    std::vector<std::string> Found()
    {
        std::vector<std::string> names;
        for (const DrvInfo& node : CardNodes(paths)) {
            names.emplace_back(node.dev_path);
        }
        return names;
    }

    cardsim::Kernel kernel;
    std::vector<std::string> paths;
    TempFolder folder;
};

using Names = std::vector<std::string>;

TEST_F(Nodes, AreThoseThatABackEndServes)
{
    AddNode("/dev/block/mine", S_IFBLK, 240, 17);
    AddNode("/dev/host", S_IFBLK, 244, 1);
    AddNode("/dev/adaptor", S_IFCHR, 248, 3);
    AddNode("/dev/wrong-kind", S_IFCHR, 240, 33);
    AddNode("/dev/disk", S_IFBLK, 8, 0);
    AddNode("/dev/before-the-first", S_IFBLK, 240, 0);
    paths.emplace_back("/dev/not-there");
    paths.push_back("/dev/" + std::string(260, 'x'));
    EXPECT_EQ((Names{"/dev/block/mine", "/dev/host", "/dev/adaptor"}), Found());
    EXPECT_EQ(1, CardNodes(paths).front().dev_index);
}

TEST_F(Nodes, NameEachDeviceOnce)
{
    AddNode("/dev/spdb", S_IFBLK, 240, 17);
    AddNode("/dev/spdb1", S_IFBLK, 240, 18);
    AddNode("/dev/cards/b", S_IFBLK, 240, 17);
    AddNode("/dev/spdc", S_IFBLK, 240, 33);
    EXPECT_EQ((Names{"/dev/spdb", "/dev/spdc"}), Found());
}

TEST_F(Nodes, AreLookedForWithoutALineOfTheLibrary)
{
    AddNode("/dev/disk", S_IFBLK, 8, 0);
    paths.emplace_back("/dev/not-there");
    testing::internal::CaptureStdout();
    EXPECT_EQ(Names{}, Found());
    EXPECT_EQ(-19, [] {
        DrvInfo handle = {};
        std::string("/dev/disk").copy(handle.dev_path, sizeof handle.dev_path - 1);
        return DevDetect(&handle);
    }());
    const std::string printed = testing::internal::GetCapturedStdout();
    // Afterwards it speaks again, and that is all.
    EXPECT_NE(std::string::npos, printed.find("Not support SM331-SD!"));
    EXPECT_EQ(printed.find("SM331"), printed.rfind("SM331"));
    EXPECT_EQ(std::string::npos, printed.find("not-there"));
}

TEST_F(Nodes, LieInAFolderAndOneLevelBelow)
{
    fs::create_directories(folder.Path("sub/deep"));
    fs::create_symlink("/dev/null", folder.Path("z"));
    fs::create_symlink("/dev/null", folder.Path("a"));
    fs::create_symlink("/dev/null", folder.Path("sub/b"));
    fs::create_symlink("/dev/null", folder.Path("sub/deep/c"));
    fs::create_symlink("..", folder.Path("sub/loop"));
    fs::create_symlink(".", folder.Path("loop"));
    folder.Text("file", "no node");
    EXPECT_EQ((Names{folder.Path("a"), folder.Path("loop"), folder.Path("z"), folder.Path("sub/b"),
                     folder.Path("sub/loop")}),
              NodesBelow(folder.Path("")));
}

TEST_F(Nodes, AreNoneWhereNothingCanBeRead)
{
    EXPECT_EQ(Names{}, NodesBelow(folder.Path("not-there")));
}

}  // namespace
