/*
 * ntb_item.h: what the bridge says of an item of a volume, or is told. Values only; part of ntb.h.
 */
#ifndef NTB_ITEM_H
#define NTB_ITEM_H

#include <stdint.h>

enum {
    NTB_TYPE_FILE = 1,
    NTB_TYPE_DIRECTORY = 2,
    NTB_TYPE_SYMLINK = 3,
    /* special files as WSL and Interix make them */
    NTB_TYPE_FIFO = 4,
    NTB_TYPE_CHARACTER_DEVICE = 5,
    NTB_TYPE_BLOCK_DEVICE = 6,
    NTB_TYPE_SOCKET = 7
};

enum {
    NTB_FLAG_HIDDEN = 1u << 0,
    NTB_FLAG_READ_ONLY = 1u << 1,
    NTB_FLAG_SYSTEM = 1u << 2,
    NTB_FLAG_COMPRESSED = 1u << 3,
    NTB_FLAG_REPARSE_POINT = 1u << 4,
    NTB_FLAG_VOLUME_LINK = 1u << 5 /* a link whose target is a path from the volume's root */
};

/* Reparse tags that the bridge acts on, from Microsoft's [MS-FSCC] 2.1.2.1. */
#define NTB_TAG_MOUNT_POINT UINT32_C(0xA0000003)
#define NTB_TAG_SYMLINK UINT32_C(0xA000000C)
#define NTB_TAG_WOF UINT32_C(0x80000017)
#define NTB_TAG_LX_SYMLINK UINT32_C(0xA000001D)
#define NTB_TAG_AF_UNIX UINT32_C(0x80000023)
#define NTB_TAG_LX_FIFO UINT32_C(0x80000024)
#define NTB_TAG_LX_CHR UINT32_C(0x80000025)
#define NTB_TAG_LX_BLK UINT32_C(0x80000026)

/* Where the bytes are that a file's unnamed stream should have. */
enum {
    NTB_DATA_HERE = 0,
    NTB_DATA_SYSTEM_COMPRESSED = 1, /* in another stream: read as usual, see ntb_decompress */
    NTB_DATA_ELSEWHERE = 2,         /* where only Windows, or nobody, finds them */
    NTB_DATA_ENCRYPTED = 3          /* here, under a key that is not */
};

/* A time since 1970-01-01 UTC; 0 <= nanoseconds < 1e9, in steps of 100 on the volume. */
typedef struct ntb_time {
    int64_t seconds;
    int64_t nanoseconds;
} ntb_time;

enum { NTB_OWNER_USER = 1u << 0, NTB_OWNER_GROUP = 1u << 1, NTB_OWNER_MODE = 1u << 2 };

/* Owner and mode as WSL keeps them; NTFS itself knows others. A field means nothing unless its bit
 * is among those given. */
typedef struct ntb_owner {
    uint32_t given; /* NTB_OWNER_... */
    uint32_t user;
    uint32_t group;
    uint32_t mode; /* the twelve permission bits */
} ntb_owner;

typedef struct ntb_attr {
    uint64_t ino;
    uint16_t seq;         /* sequence number of the record, for ntb_reference */
    uint32_t type;        /* NTB_TYPE_... */
    uint32_t link_count;  /* 2 for directories */
    uint32_t flags;       /* NTB_FLAG_... */
    uint64_t size;        /* bytes; of a link, the length of its target in a mount */
    uint64_t alloc_size;  /* bytes on the volume */
    uint64_t device;      /* of a device, its major number << 32 | its minor number */
    uint32_t reparse_tag; /* 0: no reparse point */
    uint32_t data_state;  /* of a file, NTB_DATA_... */
    ntb_owner owner;      /* what is kept of it; nothing unless ntb_set_reads_owners is on */
    ntb_time access_time;
    ntb_time modify_time;
    ntb_time change_time;
    ntb_time birth_time;
} ntb_attr;

/* A new item. Special files are made as WSL makes them. */
typedef struct ntb_new_item {
    uint32_t kind;   /* any NTB_TYPE_ but that of links */
    uint64_t device; /* of a device, as in ntb_attr */
    ntb_owner owner;
} ntb_new_item;

/* A place between two names of a directory. All zeroes: before the first one. */
typedef struct ntb_position {
    uint16_t length;   /* UTF-16 units */
    uint8_t name[510]; /* as it is on the volume; the place is behind it */
} ntb_position;

#endif /* NTB_ITEM_H */
