// SPDX-License-Identifier: MIT
#include <cstring>

#include "tests/faults/calls.h"

namespace faults {

namespace {

// The card is looked for, if anyone asked for that to be noticed. An answer of 1 is the
// driver's word for a card that was removed. A record that is not filled shows no card.
constexpr char kCheck[] = R"(
check  |                       | armed=0            | |                         | end
check  |                       |                    | | saw_card=0; lock        | ask
ask    | ioctl $C 0x4006D300   | =0 saw_card=1      | | unlock                  | end
ask    |                       | =0                 | | unlock; ejected=1; callbacks+1 | end
ask    |                       | =1                 | | unlock; ejected=1; callbacks+1 | end
ask    |                       | >0                 | | unlock                  | end
ask    | | | E mivosdif:__Mivo_CheckEject: ioctl(MIVOSDIF_IOC_GET_CARD_STATUS) is failed : {errno} | unlock | end
)";

// A transfer that gave up bars the writes after it.
constexpr char kBar[] = R"(
bar    |                       | io_error=1         | | result=-5               | $finish
bar    |                       |                    | |                         | end
)";
constexpr char kGone[] = R"(
gone   |                       | ejected=1          | | result=-5               | $finish
gone   |                       |                    | |                         | end
)";

// The five direct requests: three failures end it, or one where the device has gone. The end
// is waited for whatever the request answered.
constexpr char kDirect[] = R"(
room   | $ALLOCATE             | <0                 | E mivosdif:$F: fsmiw_parm malloc failed!~ | result=-12 | $finish
room   |                       |                    | $PANIC | lock; $BEGIN       | send
send   |                       | plain=1            | |                         | plain
send   |                       |                    | |                         | first
first  | ioctl $C $FIRST gone=ENODEV transfer $WORK |     | | sent=answer             | wait
plain  | ioctl $C $REQUEST gone=ENODEV transfer $WORK |   | | sent=answer             | wait
wait   | poll $C 4000          | <0                 | E mivosdif:Mivo_PollWait: poll error : {errno}  | | failed
wait   |                       | =0                 | E mivosdif:Mivo_PollWait: poll timeout: {errno} | | failed
wait   |                       | events=0           | E mivosdif:Mivo_PollWait: Unknown poll events: 0x00000000 | | failed
wait   |                       | events=OUT         | |                         | waited
wait   |                       | events&HUP         | E mivosdif:Mivo_PollWait: poll returns POLLHUP  | | failed
wait   |                       | events&ERR         | E mivosdif:Mivo_PollWait: poll returns POLLERR  | | failed
wait   |                       | events&NVAL        | E mivosdif:Mivo_PollWait: poll returns POLLNVAL | | failed
wait   |                       | events&IN          | E mivosdif:Mivo_PollWait: poll returns POLLIN   | | failed
wait   |                       |                    | E mivosdif:Mivo_PollWait: poll returns another event POLL??? | | failed
waited |                       | sent<0             | |                         | failed
waited |                       | sent>0             | |                         | send
waited |                       |                    | | result=$GOOD            | free
failed |                       |                    | | tries+1                 | judge
judge  |                       | ENODEV             | |                         | giveup
judge  |                       | tries>2            | |                         | giveup
judge  |                       |                    | W mivosdif:$F: Retry $WORD : retry={tries}! | plain=1; $MARK | reset
reset  | ioctl $C 0x2000D32F reset |                | |                         | send
giveup | | | E mivosdif:$F: ioctl($WORD) is failed(retry={tries}) : {errno} | io_error=1; result=-5 | free
free   | $FREE                 |                    | | unlock                  | $finish
)";

