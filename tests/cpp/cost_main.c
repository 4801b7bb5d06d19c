/* SPDX-License-Identifier: MIT */
/*
 * Calls each twin of cost_c.c and cost_cpp.cpp once with a device that serves every call
 * and once with one that fails it. The instructions in between are counted outside.
 */
#include <stdint.h>
#include <string.h>

#include "carddev.h"

static int32_t answer; /* of the device, to every call */

static int32_t Move(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first, uint32_t word)
{
    (void)handle, (void)buffer, (void)first, (void)word;
    return answer < 0 ? answer : (int32_t)(sectors * CARD_SECTOR_SIZE);
}

static int32_t Take(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first,
                    uint32_t word)
{
    (void)handle, (void)buffer, (void)first, (void)word;
    return answer < 0 ? answer : (int32_t)(sectors * CARD_SECTOR_SIZE);
}

static int32_t Status(DrvInfo* handle, uint16_t* status)
{
    (void)handle;
    *status = CARD_STATUS_READY;
    return answer;
}

static int32_t Info(DrvInfo* handle, CardInfo* info)
{
    (void)handle;
    memset(info, 0, sizeof *info);
    return answer;
}

static uint32_t Size(DrvInfo* handle)
{
    (void)handle;
    return answer < 0 ? CARD_CODE_ERROR : 4096;
}

static int32_t DirectRead(DrvInfo* handle, uint32_t first, uint32_t length, MemoryChunkArray* list)
{
    (void)handle, (void)first, (void)list;
    return answer < 0 ? answer : (int32_t)length;
}

static int32_t DirectWrite(DrvInfo* handle, uint32_t first, uint32_t length, MemoryChunkArray* list,
                           uint32_t flag, uint32_t* retried)
{
    (void)handle, (void)first, (void)list, (void)flag;
    *retried = 0;
    return answer < 0 ? answer : (int32_t)length;
}

static int32_t CommandWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t arg,
                            uint8_t byte0, uint8_t byte1)
{
    (void)handle, (void)buffer, (void)sectors, (void)arg, (void)byte0, (void)byte1;
    return answer;
}

static int32_t Init(DrvInfo* handle, uint32_t arg, CardEjectCallback callback)
{
    (void)handle, (void)arg, (void)callback;
    return answer;
}

static const DrvOps ops = {
    .Read = Move,
    .Write = Take,
    .CardInit = Init,
    .CardGetStatus = Status,
    .CardGetInfo = Info,
    .CardGetSize = Size,
    .DrctRead = DirectRead,
    .DrctWrite = DirectWrite,
    .SdCmdWrite = CommandWrite,
};

/* A Device is a handle and nothing else: the twins are called with the same thing. */
#define TWINS(result, name, ...)  \
    result c_##name(__VA_ARGS__); \
    result cpp_##name(__VA_ARGS__)

TWINS(int32_t, Read, DrvInfo*, uint32_t, uint8_t*);
TWINS(int32_t, ReadBytes, DrvInfo*, uint32_t, uint8_t*, uint32_t);
TWINS(int32_t, Write, DrvInfo*, uint32_t, const uint8_t*);
TWINS(int32_t, Status, DrvInfo*);
TWINS(int32_t, Info, DrvInfo*);
TWINS(int32_t, Sectors, DrvInfo*, uint32_t*);
TWINS(int32_t, DirectRead, DrvInfo*, uint32_t, uint8_t*, uint8_t*);
TWINS(int32_t, DirectWrite, DrvInfo*, uint32_t, const uint8_t*, const uint8_t*);
TWINS(int32_t, SdCommandWrite, DrvInfo*, const uint8_t*);
TWINS(int32_t, OnEject, DrvInfo*, CardEjectCallback);

static void Ejected(void) {}

static int differences;
#define COMPARE(name, ...) differences += c_##name(__VA_ARGS__) != cpp_##name(__VA_ARGS__)

static void CallAll(DrvInfo* handle)
{
    static uint8_t memory[2048];
    uint32_t sectors;
    COMPARE(Read, handle, 7, memory);
    COMPARE(ReadBytes, handle, 7, memory, 1024);
    COMPARE(Write, handle, 7, memory);
    COMPARE(Status, handle);
    COMPARE(Info, handle);
    COMPARE(Sectors, handle, &sectors);
    COMPARE(DirectRead, handle, 7, memory, memory + 1024);
    COMPARE(DirectWrite, handle, 7, memory, memory + 1024);
    COMPARE(SdCommandWrite, handle, memory);
    COMPARE(OnEject, handle, Ejected);
}

int main(int argc, char** argv)
{
    static DrvInfo handle;
    handle.ops = &ops;
    (void)argv;
    answer = argc > 1 ? -5 : 0; /* any argument: every call fails */
    CallAll(&handle);
    return differences;
}
