/* SPDX-License-Identifier: MIT */
/**
 * @file carddev_state.h
 * @brief The units' records, exported for debuggers and tests. Programs have no
 *        need of them; read, never write.
 */
#ifndef CARDDEV_STATE_H
#define CARDDEV_STATE_H

#include <pthread.h>

#include "carddev.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __GNUC__
#pragma GCC visibility push(default)
#endif

struct SgEntry;

/**
 * A unit's record begins at a cache line and fills whole ones, so that two units in use
 * by two threads have no line in common: 32 bytes on the board's processor.
 */
#ifdef __powerpc__
#define CARDDEV_CACHE_LINE 32
#else
#define CARDDEV_CACHE_LINE 64
#endif
#ifdef __GNUC__
#define CARDDEV_OWN_CACHE_LINES __attribute__((aligned(CARDDEV_CACHE_LINE)))
#else
#define CARDDEV_OWN_CACHE_LINES
#endif

/** Units of the Mivo adaptor's driver. */
#define MIVO_UNITS 2

/**
 * One slot of the Mivo adaptor. A descriptor of 0 counts as not open. After a
 * failed DevInit it keeps what it held last: the number of what has been closed
 * again, or -1 for what could not be opened.
 */
typedef struct MivoDevice {
    uint32_t index;             /**< the handle's dev_index */
    int32_t chr_fd;             /**< the handle's own path */
    pthread_mutex_t lock;       /**< one status query or one use of the table at a time */
    struct SgEntry* sg_table;   /**< 2048 entries */
    uint8_t* secure_buf;        /**< cached SD status, or null */
    CardInfo* reg_buf;          /**< cached registers, or null */
    CardSpeedInfo* speed_buf;   /**< cached speed record, or null */
    uint8_t io_error;           /**< 1 once a direct request gave up; writes are refused */
    uint32_t eject_arg;         /**< from CARD_Init */
    CardEjectCallback eject_cb; /**< from CARD_Init, or null */
    uint8_t ejected;            /**< 1 once the card was found gone */
} CARDDEV_OWN_CACHE_LINES MivoDevice;

extern MivoDevice mivo_dev[MIVO_UNITS];

/** Units of the Zel driver. */
#define ZEL_UNITS 6

/**
 * One slot of the Zel driver. A descriptor of 0 counts as not open. After a failed
 * DevInit the descriptors keep what they held last: the numbers of what has been
 * closed again, and -1 for what could not be opened.
 */
typedef struct ZelDevice {
    uint32_t index;             /**< the handle's dev_index */
    int32_t blk_fd;             /**< "/dev/spda" and following: plain transfers, size */
    int32_t dev_fd;             /**< the handle's own path */
    int32_t chr_fd;             /**< "/dev/spdra" and following: requests, events */
    int32_t rt_fd;              /**< "/dev/rtctrl_zel" */
    pthread_mutex_t lock;       /**< one status query or one use of the table at a time */
    struct SgEntry* sg_table;   /**< 2048 entries */
    uint8_t* secure_buf;        /**< cached SD status, or null */
    CardInfo* reg_buf;          /**< cached registers, or null */
    CardSpeedInfo* speed_buf;   /**< cached speed record, or null */
    uint8_t io_error;           /**< 1 once a direct request gave up; writes are refused */
    uint32_t eject_arg;         /**< from CARD_Init */
    CardEjectCallback eject_cb; /**< from CARD_Init, or null */
    uint8_t ejected;            /**< 1 once the card was found gone */
} CARDDEV_OWN_CACHE_LINES ZelDevice;

extern ZelDevice zel_dev[ZEL_UNITS];

#ifdef __GNUC__
#pragma GCC visibility pop
#endif

#ifdef __cplusplus
}
#endif

#endif /* CARDDEV_STATE_H */
