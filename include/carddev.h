/* SPDX-License-Identifier: MIT */
/**
 * @file carddev.h
 * @brief One set of calls to removable memory cards, whatever slot, adaptor or
 *        host controller a card sits in.
 *
 * Life of a device:
 *
 *     write the node's path into DrvInfo::dev_path
 *     DevDetect -> DevInit -> CARD_Init -> any transfer or query -> DevExit
 *
 * Rules that hold for every call, unless its own text says otherwise:
 *
 * - A sector is 512 bytes. Card sectors are counted from the card's first
 *   sector (its master boot record), in 32 bits.
 * - The caller owns the handle and every buffer, record and list it passes; the
 *   library keeps no pointer to any of them after a call has returned. The
 *   handle's @ref DrvInfo::priv is the library's.
 * - Every call runs on the caller's thread. The library starts no thread.
 * - Dev* calls return 0 or a positive count, or a negated errno value.
 *   CARD_* calls return a card code (@ref CardCode), which is never negative.
 * - A null handle, or one that is bound to no back-end (zeroed, or after
 *   DevExit), prints "Invalid wrapper low-level driver info!" and gives the
 *   "null handle" result named at each call. Nothing else happens.
 * - A call that the handle's back-end does not offer prints "NOT supported ...
 *   method!" unless its text says that it is silent, and gives the "not offered"
 *   result named at each call. A result that means success there is meant so:
 *   a device without that ability has nothing to do.
 * - Diagnostics go to standard output as "[tag:function(line)](E)text" for errors
 *   and "(W)" for warnings; a frame's warning has a line break behind its "(W)". An
 *   Init that succeeds prints a banner without a tag. Printing never changes errno.
 *   The Ricoh SD back-end's lines carry the tag "zel", and all back-ends print the
 *   same banner but for its version: log filters know them so.
 * - Where a result stems from a failed system call, errno still holds its value
 *   when the call returns.
 * - Once a callback is registered (CARD_Init), the calls on a Zel or Mivo device
 *   that need the card ask the driver first whether it is still there, under the
 *   unit's lock: they wait for a direct transfer of another thread to end. A Zel
 *   driver that answers "busy" is asked up to 10 times, 0.4 s apart: 3.6 s a check at
 *   worst. The times named at each call come on top. The real-time calls ask nothing.
 * - A driver that answers a direct transfer, or the Zel back-end's status query, with
 *   a positive number says "not finished" and is asked again at once, for as long as
 *   it says so. These loops have no bound.
 * - After a DevInit that failed, call nothing but DevDetect and DevInit on the handle:
 *   the unit's record keeps the numbers of descriptors that are closed again, and
 *   other calls would use them.
 * - On a host with 64-bit pointers (for development only), memory whose address
 *   travels in a 32-bit field must lie below 4 GiB: what MemoryChunk::addr,
 *   MemoryArray::addr and BlockListEntry::buf name, the buffer of DevSdCmdWrite, and
 *   the stack and heap of threads that use a Zel or Mivo device.
 */
#ifndef CARDDEV_H
#define CARDDEV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

/** Bytes in a sector. */
#define CARD_SECTOR_SIZE 512

/** Results of the CARD_* calls: 16-bit codes in a 32-bit signed integer. */
enum CardCode {
    CARD_CODE_OK = 0,
    /** Failure, or an invalid argument. */
    CARD_CODE_ERROR = 10,
    /** A card command failed in the driver (CARD_Ioctl). */
    CARD_CODE_COMMAND_FAILED = 43271,
    /** The device is not open: the 16-bit form of -ENODEV. */
    CARD_CODE_NOT_OPEN = 0xFFED,
    /** The card was removed or changed: the 16-bit form of -EIO. */
    CARD_CODE_REMOVED = 0xFFFB
};

/** DrvInfo::dev_type: which back-end serves the device. */
enum DevType { DEV_TYPE_ZEL = 0, DEV_TYPE_MIVO = 1, DEV_TYPE_RICOH_SD = 2 };

/** CARD_Getstatus: a card is present and usable. */
#define CARD_STATUS_READY 0x8000

/**
 * Requests of DevIoctl, in the PowerPC request encoding (type 'r').
 *
 * DEV_IOCTL_RT_40           pointer to a 20-byte real-time record; its first 32-bit
 *                           word is overwritten with 16 * unit + 1
 * DEV_IOCTL_RT_41           pointer to an 8-byte real-time record; likewise
 * DEV_IOCTL_RT_42           any non-null pointer; what it points to is not read
 * DEV_IOCTL_DEVICE_PARAMS   pointer to a 36-byte device-parameter record
 * DEV_IOCTL_RT_45           argument not used
 */
