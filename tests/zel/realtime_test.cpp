// SPDX-License-Identifier: MIT
//
// The Zel back-end's real-time control node and the generic requests.
#include <climits>

#include "tests/zel/fixture.h"

namespace {

using cardsim::Call;
using cardsim::Fault;

constexpr char kGetStatus[] = "ioctl(/dev/spdra, 0x20007001) = 0";

// --- status bytes --------------------------------------------------------------------

struct StatusQuery {
    const char* name;
    const char* request_name;
    uint32_t request;
    const char* call;
    int32_t (*slot)(DrvInfo*);
    int32_t (*api)(DrvInfo*);
    uint8_t sim_rtctrl::* byte;
};

constexpr StatusQuery kQueries[] = {
    {"Zel_CheckRt", "RTCTRL_IOC_CHECK_RT_STATUS", RTCTRL_IOC_CHECK_RT_STATUS,
     "ioctl(/dev/rtctrl_zel, 0x4001ec1e)", Zel_CheckRt, DevCheckRt, &sim_rtctrl::rt_status},
    {"Zel_CheckDelay", "RTCTRL_IOC_CHECK_DELAY_STATUS", RTCTRL_IOC_CHECK_DELAY_STATUS,
     "ioctl(/dev/rtctrl_zel, 0x4001ec1f)", Zel_CheckDelay, DevCheckDelay,
     &sim_rtctrl::delay_status},
    {"Zel_RTOn4Wait", "RTCTRL_IOC_IS_RTON4WAIT", RTCTRL_IOC_IS_RTON4WAIT,
     "ioctl(/dev/rtctrl_zel, 0x4001ec20)", Zel_RTOn4Wait, DevRTOn4Wait, &sim_rtctrl::on_for_wait},
};

class ZelRtStatus : public Zel {
protected:
    Outcome Ask(const StatusQuery& query)
    {
        return OutcomeOf([&] { return query.slot(&handle); });
    }
};

TEST_F(ZelRtStatus, AnswersWithTheDriversByte)
{
    Use(3);
    Open();
    for (const StatusQuery& query : kQueries) {
        for (const uint8_t byte : Bytes{0, 1, 0x7F, 0x80, 0xFF}) {
            SCOPED_TRACE(testing::Message() << query.name << " " << int{byte});
            slots->With([&](sim_zel& zel) { zel.rt.*query.byte = byte; });
            kernel.ClearCalls();
            EXPECT_EQ((Outcome{byte}), Ask(query));
            EXPECT_EQ((Outcome{byte}), OutcomeOf([&] { return query.api(&handle); }));
            EXPECT_EQ(Trace(2, std::string(query.call) + " = 0"), TraceOf(kernel));
            EXPECT_EQ(dev->rt_fd, kernel.Calls().at(0).fd);
            slots->With([&](sim_zel& zel) { zel.rt.*query.byte = 0; });
        }
    }
}

// The byte is zero when the driver gets it, and any answer but a negative one will do.
TEST_F(ZelRtStatus, AnswersZeroWhereTheDriverWritesNothing)
{
    Open();
    for (const StatusQuery& query : kQueries) {
        for (const int answer : {0, 5}) {
            SCOPED_TRACE(testing::Message() << query.name << " " << answer);
            kernel.ClearFaults();
            uint8_t found = 0xE1;
            Fault silent;
            silent.request = query.request;
            silent.result = answer;
            silent.then = [&] {
                found = *reinterpret_cast<const uint8_t*>(kernel.Calls().back().argument);
            };
            kernel.Inject(silent);
            EXPECT_EQ((Outcome{0}), Ask(query));
            EXPECT_EQ(0, found);
        }
    }
}

TEST_F(ZelRtStatus, TakesAPositiveAnswerForSuccess)
{
    Open();
    for (const StatusQuery& query : kQueries) {
        SCOPED_TRACE(query.name);
        slots->With([&](sim_zel& zel) { zel.rt.*query.byte = 9; });
        Answer(query.request, 77);
        EXPECT_EQ((Outcome{9}), Ask(query));
    }
}

TEST_F(ZelRtStatus, GivesTheErrnoOfAFailure)
{
    Open();
    for (const StatusQuery& query : kQueries) {
        for (const int error : {ENOTTY, EIO, EBUSY, ENODEV}) {
            SCOPED_TRACE(testing::Message() << query.name << " " << strerror(error));
            kernel.ClearCalls();
            kernel.ClearFaults();
            FailRequest(query.request, error, 1, 2, true);
            EXPECT_EQ((Outcome{-error,
                               std::string("[zel:") + query.name + "(#)](E)" + query.request_name +
                                   " ioctl failed : " + strerror(error) + "\n",
                               error}),
                      Ask(query));
            EXPECT_EQ(Trace{std::string(query.call) + " = -1 " + strerrorname_np(error)},
                      TraceOf(kernel));
            int32_t result = 0;
            EXPECT_EQ(error, ErrnoAfter(EXFULL, [&] { result = query.slot(&handle); }));
            EXPECT_EQ(-error, result);
        }
    }
}

TEST_F(ZelRtStatus, NeedsAnOpenControlNode)
{
    Open();
    const int fd = dev->rt_fd;
    dev->rt_fd = 0;
    for (const StatusQuery& query : kQueries) {
        SCOPED_TRACE(query.name);
        EXPECT_EQ((Outcome{-19, std::string("[zel:") + query.name + "(#)](E)Invalid rt_fd!\n"}),
                  Ask(query));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { query.slot(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    // Only 0 counts as not open.
    dev->rt_fd = -1;
    for (const StatusQuery& query : kQueries) {
        EXPECT_EQ(-EBADF, Ask(query).result) << query.name;
    }
    EXPECT_EQ(3u, kernel.Calls().size());
    dev->rt_fd = fd;
}

TEST_F(ZelRtStatus, ReachesTheDriverWithoutCardAndWithoutLock)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    dev->ejected = 1;
    dev->io_error = 1;
    for (const StatusQuery& query : kQueries) {
        SCOPED_TRACE(query.name);
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0}), Ask(query));
        EXPECT_EQ(Trace{std::string(query.call) + " = 0"}, TraceOf(kernel));
    }
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(MutexCalls().empty());
}

