/* SPDX-License-Identifier: GPL-2.0-only */
/* The records and command numbers of the control device, shared by the driver and its users (C and C++).
 *
 * The records are a binary interface for 32-bit user space: every field is a 4-byte little-endian word, pointers
 * included, with no padding. A pointer is an address in the calling process and must lie below 4 GiB; a 64-bit
 * program gets such buffers with MAP_32BIT.
 *
 * The bitmap that UserBlockMap points to has one bit a block: block n is bit n mod 8, least significant first, of
 * byte n / 8.
 */
#ifndef QUENDREL_H
#define QUENDREL_H

#define QUENDREL_NAME "quendrel"
#define QUENDREL_CHRDEV_MAJOR 120

#define QUENDREL_VERSION_MAJOR 3
#define QUENDREL_VERSION_MINOR 1
#define QUENDREL_VERSION_MINOR2 0
#define QUENDREL_BUILD 9504

/* Word of a record. Everywhere the system runs an unsigned int has 32 bits. */
typedef unsigned int quendrel_word;
typedef int quendrel_signed_word;
/* Address in the caller's memory. */
typedef unsigned int quendrel_user_ptr;

#define QUENDREL_KEY_BYTES 56

/* Starts the file's backup; one runs in the whole driver at a time. */
typedef struct _StartBackup {
    quendrel_word major;
    quendrel_word minor;
    quendrel_word totalBlocks;    /* of the file system, as the caller counts them */
    quendrel_word maxCacheBlocks; /* most blocks the copy-on-write cache may hold */
} StartBackup;

typedef struct _BlockSize {
    quendrel_word major;
    quendrel_word minor;
    quendrel_signed_word blockSize; /* bytes */
    quendrel_word partitionSizeKB;
} BlockSize;

typedef struct _GetBlockSize {
    quendrel_word major;
    quendrel_word minor;
    quendrel_user_ptr bs; /* BlockSize, written */
    quendrel_word len;    /* bytes of it */
} GetBlockSize;

typedef struct _AMSessionKey {
    unsigned char key[QUENDREL_KEY_BYTES];
} AMSessionKey;

typedef struct _SnapShot {
    quendrel_user_ptr amsKey; /* AMSessionKey, read */
    quendrel_word len;        /* bytes of it */
} SnapShot;

typedef struct _State {
    quendrel_word major;
    quendrel_word minor;
    quendrel_word state;            /* QUENDREL_STATE_... */
    quendrel_signed_word blockSize; /* bytes */
    quendrel_signed_word mmapSize;  /* bytes: largest transfer mapping */
} State;

typedef struct _GetState {
    quendrel_user_ptr s; /* State, written */
    quendrel_word len;   /* bytes of it */
} GetState;

typedef struct _AutoMapState {
    quendrel_word major;
    quendrel_word minor;
    quendrel_word state;   /* 1 tracking in sync, 0 not in sync or no session */
    quendrel_word mapLen;  /* blocks */
    quendrel_word mapSize; /* bytes */
    AMSessionKey amsKey;
} AutoMapState;

typedef struct _GetAutoMapState {
    quendrel_user_ptr ams; /* AutoMapState, written */
    quendrel_word len;     /* bytes of it */
} GetAutoMapState;

typedef struct _UserBlockMap {
    quendrel_user_ptr map; /* bitmap bytes */
    quendrel_word mapLen;  /* blocks */
} UserBlockMap;

typedef struct _LoadBlockMap {
    quendrel_user_ptr bm; /* UserBlockMap, read */
    quendrel_word len;    /* not looked at */
} LoadBlockMap;

typedef struct _GetAutoMap {
    quendrel_user_ptr bm; /* UserBlockMap, read; its map is written */
    quendrel_word len;    /* not looked at */
} GetAutoMap;

typedef struct _DirtyBlock {
    quendrel_user_ptr blockNum; /* unsigned 4-byte word, written */
} DirtyBlock;

typedef struct _ReadBlocks {
    quendrel_word startBlockNum;
    quendrel_word numBlocks;
    quendrel_user_ptr data; /* first address of a transfer mapping */
} ReadBlocks;

/* The kernel's ioctl encoding: direction (1 = user space passes data), argument size, type, number. */
#define QUENDREL_COMMAND(number, direction, size) \
    (((unsigned)(direction) << 30) | ((unsigned)(size) << 16) | (0x2au << 8) | (unsigned)(number))