// Requests that never go out: the list cannot be made.
constexpr char kNoList[] = R"(
chunks |                       |                    | E mivosdif:Mivo_Chunk2Sg: Invalid arguments! | | said
said   |                       |                    | E mivosdif:$F: Mivo_Chunk2Sg is failed(-22) | | return -22
)";
constexpr char kLongList[] = R"(
entry  |                       |                    | E mivosdif:Mivo_SetSgEntry: Overflow sg table(2048)! | | chunks
chunks |                       |                    | E mivosdif:Mivo_Chunk2Sg: Mivo_SetSgEntry failed(-12)! | | said
said   |                       |                    | E mivosdif:$F: Mivo_Chunk2Sg is failed(-12) | | return -22
)";
constexpr char kLongElement[] = R"(
room   | $ALLOCATE             | <0                 | E mivosdif:$F: fsmiw_parm malloc failed!~ | | return -12
room   |                       |                    | E mivosdif:Mivo_SetSgEntry: Overflow sg table(2048)! | lock | said
said   |                       |                    | E mivosdif:$F: Mivo_SetSgEntry failed(-12)! | | free
free   | $FREE                 |                    | | unlock                  | return -12
)";
constexpr char kNothing[] = R"(
refuse |                       |                    | |                         | return -22
)";

// The temporary list of the array variants.
constexpr char kArray[] = R"(
array  | malloc 20             | <0                 | E drv:$CALL: malloc MemoryChunkArray failed! | | return -12
array  |                       |                    | |                         | end
)";
constexpr char kArrayEnd[] = R"(
done   | free                  |                    | |                         | return result
)";

constexpr char kPlain[] = R"(
begin  |                       | ejected=1          | |                         | return -1
begin  |                       |                    | |                         | seek
seek   | seek $C 2048 gone=EINVAL | =-1             | E mivosdif:$F: lseek failed : {errno} | | return -1
seek   |                       |                    | |                         | move
move   | $MOVE $C 1024 gone=ENXIO $WORK | <0              | |                         | return -1
move   |                       | =1024 reached      | | moved=1                 | return answer
move   |                       |                    | |                         | return answer
)";
constexpr char kPlainBar[] = R"(
bar    |                       | io_error=1         | |                         | return -1
bar    |                       |                    | |                         | end
)";

// --- questions ------------------------------------------------------------------------

constexpr char kDone[] = R"(
done   |                       |                    | |                         | return 0
)";
constexpr char kStatus[] = R"(
answer |                       | ejected=1          | |                         | return 65531
answer |                       |                    | |                         | return 0
)";

// What nobody has written is anything.
constexpr char kSdStatus[] = R"(
begin  |                       | ejected=1          | | bad+1                   | $gone
begin  |                       | secure=1           | | filled=1                | $good
begin  |                       |                    | |                         | fetch
fetch  | ioctl $C 0x4001D317 gone=ENODEV | =0 reached | | filled=1; has_status=1  | keep
fetch  |                       | =0                 | | filled=1; has_status=0  | keep
fetch  |                       |                    | E mivosdif:Mivo_CardSecureGetInfo: Cannot sd status! | bad+1 | $bad
keep   | malloc 64             | <0                 | E mivosdif:Mivo_CardSecureGetInfo: Malloc secure buffer failed : {errno} | bad+1 | $bad
keep   |                       |                    | | secure=1                | $good
)";

// A register that could not be read is zero, and stays so. 1 is the CID, 2 the CSD.
constexpr char kInfo[] = R"(
begin  |                       | ejected=1          | | bad+1                   | $gone
begin  |                       | reg=1              | | filled=1                | $good
begin  |                       |                    | | filled=1; has_cid=0; has_csd=0 | cid
cid    | ioctl $C 0x4001D314 gone=ENODEV | =0 reached | | has_cid=1             | csd
cid    |                       | =0                 | |                         | csd
cid    |                       | reached            | E mivosdif:Mivo_CardGetInfo: Cannot get cid! | has_cid=1 | csd
cid    |                       |                    | E mivosdif:Mivo_CardGetInfo: Cannot get cid! |           | csd
csd    | ioctl $C 0x4001D315 gone=ENODEV | =0 reached | | has_csd=2             | keep
csd    |                       | =0                 | |                         | keep
csd    |                       | reached            | E mivosdif:Mivo_CardGetInfo: Cannot get csd! | has_csd=2 | keep
csd    |                       |                    | E mivosdif:Mivo_CardGetInfo: Cannot get csd! |           | keep
keep   | malloc 32             | <0                 | E mivosdif:Mivo_CardGetInfo: Malloc register buffer failed : {errno} | bad+1 | $bad
keep   |                       |                    | | reg=1                   | $good
)";