// --- lock and unlock --------------------------------------------------------------------

struct Switch {
    const char* name;
    const char* request_name;
    uint32_t request;
    const char* call;
    void (*slot)(DrvInfo*);
    void (*api)(DrvInfo*);
    int step;  // of the driver's own count
};

constexpr Switch kSwitches[] = {
    {"Zel_LockRTOn", "RTCTRL_IOC_LOCK_RTON", RTCTRL_IOC_LOCK_RTON,
     "ioctl(/dev/rtctrl_zel, 0x2000ec0a)", Zel_LockRTOn, DevLockRTOn, 1},
    {"Zel_UnlockRTOn", "RTCTRL_IOC_UNLOCK_RTON", RTCTRL_IOC_UNLOCK_RTON,
     "ioctl(/dev/rtctrl_zel, 0x2000ec0b)", Zel_UnlockRTOn, DevUnlockRTOn, -1},
};

class ZelRtLock : public Zel {
protected:
    Outcome Throw(const Switch& which)
    {
        return OutcomeOf([&] { return which.slot(&handle), 0; });
    }

    int DriversCount()
    {
        int locks = 0;
        slots->With([&](sim_zel& zel) { locks = zel.rt.locks; });
        return locks;
    }
};

// Nothing is counted here: three calls are three requests, whichever they are.
TEST_F(ZelRtLock, SendsOneRequestACall)
{
    Open();
    for (const Switch& which : kSwitches) {
        SCOPED_TRACE(which.name);
        kernel.ClearCalls();
        const int before = DriversCount();
        EXPECT_EQ((Outcome{0}), Throw(which));
        EXPECT_EQ((Outcome{0}), Throw(which));
        EXPECT_EQ("", Printed([&] { which.api(&handle); }));
        EXPECT_EQ(Trace(3, std::string(which.call) + " = 0"), TraceOf(kernel));
        for (const Call& call : kernel.Calls()) {
            EXPECT_EQ(dev->rt_fd, call.fd);
            EXPECT_EQ(0u, call.argument);
        }
        EXPECT_EQ(3 * which.step, DriversCount() - before);
    }
}

