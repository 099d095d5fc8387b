// The part of macOS's sys/mount.h that Tavelin uses, declared by hand.
#pragma once

#include <stdint.h>

#define MNT_RDONLY 0x00000001
#define MNT_NOWAIT 2

struct statfs {
    uint32_t f_bsize;
    uint64_t f_blocks;
    uint64_t f_bavail;
    uint32_t f_flags;
    char f_fstypename[16];
    char f_mntonname[1024];
    char f_mntfromname[1024];
};

extern "C" int getmntinfo(struct statfs** volumes, int flags);
