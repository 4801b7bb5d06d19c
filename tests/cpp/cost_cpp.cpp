// SPDX-License-Identifier: MIT
// The same through the C++ face: each function has its twin in cost_c.c.
#include "carddev.hpp"

using carddev::Buffer;
using carddev::ConstBuffer;
using carddev::Device;

extern "C" {

int32_t cpp_Read(Device* device, uint32_t first, uint8_t* sectors)
{
    auto moved = device->Read(first, Buffer(sectors, 4 * CARD_SECTOR_SIZE));
    return moved ? static_cast<int32_t>(*moved) : -1;
}

int32_t cpp_ReadBytes(Device* device, uint32_t first, uint8_t* bytes, uint32_t length)
{
    auto moved = device->Read(first, Buffer(bytes, length));
    return moved ? static_cast<int32_t>(*moved) : -1;
}

int32_t cpp_Write(Device* device, uint32_t first, const uint8_t* sectors)
{
    auto moved = device->Write(first, ConstBuffer(sectors, 4 * CARD_SECTOR_SIZE));
    return moved ? static_cast<int32_t>(*moved) : -1;
}

int32_t cpp_Status(Device* device)
{
    auto status = device->Status();
    return status ? *status : -1;
}

int32_t cpp_Info(Device* device)
{
    auto info = device->Info();
    return info ? info->csd[5] : -1;
}

int32_t cpp_Sectors(Device* device, uint32_t* sectors)
{
    auto size = device->Sectors();
    if (!size) {
        return size.error().code();
    }
    *sectors = *size;
    return 0;
}

int32_t cpp_DirectRead(Device* device, uint32_t first, uint8_t* one, uint8_t* other)
{
    const auto moved =
        device->DirectRead(first, carddev::Into(Buffer(one, 512), Buffer(other, 1024)));
    return moved ? 0 : -1;
}

int32_t cpp_DirectWrite(Device* device, uint32_t first, const uint8_t* one, const uint8_t* other)
{
    auto written =
        device->DirectWrite(first, carddev::From(ConstBuffer(one, 512), ConstBuffer(other, 1024)));
    return written ? static_cast<int32_t>(written->retried) : -1;
}

int32_t cpp_SdCommandWrite(Device* device, const uint8_t* sectors)
{
    const auto written =
        device->SdCommandWrite(ConstBuffer(sectors, 4 * CARD_SECTOR_SIZE), 77, 24, 0);
    return written ? 0 : -1;
}

int32_t cpp_OnEject(Device* device, CardEjectCallback callback)
{
    return device->OnEject(callback) ? 0 : -1;
}

}  // extern "C"