// Two answers; what nobody has written of them is zero.
constexpr char kSpeed[] = R"(
begin  |                       | ejected=1          | |                         | return 65531
begin  |                       | speed=1            | | filled=1                | return 0
begin  |                       |                    | | has_speed=0             | params
params | ioctl $C 0x4030D30F gone=ENODEV | <0       | E mivosdif:Mivo_CardGetSpeedInfo: MIVOSDIF_IOC_GET_CARD_PARAMS failed : {errno} | | return 10
params |                       | reached            | | has_speed+1             | scr
params |                       |                    | |                         | scr
scr    | ioctl $C 0x4001D316 gone=ENODEV | =0 reached | | filled=1; has_speed+2 | keep
scr    |                       | =0                 | | filled=1                | keep
scr    |                       |                    | E mivosdif:Mivo_CardGetSpeedInfo: Cannot sd scr! | | return 10
keep   | malloc 32             | <0                 | E mivosdif:Mivo_CardGetSpeedInfo: Malloc speed info buffer failed : {errno} | | return 10
keep   |                       |                    | | speed=1                 | return 0
)";

constexpr char kSizeBegin[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | size
size   | ioctl $C 0x4030D30F gone=ENODEV | <0       | E mivosdif:Mivo_CardGetSize: MIVOSDIF_IOC_GET_CARD_PARAMS failed : {errno} | | return 10
size   |                       | reached            | |                         | end
size   |                       |                    | | unread=1                | end
)";
// A size that nobody has written is 0, that of a small card. A CSD of zeros says that blocks
// are too short to hold a sector.
constexpr char kSizeEnd[] = R"(
size   |                       | bad>0              | |                         | return 10
size   |                       | has_status=0       | |                         | return unknown
size   |                       | has_csd=2 unread=1 | |                         | return $SMALL_SIZE
size   |                       | has_csd=2          | |                         | return $SIZE
size   |                       | unread=1           | |                         | return 0
size   |                       |                    | |                         | return $ZERO_SIZE
)";

constexpr char kProtection[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | | lock                    | ask
ask    | ioctl $C 0x2000D307 gone=ENODEV usual=$protected | =65537 | | unlock   | return 1
ask    |                       | =65535             | | unlock                  | return -1
ask    |                       | >=0                | | result=answer; unlock   | return result
ask    | | | E mivosdif:Mivo_CardGetWriteProtect: ioctl(MIVOSDIF_IOC_GET_WRITE_PROTECT) is failed : {errno} | unlock | return -5
)";

constexpr char kCommand[] = R"(
begin  |                       | ejected=1          | |                         | return 65531
begin  |                       |                    | | lock                    | send
send   | ioctl $C $REQUEST gone=ENODEV | >=0        | | unlock                  | return 0
send   |                       |                    | | unlock                  | return 43271
)";

// What no driver is asked.
constexpr char kAnswer[] = R"(
begin  |                       | ejected=1          | |                         | return $GONE
begin  |                       |                    | |                         | return $GOOD
)";

// --- life -----------------------------------------------------------------------------

constexpr char kDetect[] = R"(
stat   | stat $C               | <0                 | E drv:DevDetect: stat[$C] failed : {errno} | | return -1
stat   |                       |                    | |                         | return 0
)";

