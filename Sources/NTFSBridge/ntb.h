/*
 * ntb.h: one NTFS volume behind flat, inode-number based C functions.
 *
 * The bridge stands between a volume's owner (core/NTFSVolume) and libntfs-3g. It gives the library
 * its device through a table of callbacks with a 32 MiB write-back page cache in front of them.
 *
 * Conventions, valid for every function here:
 *   1. A volume is an opaque ntb_vol, made by ntb_mount and destroyed by ntb_umount.
 *   2. A function that can fail returns 0 or a positive errno of the host, never a negative value.
 *      Nothing throws; an allocation failure is ENOMEM.
 *   3. Booleans and flags cross as int, non-zero meaning true.
 *   4. Text is NUL-terminated UTF-8. Strings and buffers handed out are newly allocated; the caller
 *      releases them with free(). With an error, nothing is handed out.
 *   5. An inode number handed out is the 48-bit NTFS file record number. The root directory is
 *      NTB_ROOT_INO; the others below 16 are the volume's system files and are never exposed.
 *      An inode number handed in may carry the record's sequence number in its upper 16 bits, as
 *      NTFS's own file references do (ntb_reference). The sequence number changes each time a
 *      record is freed, so a call with one that is not 0 answers ESTALE when the record is free or
 *      has a new owner. 0 asks for no such check.
 *   6. The bridge holds no locks: calls on one volume must be serialised by the caller. Different
 *      volumes may be used from different threads at the same time. Listing callbacks run inside
 *      the call and must not call the bridge for the same volume.
 *   7. No inode stays open between calls. A change has reached the page cache when its call
 *      returns; ntb_sync or ntb_umount carry it to the device.
 *   8. An operation that fails leaves the volume as it was. Exceptions: the contents of a file that
 *      were to be overwritten may be partly new; and an operation on a volume without a page cache,
 *      or on more than 16 MiB of metadata, may end half-way.
 *   9. Operations that change a volume answer EROFS when it is mounted read-only, by request or by
 *      the library's own decision.
 */
#ifndef NTB_H
#define NTB_H

#include "NTFSBridge/ntb_item.h"
#include "NTFSBridge/ntb_plan.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A mounted volume. */
typedef struct ntb_vol ntb_vol;

#define NTB_ROOT_INO UINT64_C(5)

static inline uint64_t ntb_reference(uint64_t ino, uint16_t seq) {
    const uint64_t high = seq;
    return ino | high << 48;
}

/* ---- The device below ------------------------------------------------------------------------ */

/*
 * The road to the block device, copied by value at mount; context must outlive the volume.
 * Callbacks return 0 or a positive errno, transfer the whole length or fail, and are only called
 * from within a bridge call, on its thread. Offsets and lengths are bytes; with a block size of 2
 * or more they are multiples of it, but for a read that ends where a device of no whole number of
 * blocks ends.
 */
typedef struct ntb_io {
    void* context;
    int32_t (*read)(void* context, void* buffer, uint64_t offset, uint64_t length);
    int32_t (*write)(void* context, const void* buffer, uint64_t offset, uint64_t length);
    /* As write, of whole pages of file data in clusters that belonged to the file or to nobody when
     * sync last succeeded. May be NULL: write is called. */
    int32_t (*write_data)(void* context, const void* buffer, uint64_t offset, uint64_t length);
    int32_t (*sync)(void* context); /* may be NULL: the device needs no flush */
    uint64_t size;                  /* bytes */
    uint32_t block_size;            /* bytes; 0 and 1 both mean byte-addressable */
} ntb_io;

/* Bytes of the unit that the page cache, the journal and the undo of failed operations work in. A
 * device whose sectors are larger has neither. */
enum { NTB_PAGE_BYTES = 4096 };

/* Longest transfer in bytes that goes through the page cache. A longer one is bulk data: it goes
 * straight to the device, in the caller's own length. */
enum { NTB_CACHED_BYTES_MAX = 64 << 10 };

/* Dirty pages above which the page cache writes all of them back by itself, inside the operation
 * that made one more dirty and in writes longer than NTB_CACHED_BYTES_MAX. */
enum { NTB_DIRTY_PAGES_MAX = 4096 };