#define DEV_IOCTL_RT_40 0x80147240u
#define DEV_IOCTL_RT_41 0x40017241u
#define DEV_IOCTL_RT_42 0x20007242u
#define DEV_IOCTL_DEVICE_PARAMS 0x40247243u
#define DEV_IOCTL_RT_45 0x20007245u

/** Card registers as CARD_Getinfo delivers them, most significant byte first. */
typedef struct CardInfo {
    uint8_t cid[16]; /**< card identification; see CARD_Getinfo on its placement */
    uint8_t csd[16]; /**< card-specific data */
} CardInfo;

/** Speed record of CARD_GetSpeedInfo; bytes 5 to 31 are zero where it is one. */
typedef struct CardSpeedInfo {
    uint8_t bytes[32];
} CardSpeedInfo;

/** Bytes of the SD status register that CARD_SecureGetinfo delivers. */
#define CARD_SD_STATUS_SIZE 64

/** Outcome of CARD_Read and CARD_Write. */
typedef struct CardIoResult {
    uint16_t reserved; /**< never touched */
    uint16_t error;    /**< set to 10 on failure; not cleared on success */
    int32_t length;    /**< bytes transferred on success; not touched on failure */
} CardIoResult;

/** One piece of the caller's memory. */
typedef struct MemoryChunk {
    uint32_t addr; /**< its address */
    uint32_t len;  /**< its length in bytes */
} MemoryChunk;

#ifdef __GNUC__
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no arrays of open length */
#endif

/** The pieces of a direct transfer, in the order of the card's sectors. */
typedef struct MemoryChunkArray {
    uint32_t count; /**< entries in use; compared as a signed number */
    MemoryChunk chunk[];
} MemoryChunkArray;

#ifdef __GNUC__
#pragma GCC diagnostic pop
#endif

/** Most pieces that a MemoryArray holds. */
#define MEMORY_ARRAY_PIECES 8

/** The same, in a record of fixed size, for the *Array calls. */
typedef struct MemoryArray {
    uint32_t reserved;                  /**< not read */
    uint32_t addr[MEMORY_ARRAY_PIECES]; /**< address of each piece */
    uint32_t len[MEMORY_ARRAY_PIECES];  /**< length of each piece in bytes */
    int32_t count;                      /**< pieces in use: 1 to 8 */
} MemoryArray;

/** One run of sectors in a BlockList. */
typedef struct BlockListEntry {
    uint32_t buf;                /**< address of the data in the caller's memory */
    uint32_t sectors;            /**< length in sectors */
    uint32_t sector;             /**< card sector where it starts */
    struct BlockListEntry* next; /**< null after the last */
} BlockListEntry;

/** The runs of sectors that DevDrctRMW and DevFatWrite write. */
typedef struct BlockList {
    int32_t count; /**< elements in the chain */
    BlockListEntry* first;
} BlockList;

typedef struct DrvInfo DrvInfo;

/** Called without arguments, from the thread that noticed the eject. */
typedef void (*CardEjectCallback)(void);

/**
 * A back-end: 24 operations, each taking the handle first. A null slot means
 * that the back-end does not offer the operation. Callers use the functions
 * below, which answer for empty slots; the contracts stand there.
 *
 * Slots 0, 2-4 and 14-18 return 0 or a positive count, or a negated errno
 * value; slots 5-11 return a card code. The results of slots 1, 22 and 23 are
 * not looked at.
 */