constexpr char kInit[] = R"(
chr    | open $C rdwr          | <0                 | E mivosdif:Mivo_Init: open[$C] failed : {errno} | | return -1
chr    |                       |                    | |                         | mount
mount  | ioctl $C 0x2000D318 gone=ENODEV | <0 seen  | E mivosdif:Mivo_Init: MIVOSDIF_IOC_MNTFS ioctl[$C] failed : {errno} | mounted=0 | chr_
mount  |                       | <0                 | E mivosdif:Mivo_Init: MIVOSDIF_IOC_MNTFS ioctl[$C] failed : {errno} | | chr_
mount  |                       | reached            | | result=answer; mounted=1 | table
mount  |                       | seen               | | result=answer; mounted=0 | table
mount  |                       |                    | | result=answer           | table
table  | malloc 16392          | <0                 | E mivosdif:Mivo_Init: Malloc sg table failed : {errno} | | chr_
table  |                       |                    | |                         | clear
clear  | poll $C 1             |                    | P Wrapper low-level driver for SD card-CardBus adaptor ver.0.11 | | return result
chr_   | close $C              |                    | |                         | return -1
)";

constexpr char kExit[] = R"(
umount | ioctl $C 0x2000D319   | <0                 | E mivosdif:Mivo_Exit: MIVOSDIF_IOC_UMNTFS ioctl[$C] failed : {errno} | | clear
umount |                       | reached            | | mounted=0               | clear
umount |                       |                    | |                         | clear
clear  | poll $C 1             |                    | |                         | table
table  | free                  |                    | |                         | caches
caches |                       | secure=1           | |                         | secure
caches |                       |                    | |                         | more
secure | free                  |                    | |                         | more
more   |                       | reg=1              | |                         | reg
more   |                       |                    | |                         | most
reg    | free                  |                    | |                         | most
most   |                       | speed=1            | |                         | speed
most   |                       |                    | |                         | chr
speed  | free                  |                    | |                         | chr
chr    | close $C              |                    | | secure=0; reg=0; speed=0; io_error=0; ejected=0 | return 0
)";

const Parameters kNodes = {{"C", "/dev/mivosdif1"}, {"finish", "return result"}};

Parameters operator+(Parameters more, const Parameters& others)
{
    more.insert(others.begin(), others.end());
    return more;
}

// Of a direct request.
Parameters Direct(const char* function, const char* word, const char* request, const char* good)
{
    return {{"F", function}, {"WORD", word},       {"REQUEST", request}, {"FIRST", request},
            {"GOOD", good},  {"ALLOCATE", ""},     {"WORK", ""},         {"PANIC", ""},
            {"FREE", ""},    {"BEGIN", "tries=0"}, {"MARK", "plain=1"}};
}

Parameters Write(const char* first)
{
    Parameters write = Direct("Mivo_DrctWrite", "MIVOSDIF_IOC_DIRECT_WRITE", "0x8010D325", "2");
    write["FIRST"] = first;
    write["BEGIN"] = "retried=0";
    write["MARK"] = "retried=1";
    return write;
}

Parameters WithElements(Parameters direct)
{
    direct["ALLOCATE"] = "malloc 32";
    direct["FREE"] = "free";
    return direct;
}

Parameters ToLast(Parameters parameters, const char* call)
{
    parameters["finish"] = "last";
    parameters["CALL"] = call;
    return parameters;
}

const Parameters kAlone = {{"gone", "return 65531"}, {"good", "return 0"}, {"bad", "return 10"}};
const Parameters kWithin = {{"gone", "end"}, {"good", "end"}, {"bad", "end"}};

// --- what the caller is given ------------------------------------------------------------

std::string VerifySdStatus(const Subject& on, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0 || state.at("has_status") == 0) {
        return "";
    }
    return memcmp(on.sd_status, card.sd_status, sizeof on.sd_status) == 0
               ? ""
               : "the SD status is wrong";
}