/* I/O counters of one volume, zero at mount and never reset. */
typedef struct ntb_stats {
    uint64_t deviceReads;  /* read calls to the device */
    uint64_t deviceWrites; /* write calls to the device */
    uint64_t readBytes;    /* bytes asked of the device, after clamping to its end */
    uint64_t writeBytes;   /* bytes written to the device */
    uint64_t unalignedOps; /* device calls that needed a bounce buffer */
    uint64_t reserved1;    /* always 0 */
    uint64_t reserved2;    /* always 0 */
    uint64_t cacheHits;    /* pages read from the cache */
    uint64_t cacheMisses;  /* pages fetched into it, for reads and for partial writes */
    uint64_t dirtyPages;   /* pages waiting to be written, as of the last write or flush */
} ntb_stats;

/* ---- Volume ---------------------------------------------------------------------------------- */

/* Space as the library counts it, without a read of the device. A cluster is free or in use;
 * records may be made from free clusters, and so count as free files. */
typedef struct ntb_statfs {
    uint32_t clusterSize; /* bytes */
    uint64_t totalClusters;
    uint64_t freeClusters;
    uint64_t totalFiles; /* file records the volume has or could make room for */
    uint64_t freeFiles;
} ntb_statfs;

/* 0 when the device starts with an NTFS boot sector, its serial number then being stored in
 * *serial unless that is NULL; EINVAL otherwise, *serial being left alone. */
int32_t ntb_probe(const ntb_io* io, uint64_t* serial);

/*
 * Where the volume's journal file, $LogFile, lies, in the order of the file; nothing is mounted.
 * Stores *count extents, room for them given. They are whole clusters of the device that overlap
 * neither each other nor the boot sector nor the first file records. EINVAL when there is no NTFS
 * volume or its journal file is not such a plain sequence (damaged, sparse, in more pieces than
 * there is room for), else what the device answered.
 */
int32_t ntb_log_extents(const ntb_io* io, ntb_extent* extents, uint32_t room, uint32_t* count);

/* The flags of $Volume, of a volume that need not be mounted: bit 0 is the dirty flag, which
 * drivers set while they write and leave behind when they are cut off. EINVAL when they cannot be
 * found, else what the device answered. */
int32_t ntb_volume_flags(const ntb_io* io, uint16_t* flags);

/* Where $Volume's record and its copy in $MFTMirr lie on the device. EINVAL when the boot sector
 * does not say, else what the device answered. */
int32_t ntb_volume_records(const ntb_io* io, ntb_extent records[2]);

/* Sets or clears the dirty flag, in $Volume's record and its copy, and writes the block that it is
 * in where it was otherwise. Other users of the volume must not write these records meanwhile. Does
 * not sync. A copy that is torn stays so: whoever mends it takes the other one. EINVAL when neither
 * is whole, else what the device answered. */
int32_t ntb_set_dirty(const ntb_io* io, int32_t is_dirty);

/*
 * Mounts. NULL with *error set on failure: EINVAL not NTFS, ENOMEM, EPERM hibernated or fast
 * started (read-write only), EROFS, or whatever the device or library answered. A read-write mount
 * lets the library reset an unclean journal. Where $MFTMirr differs from $MFT, it brings the two
 * into agreement; a read-only mount reads as if they agreed. Without memory for the page cache the
 * volume mounts uncached.
 */
ntb_vol* ntb_mount(const ntb_io* io, int32_t read_only, int32_t* error);

/* Writes everything back and closes. The handle is gone whatever the result; NULL answers 0. */
int32_t ntb_umount(ntb_vol* vol);

/* Writes all dirty pages and syncs the device. 0 at once on a volume mounted read-only by
   request. */
int32_t ntb_sync(ntb_vol* vol);

/* What the next sync writes, in pages. */
typedef struct ntb_backlog {
    uint64_t metadata;  /* dirty, but for those of file data */
    uint64_t file_data; /* dirty, and may be written before the others */
    uint64_t deferred; /* that become dirty at most when directory entries are brought up to date */
} ntb_backlog;
void ntb_get_backlog(const ntb_vol* vol, ntb_backlog* out);

/* 1 when something was written since the last sync that succeeded. */
int32_t ntb_is_dirty(const ntb_vol* vol);

/* 1 when files have given clusters back since the last sync that succeeded. Should the device lose
   what was written since, the files have them again. */
int32_t ntb_freed_since_sync(const ntb_vol* vol);

