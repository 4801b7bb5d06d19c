// SPDX-License-Identifier: MIT
#include <cstring>

#include "tests/faults/calls.h"

namespace faults {

namespace {

// The card is looked for, if anyone asked for that to be noticed. A busy driver is asked ten
// times; one that says "not yet" without end. A record that no try has filled shows no card.
constexpr char kCheck[] = R"(
check  |                       | armed=0            | | asked=0                 | end
check  |                       |                    | | asked=0; saw_card=0; lock | ask
ask    | ioctl $C 0x20007001   | =0 saw_card=1 saw_changed=0 | | unlock                 | end
ask    |                       | =0                 | | unlock; ejected=1; callbacks+1 | end
ask    |                       | >0                 | |                         | ask
ask    |                       | EBUSY              | | asked+1                 | busy
ask    |                       |                    | |                         | failed
busy   |                       | asked>9            | |                         | failed
busy   |                       |                    | |                         | pause
pause  | sleep 400000000       |                    | |                         | ask
failed | | | E zel:__Zel_CheckEject: ioctl(ZEL_GET_CARD_STATUS) is failed(retry={asked}) : {errno} | unlock | end
)";

// A transfer that gave up bars the writes after it.
constexpr char kBar[] = R"(
bar    |                       | io_error=1         | | result=-5               | $finish
bar    |                       |                    | |                         | end
)";

// The five direct requests: ten busy answers end it, or three other failures.
constexpr char kDirect[] = R"(
begin  |                       | ejected=1          | | result=-5               | $finish
begin  |                       |                    | |                         | room
room   | $ALLOCATE             | <0                 | E zel:$F: fsmiw_parm malloc failed!~ | result=-12 | $finish
room   |                       |                    | $PANIC | lock; $BEGIN       | send
send   |                       | plain=1            | |                         | plain
send   |                       |                    | |                         | first
first  | ioctl $C $FIRST gone=ENODEV transfer $WORK | <0  | |                         | failed
first  |                       |                    | | more=answer             | wait
plain  | ioctl $C $REQUEST gone=ENODEV transfer $WORK | <0 | |                        | failed
plain  |                       |                    | | more=answer             | wait
wait   | poll $C 4000          | <0                 | E zel:Zel_PollWait: poll error : {errno}  | | failed
wait   |                       | =0                 | E zel:Zel_PollWait: poll timeout: {errno} | | failed
wait   |                       | events=0           | E zel:Zel_PollWait: Unknown poll events: 0x00000000 | | failed
wait   |                       | events=OUT         | |                         | waited
wait   |                       | events&HUP         | E zel:Zel_PollWait: poll returns POLLHUP  | | failed
wait   |                       | events&ERR         | E zel:Zel_PollWait: poll returns POLLERR  | | failed
wait   |                       | events&NVAL        | E zel:Zel_PollWait: poll returns POLLNVAL | | failed
wait   |                       | events&IN          | E zel:Zel_PollWait: poll returns POLLIN   | | failed
wait   |                       |                    | E zel:Zel_PollWait: poll returns another event POLL??? | | failed
waited |                       | more>0             | |                         | send
waited |                       |                    | | result=$GOOD            | free
failed |                       | EBUSY              | | retry+1                 | busy
failed |                       |                    | | errors+1                | error
busy   |                       | retry>9            | |                         | giveup
busy   |                       |                    | W zel:$F: Retry $WORD (device Busy) : retry={retry}! | | pause
pause  | sleep 400000000       |                    | |                         | reset
error  |                       | errors>2           | |                         | giveup
error  |                       |                    | W zel:$F: Retry $WORD : retry={errors}! | plain=1; $MARK | reset
reset  | ioctl $C 0x20007032 reset |                | |                         | send
giveup | | | E zel:$F: ioctl($LAST) is failed(retry={retry} err_retry={errors}) : {errno} | io_error=1; result=-5 | free
free   | $FREE                 |                    | | unlock                  | $finish
)";