typedef struct DrvOps {
    int32_t (*Init)(DrvInfo* handle);
    int32_t (*Exit)(DrvInfo* handle);
    int32_t (*Read)(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                    uint32_t word);
    int32_t (*Write)(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                     uint32_t word);
    int32_t (*Ioctl)(DrvInfo* handle, uint32_t request, void* argument);
    int32_t (*CardIoctl)(DrvInfo* handle, int32_t command, int32_t argument);
    int32_t (*CardInit)(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb);
    int32_t (*CardGetStatus)(DrvInfo* handle, uint16_t* status);
    int32_t (*CardGetR1Status)(DrvInfo* handle);
    int32_t (*CardGetInfo)(DrvInfo* handle, CardInfo* info);
    int32_t (*CardGetSpeedInfo)(DrvInfo* handle, CardSpeedInfo* speed);
    int32_t (*CardSecureGetInfo)(DrvInfo* handle, uint8_t* sd_status);
    uint32_t (*CardGetSize)(DrvInfo* handle);
    int32_t (*CardGetWriteProtect)(DrvInfo* handle);
    int32_t (*DrctRead)(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                        MemoryChunkArray* chunks);
    int32_t (*DrctWrite)(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                         MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried);
    int32_t (*DrctRMW)(DrvInfo* handle, BlockList* list);
    int32_t (*FatWrite)(DrvInfo* handle, BlockList* list);
    int32_t (*SdCmdWrite)(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                          uint8_t cmd_byte0, uint8_t cmd_byte1);
    int32_t (*CheckRt)(DrvInfo* handle);
    int32_t (*CheckDelay)(DrvInfo* handle);
    int32_t (*RTOn4Wait)(DrvInfo* handle);
    void (*LockRTOn)(DrvInfo* handle);
    void (*UnlockRTOn)(DrvInfo* handle);
} DrvOps;

/** The device handle. */
struct DrvInfo {
    char dev_path[256]; /**< path of the device node; the caller writes it, NUL included */
    int32_t dev_type;   /**< DevType, set by DevDetect */
    int32_t dev_index;  /**< unit within the back-end, counted from 0; set by DevDetect */
    const DrvOps* ops;  /**< set by DevDetect */
    void* priv;         /**< the back-end's own, set by DevInit */
};

/** SdFormatParams::fs_type. */
enum SdFsType { SD_FS_FAT12 = 0, SD_FS_FAT16 = 1, SD_FS_FAT32 = 2, SD_FS_EXFAT = 3 };

/** How a card is to be formatted; sectors are counted from the card's first. */
typedef struct SdFormatParams {
    uint32_t fs_type;          /**< SdFsType */
    uint32_t partition_start;  /**< sector where the partition begins */
    uint32_t data_start;       /**< sector where the data area (the first cluster) begins */
    uint32_t root_dir_sectors; /**< root directory of a FAT12 or FAT16; always 32 */
} SdFormatParams;

/** The back-ends' tables. DevDetect chooses among them. */
extern const DrvOps mivo_ops;
extern const DrvOps zel_ops;
extern const DrvOps ricoh_sd_ops;

/* ------------------------------------------------------------------ life --- */

/**
 * Choose the back-end for the node named in handle->dev_path, by the node's
 * type and device number, and fill dev_type, dev_index and ops. Opens nothing;
 * blocks no longer than a stat(2).
 *
 *   block 240      Zel, unit (minor - 1) / 16, 16 minors a unit from minor 1
 *   block 244      Ricoh SD, unit 0
 *   character 248  Mivo, unit = minor
 *
 * Minor 0 of block major 240 gives dev_index -1, which DevInit refuses.
 *
 * @return 0; -1 when the path cannot be examined (errno tells; ENAMETOOLONG for
 *         a dev_path without an end); -22 for a null handle or a file that is no
 *         device; -19 for a device that no back-end serves. Each failure prints
 *         a line and leaves the handle as it was.
 */
int32_t DevDetect(DrvInfo* handle);

/**
 * Open the device: needs a handle that DevDetect has bound. Prints a banner on
 * success. Opening may block for as long as the driver's open does.
 *
 * Opening a device that is open starts afresh and loses the earlier
 * descriptors: call DevExit first. Not to be run beside other calls on the same
 * unit.
 *
 * @return 0 or positive on success; -1 when the device could not be opened or
 *         its unit number is outside the back-end's range (a line says why);
 *         -22 for a null handle. Not offered: 0.
 */
int32_t DevInit(DrvInfo* handle);

/**
 * Close the device, free what an Init that succeeded and later calls allocated for
 * it, then zero the whole
 * handle, dev_path included. To use the handle again, write the path and run
 * DevDetect and DevInit. Not to be run beside other calls on the same unit.
 *
 * Null handle: message only. Not offered: warning, and the handle is zeroed all
 * the same.
 */
void DevExit(DrvInfo* handle);

/**
 * Register what to do when the card is found gone. The callback runs on the
 * thread whose call noticed it, with no lock held, and again on every later
 * check while the card stays away: it must be harmless to repeat. It may call
 * this library; a call that checks the same unit calls it again, so let it not call
 * itself without end. Without a callback the Zel and Mivo back-ends never look
 * whether the card is there. A zero argument keeps the value of an earlier
 * call, so a callback cannot be taken back before DevExit. The Ricoh SD
 * back-end cannot notice an eject: it accepts the callback and never calls it.
 *
 * @param eject_arg  a word stored with the device; the library gives it no use
 * @param eject_cb   callback, or null to keep the earlier one
 * @return 0; 10 for a null handle and, but for the Ricoh SD back-end, when the device
 *         is not open. Not offered: 0.
 */
