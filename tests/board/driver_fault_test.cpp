// SPDX-License-Identifier: MIT
//
// Faults that are set through the control files.
#include "tests/board/driver_nodes.h"

namespace board {
namespace {

class DriverFault : public BothDrivers {
protected:
    void Fault(const std::string& line) { EXPECT_EQ(0, Put(kPlace, "faults", line)) << line; }
    static std::string Hex(uint32_t number)
    {
        char text[16];
        snprintf(text, sizeof text, "0x%08x", number);
        return text;
    }
    const std::string kRead = "request=" + Hex(GetParam().read);
};
INSTANTIATE_TEST_SUITE_P(Drivers, DriverFault, testing::Values(kZel, kMivo), NameOf);

TEST_P(DriverFault, RefusesLinesItCannotRead)
{
    for (const char* line : {"call=ioctl",
                             "nonsense",
                             "errno=",
                             "errno=EWHAT",
                             "errno=0",
                             "errno=-5",
                             "errno=5000",
                             "errno=EIO nonsense=1",
                             "call=close errno=EIO",
                             "call=stat errno=EIO",
                             "result=x",
                             "result=1 errno=EIO",
                             "errno=EIO errno=EIO",
                             "revents=0x10000",
                             "call=poll errno=EIO",
                             "call=ioctl revents=8",
                             "call=read result=3",
                             "call=read request=1 errno=EIO",
                             "call=open never",
                             "reach",
                             "call=open errno=EIO reach",
                             "first=0 errno=EIO",
                             "times=0 errno=EIO",
                             "times=-1 errno=EIO",
                             "times=ever errno=EIO",
                             "eject protect",
                             "exchange=",
                             "first=1",
                             "node=there errno=EIO"}) {
        EXPECT_GT(0, Put(kPlace, "faults", line)) << line;
    }
    EXPECT_EQ(-ENOENT, Put(kPlace, "faults", "exchange=/tmp/there/is/none"));
    EXPECT_EQ("", Get(kPlace, "faults"));
    EXPECT_EQ(-EINVAL, Put("rtctrl", "faults", "eject"));
    EXPECT_EQ(-EINVAL, Put("ricoh", "faults", "call=poll revents=8"));
    EXPECT_EQ(-EINVAL, Put("mivo0", "faults", "node=char errno=EIO"));
    EXPECT_EQ(-EINVAL, Put(kPlace, "faults", std::string(5000, 'x')));
    for (int i = 0; i < 64; i++) {
        EXPECT_EQ(0, Put(kPlace, "faults", "errno=EIO first=1000"));
    }
    EXPECT_EQ(-ENOSPC, Put(kPlace, "faults", "errno=EIO first=1000"));
}

TEST_P(DriverFault, ListsThoseThatWait)
{
    Fault("call=ioctl  errno=EBUSY times=2\n");
    Fault("revents=0x8\nresult=7 request=0x1\n");
    EXPECT_EQ("call=ioctl  errno=EBUSY times=2\nrevents=0x8\nresult=7 request=0x1\n",
              Get(kPlace, "faults"));
    EXPECT_EQ(-EBUSY, Ask(node, GetParam().reset));
    EXPECT_EQ(-EBUSY, Ask(node, GetParam().reset));
    EXPECT_EQ(0, Ask(node, GetParam().reset));
    EXPECT_EQ("revents=0x8\nresult=7 request=0x1\n", Get(kPlace, "faults"));
    Fault("clear");
    EXPECT_EQ("", Get(kPlace, "faults"));
}

TEST_P(DriverFault, AnswersInsteadOfTheDriver)
{
    Fault("call=ioctl " + kRead + " errno=EILSEQ first=2 times=2");
    const int expected[] = {0, -EILSEQ, -EILSEQ, 0};
    for (const int result : expected) {
        const Bytes before = memory;
        ASSERT_EQ(result, Read(0, 1));
        EXPECT_EQ(result == 0 ? POLLOUT : -1, Events(node, result == 0 ? 1000 : 1));
        EXPECT_EQ(result == 0 ? Slice(content, 0, 1) : Slice(before, 0, 1), Slice(memory, 0, 1));
        memory = Pattern(kSectors, 99);
    }
    Fault("call=ioctl errno=123 times=forever");
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(-123, Read(0, 1));
    }
}

TEST_P(DriverFault, GivesAnotherResult)
{
    Fault(kRead + " result=1");
    EXPECT_EQ(1, Read(0, 1));
    EXPECT_EQ(-1, Events(node, 1));
    Fault(kRead + " result=1 reach");
    EXPECT_EQ(1, Read(0, 1));
    EXPECT_EQ(POLLOUT, Events(node));
    EXPECT_EQ(Slice(content, 0, 1), Slice(memory, 0, 1));
    Fault(kRead + " errno=EIO reach");
    EXPECT_EQ(-EIO, Read(5, 1));
    EXPECT_EQ(POLLOUT, Events(node));
    EXPECT_EQ(Slice(content, 5, 1), Slice(memory, 0, 1));
}

TEST_P(DriverFault, NeverTellsTheEnd)
{
    for (const unsigned latency : {0u, 100u}) {
        Latency(latency);
        for (const std::string& line : {kRead + " never", std::string("call=transfer-end never")}) {
            Fault(line);
            ASSERT_EQ(0, Read(0, 1));
            EXPECT_EQ(-1, Events(node, 100));
            EXPECT_EQ("0", State(kPlace, "busy"));
            ASSERT_EQ(0, Read(0, 1));
            EXPECT_EQ(POLLOUT, Events(node));
        }
    }
}

TEST_P(DriverFault, TellsAnotherEnd)
{
    for (const unsigned latency : {0u, 20000u}) {
        Latency(latency);
        Fault("call=poll revents=0x8");
        ASSERT_EQ(0, Read(0, 1));
        EXPECT_EQ(POLLERR, Events(node));
        EXPECT_EQ("0", State(kPlace, "busy"));
        EXPECT_EQ(-1, Events(node, 1));
        Fault("call=poll revents=0x5 first=2");
        ASSERT_EQ(0, Read(0, 1));
        EXPECT_EQ(POLLOUT, Events(node));
        ASSERT_EQ(0, Read(0, 1));
        EXPECT_EQ(POLLOUT | POLLIN, Events(node));
    }
    EXPECT_EQ("", Get(kPlace, "faults"));
}

TEST_P(DriverFault, FailsAtTheEnd)
{
    Latency(1000);
    const Bytes before = memory;
    Fault("call=transfer-end errno=EIO");
    ASSERT_EQ(0, Read(0, 1));
    EXPECT_EQ(POLLERR, Events(node));
    EXPECT_EQ(before, memory);
    Fault("call=transfer-end revents=0x10");
    ASSERT_EQ(0, Read(0, 1));
    EXPECT_EQ(POLLHUP, Events(node));
    EXPECT_EQ(-1, Events(node, 1));
    Fault("call=transfer-end eject");
    ASSERT_EQ(0, Read(0, 1));
    EXPECT_EQ(POLLERR, Events(node));
    EXPECT_EQ(-ENODEV, Read(0, 1));
}

TEST_P(DriverFault, FailsTheOpen)
{
    Fault("call=open errno=EACCES");
    EXPECT_EQ(-EACCES, OpenOutcome(GetParam().node, O_RDWR));
    EXPECT_EQ(0, OpenOutcome(GetParam().node, O_RDWR));
}

TEST_P(DriverFault, TakesTheCardAway)
{
    Latency(0);
    Fault(kRead + " eject first=2");
    ASSERT_EQ(0, Read(0, 1));
    // The call itself goes on.
    ASSERT_EQ(0, Read(9, 1));
    EXPECT_EQ(Slice(content, 9, 1), Slice(memory, 0, 1));
    EXPECT_EQ("0", State(kPlace, "sectors"));
    EXPECT_EQ(-ENODEV, Read(0, 1));
    // Where transfers take time, this one does not come to a good end.
    ASSERT_EQ(0, Insert(kPlace, content));
    Latency(1000000);
    Fault(kRead + " eject");
    ASSERT_EQ(0, Read(0, 1));
    EXPECT_EQ(POLLERR, Events(node));
}

TEST_P(DriverFault, ExchangesAndProtectsTheCard)
{
    const Bytes other = Pattern(64, 200);
    const std::string image = ImageFile(other);
    Latency(0);
    Fault(kRead + " errno=EIO exchange=" + image);
    unlink(image.c_str());
    EXPECT_EQ(-EIO, Read(0, 1));
    EXPECT_EQ("64", State(kPlace, "sectors"));
    ASSERT_EQ(0, Read(3, 1));
    EXPECT_EQ(Slice(other, 3, 1), Slice(memory, 0, 1));
    Fault(kRead + " protect");
    ASSERT_EQ(0, Write(3, 1));
    ASSERT_EQ(0, Read(3, 1));
    EXPECT_EQ(-EROFS, Write(3, 1));
    EXPECT_EQ("1\n", Get(kPlace, "protected"));
}

class PlainFault : public Places {};

TEST_F(PlainFault, OfTheMivoNode)
{
    ASSERT_EQ(0, Insert("mivo0", Pattern(64, 1)));
    const Fd node("/dev/mivosdif0", O_RDWR);
    uint8_t bytes[512];
    ASSERT_EQ(0, Put("mivo0", "faults", "call=read errno=EIO"));
    ASSERT_EQ(0, Put("mivo0", "faults", "call=write errno=EIO eject"));
    EXPECT_EQ(-EIO, Outcome(read(node.get(), bytes, 512)));
    EXPECT_EQ(512, Outcome(read(node.get(), bytes, 512)));
    EXPECT_EQ(-EIO, Outcome(write(node.get(), bytes, 512)));
    EXPECT_EQ(-ENXIO, Outcome(read(node.get(), bytes, 512)));
}

TEST_F(PlainFault, OfTheBlockNodes)
{
    for (const auto& [place, path] : {std::pair{"zel0", "/dev/spda"}, {"ricoh", "/dev/sdcarda"}}) {
        ASSERT_EQ(0, Insert(place, Pattern(64, 1)));
        ASSERT_EQ(0, Put(place, "faults", "call=open errno=EACCES"));
        EXPECT_EQ(-EACCES, OpenOutcome(path, O_RDWR | O_SYNC));
        const Fd node(path, O_RDWR | O_SYNC);
        ASSERT_EQ(0, Put(place, "faults", "call=read errno=EIO times=2"));
        alignas(512) uint8_t bytes[512] = {};
        EXPECT_EQ(-EIO, Outcome(pread64(node.get(), bytes, 512, 0)));
        ASSERT_EQ(0, Put(place, "faults", "clear"));
        EXPECT_EQ(512, Outcome(pread64(node.get(), bytes, 512, 0)));
        ASSERT_EQ(0, Put(place, "faults", "call=write errno=EIO"));
        EXPECT_EQ(-EIO, Outcome(pwrite64(node.get(), bytes, 512, 0)));
        ASSERT_EQ(0, Put(place, "faults", "clear"));
        EXPECT_EQ(512, Outcome(pwrite64(node.get(), bytes, 512, 0)));
        ASSERT_EQ(0, Put(place, "faults", "call=ioctl request=0x2000bc0a errno=EPROTO"));
        EXPECT_EQ(-EPROTO, Ask(node, kBlkMount));
    }
}

TEST_F(PlainFault, OfOneOfASlotsNodes)
{
    ASSERT_EQ(0, Insert("zel0", Pattern(64, 1)));
    const Fd block("/dev/spda", O_RDWR);
    const Fd character("/dev/spdra", O_RDWR);
    ASSERT_EQ(0, Put("zel0", "faults", "node=char call=ioctl errno=EIO"));
    EXPECT_EQ(0, Ask(block, kBlkMount));
    EXPECT_EQ(-EIO, Ask(character, kZelProtect));
    ASSERT_EQ(0, Put("zel0", "faults", "node=block errno=EIO"));
    EXPECT_EQ(0, Ask(character, kZelProtect));
    EXPECT_EQ(-EIO, Ask(block, kBlkMount));
}

TEST_F(PlainFault, OfTheControlNode)
{
    ASSERT_EQ(0, Put("rtctrl", "faults", "request=0x2000ec0a errno=EPERM"));
    const Fd node("/dev/rtctrl_zel", O_RDWR);
    const std::string locks = State("rtctrl", "locks");
    EXPECT_EQ(-EPERM, Ask(node, 0x2000EC0A));
    EXPECT_EQ(locks, State("rtctrl", "locks"));
    ASSERT_EQ(0, Put("rtctrl", "faults", "call=open errno=ENODEV"));
    EXPECT_EQ(-ENODEV, OpenOutcome("/dev/rtctrl_zel", O_RDWR));
    EXPECT_EQ(
        "/dev/rtctrl_zel open = 0\n/dev/rtctrl_zel ioctl 0x2000ec0a = -1\n"
        "/dev/rtctrl_zel open = -19\n",
        Trace("rtctrl"));
}

}  // namespace
}  // namespace board
