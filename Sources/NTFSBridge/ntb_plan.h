/*
 * ntb_plan.h: the part of ntb.h about reading file data where it is on the device. By ntb.h's
 * conventions; that is the header to include.
 */
#ifndef NTB_PLAN_H
#define NTB_PLAN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* See ntb.h. */
typedef struct ntb_vol ntb_vol;

/* A stretch of the device, in bytes. */
typedef struct ntb_extent {
    uint64_t offset;
    uint64_t length;
} ntb_extent;

/* Where the device has what ntb_read would answer at this moment, for a caller that reads it there:
 * *count extents in the order of the file, room for them given, which end where the file does. The
 * bytes are the file's until something else is written there. EAGAIN where they are not all on the
 * device as they are, or in more pieces, or where there are none: read them by ntb_read. */
int32_t ntb_plan_read(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length,
                      ntb_extent* extents, uint32_t room, uint32_t* count);

/* Has the volume's counters say that the device was read so often, around the bridge. */
void ntb_note_reads(ntb_vol* vol, uint64_t calls, uint64_t bytes);

#ifdef __cplusplus
}
#endif

#endif /* NTB_PLAN_H */