/* 1 when mounted read-only, by request or by the library. */
int32_t ntb_is_readonly(ntb_vol* vol);

uint64_t ntb_serial(ntb_vol* vol);

/* A copy of the label, empty when there is none; NULL only without memory. */
char* ntb_label(ntb_vol* vol);

/* EROFS, EINVAL or EILSEQ for text that is not UTF-8, ENAMETOOLONG over 128 UTF-16 units. */
int32_t ntb_set_label(ntb_vol* vol, const char* label);

/* Always 0. */
int32_t ntb_statfs_get(ntb_vol* vol, ntb_statfs* out);

/* Finds free clusters from the byte `from` of the device up to before the byte `to`. Stores *count
 * extents of whole clusters in ascending order, room for them given and at least one, and where the
 * search ended in *next: behind the last extent when there was no room for more, else at `to` or
 * the end of the volume. EIO, or what the device answered. */
int32_t ntb_free_extents(ntb_vol* vol, uint64_t from, uint64_t to, ntb_extent* extents,
                         uint32_t room, uint32_t* count, uint64_t* next);

/* File records in use, those of the volume's own files among them: the bits of the record bitmap,
 * which is read for it. */
int32_t ntb_count_files(ntb_vol* vol, uint64_t* count);

/* While on, names that Windows cannot use are refused with EINVAL when they are made. Off at
 * mount. */
void ntb_set_windows_names(ntb_vol* vol, int32_t on);
int32_t ntb_windows_names(ntb_vol* vol);

/* Off when the device carries all that is written between two syncs over a power cut as a whole.
 * While on, as at mount, ntb_rename has the new name written before the old one is removed, so that
 * a cut cannot leave the file without a name. */
void ntb_set_ordered_writes(ntb_vol* vol, int32_t on);

/* While on, ntb_getattr reads who owns an item and what its mode is. Off at mount. */
void ntb_set_reads_owners(ntb_vol* vol, int32_t on);

void ntb_get_stats(ntb_vol* vol, ntb_stats* out);

/* In builds with assertions: stops the process where the page cache contradicts itself or an
 * operation has not ended. Does nothing in others. Takes as long as a walk over the whole cache. */
void ntb_check_invariants(ntb_vol* vol);

/* Takes all memory of the page cache from the system now, some 32 MiB, and not page by page when
 * each is first used, at the cost of a fault. For a volume that stays mounted. */
void ntb_populate_cache(ntb_vol* vol);

/* ---- Lookup, attributes, listing ------------------------------------------------------------- */

/* Finds name in a directory. Case matters: names that differ in case only are different names.
 * ENOENT (also for system files), ENOTDIR, EINVAL. */
int32_t ntb_lookup(ntb_vol* vol, uint64_t directory, const char* name, uint64_t* ino);

/* The same, else in another case by the volume's own table. *stored: the name as it is there. */
int32_t ntb_lookup_in_any_case(ntb_vol* vol, uint64_t directory, const char* name, uint64_t* ino,
                               char** stored);

int32_t ntb_getattr(ntb_vol* vol, uint64_t ino, ntb_attr* out);

/* The directory that an item has a name in, with the sequence number of its record; of the root
 * itself. ENOENT for a system file, also one in a directory of the system. */
int32_t ntb_parent(ntb_vol* vol, uint64_t ino, uint64_t* directory);

/* Called once an entry, which has seq as its record's; non-zero ends the listing, which is no
 * error. */
typedef int32_t (*ntb_dir_callback)(void* context, const char* name, uint64_t ino, uint16_t seq,
                                    uint32_t type);

/* Lists a directory without "." and "..", 8.3 aliases and system files. ENOENT, ENOTDIR, EIO. */
int32_t ntb_readdir(ntb_vol* vol, uint64_t directory, ntb_dir_callback callback, void* context);

/* The same in the order of names, from a place on, which is then behind the last of them. */
int32_t ntb_readdir_sorted(ntb_vol* vol, uint64_t directory, ntb_position* position,
                           ntb_dir_callback callback, void* context);

/* A copy of the 8.3 alias of a name, empty when there is none. */
int32_t ntb_short_name(ntb_vol* vol, uint64_t directory, const char* name, char** alias);