// Requests that never go out: the list cannot be made.
constexpr char kNoList[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | chunks
chunks |                       |                    | E zel:Zel_Chunk2Sg: Invalid arguments! | | said
said   |                       |                    | E zel:$F: Zel_Chunk2Sg is failed(-22) | | return -22
)";
constexpr char kLongList[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | entry
entry  |                       |                    | E zel:Zel_SetSgEntry: Overflow sg table(2048)! | | chunks
chunks |                       |                    | E zel:Zel_Chunk2Sg: Zel_SetSgEntry failed(-12)! | | said
said   |                       |                    | E zel:$F: Zel_Chunk2Sg is failed(-12) | | return -22
)";
constexpr char kLongElement[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | room
room   | $ALLOCATE             | <0                 | E zel:$F: fsmiw_parm malloc failed!~ | | return -12
room   |                       |                    | E zel:Zel_SetSgEntry: Overflow sg table(2048)! | lock | said
said   |                       |                    | E zel:$F: Zel_SetSgEntry failed(-12)! | | free
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
seek   | seek $B 2048 gone=EINVAL | <0              | E zel:$F: lseek failed : {errno} | | return -1
seek   |                       |                    | |                         | move
move   | $MOVE $B 1024 gone=EIO $WORK | <0                | |                         | return -1
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

// Three answers to a question, and from then on a copy of the first. What nobody has written
// is anything.
constexpr char kSdStatus[] = R"(
begin  |                       | ejected=1          | | bad+1                   | $gone
begin  |                       | secure=1           | | filled=1                | $good
begin  |                       |                    | |                         | fetch
fetch  | ioctl $D 0x20007005 gone=ENODEV | =0 reached | | filled=1; has_status=1  | keep
fetch  |                       | =0                 | | filled=1; has_status=0  | keep
fetch  |                       |                    | E zel:Zel_CardSecureGetInfo: Cannot get card params! | bad+1 | $bad
keep   | malloc 64             | <0                 | E zel:Zel_CardSecureGetInfo: Malloc secure buffer failed : {errno} | bad+1 | $bad
keep   |                       |                    | | secure=1                | $good
)";

// A register that could not be read leaves what the answer's room held before: of the second
// one the first, of the first one anything (0). 1 is the CID, 2 the CSD.
constexpr char kInfo[] = R"(
begin  |                       | ejected=1          | | bad+1                   | $gone
begin  |                       | reg=1              | | filled=1                | $good
begin  |                       |                    | | filled=1                | cid
cid    | ioctl $D 0x20007005 gone=ENODEV | =0 reached | | room=1; has_cid=1     | csd
cid    |                       | =0                 | | room=0; has_cid=0       | csd
cid    |                       | reached            | E zel:Zel_CardGetInfo: Cannot get card params! | room=1; has_cid=1 | csd
cid    |                       |                    | E zel:Zel_CardGetInfo: Cannot get card params! | room=0; has_cid=0 | csd
csd    | ioctl $D 0x20007005 gone=ENODEV | =0 reached | | has_csd=2             | keep
csd    |                       | =0                 | | has_csd=room            | keep
csd    |                       | reached            | E zel:Zel_CardGetInfo: Cannot get card params! | has_csd=2 | keep
csd    |                       |                    | E zel:Zel_CardGetInfo: Cannot get card params! | has_csd=room | keep
keep   | malloc 32             | <0                 | E zel:Zel_CardGetInfo: Malloc register buffer failed : {errno} | bad+1 | $bad
keep   |                       |                    | | reg=1                   | $good
)";

constexpr char kSpeed[] = R"(
begin  |                       | ejected=1          | |                         | return 65531
begin  |                       | speed=1            | | filled=1                | return 0
begin  |                       |                    | |                         | fetch
fetch  | ioctl $D 0x20007005 gone=ENODEV | =0 reached | | filled=1; has_speed=1 | keep
fetch  |                       | =0                 | | filled=1; has_speed=0   | keep
fetch  |                       | reached            | E zel:Zel_CardGetSpeedInfo: Cannot get card params! | filled=1; has_speed=1 | keep
fetch  |                       |                    | E zel:Zel_CardGetSpeedInfo: Cannot get card params! | filled=1; has_speed=0 | keep
keep   | malloc 32             | <0                 | E zel:Zel_CardGetSpeedInfo: Malloc speed info buffer failed : {errno} | | return 10
keep   |                       |                    | | speed=1                 | return 0
)";

