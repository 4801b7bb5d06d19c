// SPDX-License-Identifier: MIT
#include <cstring>

#include "tests/faults/calls.h"

namespace faults {

namespace {

constexpr char kPlain[] = R"(
seek   | seek $B 2048 gone=EINVAL | <0              | E zel:$F: lseek failed : {errno} | | return -1
seek   |                       |                    | |                         | move
move   | $MOVE $B 1024 $MORE | <0          | |                         | return -1
move   |                       | =1024 reached      | | moved=1                 | return answer
move   |                       |                    | |                         | return answer
)";

// An open device counts as a present card, and nobody is asked.
constexpr char kAnswer[] = R"(
answer |                       |                    | |                         | return $GOOD
)";

constexpr char kSdStatus[] = R"(
begin  |                       | secure=1           | | filled=1                | return 0
begin  |                       |                    | |                         | fetch
fetch  | ioctl $B 0x400178F4 gone=ENODEV | <0                 | E zel:RicohSD_CardSecureGetInfo: SDCARD_GET_SD_STATUS failed : {errno} | | return 10
fetch  |                       | reached            | | filled=1; has_status=1  | keep
fetch  |                       |                    | | filled=1; has_status=0  | keep
keep   | malloc 64             | <0                 | E zel:RicohSD_CardSecureGetInfo: Malloc register buffer failed : {errno} | | return 10
keep   |                       |                    | | secure=1                | return 0
)";

// The CSD goes first.
constexpr char kInfo[] = R"(
begin  |                       | reg=1              | | filled=1                | return 0
begin  |                       |                    | | has_cid=0; has_csd=0    | csd
csd    | ioctl $B 0x400178FF gone=ENODEV | <0                 | E zel:RicohSD_CardGetInfo: SDCARD_GET_CSD failed : {errno} | | return 10
csd    |                       | reached            | | has_csd=2               | cid
csd    |                       |                    | |                         | cid
cid    | ioctl $B 0x400178FE gone=ENODEV | <0                 | E zel:RicohSD_CardGetInfo: SDCARD_GET_CID failed : {errno} | | return 10
cid    |                       | reached            | | filled=1; has_cid=1     | keep
cid    |                       |                    | | filled=1                | keep
keep   | malloc 32             | <0                 | E zel:RicohSD_CardGetInfo: Malloc register buffer failed : {errno} | | return 10
keep   |                       |                    | | reg=1                   | return 0
)";

constexpr char kSize[] = R"(
ask    | ioctl $B 0x400478FC gone=ENODEV | <0                 | E zel:RicohSD_CardGetSize: BLKGETSIZE failed : {errno} | | return 0
ask    |                       | reached            | |                         | return 2048
ask    |                       |                    | |                         | return 0
)";

constexpr char kDetect[] = R"(
stat   | stat $B               | <0                 | E drv:DevDetect: stat[$B] failed : {errno} | | return -1
stat   |                       |                    | |                         | return 0
)";

// A protected card is opened for reading, once.
constexpr char kInit[] = R"(
begin  |                       |                    | | read_only=0             | open
open   | open $B rdwr+sync gone=ENOMEDIUM $MORE | >=0              | |                         | opened
open   |                       | EROFS              | | read_only=1             | retry
open   |                       |                    | |                         | failed
retry  | open $B rdonly gone=ENOMEDIUM | >=0                | |                         | opened
retry  |                       |                    | |                         | failed
opened |                       |                    | P Wrapper low-level driver for SD card-CardBus adaptor ver.0.10 | | return 0
failed |                       |                    | E zel:RicohSD_Init: open[$B] failed : {errno} | | return -1
)";

constexpr char kExit[] = R"(
caches |                       | secure=1           | |                         | secure
caches |                       |                    | |                         | more
secure | free                  |                    | |                         | more
more   |                       | reg=1              | |                         | reg
more   |                       |                    | |                         | close
reg    | free                  |                    | |                         | close
close  | close $B              |                    | | secure=0; reg=0; read_only=0 | return 0
)";

// What is not offered is refused without a call.
constexpr char kNotOffered[] = R"(
refuse |                       |                    | P [drv:$CALL(#)](W)     | | more
more   |                       |                    | P NOT supported $SLOT method! | | return $GOOD
)";
constexpr char kArray[] = R"(
array  | malloc 20             | <0                 | E drv:$ARRAY: malloc MemoryChunkArray failed! | | return -12
array  |                       |                    | P [drv:$CALL(#)](W)     | | more
more   |                       |                    | P NOT supported $SLOT method! | | free
free   | free                  |                    | |                         | return -22
)";

std::string VerifySdStatus(const Subject& on, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0 || state.at("has_status") == 0) {
        return "";
    }
    return memcmp(on.sd_status, card.sd_status, sizeof on.sd_status) == 0
               ? ""
               : "the SD status is wrong";
}

// What the driver did not write is zero. A byte ahead of the CSD is the CID's last, unless
// that comes, too.
std::string VerifyRecord(const void* record, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0) {
        return "";
    }
    uint8_t expected[32] = {};
    if (state.at("has_csd") != 0) {
        expected[15] = 0x3F;
        memcpy(expected + 16, card.csd, 16);
    }
    if (state.at("has_cid") != 0) {
        memcpy(expected, card.cid, 16);
    }
    return memcmp(record, expected, sizeof expected) == 0 ? "" : "the registers are wrong";
}

std::string VerifyInfo(const Subject& on, const sim_card& card, const Variables& state)
{
    return VerifyRecord(&on.info, card, state);
}