TEST_F(ZelRtLock, ReportsAFailureInALineAlone)
{
    Open();
    for (const Switch& which : kSwitches) {
        for (const int error : {ENOTTY, EIO}) {
            SCOPED_TRACE(testing::Message() << which.name << " " << strerror(error));
            kernel.ClearCalls();
            kernel.ClearFaults();
            FailRequest(which.request, error, 1, 2);
            EXPECT_EQ((Outcome{0,
                               std::string("[zel:") + which.name + "(#)](E)" + which.request_name +
                                   " failed : " + strerror(error) + "\n",
                               error}),
                      Throw(which));
            EXPECT_EQ(Trace{std::string(which.call) + " = -1 " + strerrorname_np(error)},
                      TraceOf(kernel));
            EXPECT_EQ(error, ErrnoAfter(EXFULL, [&] { which.slot(&handle); }));
        }
        Answer(which.request, 5);
        EXPECT_EQ((Outcome{0}), Throw(which));
    }
}

TEST_F(ZelRtLock, NeedsAnOpenControlNode)
{
    Open();
    const int fd = dev->rt_fd;
    dev->rt_fd = 0;
    for (const Switch& which : kSwitches) {
        SCOPED_TRACE(which.name);
        EXPECT_EQ((Outcome{0, std::string("[zel:") + which.name + "(#)](E)Invalid rt_fd!\n"}),
                  Throw(which));
        EXPECT_EQ(EXFULL, ErrnoAfter(EXFULL, [&] { which.slot(&handle); }));
    }
    EXPECT_TRUE(kernel.Calls().empty());
    dev->rt_fd = -1;
    for (const Switch& which : kSwitches) {
        EXPECT_EQ(EBADF, Throw(which).error) << which.name;
    }
    EXPECT_EQ(2u, kernel.Calls().size());
    dev->rt_fd = fd;
}

TEST_F(ZelRtLock, ReachesTheDriverWithoutCardAndWithoutLock)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    dev->ejected = 1;
    for (const Switch& which : kSwitches) {
        SCOPED_TRACE(which.name);
        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0}), Throw(which));
        EXPECT_EQ(Trace{std::string(which.call) + " = 0"}, TraceOf(kernel));
    }
    EXPECT_EQ(0, ejects);
    EXPECT_TRUE(MutexCalls().empty());
}

// --- generic requests ---------------------------------------------------------------------

class ZelIoctl : public Zel {
protected:
    Outcome Send(uint32_t request, void* argument)
    {
        return OutcomeOf([&] { return DevIoctl(&handle, request, argument); });
    }

    // Bytes that show where they were written to, at an odd address.
    uint8_t* Record()
    {
        memset(room_, 0xE1, sizeof room_);
        return room_ + 1;
    }

    // `written` at the record's start, and nothing else touched.
    void ExpectRecord(const Bytes& written)
    {
        Bytes expected(sizeof room_, 0xE1);
        std::copy(written.begin(), written.end(), expected.begin() + 1);
        EXPECT_EQ(expected, BytesOf(room_));
    }

    sim_rtctrl ControlNode()
    {
        sim_rtctrl node = {};
        slots->With([&](sim_zel& zel) { node = zel.rt; });
        return node;
    }

    static constexpr uint32_t kChannels[] = {1, 17, 33, 49, 65, 81};
    static constexpr uint32_t kCodes[] = {0x80147240, 0x40017241, 0x20007242, 0x40247243,
                                          0x20007245};

private:
    uint8_t room_[64];
};

