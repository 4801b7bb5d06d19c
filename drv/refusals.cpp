// SPDX-License-Identifier: MIT
//
// What a public call answers when it cannot be handed on. What an empty slot answers
// differs on purpose: a missing direct read or write is an error, a missing Init, Ioctl,
// RMW, file-system-area or SD-command write counts as done, and a missing real-time
// check reports 1.
#include "drv/drv.h"

namespace {

// Arrays, so that there is no address to fill in when the library is loaded.
struct Refusal {
    char call[21];
    char warning[44];    // of an empty slot; may be none
    int8_t not_bound;    // result for a handle that no call can serve
    int8_t not_offered;  // result for an empty slot
};

// In the order of Call.
constexpr Refusal kRefusals[] = {
    {"DevInit", "\nNOT supported Init method!\n", -EINVAL, 0},
    {"DevExit", "\nNOT supported Exit method!\n", 0, 0},
    {"DevIoctl", "\nNOT supported Ioctl method!\n", -EINVAL, 0},
    {"DevDrctRead", "\nNOT supported DrctRead method!\n", -EINVAL, -EINVAL},
    {"DevDrctWrite", "\nNOT supported DrctWrite method!\n", -EINVAL, -EINVAL},
    {"DevDrctRMW", "\nNOT supported DrctRMW method!\n", -EINVAL, 0},
    {"DevFatWrite", "\nNOT supported FatWrite method!\n", -EINVAL, 0},
    {"DevSdCmdWrite", "\nNOT supported SdCmdWrite method!\n", -EINVAL, 0},
    {"DevCheckRt", "", -EINVAL, 1},
    {"DevCheckDelay", "", -EINVAL, 1},
    {"DevRTOn4Wait", "", -EINVAL, 0},
    {"DevLockRTOn", "", 0, 0},
    {"DevUnlockRTOn", "", 0, 0},
    {"CARD_Init", "\nNOT supported CardInit method!\n", CARD_CODE_ERROR, CARD_CODE_OK},
    {"CARD_Read", "", CARD_CODE_ERROR, CARD_CODE_OK},
    {"CARD_Write", "", CARD_CODE_ERROR, CARD_CODE_OK},
    {"CARD_Getstatus", "\nNOT supported CardGetStatus method!\n", CARD_CODE_ERROR, CARD_CODE_OK},
    {"CARD_GetR1Status", "\nNOT supported CardGetR1Status method!\n", CARD_CODE_ERROR,
     CARD_CODE_OK},
    {"CARD_Getinfo", "\nNOT supported CardGetInfo method!\n", CARD_CODE_ERROR, CARD_CODE_OK},
    {"CARD_GetSpeedInfo", "\nNOT supported CardGetSpeedInfo method!\n", CARD_CODE_ERROR,
     CARD_CODE_OK},
    {"CARD_SecureGetinfo", "\nNOT supported CardSecureGetInfo method!\n", CARD_CODE_ERROR,
     CARD_CODE_OK},
    {"CARD_GetCardSize", "\nNOT supported CardGetSize method!\n", CARD_CODE_ERROR, 0},
    {"CARD_GetWriteProtect", "\nNOT supported CardGetWriteProtect method!\n", CARD_CODE_ERROR, 0},
    {"CARD_Ioctl", "\nNOT supported CardIoctl method!\n", CARD_CODE_ERROR, CARD_CODE_OK},
};

static_assert(sizeof kRefusals / sizeof kRefusals[0] == static_cast<size_t>(Call::CARD_Ioctl) + 1);

}  // namespace

int32_t Refuse(const DrvInfo* handle, Call call, unsigned line)
{
    const Refusal& refusal = kRefusals[static_cast<size_t>(call)];
    if (!IsBound(handle)) {
        LOG_ERROR_OF(refusal.call, line, "Invalid wrapper low-level driver info!\n");
        return refusal.not_bound;
    }
    if (refusal.warning[0] != '\0') {
        // Its line break comes first.
        LOG_WARNING_OF(refusal.call, line, "%s", refusal.warning);
    }
    return refusal.not_offered;
}

int32_t RefuseArgument(Call call, unsigned line)
{
    const char* const caller = kRefusals[static_cast<size_t>(call)].call;
    if (call == Call::CARD_Getstatus) {
        LOG_ERROR_OF(caller, line, "Invalid argument: status!\n");
    } else if (call == Call::CARD_Getinfo) {
        LOG_ERROR_OF(caller, line, "Invalid argument: cardinfo!\n");
    } else {
        LOG_ERROR_OF(caller, line, "Invalid argument: buf!\n");
    }
    return CARD_CODE_ERROR;
}