constexpr char kSizeBegin[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | size
size   | ioctl $B 0x20001260 gone=ENODEV | <0       | E zel:Zel_CardGetSize: ioctl(BLKGETSIZE) failed : {errno} | | return 10
size   |                       | reached            | |                         | end
size   |                       |                    | | unread=1                | end
)";
// A size that nobody has written is 0, that of a small card. With the CID in the CSD's place
// blocks are too short to hold a sector.
constexpr char kSizeEnd[] = R"(
size   |                       | bad>0              | |                         | return 10
size   |                       | has_status=0       | |                         | return unknown
size   |                       | has_csd=2 unread=1 | |                         | return $SMALL_SIZE
size   |                       | has_csd=2          | |                         | return $SIZE
size   |                       | has_csd=1 unread=1 | |                         | return 0
size   |                       | has_csd=1          | |                         | return $CID_SIZE
size   |                       |                    | |                         | return unknown
)";

constexpr char kProtection[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | | lock                    | ask
ask    | ioctl $C 0x20007008 gone=ENODEV usual=$protected | =65537 | | unlock   | return 1
ask    |                       | =65535             | | unlock                  | return -1
ask    |                       | >=0                | | result=answer; unlock   | return result
ask    |                       | EBUSY              | | tries+1                 | busy
ask    |                       |                    | |                         | failed
busy   |                       | tries>9            | |                         | failed
busy   |                       |                    | |                         | pause
pause  | sleep 400000000       |                    | |                         | ask
failed | | | E zel:Zel_CardGetWriteProtect: ioctl(ZEL_CHECK_WRITE_PROTECT) is failed(retry={tries}) : {errno} | unlock | return -5
)";

constexpr char kCommand[] = R"(
begin  |                       | ejected=1          | |                         | return 65531
begin  |                       |                    | | lock                    | send
send   | ioctl $D $REQUEST gone=ENODEV | >=0        | | unlock                  | return 0
send   |                       |                    | | unlock                  | return 43271
)";

constexpr char kGeneric[] = R"(
begin  |                       | ejected=1          | |                         | return -5
begin  |                       |                    | |                         | send
send   | $SEND                 |                    | |                         | return answer
)";

// What no driver is asked.
constexpr char kAnswer[] = R"(
begin  |                       | ejected=1          | |                         | return $GONE
begin  |                       |                    | |                         | return $GOOD
)";

constexpr char kRealTime[] = R"(
ask    | ioctl $R $REQUEST     | <0                 | E zel:$F: $WORD ioctl failed : {errno} | | return -errno
ask    |                       | reached            | |                         | return $GOOD
ask    |                       |                    | |                         | return 0
)";
constexpr char kRealTimeLock[] = R"(
ask    | ioctl $R $REQUEST     | <0                 | E zel:$F: $WORD failed : {errno} | | return 0
ask    |                       |                    | |                         | return 0
)";

// --- life -----------------------------------------------------------------------------

constexpr char kDetect[] = R"(
stat   | stat $D               | <0                 | E drv:DevDetect: stat[$D] failed : {errno} | | return -1
stat   |                       |                    | |                         | return 0
)";