std::string VerifyInfo(const Subject& on, const sim_card& card, const Variables& state)
{
    constexpr uint8_t kZeros[16] = {};
    if (state.at("filled") == 0) {
        return "";
    }
    if (memcmp(on.info.cid, state.at("has_cid") != 0 ? card.cid : kZeros, 16) != 0) {
        return "the CID is wrong";
    }
    return memcmp(on.info.csd, state.at("has_csd") != 0 ? card.csd : kZeros, 16) == 0
               ? ""
               : "the CSD is wrong";
}

std::string VerifySpeed(const Subject& on, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0) {
        return "";
    }
    CardSpeedInfo speed = {};
    if ((state.at("has_speed") & 1) != 0) {
        // 10: the allocation unit is of 16384 sectors.
        speed = {{card.sd_status[15], 0, card.sd_status[8], card.sd_status[14], 10}};
    }
    if ((state.at("has_speed") & 2) != 0) {
        speed.bytes[1] = card.scr[3];
    }
    return memcmp(&speed, &on.speed, sizeof speed) == 0 ? "" : "the speed record is wrong";
}

// --- the operations --------------------------------------------------------------------------

std::vector<Form> Transfers()
{
    const Parameters read = Direct("Mivo_DrctRead", "MIVOSDIF_IOC_DIRECT_READ", "0xC010D324", "2");
    const Parameters plain_write = Write("0x8010D325");
    const Parameters alternative = Write("0x8010D32E");
    const Parameters rmw =
        WithElements(Direct("Mivo_DrctRMW", "MIVOSDIF_IOC_DIRECT_RMW", "0x800CD326", "0"));
    const Parameters fat =
        WithElements(Direct("Mivo_FatWrite", "MIVOSDIF_IOC_FSMI_WRITE", "0x800CD32A", "0"));
    const Parameters command =
        Direct("Mivo_SdCmdWrite", "MIVOSDIF_IOC_SDCMD_WRITE", "0x8008D32B", "0");
    const Table check = {kCheck, {}};
    const Table bar = {kBar, {}};
    const Table gone = {kGone, {}};
    const Table direct = {kDirect, {}};
    const Table array = {kArray, {}};
    const Table array_end = {kArrayEnd, {}};
    return {
        {"DrctRead", {check, gone, direct}, read, DirectRead<512>, Moves::FromCard},
        {"DrctReadArray",
         {array, check, gone, direct, array_end},
         ToLast(read, "DevDrctReadArray"),
         DirectReadArray<512>,
         Moves::FromCard},
        {"DrctWrite", {bar, check, gone, direct}, plain_write, DirectWrite<512, 1>, Moves::ToCard},
        {"DrctWriteSequential",
         {bar, check, gone, direct},
         alternative,
         DirectWrite<512, 0>,
         Moves::ToCard},
        {"DrctWriteArray",
         {array, bar, check, gone, direct, array_end},
         ToLast(alternative, "DevDrctWriteArray"),
         DirectWriteArray<512, 0>,
         Moves::ToCard},
        {"DrctRMW", {check, gone, bar, direct}, rmw, ReadModifyWrite, Moves::ToCard},
        {"FatWrite", {bar, check, gone, direct}, fat, FatWrite, Moves::ToCard},
        {"SdCmdWrite", {bar, check, gone, direct}, command, CommandWrite, Moves::ToCard},
        {"Read",
         {check, {kPlain, {}}},
         {{"F", "Mivo_Read"}, {"MOVE", "read"}, {"WORK", ""}},
         PlainRead,
         Moves::FromCard},
        {"Write",
         {{kPlainBar, {}}, check, {kPlain, {}}},
         {{"F", "Mivo_Write"}, {"MOVE", "write"}, {"WORK", ""}},
         PlainWrite,
         Moves::ToCard},
    };
}

// A list whose chain ends early; the driver takes the rest, of zeros here, for nothing.
Parameters Torn(Parameters direct, const char* panic)
{
    direct["ALLOCATE"] = "malloc 48";
    direct["PANIC"] = panic;
    return direct;
}