/* ---- File data: always the unnamed stream. EISDIR on directories. ---------------------------- */
/*
 * Where the bytes are elsewhere, reading, writing and truncating answer EOPNOTSUPP, and EACCES
 * where they are encrypted, however long the stream says that it is. System-compressed files are
 * read as if they were not; writing and truncating answer EOPNOTSUPP until ntb_decompress.
 */

/* *done is set even on failure. At or past the end: 0 bytes, success. */
int32_t ntb_read(ntb_vol* vol, uint64_t ino, uint64_t offset, void* buffer, uint64_t length,
                 uint64_t* done);

/* *done is set even on failure. Extends the file as needed. Length 0 changes nothing, not even
 * times. ENODATA, with nothing changed, where a long stretch before offset has clusters that were
 * never written: call ntb_initialise, and again. */
int32_t ntb_write(ntb_vol* vol, uint64_t ino, uint64_t offset, const void* buffer, uint64_t length,
                  uint64_t* done);

/* Grows (reading back as zeroes) or shrinks. The present size changes nothing, not even times, but
 * gives back what ntb_trim would. */
int32_t ntb_truncate(ntb_vol* vol, uint64_t ino, uint64_t size);

/* Gives back a file's clusters behind both its end and the first keep bytes. The times stay. */
int32_t ntb_trim(ntb_vol* vol, uint64_t ino, uint64_t keep);

/* Has the clusters that a file has and never used read as zeroes: those before end, the first
 * NTB_INITIALISE_BYTES_MAX bytes of them. */
enum { NTB_INITIALISE_BYTES_MAX = 16 << 20 };
int32_t ntb_initialise(ntb_vol* vol, uint64_t ino, uint64_t end);

/* Gives clusters to the part of a range that is behind those the file has, and makes the file as
 * long as the range unless keep_size is set. They read as zeroes. Holes within the file stay: they
 * get clusters when they are written to. ENOSPC before anything is changed, EFBIG, EOPNOTSUPP for
 * compressed files. */
int32_t ntb_allocate(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length,
                     int32_t keep_size);

/* Has a range read as zeroes and gives its whole clusters back, those behind the end of the file
 * among them. The size stays. EOPNOTSUPP for compressed files. */
int32_t ntb_punch(ntb_vol* vol, uint64_t ino, uint64_t offset, uint64_t length);

/* The first byte from offset on that is in a hole, or in data when for_hole is 0. The end of the
 * file counts as a hole, and so does what was never written. ENXIO when there is none, and for an
 * offset at or behind the end. */
int32_t ntb_seek(ntb_vol* vol, uint64_t ino, uint64_t offset, int32_t for_hole, uint64_t* found);

/* Makes a plain file of a system-compressed one: the bytes go to the unnamed stream, then the
 * reparse point and the compressed stream go. Until the last step the file is whole in its
 * compressed form, and so it is after an error. ENOSPC before anything is written when there may
 * not be room; EOPNOTSUPP when the file is not system-compressed; EIO when its data is damaged. */
int32_t ntb_decompress(ntb_vol* vol, uint64_t ino);

/* Writes the file's record out, then does what ntb_sync does. 0 at once on read-only volumes. */
int32_t ntb_flush(ntb_vol* vol, uint64_t ino);

/* ---- Names ----------------------------------------------------------------------------------- */
/*
 * Names: EINVAL when empty, ".", ".." or with a "/"; ENAMETOOLONG over 255 UTF-16 units; EINVAL
 * when the Windows-names rule refuses them. Records below 16 can be neither removed nor renamed
 * (EPERM).
 */

/* kind NTB_TYPE_DIRECTORY makes a directory, any other value a file. EEXIST, ENOTDIR, ENOSPC. */
int32_t ntb_create(ntb_vol* vol, uint64_t parent, const char* name, uint32_t kind, uint64_t* ino);

/* As ntb_create. The item is made with its owner, or not at all. */
int32_t ntb_make(ntb_vol* vol, uint64_t parent, const char* name, const ntb_new_item* item,
                 uint64_t* ino);

/* Makes a link in the Interix form, with the owner if that is not NULL. EINVAL for an empty target,
 * ENAMETOOLONG for one over 2043 UTF-16 units, or over PATH_MAX bytes with its NUL; else as
 * ntb_create. */
int32_t ntb_symlink(ntb_vol* vol, uint64_t parent, const char* name, const char* target,
                    const ntb_owner* owner, uint64_t* ino);