// A version that nobody has written is anything.
constexpr char kInit[] = R"(
dev    | open $D rdwr gone=ENOMEDIUM | <0                  | E zel:Zel_Init: open[$D] failed : {errno} | | return -1
dev    |                       |                    | |                         | mount
mount  | ioctl $D 0x2000BC0A gone=ENODEV | <0                 | E zel:Zel_Init: BLKMNTFS ioctl[$D] failed : {errno} | | dev_
mount  |                       | reached            | | result=answer; changed=0 | blk
mount  |                       |                    | | result=answer           | blk
blk    | open $B rdwr gone=ENOMEDIUM | <0                  | E zel:Zel_Init: open[$B] failed : {errno} | | dev_
blk    |                       |                    | |                         | chr
chr    | open $C rdwr          | <0                 | E zel:Zel_Init: open[$C] failed : {errno} | | blk_
chr    |                       |                    | |                         | ident
ident  | ioctl $C 0x20007016 gone=ENODEV | <0                 | E zel:Zel_Init: Identify device[$C] failed : {errno} | | chr_
ident  |                       | reached            | $OLD |                      | $known
ident  |                       |                    | |                         | undefined
chr_   | close $C              |                    | |                         | blk_
blk_   | close $B              |                    | |                         | dev_
dev_   | close $D              |                    | |                         | return -1
)";
// A size that cannot be asked for is 10 sectors, and those registers are not looked at then.
constexpr char kInitSize[] = R"(
size   | ioctl $B 0x20001260 gone=ENODEV | <0                 | E zel:Zel_CardGetSize: ioctl(BLKGETSIZE) failed : {errno} | | last
size   |                       | reached            | |                         | end
size   |                       |                    | | unread=1                | end
)";
// Without an SD status the size is anything.
constexpr char kInitKnown[] = R"(
size   |                       | bad>0              | |                         | end
size   |                       | has_status=0       | |                         | undefined
size   |                       |                    | |                         | end
)";
// Cards of more than 512 GiB are refused, by what their CSD says, or the CID in its place. One
// of 10 sectors is not, and one that is taken for a small one is not.
constexpr char kInitOver[] = R"(
size   |                       | bad>0              | |                         | end
size   |                       | unread=1           | |                         | end
size   |                       | has_csd=2          | P ** OVER 2TB : 1073742848 | | over
size   |                       | has_csd=1          | P ** OVER 2TB : 3238085632 | | over
size   |                       |                    | |                         | undefined
over   |                       |                    | E zel:Zel_SetSdParams: CalcSdParams failed | | chr_
chr_   | close $C              |                    | |                         | blk_
blk_   | close $B              |                    | |                         | dev_
dev_   | close $D              |                    | |                         | return -1
)";
constexpr char kInitEnd[] = R"(
params | ioctl $C 0x20007029   | <0                 | E zel:Zel_SetSdParams: ioctl(ZEL_SET_CARD_PARAMS) failed : {errno} | | chr_
params |                       |                    | |                         | rt
rt     | open $R rdwr          | <0                 | E zel:Zel_Init: open[$R] failed : {errno} | | chr_
rt     |                       |                    | |                         | table
table  | malloc 16392          | <0                 | E zel:Zel_Init: Malloc sg table failed : {errno} | | rt_
table  |                       |                    | |                         | clear
clear  | poll $C 1             |                    | P Wrapper low-level driver for SD card-CardBus adaptor ver.0.11 | | return result
rt_    | close $R              |                    | |                         | chr_
chr_   | close $C              |                    | |                         | blk_
blk_   | close $B              |                    | |                         | dev_
dev_   | close $D              |                    | |                         | return -1
)";

constexpr char kExit[] = R"(
clear  | poll $C 1             |                    | |                         | table
table  | free                  |                    | |                         | caches
caches |                       | secure=1           | |                         | secure
caches |                       |                    | |                         | more
secure | free                  |                    | |                         | more
more   |                       | reg=1              | |                         | reg
more   |                       |                    | |                         | most
reg    | free                  |                    | |                         | most
most   |                       | speed=1            | |                         | speed
most   |                       |                    | |                         | rt
speed  | free                  |                    | |                         | rt
rt     | close $R              |                    | |                         | chr
chr    | close $C              |                    | |                         | blk
blk    | close $B              |                    | |                         | dev
dev    | close $D              |                    | | secure=0; reg=0; speed=0; io_error=0; ejected=0 | return 0
)";