std::vector<Form> Misuses()
{
    const Parameters read = Direct("Mivo_DrctRead", "MIVOSDIF_IOC_DIRECT_READ", "0xC010D324", "0");
    const Parameters write = {{"F", "Mivo_DrctWrite"}};
    Parameters empty_write = Write("0x8010D325");
    empty_write["GOOD"] = "0";
    const Parameters rmw =
        WithElements(Direct("Mivo_DrctRMW", "MIVOSDIF_IOC_DIRECT_RMW", "0x800CD326", "0"));
    const Parameters fat =
        WithElements(Direct("Mivo_FatWrite", "MIVOSDIF_IOC_FSMI_WRITE", "0x800CD32A", "0"));
    const Parameters command =
        Direct("Mivo_SdCmdWrite", "MIVOSDIF_IOC_SDCMD_WRITE", "0x8008D32B", "0");
    const Table check = {kCheck, {}};
    const Table bar = {kBar, {{"finish", "return -5"}}};
    const Table gone = {kGone, {{"finish", "return -5"}}};
    const Table direct = {kDirect, {}};
    const Table no_list = {kNoList, {}};
    const Table long_list = {kLongList, {}};
    const Table long_element = {kLongElement, {}};
    const Table nothing = {kNothing, {}};
    return {
        {"DrctRead of nothing", {check, gone, direct}, read, DirectReadNothing},
        {"DrctWrite of nothing", {bar, check, gone, direct}, empty_write, DirectWriteNothing},
        {"DrctRead nowhere", {check, gone, no_list}, read, DirectReadNowhere},
        {"DrctWrite from nowhere", {bar, check, gone, no_list}, write, DirectWriteFromNowhere},
        {"DrctRead too long", {check, gone, long_list}, read, DirectReadTooLong},
        {"DrctWrite too long", {bar, check, gone, long_list}, write, DirectWriteTooLong},
        {"DrctWrite untold", {nothing}, {}, DirectWriteUntold},
        {"DrctRMW of nothing", {nothing}, {}, ReadModifyWriteNothing},
        {"FatWrite of nothing", {nothing}, {}, FatWriteNothing},
        {"DrctRMW torn",
         {check, gone, bar, direct},
         Torn(rmw, "E mivosdif:Mivo_DrctRMW: DrctRMW List panic(2/3)!"),
         ReadModifyWriteTorn,
         Moves::ToCard},
        {"FatWrite torn",
         {bar, check, gone, direct},
         Torn(fat, "E mivosdif:Mivo_FatWrite: FSMI List panic(2/3)!"),
         FatWriteTorn,
         Moves::ToCard},
        {"DrctRMW too long", {check, gone, bar, long_element}, rmw, ReadModifyWriteTooLong},
        {"FatWrite too long", {bar, check, gone, long_element}, fat, FatWriteTooLong},
        {"SdCmdWrite too long", {bar, check, gone, long_element}, command, CommandWriteTooLong},
    };
}

// As the driver's size has the registers read; as those of a small card; as those of one whose
// CSD is of zeros.
Form SizeForm(const char* size, const char* small_size, const char* zero_size)
{
    return {"CardGetSize",
            {{kCheck, {}},
             {kSizeBegin, {}},
             {kCheck, {}},
             {kSdStatus, kWithin},
             {kCheck, {}},
             {kInfo, kWithin},
             {kSizeEnd, {}}},
            {{"SIZE", size}, {"SMALL_SIZE", small_size}, {"ZERO_SIZE", zero_size}},
            Size};
}