// The same record stands in for that of the speed.
std::string VerifySpeed(const Subject& on, const sim_card& card, const Variables& state)
{
    return VerifyRecord(&on.speed, card, state);
}

void Add(std::vector<Operation>* operations, const Form& form, const char* path, Setup setup)
{
    Parameters parameters = form.parameters;
    parameters["B"] = "/dev/sdcarda";
    operations->push_back({std::string("Ricoh ") + form.name + path, Site::Ricoh, setup,
                           form.tables, parameters, form.run, form.moves, form.verify});
}

}  // namespace

std::vector<Operation> RicohOperations()
{
    const auto good = [](const char* value) -> Parameters { return {{"GOOD", value}}; };
    const auto refused = [](const char* call, const char* slot, const char* value) -> Parameters {
        return {{"CALL", call}, {"SLOT", slot}, {"GOOD", value}};
    };
    const Table not_offered = {kNotOffered, {}};
    const Form forms[] = {
        {"Read",
         {{kPlain, {}}},
         {{"F", "RicohSD_Read"}, {"MOVE", "read"}, {"MORE", "gone=EIO"}},
         PlainRead,
         Moves::FromCard},
        {"Write",
         {{kPlain, {}}},
         {{"F", "RicohSD_Write"}, {"MOVE", "write"}, {"MORE", "gone=EIO"}},
         PlainWrite,
         Moves::ToCard},
        {"CardGetStatus", {{kAnswer, {}}}, good("0"), Status},
        {"CardInit", {{kAnswer, {}}}, good("0"), Register},
        {"CardGetR1Status", {{kAnswer, {}}}, good("0"), R1Status},
        {"CardGetInfo", {{kInfo, {}}}, {}, Info, Moves::Nothing, VerifyInfo},
        {"CardGetSpeedInfo", {{kInfo, {}}}, {}, Speed, Moves::Nothing, VerifySpeed},
        {"CardSecureGetInfo", {{kSdStatus, {}}}, {}, SdStatus, Moves::Nothing, VerifySdStatus},
        {"CardGetSize", {{kSize, {}}}, {}, Size},
        {"CardGetWriteProtect", {{kAnswer, {}}}, good("0"), Protection},
        {"CardIoctl3", {{kAnswer, {}}}, good("0"), Command<3>},
        {"Ioctl45", {{kAnswer, {}}}, good("-25"), Generic<DEV_IOCTL_RT_45>},
        {"DrctRead", {not_offered}, refused("DevDrctRead", "DrctRead", "-22"), DirectRead<512>},
        {"DrctWrite",
         {not_offered},
         refused("DevDrctWrite", "DrctWrite", "-22"),
         DirectWrite<512, 0>},
        {"DrctReadArray",
         {{kArray, {}}},
         {{"ARRAY", "DevDrctReadArray"}, {"CALL", "DevDrctRead"}, {"SLOT", "DrctRead"}},
         DirectReadArray<512>},
        {"DrctWriteArray",
         {{kArray, {}}},
         {{"ARRAY", "DevDrctWriteArray"}, {"CALL", "DevDrctWrite"}, {"SLOT", "DrctWrite"}},
         DirectWriteArray<512, 0>},
        {"DrctRMW", {not_offered}, refused("DevDrctRMW", "DrctRMW", "0"), ReadModifyWrite},
        {"FatWrite", {not_offered}, refused("DevFatWrite", "FatWrite", "0"), FatWrite},
        {"SdCmdWrite", {not_offered}, refused("DevSdCmdWrite", "SdCmdWrite", "0"), CommandWrite},
        {"CheckRt", {{kAnswer, {}}}, good("1"), CheckRt},
        {"CheckDelay", {{kAnswer, {}}}, good("1"), CheckDelay},
        {"RTOn4Wait", {{kAnswer, {}}}, good("0"), OnForWait},
        {"LockRTOn", {{kAnswer, {}}}, good("0"), LockRt},
        {"UnlockRTOn", {{kAnswer, {}}}, good("0"), UnlockRt},
    };
    std::vector<Operation> operations;
    for (const Form& form : forms) {
        Add(&operations, form, "", {});
        Add(&operations, form, ", asked before", {.asked = true});
    }
    // The node of a protected card opens for reading only, and its writes say EBADF.
    Add(&operations, {"CardGetWriteProtect", {{kAnswer, {}}}, good("1"), Protection}, ", protected",
        {.protect = true});
    Add(&operations,
        {"Write",
         {{kPlain, {}}},
         {{"F", "RicohSD_Write"}, {"MOVE", "write"}, {"MORE", "usual=-EBADF"}},
         PlainWrite},
        ", protected", {.protect = true});
    Add(&operations, {"Detect", {{kDetect, {}}}, {}, Detect}, "", {.life = Life::Detects});
    const Parameters willing = {{"MORE", ""}};
    const Parameters protective = {{"MORE", "usual=-EROFS"}};
    Add(&operations, {"Init", {{kInit, {}}}, willing, Init}, "", {.life = Life::Opens});
    Add(&operations, {"Init", {{kInit, {}}}, willing, Init}, ", without an input",
        {.life = Life::Opens, .no_input = true});
    Add(&operations, {"Init", {{kInit, {}}}, protective, Init}, ", protected",
        {.life = Life::Opens, .protect = true});
    const Form exit = {"Exit", {{kExit, {}}}, {}, Exit};
    Add(&operations, exit, "", {.life = Life::Closes});
    Add(&operations, exit, ", asked before", {.life = Life::Closes, .asked = true});
    return operations;
}

}  // namespace faults