int32_t CARD_Init(DrvInfo* handle, uint32_t eject_arg, CardEjectCallback eject_cb);

/* ------------------------------------------------------- plain transfers --- */

/**
 * Read whole sectors through the device node: one seek and one read(2), which
 * blocks as long as the driver takes. Allocates nothing, and takes no lock for the
 * transfer, so two threads on one device would disturb each other's position.
 *
 * Success is read from the record, not from the result: set result->error to 0
 * before the call, since success does not clear it. A transfer may be short, as
 * read(2) may: compare result->length with sectors * 512. The byte count is
 * formed in 32 bits, so stay below 0x800000 sectors a call.
 *
 * @param buffer   receives sectors * 512 bytes; any address and alignment
 * @param word     handed on to the back-end; none gives it a use
 * @param result   receives length (bytes) on success, error = 10 on failure
 * @return 0 whenever there is a record; 10 for a null handle or null record.
 *         Not offered: error = 10, 0, silent.
 */
int32_t CARD_Read(DrvInfo* handle, void* buffer, uint32_t sectors, uint32_t first_sector,
                  uint32_t word, CardIoResult* result);

/**
 * Write whole sectors; as CARD_Read, with write(2) from @p buffer. Fails (error = 10)
 * on a Zel or Mivo unit that a direct transfer has marked as failed; see DevDrctRead.
 */
int32_t CARD_Write(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t first_sector,
                   uint32_t word, CardIoResult* result);

/* --------------------------------------------------------------- queries --- */

/**
 * Card status word: CARD_STATUS_READY when a card is present and usable. The
 * Ricoh SD back-end has no presence query: an open device counts as present,
 * and the word is 0 where the device is not open.
 *
 * @return 0; 10 for a null handle or null @p status; CARD_CODE_REMOVED when the
 *         card has gone; CARD_CODE_NOT_OPEN (Ricoh SD) or 10 (others) when the
 *         device is not open. Not offered: 0, the word untouched.
 */
int32_t CARD_Getstatus(DrvInfo* handle, uint16_t* status);

/**
 * Every back-end answers 0 and asks no card. Null handle: 10. Not offered: 0.
 *
 * Presence is judged by the table's CardGetStatus slot: a table of your own
 * must fill both slots or neither.
 */
int32_t CARD_GetR1Status(DrvInfo* handle);

/**
 * CID and CSD registers. Asked of the driver once per DevInit and answered from
 * a copy from then on: a card exchanged while open is not seen here. Two threads
 * that ask a unit for the first time at once lose the memory of one copy, here and at
 * CARD_GetSpeedInfo and CARD_SecureGetinfo.
 *
 * Placement of the CID: the Mivo and Ricoh SD back-ends fill cid[0..15]. The Zel
 * back-end leaves cid[0] zero and puts the register's first 15 bytes into
 * cid[1..15]. The CSD request of the Ricoh SD host starts at byte 15 of the
 * record, before the CID overwrites that byte: its driver is expected to send a
 * byte ahead of the register.
 *
 * @return 0; 10 on failure, for a null handle and for a null @p info;
 *         CARD_CODE_REMOVED when the card has gone. The Zel and Mivo back-ends
 *         return 0 also when a register could not be read (a line says so): the
 *         record then holds zeros (Mivo) or arbitrary bytes (Zel), until DevExit. 10
 *         after "Malloc register buffer failed" leaves the record filled. Not
 *         offered: 0, the record untouched.
 */
int32_t CARD_Getinfo(DrvInfo* handle, CardInfo* info);

/**
 * Speed record of the card, cached like the registers. The Ricoh SD back-end
 * answers with the 32 bytes of CARD_Getinfo instead.
 *
 * @return as CARD_Getinfo, but 10 from the Mivo back-end when its driver fails, with
 *         a record that is not to be used.
 */
int32_t CARD_GetSpeedInfo(DrvInfo* handle, CardSpeedInfo* speed);

/**
 * SD status register, most significant byte first, cached like the registers.
 *
 * @param sd_status  receives CARD_SD_STATUS_SIZE bytes
 * @return 0; 10 on failure, for a null handle and for a null @p sd_status;
 *         CARD_CODE_REMOVED when the card has gone. Not offered: 0.
 */
