// SPDX-License-Identifier: MIT
//
// A back-end for the tests of the frame: it writes down what reaches it and
// answers as it is told.
#ifndef CARDDEV_TESTS_RECORDING_OPS_H
#define CARDDEV_TESTS_RECORDING_OPS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <type_traits>
#include <vector>

#include "carddev.h"

namespace recording {

// One call of a slot.
struct Arrival {
    size_t slot;  // place in the table
    const DrvInfo* handle;
    std::vector<uint64_t> arguments;  // those after the handle

    bool operator==(const Arrival&) const = default;
};

inline std::vector<Arrival> arrivals;
inline int32_t answer = 0;
inline std::function<void(DrvInfo*)> on_arrival;  // may look around, and set `answer`

template <typename T>
uint64_t Word(T value)
{
    if constexpr (std::is_pointer_v<T>) {
        return reinterpret_cast<uintptr_t>(value);
    } else {
        return static_cast<std::make_unsigned_t<T>>(value);
    }
}

template <size_t Slot, typename Result, typename... Arguments>
Result Record(DrvInfo* handle, Arguments... arguments)
{
    arrivals.push_back({Slot, handle, {Word(arguments)...}});
    if (on_arrival) {
        on_arrival(handle);
    }
    if constexpr (!std::is_void_v<Result>) {
        return static_cast<Result>(answer);
    }
}

inline constexpr DrvOps kOps = {
    .Init = Record<0>,
    .Exit = Record<1>,
    .Read = Record<2>,
    .Write = Record<3>,
    .Ioctl = Record<4>,
    .CardIoctl = Record<5>,
    .CardInit = Record<6>,
    .CardGetStatus = Record<7>,
    .CardGetR1Status = Record<8>,
    .CardGetInfo = Record<9>,
    .CardGetSpeedInfo = Record<10>,
    .CardSecureGetInfo = Record<11>,
    .CardGetSize = Record<12>,
    .CardGetWriteProtect = Record<13>,
    .DrctRead = Record<14>,
    .DrctWrite = Record<15>,
    .DrctRMW = Record<16>,
    .FatWrite = Record<17>,
    .SdCmdWrite = Record<18>,
    .CheckRt = Record<19>,
    .CheckDelay = Record<20>,
    .RTOn4Wait = Record<21>,
    .LockRTOn = Record<22>,
    .UnlockRTOn = Record<23>,
};

// The same with one slot empty.
inline DrvOps Without(size_t slot)
{
    constexpr size_t kSlotSize = sizeof(DrvOps) / 24;
    DrvOps ops = kOps;
    memset(reinterpret_cast<uint8_t*>(&ops) + slot * kSlotSize, 0, kSlotSize);
    return ops;
}

// What a test leaves behind must not reach the next.
inline void Reset()
{
    arrivals.clear();
    answer = 0;
    on_arrival = nullptr;
}

}  // namespace recording

#endif