const Parameters kNodes = {{"D", "/dev/spdc"},
                           {"B", "/dev/spdc"},
                           {"C", "/dev/spdrc"},
                           {"R", "/dev/rtctrl_zel"},
                           {"finish", "return result"}};

Parameters operator+(Parameters more, const Parameters& others)
{
    more.insert(others.begin(), others.end());
    return more;
}

// Of a direct request.
Parameters Direct(const char* function, const char* word, const char* request, const char* good)
{
    return {{"F", function},    {"WORD", word}, {"LAST", word},        {"REQUEST", request},
            {"FIRST", request}, {"GOOD", good}, {"ALLOCATE", ""},      {"WORK", ""},
            {"PANIC", ""},      {"FREE", ""},   {"BEGIN", "errors=0"}, {"MARK", "plain=1"}};
}

Parameters Write(const char* first)
{
    Parameters write = Direct("Zel_DrctWrite", "ZEL_DIRECT_WRITE", "0x2000700C", "1024");
    write["LAST"] = "ZEL_DIRECT_SEQ_WRITE";
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

// The CID stands one byte in, and its last byte gives way to the CSD.
std::string VerifyInfo(const Subject& on, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0) {
        return "";
    }
    const bool cid = on.info.cid[0] == 0 && memcmp(on.info.cid + 1, card.cid, 15) == 0;
    if (state.at("has_cid") != 0 && !cid) {
        return "the CID is wrong";
    }
    const uint8_t* csd = state.at("has_csd") == 1 ? card.cid : card.csd;
    return state.at("has_csd") == 0 || memcmp(on.info.csd, csd, 16) == 0 ? "" : "the CSD is wrong";
}

std::string VerifySpeed(const Subject& on, const sim_card& card, const Variables& state)
{
    if (state.at("filled") == 0 || state.at("has_speed") == 0) {
        return "";
    }
    const CardSpeedInfo speed = {{card.sd_status[8], card.sd_status[9], card.sd_status[12],
                                  card.sd_status[13],
                                  static_cast<uint8_t>(card.sd_status[10] >> 4)}};
    return memcmp(&speed, &on.speed, sizeof speed) == 0 ? "" : "the speed record is wrong";
}

// --- the operations --------------------------------------------------------------------------