#define QUENDREL_GET_BLOCK_SIZE QUENDREL_COMMAND(0, 1, sizeof(GetBlockSize))
#define QUENDREL_START_BACKUP QUENDREL_COMMAND(1, 1, sizeof(StartBackup))
#define QUENDREL_SNAPSHOT QUENDREL_COMMAND(2, 1, sizeof(SnapShot))
#define QUENDREL_GET_STATE QUENDREL_COMMAND(3, 1, sizeof(GetState))
#define QUENDREL_GET_AUTOMAP_STATE QUENDREL_COMMAND(4, 1, sizeof(GetAutoMapState))
#define QUENDREL_NO_LOAD_FROM_AUTOMAP QUENDREL_COMMAND(5, 0, 0)
#define QUENDREL_NO_START_AUTOMAP QUENDREL_COMMAND(6, 0, 0)
#define QUENDREL_LOAD_BLOCK_MAP QUENDREL_COMMAND(7, 1, sizeof(LoadBlockMap))
#define QUENDREL_GET_AUTOMAP QUENDREL_COMMAND(8, 1, sizeof(GetAutoMap))
#define QUENDREL_GET_DIRTY_BLOCK QUENDREL_COMMAND(9, 1, sizeof(DirtyBlock))
#define QUENDREL_READ_BLOCKS QUENDREL_COMMAND(10, 1, sizeof(ReadBlocks))
#define QUENDREL_GET_VERSION_MAJOR QUENDREL_COMMAND(12, 1, 4)
#define QUENDREL_GET_VERSION_MINOR QUENDREL_COMMAND(13, 1, 4)
#define QUENDREL_SYNC QUENDREL_COMMAND(14, 1, 4)
#define QUENDREL_SHUTDOWN QUENDREL_COMMAND(15, 1, 4)
#define QUENDREL_RESERVED16 QUENDREL_COMMAND(16, 1, 4)

/* Results of open, close, commands and mmap. Small positive numbers, not errno values. */
enum quendrel_result {
    QUENDREL_OK = 0,
    QUENDREL_NOT_INITIALISED = 1, /* or the device's own request function was not found */
    QUENDREL_REFUSED = 2,         /* no record, wrong state, bad argument, no map, no session */
    QUENDREL_GOING_AWAY = 3,      /* module going away, cache clean-up failed, block size below 512, Reserved16 */
    QUENDREL_UNKNOWN_COMMAND = 4,
    QUENDREL_NO_MEMORY = 5,
    QUENDREL_COPY_FROM_USER = 6,
    QUENDREL_COPY_TO_USER = 7,
    QUENDREL_NOT_MOUNTED = 8, /* no mounted file system on the device */
    QUENDREL_BUSY = 9,        /* another backup is running */
    QUENDREL_NOT_IDLE = 11,   /* this file's record is not idle */
    QUENDREL_READ_ERROR = 12  /* some blocks could not be read and were returned as zeros */
};

/* States of a backup. The order matters: 4 to 6 protect blocks, everything above 6 is closing or failed. */
enum quendrel_state {
    QUENDREL_STATE_IDLE = 0,
    QUENDREL_STATE_STARTING = 1,
    QUENDREL_STATE_STARTED = 2,
    QUENDREL_STATE_SNAPSHOT = 4,
    QUENDREL_STATE_LOADING_MAP = 5,
    QUENDREL_STATE_MAP_LOADED = 6,
    QUENDREL_STATE_CLOSING = 7,
    QUENDREL_STATE_READ_FAILED = 8,      /* an old block could not be read */
    QUENDREL_STATE_MAP_LOAD_FAILED = 9,
    QUENDREL_STATE_CACHE_EXHAUSTED = 10, /* cache limit reached, or no memory for the cache */
    QUENDREL_STATE_REFUSED_BUSY = 12,    /* another backup was running at the start */
    QUENDREL_STATE_QUEUE_FAILED = 13     /* no memory to hold a write */
};

#ifdef __cplusplus
#define QUENDREL_ASSERT(condition) static_assert(condition, #condition)
#else
#define QUENDREL_ASSERT(condition) __extension__ _Static_assert(condition, #condition)
#endif
#define QUENDREL_AT(record, field, offset) QUENDREL_ASSERT(__builtin_offsetof(struct _##record, field) == (offset))
#define QUENDREL_SIZE(record, bytes) QUENDREL_ASSERT(sizeof(struct _##record) == (bytes))

