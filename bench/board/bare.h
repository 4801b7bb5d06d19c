// SPDX-License-Identifier: MIT
//
// What the library is measured against: for each of its operations the shortest code that
// makes the same system calls with the same effect, on a device that is known to be there.
// No retries, no messages, no checks of what the caller hands over.
#ifndef CARDDEV_BENCH_BARE_H
#define CARDDEV_BENCH_BARE_H

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include "carddev.h"

constexpr int BARE_TABLE_ENTRIES = 2048;

struct BareDevice {
    int dev_fd;
    int blk_fd;
    int chr_fd;
    int rt_fd;
    uint32_t unit;
    bool is_mivo;
    bool is_watched;  // ask first whether the card is still there, as with a callback
    pthread_mutex_t lock;
    CardInfo registers;
    uint8_t sd_status[CARD_SD_STATUS_SIZE];
    uint32_t table[BARE_TABLE_ENTRIES][2];
};

// Each returns what the system call did, negative for a failure, or what was asked for.

int BareOpenZel(BareDevice* dev, const char* node, const char* block_node, const char* char_node);
int BareCloseZel(BareDevice* dev);
int BareOpenMivo(BareDevice* dev, const char* node);
int BareCloseMivo(BareDevice* dev);
int BareOpenRicoh(BareDevice* dev, const char* node);
int BareCloseRicoh(BareDevice* dev);

// 0 when the card is there.
int BareCheck(BareDevice* dev);

ssize_t BareRead(BareDevice* dev, void* buffer, uint32_t sectors, uint32_t first);
ssize_t BareWrite(BareDevice* dev, const void* buffer, uint32_t sectors, uint32_t first);

// Fill the table; the bytes it then takes.
uint32_t BareTable(BareDevice* dev, const MemoryChunkArray* chunks);
// A transfer with the table as it stands.
int BareReady(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
              uint32_t table_bytes);
// A transfer that fills the table first.
int BareDirect(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
               const MemoryChunkArray* chunks);
int BareDirectArray(BareDevice* dev, uint32_t request, uint32_t first, uint32_t sectors,
                    const MemoryArray* list);
int BareElements(BareDevice* dev, uint32_t request, const BlockList* list);
int BareCommand(BareDevice* dev, uint32_t request, const void* buffer, uint32_t sectors,
                uint32_t argument, uint8_t byte0, uint8_t byte1);

// One request under the lock, after the check.
int BareLocked(BareDevice* dev, int fd, uint32_t request, unsigned long argument);
// One request without the lock, after the check.
int BarePlain(BareDevice* dev, int fd, uint32_t request, void* argument);
// One request that answers with a byte.
int BareByte(int fd, uint32_t request);

int BareZelRegisters(BareDevice* dev, CardInfo* info);
int BareZelStatusRegister(BareDevice* dev, uint8_t* sd_status);
int BareZelSpeed(BareDevice* dev, CardSpeedInfo* speed);
int BareMivoRegisters(BareDevice* dev, CardInfo* info);
int BareMivoStatusRegister(BareDevice* dev, uint8_t* sd_status);
int BareMivoSpeed(BareDevice* dev, CardSpeedInfo* speed);
int BareRicohRegisters(BareDevice* dev, CardInfo* info);
// From the registers that are known, after the checks and the question for the capacity.
uint32_t BareZelSize(BareDevice* dev);
uint32_t BareMivoSize(BareDevice* dev);
uint32_t BareRicohSize(BareDevice* dev);
// A copy of what is known, after the check.
int BareCopy(BareDevice* dev, void* to, const void* from, size_t length);

// What programs do without direct transfers: a call for each piece of memory.
int LoopRead(int fd, uint32_t first, const MemoryChunkArray* chunks);
int LoopWrite(int fd, uint32_t first, const MemoryChunkArray* chunks);

#endif