// Which unit is meant goes in front of a record, or in the argument itself.
TEST_F(ZelIoctl, NamesItsUnitToTheControlNode)
{
    for (unsigned unit = 0; unit < ZEL_UNITS; unit++) {
        SCOPED_TRACE(unit);
        Use(unit);
        Open();
        const uint32_t channel = kChannels[unit];

        uint8_t* record = Record();
        EXPECT_EQ((Outcome{0}), Send(0x80147240, record));
        EXPECT_EQ(Trace{"ioctl(/dev/rtctrl_zel, 0x8014ec14) = 0"}, TraceOf(kernel));
        EXPECT_EQ(dev->rt_fd, kernel.Calls().at(0).fd);
        EXPECT_EQ(AddressOf(record), kernel.Calls().at(0).argument);
        EXPECT_EQ(channel, ControlNode().channel);
        ExpectRecord(BytesOf(channel));

        kernel.ClearCalls();
        record = Record();
        const uint8_t answer[] = {1, 2, 3, 4};
        slots->With([&](sim_zel& zel) { memcpy(zel.rt.answer, answer, sizeof answer); });
        EXPECT_EQ((Outcome{0}), Send(0x40017241, record));
        EXPECT_EQ(Trace{"ioctl(/dev/rtctrl_zel, 0xc008ec18) = 0"}, TraceOf(kernel));
        EXPECT_EQ(dev->rt_fd, kernel.Calls().at(0).fd);
        EXPECT_EQ(AddressOf(record), kernel.Calls().at(0).argument);
        EXPECT_EQ(channel, ControlNode().channel);
        Bytes exchanged(8);
        memcpy(exchanged.data(), &channel, sizeof channel);
        memcpy(exchanged.data() + 4, answer, sizeof answer);
        ExpectRecord(exchanged);

        kernel.ClearCalls();
        record = Record();
        EXPECT_EQ((Outcome{0}), Send(0x20007242, record));
        EXPECT_EQ(Trace{"ioctl(/dev/rtctrl_zel, 0x8004ec1b) = 0"}, TraceOf(kernel));
        EXPECT_EQ(dev->rt_fd, kernel.Calls().at(0).fd);
        EXPECT_EQ(channel, kernel.Calls().at(0).argument);
        ExpectRecord({});

        kernel.ClearCalls();
        EXPECT_EQ((Outcome{0}), Send(0x20007245, record));
        EXPECT_EQ(Trace{"ioctl(/dev/rtctrl_zel, 0x8004ec15) = 0"}, TraceOf(kernel));
        EXPECT_EQ(dev->rt_fd, kernel.Calls().at(0).fd);
        EXPECT_EQ(channel, kernel.Calls().at(0).argument);
        ExpectRecord({});
        ASSERT_EQ(0, zel_ops.Exit(&handle));
    }
}

TEST_F(ZelIoctl, HandsOnTheDevicesParameters)
{
    Open();
    uint8_t* record = Record();
    EXPECT_EQ((Outcome{0}), Send(DEV_IOCTL_DEVICE_PARAMS, record));
    EXPECT_EQ(Trace{"ioctl(/dev/spda, 0x20007013) = 0"}, TraceOf(kernel));
    EXPECT_EQ(dev->dev_fd, kernel.Calls().at(0).fd);
    EXPECT_EQ(AddressOf(record), kernel.Calls().at(0).argument);
    const uint32_t words[9] = {kSectors, 512};
    ExpectRecord(BytesOf(words));
}

// Whether there is room for the answer is the driver's to find out.
TEST_F(ZelIoctl, HandsOnAMissingRecordForTheDevicesParameters)
{
    Open();
    EXPECT_EQ((Outcome{-1, "", EFAULT}), Send(DEV_IOCTL_DEVICE_PARAMS, nullptr));
    EXPECT_EQ(Trace{"ioctl(/dev/spda, 0x20007013) = -1 EFAULT"}, TraceOf(kernel));
    EXPECT_EQ(0u, kernel.Calls().at(0).argument);
}

TEST_F(ZelIoctl, NeedsAnArgumentWhereOneIsAskedFor)
{
    Open();
    for (const uint32_t code : {0x80147240u, 0x40017241u, 0x20007242u}) {
        EXPECT_EQ((Outcome{-22}), Send(code, nullptr)) << std::hex << code;
    }
    EXPECT_TRUE(kernel.Calls().empty());
    // What is asked for need not be a place in memory.
    EXPECT_EQ((Outcome{0}), Send(0x20007242, reinterpret_cast<void*>(1)));
    EXPECT_EQ(1u, kernel.Calls().at(0).argument);
    EXPECT_EQ((Outcome{0}), Send(0x20007245, nullptr));
    EXPECT_EQ((Outcome{0}), Send(0x20007245, reinterpret_cast<void*>(1)));
    EXPECT_EQ(3u, kernel.Calls().size());
}

