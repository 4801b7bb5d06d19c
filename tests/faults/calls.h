// SPDX-License-Identifier: MIT
//
// How the operations are called. A plain transfer answers through its record: -1 stands
// for its error.
#ifndef CARDDEV_TESTS_FAULTS_CALLS_H
#define CARDDEV_TESTS_FAULTS_CALLS_H

#include "tests/faults/tables.h"

namespace faults {

struct Pieces {
    uint32_t count;
    MemoryChunk chunk[2];

    MemoryChunkArray* list() { return reinterpret_cast<MemoryChunkArray*>(this); }
};

// Two pieces that do not follow one another: each has its entry in a table.
inline Pieces PiecesOf(Subject& on)
{
    on.second = kApart;
    return {2, {{on.memory.address(), 512}, {on.memory.address() + kApart, 512}}};
}

inline MemoryArray ArrayOf(Subject& on)
{
    on.second = kApart;
    MemoryArray array = {};
    array.count = 2;
    array.addr[0] = on.memory.address();
    array.addr[1] = on.memory.address() + kApart;
    array.len[0] = array.len[1] = 512;
    return array;
}

inline int64_t PlainRead(Subject& on)
{
    CardIoResult result = {};
    CARD_Read(&on.handle, on.memory.data(), kMoved, kSector, 0, &result);
    return result.error != 0 ? -1 : result.length;
}

inline int64_t PlainWrite(Subject& on)
{
    CardIoResult result = {};
    CARD_Write(&on.handle, on.memory.data(), kMoved, kSector, 0, &result);
    return result.error != 0 ? -1 : result.length;
}

// No pieces at all, a list that is not there, and a piece that takes more entries than the
// driver's table has.
constexpr uint32_t kTooLong = 2048u * 65536u;

inline int64_t DirectReadNothing(Subject& on)
{
    Pieces pieces = {};
    return DevDrctRead(&on.handle, kSector, 0, pieces.list());
}

inline int64_t DirectWriteNothing(Subject& on)
{
    Pieces pieces = {};
    return DevDrctWrite(&on.handle, kSector, 0, pieces.list(), 1, &on.retried);
}

inline int64_t DirectReadNowhere(Subject& on)
{
    return DevDrctRead(&on.handle, kSector, kMoved, nullptr);
}

inline int64_t DirectWriteFromNowhere(Subject& on)
{
    return DevDrctWrite(&on.handle, kSector, kMoved, nullptr, 0, &on.retried);
}

inline int64_t DirectReadTooLong(Subject& on)
{
    Pieces pieces = {1, {{on.memory.address(), kTooLong}}};
    return DevDrctRead(&on.handle, kSector, kTooLong, pieces.list());
}

inline int64_t DirectWriteTooLong(Subject& on)
{
    Pieces pieces = {1, {{on.memory.address(), kTooLong}}};
    return DevDrctWrite(&on.handle, kSector, kTooLong, pieces.list(), 1, &on.retried);
}

inline int64_t DirectWriteUntold(Subject& on)
{
    Pieces pieces = PiecesOf(on);
    return DevDrctWrite(&on.handle, kSector, kMoved, pieces.list(), 1, nullptr);
}

// `unit` is how many bytes a length of 1 stands for.
template <uint32_t unit>
int64_t DirectRead(Subject& on)
{
    Pieces pieces = PiecesOf(on);
    return DevDrctRead(&on.handle, kSector, kMoved * 512 / unit, pieces.list());
}

template <uint32_t unit>
int64_t DirectReadArray(Subject& on)
{
    const MemoryArray array = ArrayOf(on);
    return DevDrctReadArray(&on.handle, kSector, kMoved * 512 / unit, &array);
}

template <uint32_t unit, uint32_t flag>
int64_t DirectWrite(Subject& on)
{
    Pieces pieces = PiecesOf(on);
    return DevDrctWrite(&on.handle, kSector, kMoved * 512 / unit, pieces.list(), flag, &on.retried);
}

template <uint32_t unit, uint32_t flag>
int64_t DirectWriteArray(Subject& on)
{
    const MemoryArray array = ArrayOf(on);
    return DevDrctWriteArray(&on.handle, kSector, kMoved * 512 / unit, &array, flag, &on.retried);
}

struct Elements {
    explicit Elements(Subject& on)
        : second{on.memory.address() + kApart, 1, kSector + 1, nullptr},
          first{on.memory.address(), 1, kSector, &second}
    {
        on.second = kApart;
    }
    BlockListEntry second;
    BlockListEntry first;
    BlockList list = {2, &first};
};

inline int64_t ReadModifyWrite(Subject& on)
{
    Elements elements(on);
    return DevDrctRMW(&on.handle, &elements.list);
}

inline int64_t FatWrite(Subject& on)
{
    Elements elements(on);
    return DevFatWrite(&on.handle, &elements.list);
}

// With these the list is not there, says that it has three elements, or has one that takes
// more entries than the driver's table has.
inline int64_t ReadModifyWriteNothing(Subject& on)
{
    return DevDrctRMW(&on.handle, nullptr);
}

inline int64_t FatWriteNothing(Subject& on)
{
    return DevFatWrite(&on.handle, nullptr);
}

inline int64_t ReadModifyWriteTorn(Subject& on)
{
    Elements elements(on);
    elements.list.count = 3;
    return DevDrctRMW(&on.handle, &elements.list);
}

inline int64_t FatWriteTorn(Subject& on)
{
    Elements elements(on);
    elements.list.count = 3;
    return DevFatWrite(&on.handle, &elements.list);
}

inline int64_t ReadModifyWriteTooLong(Subject& on)
{
    Elements elements(on);
    elements.second.sectors = kTooLong / 512;
    return DevDrctRMW(&on.handle, &elements.list);
}

inline int64_t FatWriteTooLong(Subject& on)
{
    Elements elements(on);
    elements.second.sectors = kTooLong / 512;
    return DevFatWrite(&on.handle, &elements.list);
}

inline int64_t CommandWriteTooLong(Subject& on)
{
    return DevSdCmdWrite(&on.handle, on.memory.data(), kTooLong / 512, kSector, 0x12, 0x34);
}

inline int64_t CommandWrite(Subject& on)
{
    return DevSdCmdWrite(&on.handle, on.memory.data(), kMoved, kSector, 0x12, 0x34);
}

inline int64_t Status(Subject& on)
{
    uint16_t status = 0;
    return CARD_Getstatus(&on.handle, &status);
}

inline int64_t R1Status(Subject& on)
{
    return CARD_GetR1Status(&on.handle);
}

// Nothing that changes what was registered before.
inline int64_t Register(Subject& on)
{
    return CARD_Init(&on.handle, 0, nullptr);
}

inline int64_t Info(Subject& on)
{
    return CARD_Getinfo(&on.handle, &on.info);
}

inline int64_t Speed(Subject& on)
{
    return CARD_GetSpeedInfo(&on.handle, &on.speed);
}

inline int64_t SdStatus(Subject& on)
{
    return CARD_SecureGetinfo(&on.handle, on.sd_status);
}

// Signed, as the failures among its results are.
inline int64_t Size(Subject& on)
{
    return static_cast<int32_t>(CARD_GetCardSize(&on.handle));
}

inline int64_t Protection(Subject& on)
{
    return CARD_GetWriteProtect(&on.handle);
}

template <int32_t command>
int64_t Command(Subject& on)
{
    return CARD_Ioctl(&on.handle, command, 0x1234);
}

template <uint32_t request>
int64_t Generic(Subject& on)
{
    return DevIoctl(&on.handle, request, on.memory.data());
}

template <uint32_t request>
int64_t GenericOfNothing(Subject& on)
{
    return DevIoctl(&on.handle, request, nullptr);
}

inline int64_t Detect(Subject& on)
{
    return DevDetect(&on.handle);
}

inline int64_t Init(Subject& on)
{
    return DevInit(&on.handle);
}

inline int64_t Exit(Subject& on)
{
    DevExit(&on.handle);
    return 0;
}

inline int64_t CheckRt(Subject& on)
{
    return DevCheckRt(&on.handle);
}

inline int64_t CheckDelay(Subject& on)
{
    return DevCheckDelay(&on.handle);
}

inline int64_t OnForWait(Subject& on)
{
    return DevRTOn4Wait(&on.handle);
}

inline int64_t LockRt(Subject& on)
{
    DevLockRTOn(&on.handle);
    return 0;
}

inline int64_t UnlockRt(Subject& on)
{
    DevUnlockRTOn(&on.handle);
    return 0;
}

}  // namespace faults

#endif