std::vector<Form> Questions()
{
    const Table check = {kCheck, {}};
    return {
        {"CardGetStatus", {check, {kStatus, {}}}, {}, Status},
        {"CardInit", {{kDone, {}}}, {}, Register},
        {"CardGetR1Status", {{kDone, {}}}, {}, R1Status},
        {"CardSecureGetInfo",
         {check, {kSdStatus, kAlone}},
         {},
         SdStatus,
         Moves::Nothing,
         VerifySdStatus},
        {"CardGetInfo", {check, {kInfo, kAlone}}, {}, Info, Moves::Nothing, VerifyInfo},
        {"CardGetSpeedInfo", {check, {kSpeed, {}}}, {}, Speed, Moves::Nothing, VerifySpeed},
        SizeForm("2048", "2048", "0"),
        {"CardGetWriteProtect", {check, {kProtection, {}}}, {{"protected", "0"}}, Protection},
        {"CardIoctl2", {check, {kCommand, {}}}, {{"REQUEST", "0x8001D327"}}, Command<2>},
        {"CardIoctl3", {check, {kCommand, {}}}, {{"REQUEST", "0x8001D328"}}, Command<3>},
        {"CardIoctl4", {check, {kCommand, {}}}, {{"REQUEST", "0x8001D329"}}, Command<4>},
        {"CardIoctl5", {check, {kAnswer, {}}}, {{"GONE", "65531"}, {"GOOD", "0"}}, Command<5>},
        {"IoctlDeviceParams",
         {check, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "0"}},
         Generic<DEV_IOCTL_DEVICE_PARAMS>},
        {"Ioctl45",
         {check, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "-25"}},
         Generic<DEV_IOCTL_RT_45>},
    };
}

void Add(std::vector<Operation>* operations, const Form& form, const char* path, Setup setup)
{
    operations->push_back({std::string("Mivo ") + form.name + path, Site::Mivo, setup, form.tables,
                           form.parameters + kNodes, form.run, form.moves, form.verify});
}

}  // namespace

std::vector<Operation> MivoOperations()
{
    std::vector<Operation> operations;
    std::vector<Form> forms = Transfers();
    for (const Form& form : Questions()) {
        forms.push_back(form);
    }
    for (const Form& form : forms) {
        Add(&operations, form, "", {});
        Add(&operations, form, ", watched", {.watched = true});
        Add(&operations, form, ", watched, gone", {.watched = true, .gone = true});
        Add(&operations, form, ", gone", {.gone = true});
    }
    for (Form form : Transfers()) {
        if (form.moves == Moves::ToCard) {
            form.parameters["WORK"] = "usual=-EROFS told";
            form.moves = Moves::Nothing;
            Add(&operations, form, ", protected", {.watched = true, .protect = true});
        }
    }
    for (const Form& form : Misuses()) {
        Add(&operations, form, "", {});
        Add(&operations, form, ", watched", {.watched = true});
        Add(&operations, form, ", after a failure", {.failed = true});
    }
    for (const Form& form : Transfers()) {
        Add(&operations, form, ", after a failure", {.failed = true});
        Add(&operations, form, ", watched, after a failure", {.watched = true, .failed = true});
    }
    for (const Form& form : Questions()) {
        Add(&operations, form, ", asked before", {.watched = true, .asked = true});
    }
    Add(&operations, SizeForm("4194304", "256", "1024"), ", of 2 GiB",
        {.watched = true, .sectors = 4194304});
    const Form protection = {
        "CardGetWriteProtect", {{kCheck, {}}, {kProtection, {}}}, {{"protected", "1"}}, Protection};
    Add(&operations, protection, ", protected", {.watched = true, .protect = true});

    const Form detect = {"Detect", {{kDetect, {}}}, {}, Detect};
    Add(&operations, detect, "", {.life = Life::Detects});
    const Form init = {"Init", {{kInit, {}}}, {}, Init};
    Add(&operations, init, "", {.life = Life::Opens});
    Add(&operations, init, ", without an input", {.life = Life::Opens, .no_input = true});
    const Form exit = {"Exit", {{kExit, {}}}, {}, Exit};
    Add(&operations, exit, "", {.life = Life::Closes});
    Add(&operations, exit, ", asked before", {.life = Life::Closes, .asked = true});
    Add(&operations, exit, ", after a failure", {.life = Life::Closes, .failed = true});
    return operations;
}

}  // namespace faults