int32_t CARD_SecureGetinfo(DrvInfo* handle, uint8_t* sd_status);

/**
 * Size of the card in sectors. The Ricoh SD back-end asks its driver, each time. The
 * others compute it from the cached registers, user area and protected area together,
 * after asking the driver for a capacity, and check for an eject three times.
 *
 * @return sectors. Failures look like sizes: Ricoh SD 0, the others 10 or
 *         0xFFFFFFFB (removed). Null handle: 10. Not offered: 0.
 */
uint32_t CARD_GetCardSize(DrvInfo* handle);

/**
 * Write protection. A Zel driver that is busy is asked up to 10 times, 0.4 s apart,
 * under the unit's lock: 3.6 s at worst.
 *
 * @return 0 writable, non-zero protected (Ricoh SD: 1 when the node could only
 *         be opened read-only); 10 when the device is not open and for a null
 *         handle; -5 when the card has gone or the query failed. Not offered: 0.
 */
int32_t CARD_GetWriteProtect(DrvInfo* handle);

/**
 * Send card command 2, 3 or 4; any other number sends nothing and returns 0. The
 * Ricoh SD back-end has no commands: always 0.
 *
 * @param argument  handed to the driver unread; 32 bits, so a pointer is cast
 * @return 0; CARD_CODE_COMMAND_FAILED; CARD_CODE_REMOVED; 10 for a null handle and for
 *         a Zel or Mivo device that was not initialised. Not offered: 0.
 */
int32_t CARD_Ioctl(DrvInfo* handle, int32_t command, int32_t argument);

/**
 * Generic device request, DEV_IOCTL_*.
 *
 * @return the driver's result, -1 with errno set when it failed; -25 for a request
 *         that the back-end does not know (the Ricoh SD back-end knows none); -22 for
 *         a null handle, and for a null argument (but the Zel back-end hands a null
 *         DEVICE_PARAMS record to its driver, and looks at no argument of RT_45); -5
 *         when the card has gone; -19 when the device was not initialised. Not
 *         offered: 0.
 */
int32_t DevIoctl(DrvInfo* handle, uint32_t request, void* argument);

/* ------------------------------------------------------ direct transfers --- */

/**
 * Read sectors by the driver's direct memory access into scattered memory. Not
 * offered by the Ricoh SD back-end.
 *
 * Direct transfers of one unit run one at a time, under the unit's lock. Each try
 * waits at most 4,000 ms for the driver to finish. The Zel back-end bears nine
 * busy answers, with 0.4 s after each, and two other failures: 12 tries, 51.6 s at
 * worst. The Mivo back-end bears two failures, and none once the device has gone
 * (ENODEV): 3 tries, 12 s. What is retried, and the end, is printed.
 *
 * A driver that has answered with an error may go on all the same: after -5 leave the
 * memory of the transfer alone until DevExit.
 *
 * A transfer that gives up marks the unit as failed, reads included: until DevExit
 * and DevInit, DevDrctWrite, DevFatWrite and DevSdCmdWrite (Mivo: DevDrctRMW, too)
 * answer -5 without asking the driver to write, and CARD_Write fails so. Reading goes
 * on.
 *
 * Chunks that continue one another in memory are joined, up to 64 KiB; longer ones
 * are split. The driver's table holds 2047 pieces.
 *
 * @param length  bytes for the Zel back-end (a multiple of 512), sectors for the
 *                Mivo back-end; the chunks' lengths must add up to it
 * @param chunks  where the data goes, in the order of the sectors
 * @return @p length on success; -5 when the card has gone or the driver failed; -22
 *         for a null or too long list; -19 when the device was not initialised.
 *         Null handle or not offered: -22.
 */
int32_t DevDrctRead(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                    MemoryChunkArray* chunks);

/**
 * Write sectors by the driver's direct memory access from scattered memory; as
 * DevDrctRead otherwise.
 *
 * @param flag     0 begins with the driver's request for sequential data
 *                 (ZEL_DIRECT_SEQ_WRITE, MIVOSDIF_IOC_DIRECT_WRITE_ALT), any other
 *                 value with the plain one. After a failure - on a Zel device: other
 *                 than busy - the plain one is used for the rest of the call.
 * @param retried  receives 0, and 1 once such a failure was retried; must not be null.
 *                 Not written where the call fails before the list is built.
 * @return as DevDrctRead; -22 also for a null @p retried; -5 also for a unit marked
 *         as failed.
 */