std::vector<Form> Transfers()
{
    const Parameters read = Direct("Zel_DrctRead", "ZEL_DIRECT_READ", "0x2000700D", "1024");
    const Parameters plain_write = Write("0x2000700C");
    const Parameters sequential = Write("0x20007018");
    const Parameters rmw = WithElements(Direct("Zel_DrctRMW", "ZEL_DIRECT_RMW", "0x2000702A", "0"));
    const Parameters fat =
        WithElements(Direct("Zel_FatWrite", "ZEL_FSMI_WRITE", "0x2000701D", "0"));
    const Parameters command = Direct("Zel_SdCmdWrite", "ZEL_SDCMD_WRITE", "0x2000701E", "0");
    return {
        {"DrctRead", {{kCheck, {}}, {kDirect, {}}}, read, DirectRead<1>, Moves::FromCard},
        {"DrctReadArray",
         {{kArray, {}}, {kCheck, {}}, {kDirect, {}}, {kArrayEnd, {}}},
         ToLast(read, "DevDrctReadArray"),
         DirectReadArray<1>,
         Moves::FromCard},
        {"DrctWrite",
         {{kBar, {}}, {kCheck, {}}, {kDirect, {}}},
         plain_write,
         DirectWrite<1, 1>,
         Moves::ToCard},
        {"DrctWriteSequential",
         {{kBar, {}}, {kCheck, {}}, {kDirect, {}}},
         sequential,
         DirectWrite<1, 0>,
         Moves::ToCard},
        {"DrctWriteArray",
         {{kArray, {}}, {kBar, {}}, {kCheck, {}}, {kDirect, {}}, {kArrayEnd, {}}},
         ToLast(sequential, "DevDrctWriteArray"),
         DirectWriteArray<1, 0>,
         Moves::ToCard},
        {"DrctRMW", {{kCheck, {}}, {kDirect, {}}}, rmw, ReadModifyWrite, Moves::ToCard},
        {"FatWrite", {{kBar, {}}, {kCheck, {}}, {kDirect, {}}}, fat, FatWrite, Moves::ToCard},
        {"SdCmdWrite",
         {{kBar, {}}, {kCheck, {}}, {kDirect, {}}},
         command,
         CommandWrite,
         Moves::ToCard},
        {"Read",
         {{kCheck, {}}, {kPlain, {}}},
         {{"F", "Zel_Read"}, {"MOVE", "read"}, {"WORK", ""}},
         PlainRead,
         Moves::FromCard},
        {"Write",
         {{kPlainBar, {}}, {kCheck, {}}, {kPlain, {}}},
         {{"F", "Zel_Write"}, {"MOVE", "write"}, {"WORK", ""}},
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
    const Parameters read = Direct("Zel_DrctRead", "ZEL_DIRECT_READ", "0x2000700D", "0");
    const Parameters write = {{"F", "Zel_DrctWrite"}};
    Parameters empty_write = Write("0x2000700C");
    empty_write["GOOD"] = "0";
    const Parameters rmw = WithElements(Direct("Zel_DrctRMW", "ZEL_DIRECT_RMW", "0x2000702A", "0"));
    const Parameters fat =
        WithElements(Direct("Zel_FatWrite", "ZEL_FSMI_WRITE", "0x2000701D", "0"));
    const Parameters command = Direct("Zel_SdCmdWrite", "ZEL_SDCMD_WRITE", "0x2000701E", "0");
    const Table check = {kCheck, {}};
    const Table bar = {kBar, {{"finish", "return -5"}}};
    const Table direct = {kDirect, {}};
    const Table no_list = {kNoList, {}};
    const Table long_list = {kLongList, {}};
    const Table long_element = {kLongElement, {}};
    const Table nothing = {kNothing, {}};
    return {
        {"DrctRead of nothing", {check, direct}, read, DirectReadNothing},
        {"DrctWrite of nothing", {bar, check, direct}, empty_write, DirectWriteNothing},
        {"DrctRead nowhere", {check, no_list}, read, DirectReadNowhere},
        {"DrctWrite from nowhere", {bar, check, no_list}, write, DirectWriteFromNowhere},
        {"DrctRead too long", {check, long_list}, read, DirectReadTooLong},
        {"DrctWrite too long", {bar, check, long_list}, write, DirectWriteTooLong},
        {"DrctWrite untold", {nothing}, {}, DirectWriteUntold},
        {"DrctRMW of nothing", {nothing}, {}, ReadModifyWriteNothing},
        {"FatWrite of nothing", {nothing}, {}, FatWriteNothing},
        {"DrctRMW torn",
         {check, direct},
         Torn(rmw, "E zel:Zel_DrctRMW: DrctRMW List panic(2/3)!"),
         ReadModifyWriteTorn,
         Moves::ToCard},
        {"FatWrite torn",
         {bar, check, direct},
         Torn(fat, "E zel:Zel_FatWrite: FSMI List panic(2/3)!"),
         FatWriteTorn,
         Moves::ToCard},
        {"DrctRMW too long", {check, long_element}, rmw, ReadModifyWriteTooLong},
        {"FatWrite too long", {bar, check, long_element}, fat, FatWriteTooLong},
        {"SdCmdWrite too long", {bar, check, long_element}, command, CommandWriteTooLong},
    };
}

// As the driver's size has the registers read; as those of a small card; as those of one whose
// CSD the CID stands in for.
Form SizeForm(const char* size, const char* small_size, const char* cid_size)
{
    return {"CardGetSize",
            {{kCheck, {}},
             {kSizeBegin, {}},
             {kCheck, {}},
             {kSdStatus, kWithin},
             {kCheck, {}},
             {kInfo, kWithin},
             {kSizeEnd, {}}},
            {{"SIZE", size}, {"SMALL_SIZE", small_size}, {"CID_SIZE", cid_size}},
            Size};
}

std::vector<Form> Questions()
{
    return {
        {"CardGetStatus", {{kCheck, {}}, {kStatus, {}}}, {}, Status},
        {"CardInit", {{kDone, {}}}, {}, Register},
        {"CardGetR1Status", {{kDone, {}}}, {}, R1Status},
        {"CardSecureGetInfo",
         {{kCheck, {}}, {kSdStatus, kAlone}},
         {},
         SdStatus,
         Moves::Nothing,
         VerifySdStatus},
        {"CardGetInfo", {{kCheck, {}}, {kInfo, kAlone}}, {}, Info, Moves::Nothing, VerifyInfo},
        {"CardGetSpeedInfo", {{kCheck, {}}, {kSpeed, {}}}, {}, Speed, Moves::Nothing, VerifySpeed},
        SizeForm("2048", "2048", "0"),
        {"CardGetWriteProtect",
         {{kCheck, {}}, {kProtection, {}}},
         {{"protected", "0"}},
         Protection},
        {"CardIoctl2", {{kCheck, {}}, {kCommand, {}}}, {{"REQUEST", "0x2000701B"}}, Command<2>},
        {"CardIoctl3", {{kCheck, {}}, {kCommand, {}}}, {{"REQUEST", "0x2000701C"}}, Command<3>},
        {"CardIoctl4", {{kCheck, {}}, {kCommand, {}}}, {{"REQUEST", "0x2000702B"}}, Command<4>},
        {"Ioctl40",
         {{kCheck, {}}, {kGeneric, {}}},
         {{"SEND", "ioctl /dev/rtctrl_zel 0x8014EC14"}},
         Generic<DEV_IOCTL_RT_40>},
        {"Ioctl41",
         {{kCheck, {}}, {kGeneric, {}}},
         {{"SEND", "ioctl /dev/rtctrl_zel 0xC008EC18"}},
         Generic<DEV_IOCTL_RT_41>},
        {"Ioctl42",
         {{kCheck, {}}, {kGeneric, {}}},
         {{"SEND", "ioctl /dev/rtctrl_zel 0x8004EC1B"}},
         Generic<DEV_IOCTL_RT_42>},
        {"Ioctl45",
         {{kCheck, {}}, {kGeneric, {}}},
         {{"SEND", "ioctl /dev/rtctrl_zel 0x8004EC15"}},
         Generic<DEV_IOCTL_RT_45>},
        {"CardIoctl5",
         {{kCheck, {}}, {kAnswer, {}}},
         {{"GONE", "65531"}, {"GOOD", "0"}},
         Command<5>},
        {"Ioctl40 of nothing",
         {{kCheck, {}}, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "-22"}},
         GenericOfNothing<DEV_IOCTL_RT_40>},
        {"Ioctl41 of nothing",
         {{kCheck, {}}, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "-22"}},
         GenericOfNothing<DEV_IOCTL_RT_41>},
        {"Ioctl42 of nothing",
         {{kCheck, {}}, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "-22"}},
         GenericOfNothing<DEV_IOCTL_RT_42>},
        {"Ioctl44",
         {{kCheck, {}}, {kAnswer, {}}},
         {{"GONE", "-5"}, {"GOOD", "-25"}},
         Generic<0x20007244>},
        {"IoctlDeviceParams",
         {{kCheck, {}}, {kGeneric, {}}},
         {{"SEND", "ioctl /dev/spdc 0x20007013 gone=ENODEV"}},
         Generic<DEV_IOCTL_DEVICE_PARAMS>},
    };
}