TEST_F(ZelIoctl, KnowsNoOtherRequest)
{
    Open();
    for (const uint32_t code :
         {0u, 0x20007244u, 0x20007246u, 0x20007240u, 0x20007241u, 0x80147241u, 0x40017240u,
          0x40017242u, 0x20007243u, 0x40147240u, 0x80007240u, 0x80247243u, 0x7242u, 0x8014EC14u,
          0x8004EC15u, 0xC008EC18u, 0x8004EC1Bu, 0x20007013u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        EXPECT_EQ((Outcome{-25}), Send(code, Record()));
        EXPECT_EQ((Outcome{-25}), Send(code, nullptr));
        ExpectRecord(Bytes(63, 0xE1));
    }
    EXPECT_TRUE(kernel.Calls().empty());
}

TEST_F(ZelIoctl, AnswersAsTheDriverDid)
{
    Open();
    const std::pair<uint32_t, uint32_t> requests[] = {
        {0x80147240, RTCTRL_IOC_14},         {0x40017241, RTCTRL_IOC_18},
        {0x20007242, RTCTRL_IOC_1B},         {0x20007245, RTCTRL_IOC_15},
        {0x40247243, ZEL_GET_DEVICE_PARAMS},
    };
    for (const auto& [code, request] : requests) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        for (const int answer : {3, INT_MAX}) {
            kernel.ClearFaults();
            Answer(request, answer);
            EXPECT_EQ((Outcome{answer}), Send(code, Record()));
        }
        for (const int error : {ENOTTY, EIO, EBUSY}) {
            kernel.ClearFaults();
            kernel.ClearCalls();
            FailRequest(request, error);
            EXPECT_EQ((Outcome{-1, "", error}), Send(code, Record()));
            EXPECT_EQ(1u, kernel.Calls().size());
        }
    }
    EXPECT_EQ(0, dev->io_error);
}

TEST_F(ZelIoctl, RefusesEverythingOnceTheCardHasGone)
{
    Open();
    WatchForEject();
    slots->Eject(0);
    std::vector<uint32_t> codes(std::begin(kCodes), std::end(kCodes));
    codes.push_back(0x20007244);
    for (const uint32_t code : codes) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        for (const bool with_argument : {true, false}) {
            kernel.ClearCalls();
            ejects = 0;
            uint8_t* record = Record();
            EXPECT_EQ((Outcome{-5}), Send(code, with_argument ? record : nullptr));
            EXPECT_EQ(Trace{kGetStatus}, TraceOf(kernel));
            EXPECT_EQ(1, ejects);
            ExpectRecord({});
        }
    }
    EXPECT_FALSE(eject_saw_lock);
    dev->eject_cb = nullptr;
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{-5}), Send(DEV_IOCTL_RT_45, nullptr));
    EXPECT_TRUE(kernel.Calls().empty());
}

class ZelIoctlOnUnit : public OnUnit<ZelIoctl> {};

INSTANTIATE_TEST_SUITE_P(Units, ZelIoctlOnUnit, kUnits);

TEST_P(ZelIoctlOnUnit, LooksForTheCardFirstAndTakesNoLockOfItsOwn)
{
    Open();
    WatchForEject();
    for (const uint32_t code : kCodes) {
        SCOPED_TRACE(testing::Message() << std::hex << code);
        kernel.ClearCalls();
        MutexCalls().clear();
        EXPECT_EQ((Outcome{0}), Send(code, Record()));
        ASSERT_EQ(2u, kernel.Calls().size());
        EXPECT_EQ(ZEL_GET_CARD_STATUS, kernel.Calls()[0].request);
        ASSERT_EQ(1u, MutexCalls().size());
        EXPECT_EQ(&dev->lock, MutexCalls()[0].mutex);
        EXPECT_FALSE(IsLocked());
    }
    bool locked = false;
    for (const uint32_t request :
         {RTCTRL_IOC_14, RTCTRL_IOC_18, RTCTRL_IOC_1B, RTCTRL_IOC_15, ZEL_GET_DEVICE_PARAMS}) {
        During(request, [&](const Call&) { locked = locked || IsLocked(); });
    }
    for (const uint32_t code : kCodes) {
        Send(code, Record());
    }
    EXPECT_FALSE(locked);
    dev->eject_cb = nullptr;
    kernel.ClearCalls();
    EXPECT_EQ((Outcome{-22}), Send(0x20007242, nullptr));
    EXPECT_EQ((Outcome{-25}), Send(0x20007244, nullptr));
    EXPECT_TRUE(kernel.Calls().empty());
}

}  // namespace