int32_t DevDrctWrite(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                     MemoryChunkArray* chunks, uint32_t flag, uint32_t* retried);

/**
 * DevDrctRead with the pieces in a MemoryArray. Allocates one list of
 * 4 + 8 * count bytes for the time of the call.
 *
 * list->count must not be above 8: it is not checked, and the pieces beyond
 * would be read from past the record. A count of 0 reaches the back-end as an empty
 * list; let it not be negative.
 *
 * @return as DevDrctRead; -12 when the list cannot be allocated; -22 without a
 *         message for a null handle or list.
 */
int32_t DevDrctReadArray(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                         const MemoryArray* list);

/**
 * DevDrctWrite with the pieces in a MemoryArray; as DevDrctReadArray, with one
 * difference that callers know: the list's count starts at what the allocator
 * left in that word and the pieces are added to it. With an allocator that does
 * not hand out zeroed memory the back-end may be given more pieces than the
 * list has. Programs that cannot vouch for their allocator build a
 * MemoryChunkArray and call DevDrctWrite.
 */
int32_t DevDrctWriteArray(DrvInfo* handle, uint32_t first_sector, uint32_t length,
                          const MemoryArray* list, uint32_t flag, uint32_t* retried);

/**
 * Read-modify-write of runs of sectors in one driver request. Waits and retries are
 * those of DevDrctRead. Allocates 16 bytes an element for the time of the call.
 *
 * Of an element longer than 64 KiB the driver is handed the first 64 KiB: split it.
 * A chain with fewer elements than its count prints "List panic", and the request
 * goes out with the count all the same, the missing elements unwritten: do not let
 * that happen.
 *
 * @return 0; -5 when the card has gone or the driver failed (Mivo: also for a unit
 *         marked as failed); -12 when memory or the driver's table does not suffice;
 *         -22 for a null list; -19 when the device was not initialised. Null handle:
 *         -22. Not offered: 0.
 */
int32_t DevDrctRMW(DrvInfo* handle, BlockList* list);

/**
 * Write runs of sectors of the file-system area; as DevDrctRMW, and -5 for a unit
 * marked as failed.
 */
int32_t DevFatWrite(DrvInfo* handle, BlockList* list);

/**
 * Write one piece of memory with a card command of the caller's. The command words
 * are the driver's to understand; they pass through unchanged. Waits and retries are
 * those of DevDrctRead.
 *
 * @param buffer   sectors * 512 bytes
 * @return 0; -5 when the card has gone, the driver failed or the unit is marked as
 *         failed; -12 when the driver's table does not suffice; -19 when the device
 *         was not initialised. Null handle: -22. Not offered: 0.
 */
int32_t DevSdCmdWrite(DrvInfo* handle, const void* buffer, uint32_t sectors, uint32_t cmd_arg,
                      uint8_t cmd_byte0, uint8_t cmd_byte1);

/* ------------------------------------------------------ real-time control --- */

/**
 * Status byte of the real-time control node, as the driver gives it.
 *
 * @return 0 to 255; a negated errno value on failure; -22 for a null handle. Not
 *         offered: 1, silent.
 */
int32_t DevCheckRt(DrvInfo* handle);

/** Delay status byte; results as DevCheckRt. */
int32_t DevCheckDelay(DrvInfo* handle);

/** Whether real time is on for a wait; as DevCheckRt, but not offered: 0. */
int32_t DevRTOn4Wait(DrvInfo* handle);

/**
 * Lock real time on. Each call is one driver request and nothing counts them:
 * pair each with DevUnlockRTOn. Failures are printed, not returned. Not offered:
 * silent, nothing done.
 */
void DevLockRTOn(DrvInfo* handle);

/** Undo DevLockRTOn; the same terms. */
void DevUnlockRTOn(DrvInfo* handle);

/* ------------------------------------------------------------- formatting --- */

/**
 * Work out which file system a card of @p capacity sectors is to carry and where
 * it begins, by the layout rules for SD memory cards: FAT12 or FAT16 up to 2 GiB,
 * FAT32 up to 32 GiB, exFAT up to 512 GiB, the data area on a multiple of the
 * capacity's boundary unit. Pure computation: no device, no lock, no allocation.
 *
 * @return 0; -22 for a null @p params; -1 above 1073741824 sectors (512 GiB), with
 *         the line "** OVER 2TB : <capacity>" and fs_type and root_dir_sectors
 *         written all the same.
 */
int32_t CalcSdParams(uint32_t capacity, SdFormatParams* params);

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif /* CARDDEV_H */