std::vector<Form> RealTime()
{
    const auto named = [](const char* function, const char* word, const char* request,
                          const char* good) -> Parameters {
        return {{"F", function}, {"WORD", word}, {"REQUEST", request}, {"GOOD", good}};
    };
    return {
        {"CheckRt",
         {{kRealTime, {}}},
         named("Zel_CheckRt", "RTCTRL_IOC_CHECK_RT_STATUS", "0x4001EC1E", "129"),
         CheckRt},
        {"CheckDelay",
         {{kRealTime, {}}},
         named("Zel_CheckDelay", "RTCTRL_IOC_CHECK_DELAY_STATUS", "0x4001EC1F", "2"),
         CheckDelay},
        {"RTOn4Wait",
         {{kRealTime, {}}},
         named("Zel_RTOn4Wait", "RTCTRL_IOC_IS_RTON4WAIT", "0x4001EC20", "3"),
         OnForWait},
        {"LockRTOn",
         {{kRealTimeLock, {}}},
         named("Zel_LockRTOn", "RTCTRL_IOC_LOCK_RTON", "0x2000EC0A", "0"),
         LockRt},
        {"UnlockRTOn",
         {{kRealTimeLock, {}}},
         named("Zel_UnlockRTOn", "RTCTRL_IOC_UNLOCK_RTON", "0x2000EC0B", "0"),
         UnlockRt},
    };
}