/* The same in the form of Windows, which it, the driver ntfs-3g and the kernel's drivers follow. In
 * the Interix form where Windows could not: absolute targets, and those with characters that its
 * names do not have. */
int32_t ntb_symlink_windows(ntb_vol* vol, uint64_t parent, const char* name, const char* target,
                            const ntb_owner* owner, uint64_t* ino);

/* The target of a link: an Interix link, a reparse point of WSL, or one of Windows; EINVAL for
 * anything else. Links of Windows with a path from a drive's root lead into this volume. Their
 * target is that path, as in "/real", or, in a mount, the way there from the link's directory, as
 * in "../real". What is on no volume that could be this one is spelled as it is, with "\". */
int32_t ntb_readlink(ntb_vol* vol, uint64_t ino, char** target);
int32_t ntb_readlink_in_mount(ntb_vol* vol, uint64_t ino, char** target);

/* Removes a file's name or an empty directory. ENOENT, ENOTDIR, ENOTEMPTY. */
int32_t ntb_unlink(ntb_vol* vol, uint64_t parent, const char* name);

/* Gives a file one more name. EEXIST, ENOTDIR, EPERM for directories and system files, ENOSPC. */
int32_t ntb_link(ntb_vol* vol, uint64_t ino, uint64_t parent, const char* name);

/* How many names a file has that ntb_readdir lists: its 8.3 alias, which its link count has in it,
 * goes with one of them. */
int32_t ntb_count_names(ntb_vol* vol, uint64_t ino, uint32_t* count);

/* Replaces an existing target of the same kind. EINVAL into the own subtree, EISDIR, ENOTDIR,
 * ENOTEMPTY, EPERM into or out of $Extend, EEXIST when the new name is another hard link of the
 * same file. Safe when only the case of the name changes. */
int32_t ntb_rename(ntb_vol* vol, uint64_t parent, const char* name, uint64_t new_parent,
                   const char* new_name);

/* Has each of two names lead to what the other one led to: files, directories, or one of each. On
 * volumes without a page cache a failure may leave the first under a temporary name. ENOENT, EINVAL
 * where one would come to be in its own subtree, EPERM as ntb_rename. */
int32_t ntb_exchange(ntb_vol* vol, uint64_t parent, const char* name, uint64_t other_parent,
                     const char* other_name);

/* ---- Times, the hidden flag, owners, named streams ------------------------------------------- */

/* Each time may be NULL: left alone. */
int32_t ntb_set_times(ntb_vol* vol, uint64_t ino, const ntb_time* access, const ntb_time* modify,
                      const ntb_time* change, const ntb_time* birth);

int32_t ntb_set_hidden(ntb_vol* vol, uint64_t ino, int32_t hidden);

/* Changes what is given of an owner, and the change time. EPERM for system files; EIO where the
 * extended attributes that it is kept in are damaged, E2BIG where others leave no room in them. */
int32_t ntb_set_owner(ntb_vol* vol, uint64_t ino, const ntb_owner* owner);

/* Extended attributes are named data streams; names carry no prefix. Links have none: reading or
 * removing one answers ENOATTR (ENODATA on hosts without it), setting one EPERM. The stream that a
 * system-compressed file has its data in is not listed and cannot be set (EPERM); removing it
 * answers EOPNOTSUPP: it is gone after ntb_decompress. */
typedef int32_t (*ntb_name_callback)(void* context, const char* name);

enum {
    NTB_XATTR_ANY = 0,
    NTB_XATTR_CREATE = 1, /* EEXIST when there is one */
    NTB_XATTR_REPLACE = 2 /* ENOATTR when there is none */
};

int32_t ntb_listxattr(ntb_vol* vol, uint64_t ino, ntb_name_callback callback, void* context);
int32_t ntb_getxattr(ntb_vol* vol, uint64_t ino, const char* name, void** buffer, uint64_t* size);
/* The size of what ntb_getxattr would answer. */
int32_t ntb_xattr_size(ntb_vol* vol, uint64_t ino, const char* name, uint64_t* size);
int32_t ntb_setxattr(ntb_vol* vol, uint64_t ino, const char* name, const void* value, uint64_t size,
                     int32_t flags);
int32_t ntb_removexattr(ntb_vol* vol, uint64_t ino, const char* name);

#ifdef __cplusplus
}
#endif

#endif /* NTB_H */