QUENDREL_ASSERT(sizeof(quendrel_word) == 4);
QUENDREL_SIZE(StartBackup, 16);
QUENDREL_AT(StartBackup, major, 0);
QUENDREL_AT(StartBackup, minor, 4);
QUENDREL_AT(StartBackup, totalBlocks, 8);
QUENDREL_AT(StartBackup, maxCacheBlocks, 12);
QUENDREL_SIZE(GetBlockSize, 16);
QUENDREL_AT(GetBlockSize, major, 0);
QUENDREL_AT(GetBlockSize, minor, 4);
QUENDREL_AT(GetBlockSize, bs, 8);
QUENDREL_AT(GetBlockSize, len, 12);
QUENDREL_SIZE(BlockSize, 16);
QUENDREL_AT(BlockSize, major, 0);
QUENDREL_AT(BlockSize, minor, 4);
QUENDREL_AT(BlockSize, blockSize, 8);
QUENDREL_AT(BlockSize, partitionSizeKB, 12);
QUENDREL_SIZE(SnapShot, 8);
QUENDREL_AT(SnapShot, amsKey, 0);
QUENDREL_AT(SnapShot, len, 4);
QUENDREL_SIZE(AMSessionKey, 56);
QUENDREL_SIZE(GetState, 8);
QUENDREL_AT(GetState, s, 0);
QUENDREL_AT(GetState, len, 4);
QUENDREL_SIZE(State, 20);
QUENDREL_AT(State, major, 0);
QUENDREL_AT(State, minor, 4);
QUENDREL_AT(State, state, 8);
QUENDREL_AT(State, blockSize, 12);
QUENDREL_AT(State, mmapSize, 16);
QUENDREL_SIZE(GetAutoMapState, 8);
QUENDREL_AT(GetAutoMapState, ams, 0);
QUENDREL_AT(GetAutoMapState, len, 4);
QUENDREL_SIZE(AutoMapState, 76);
QUENDREL_AT(AutoMapState, major, 0);
QUENDREL_AT(AutoMapState, minor, 4);
QUENDREL_AT(AutoMapState, state, 8);
QUENDREL_AT(AutoMapState, mapLen, 12);
QUENDREL_AT(AutoMapState, mapSize, 16);
QUENDREL_AT(AutoMapState, amsKey, 20);
QUENDREL_SIZE(UserBlockMap, 8);
QUENDREL_AT(UserBlockMap, map, 0);
QUENDREL_AT(UserBlockMap, mapLen, 4);
QUENDREL_SIZE(LoadBlockMap, 8);
QUENDREL_AT(LoadBlockMap, bm, 0);
QUENDREL_AT(LoadBlockMap, len, 4);
QUENDREL_SIZE(GetAutoMap, 8);
QUENDREL_AT(GetAutoMap, bm, 0);
QUENDREL_AT(GetAutoMap, len, 4);
QUENDREL_SIZE(DirtyBlock, 4);
QUENDREL_SIZE(ReadBlocks, 12);
QUENDREL_AT(ReadBlocks, startBlockNum, 0);
QUENDREL_AT(ReadBlocks, numBlocks, 4);
QUENDREL_AT(ReadBlocks, data, 8);

QUENDREL_ASSERT(QUENDREL_GET_BLOCK_SIZE == 0x40102a00u);
QUENDREL_ASSERT(QUENDREL_START_BACKUP == 0x40102a01u);
QUENDREL_ASSERT(QUENDREL_SNAPSHOT == 0x40082a02u);
QUENDREL_ASSERT(QUENDREL_GET_STATE == 0x40082a03u);
QUENDREL_ASSERT(QUENDREL_GET_AUTOMAP_STATE == 0x40082a04u);
QUENDREL_ASSERT(QUENDREL_NO_LOAD_FROM_AUTOMAP == 0x2a05u);
QUENDREL_ASSERT(QUENDREL_NO_START_AUTOMAP == 0x2a06u);
QUENDREL_ASSERT(QUENDREL_LOAD_BLOCK_MAP == 0x40082a07u);
QUENDREL_ASSERT(QUENDREL_GET_AUTOMAP == 0x40082a08u);
QUENDREL_ASSERT(QUENDREL_GET_DIRTY_BLOCK == 0x40042a09u);
QUENDREL_ASSERT(QUENDREL_READ_BLOCKS == 0x400c2a0au);
QUENDREL_ASSERT(QUENDREL_GET_VERSION_MAJOR == 0x40042a0cu);
QUENDREL_ASSERT(QUENDREL_GET_VERSION_MINOR == 0x40042a0du);
QUENDREL_ASSERT(QUENDREL_SYNC == 0x40042a0eu);
QUENDREL_ASSERT(QUENDREL_SHUTDOWN == 0x40042a0fu);
QUENDREL_ASSERT(QUENDREL_RESERVED16 == 0x40042a10u);

#undef QUENDREL_AT
#undef QUENDREL_SIZE
#undef QUENDREL_ASSERT

#endif