void Add(std::vector<Operation>* operations, const Form& form, const char* path, Setup setup)
{
    operations->push_back({std::string("Zel ") + form.name + path, Site::Zel, setup, form.tables,
                           form.parameters + kNodes, form.run, form.moves, form.verify});
}

}  // namespace

std::vector<Operation> ZelOperations()
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
        Add(&operations, form, ", watched, changed", {.watched = true, .changed = true});
    }
    for (Form form : Transfers()) {
        if (form.moves == Moves::ToCard) {
            form.parameters["WORK"] = "usual=-EROFS";
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
    }
    for (const Form& form : Questions()) {
        Add(&operations, form, ", asked before", {.watched = true, .asked = true});
        Add(&operations, form, ", not asked", {.watched = true, .unasked = true});
    }
    for (const Form& form : RealTime()) {
        Add(&operations, form, "", {});
    }
    Form size = SizeForm("4194304", "256", "-1056881664");
    Add(&operations, size, ", of 2 GiB", {.watched = true, .sectors = 4194304});
    const Form protection = {
        "CardGetWriteProtect", {{kCheck, {}}, {kProtection, {}}}, {{"protected", "1"}}, Protection};
    Add(&operations, protection, ", protected", {.watched = true, .protect = true});

    const Form detect = {"Detect", {{kDetect, {}}}, {}, Detect};
    Add(&operations, detect, "", {.life = Life::Detects});
    const Parameters new_card = {{"OLD", ""}, {"known", "end"}};
    const Parameters old_card = {{"OLD", "E zel:Zel_Init: Not support Spec3F : /dev/spdrc"},
                                 {"known", "chr_"}};
    const std::vector<Table> asked = {
        {kInit, {}}, {kInitSize, {}}, {kSdStatus, kWithin}, {kInfo, kWithin}, {kInitKnown, {}}};
    std::vector<Table> all = asked;
    all.push_back({kInitEnd, {}});
    std::vector<Table> over = asked;
    over.push_back({kInitOver, {}});
    over.push_back({kInitEnd, {}});
    Add(&operations, {"Init", all, new_card, Init}, "", {.life = Life::Opens});
    Add(&operations, {"Init", all, new_card, Init}, ", without an input",
        {.life = Life::Opens, .no_input = true});
    Add(&operations, {"Init", all, old_card, Init}, ", of an old version",
        {.life = Life::Opens, .old = true});
    Add(&operations, {"Init", over, new_card, Init}, ", over 512 GiB",
        {.life = Life::Opens, .sectors = 1073742848});
    const Form exit = {"Exit", {{kExit, {}}}, {}, Exit};
    Add(&operations, exit, "", {.life = Life::Closes});
    Add(&operations, exit, ", asked before", {.life = Life::Closes, .asked = true});
    Add(&operations, exit, ", not asked", {.life = Life::Closes, .unasked = true});
    Add(&operations, exit, ", after a failure", {.life = Life::Closes, .failed = true});
    return operations;
}

}  // namespace faults
