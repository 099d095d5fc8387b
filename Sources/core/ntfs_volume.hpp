/// The one owner of one mounted NTFS volume.
///
/// An NTFSVolume holds the device that the bridge reads and writes, the bridge's handle, one lock
/// that serialises every call into the bridge for this volume, and a timer that writes dirty pages
/// back about once a second. Items are named by inode number; the root directory is kRootIno.
/// Wherever an operation takes an inode it also takes a reference with the sequence number
/// (itemReference in values.hpp), and then answers kESTALE when the record is free or has a new
/// owner. Nothing stays open between calls.
///
/// Threads. Everything may be called from any thread; calls queue on the lock, which is held for
/// the whole bridge call, and only a long read of a file leaves it to others while the device is
/// read, see ObservedDevice. The lock is not recursive: what runs under it (the bodies of `locked`
/// and `withDeviceLock`, the device's own methods) must not call a locked operation of this volume.
/// It is taken before the tally's and the event log's locks, never after. Exceptions from the rule:
/// serial() and readOnly() never change, and the Windows-names switch is a single flag outside the
/// lock, set before the volume is shared between threads and never touched after unmount().
///
/// Text is UTF-8 and is passed on as it is; length, case and character rules are the bridge's.
/// Sizes and offsets are bytes.
///
/// Errors are NTFSError with macOS numbers. Every operation but those of the first two rows below
/// may answer kENXIO once the volume is unmounted, kENOENT for an inode or name that does not
/// exist, kEINVAL for text with a NUL in it, and, as all may reach the medium, kEIO, kENOMEM or any
/// other code of the device and the NTFS library; the rows name what else they answer.
/// "Names" stands for kEINVAL (empty, ".", "..", with "/", or refused by the Windows-names switch),
/// kENAMETOOLONG (over 255 UTF-16 units) and kEILSEQ (not UTF-8).
///
///   isMounted, serial, readOnly,     never an error
///   windowsNames, withDeviceLock,
///   startAutoFlush
///   probe                            never an error: no serial instead
///   open                             kEINVAL not NTFS, kEPERM hibernated or fast-started (when
///                                    read-write is asked), kEROFS write-protected; kEIO also for
///                                    a failure without a reason
///   unmount                          those of writing back; never kENXIO
///   label, statfs, ioStats, sync,    nothing else
///   populateCache, attributes, parent,
///   flush, xattrNames
///   setLabel                         kEROFS, kEILSEQ, kENAMETOOLONG over 128 UTF-16 units, kENOSPC
///   trim                             kEROFS, kENOTSUP by the device, kEINVAL a range outside the
///                                    volume or a minimum over kTrimBytesMax, kEINTR told to end,
///                                    kEIO also for a volume that is marked as damaged
///   lookup, resolve, find,           kENOTDIR, kEINVAL empty name, kEILSEQ
///   findInAnyCase
///   list, listSorted                 kENOTDIR
///   shortName                        kENOTDIR, names
///   read                             kEISDIR, kEACCES encrypted, kENOTSUP unknown compression or
///                                    bytes that are elsewhere (see NTFSDataState)
///   write, truncate, trim            kEROFS, kEISDIR, kENOSPC, kEFBIG, kEACCES, kENOTSUP; of a
///                                    system-compressed file also what reading it answers
///   allocate                         those of write; kENOTSUP also for compressed files
///   seek                             kEISDIR, kENXIO nothing of the kind, or behind the end
///   create                           kEROFS, kEEXIST, kENOTDIR, kENOSPC, kEPERM in $Extend, names
///   symlink                          kEROFS, kEEXIST, kENOTDIR, kENOSPC, names; of the target
///                                    kEINVAL empty, kENAMETOOLONG, kEILSEQ
///   link                             those of create, kEPERM also for directories
///   readlink                         kEINVAL not a link
///   remove                           kEROFS, kENOTDIR, kENOTEMPTY, kEPERM system file, names
///   rename                           kEROFS, kENOTDIR, kEISDIR, kENOTEMPTY, kENOSPC, kEINVAL into
///                                    its own subtree, kEPERM system file, names
///   exchange                         those of rename but kEISDIR, kENOTEMPTY
///   setTimes, setHidden              kEROFS
///   setOwner                         kEROFS, kENOSPC, kEPERM system file, kE2BIG no room beside
///                                    the extended attributes of others
///   xattr, xattrSize                 kENOATTR, kEINVAL empty name, kENAMETOOLONG, kEILSEQ; xattr
///                                    also kE2BIG over kXattrBytesMax
///   setXattr                         those of xattr, kEROFS, kEEXIST, kENOSPC, kEPERM on a link
///   removeXattr                      those of xattr, kEROFS
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/block_device.hpp"
#include "core/device_box.hpp"
#include "core/ntfs_error.hpp"
#include "core/values.hpp"
#include "platform/assert.hpp"
#include "platform/error_numbers.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"
#include "platform/repeating_timer.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace tavelin {

/// One mounted volume. All operations of all threads pass through its one lock, as the library is
/// not reentrant; each is a whole change, and syncs fall between them only.
class NTFSVolume final : public std::enable_shared_from_this<NTFSVolume> {
    /// A volume is always shared: the flush timer holds a weak reference to it.
    struct OnlyOpenMayConstruct {};

  public:
    /// The root directory's record, the same on every volume.
    static constexpr std::uint64_t kRootIno = NTB_ROOT_INO;
    static constexpr double kDefaultFlushInterval = 1.0; ///< seconds
    /// Of an extended attribute that is set or read. Other systems make longer streams; their value
    /// would have to be held in memory as a whole.
    static constexpr std::uint64_t kXattrBytesMax = std::uint64_t{64} << 20;

    /// How setXattr treats an attribute that exists already, or does not.
    enum class XattrPolicy : std::int32_t {
        always = NTB_XATTR_ANY,
        mustCreate = NTB_XATTR_CREATE,
        mustReplace = NTB_XATTR_REPLACE,
    };

    // ---- Life ----------------------------------------------------------------------------------

    /// The serial number of the NTFS volume on a device, without mounting it; absent when there is
    /// none or the device cannot be read.
    [[nodiscard]] static std::optional<std::uint64_t> probe(std::shared_ptr<BlockDevice> device);

    /// Mounts. The caller then sets the Windows-names switch and, unless the volume turned out
    /// read-only, starts the auto-flush.
    [[nodiscard]] static std::shared_ptr<NTFSVolume> open(std::shared_ptr<BlockDevice> device,
                                                          bool readOnly);

    NTFSVolume(OnlyOpenMayConstruct, std::shared_ptr<BlockDevice> device, bool readOnly);
    /// Unmounts, for the path that did not; a failure is dropped, as nobody is left to hear it.
    ~NTFSVolume();
    NTFSVolume(const NTFSVolume&) = delete;
    NTFSVolume& operator=(const NTFSVolume&) = delete;

    /// Stops the timer, writes everything back and closes. The volume is unmounted even when this
    /// throws, and further calls do nothing.
    void unmount();

    /// Writes dirty pages back every `interval` seconds from now on (late by up to 100 ms), as long
    /// as the volume lives; a timer started before is replaced. Failed flushes are tried again at
    /// the next tick. Throws std::system_error when the system has no thread to give.
    void startAutoFlush(double interval = kDefaultFlushInterval);

    /// False once unmount() was called, whatever its result.
    [[nodiscard]] bool isMounted() const;

    // ---- The whole volume ----------------------------------------------------------------------

    [[nodiscard]] std::uint64_t serial() const noexcept { return serial_; }
    /// Whether the volume was mounted read-only, by request or because the library decided so.
    [[nodiscard]] bool readOnly() const noexcept { return readOnly_; }

    /// Whether names that Windows cannot use are refused for new items. Outside the lock, see
    /// above; after unmount() the process stops.
    [[nodiscard]] bool windowsNames() const;
    /// To be set before the volume is shared.
    void setWindowsNames(bool on);

    /// Whether new links are made in the form of Windows where it can follow them; off at first.
    void setWindowsLinks(bool on) noexcept { windowsLinks_ = on; }

    /// Has attributes include the owners that the volume keeps; not so at first.
    void readOwners();

    /// The label in UTF-8, empty when there is none.
    [[nodiscard]] std::string label();
    void setLabel(std::string_view label);
    /// Space and counts as the library keeps them; reads nothing from the device.
    [[nodiscard]] NTFSStatFS statfs();
    /// File records in use, those of the volume's own files among them.
    [[nodiscard]] std::uint64_t filesInUse();
    /// Counters since the mount.
    [[nodiscard]] NTFSIOStats ioStats();
    /// Takes the memory of the page cache from the system at once, some 32 MiB: worth it for a
    /// volume that stays mounted, as first uses then cost no faults.
    void populateCache();
    /// Returns once everything changed before is on the device.
    void sync();
    /// The longest stretch of free space that is given to the device in one go.
    static constexpr std::uint64_t kTrimBytesMax = std::uint64_t{256} << 20;
    /// Tells the device what of a range is free, for it to reuse; answers how many bytes that were.
    /// What was free already is told again. In pieces, so that others come to their turn, between
    /// which `goesOn` is asked. The volume is settled before each: see docs/durability.md.
    std::uint64_t trim(const NTFSTrimRange& range, const std::function<bool()>& goesOn);

    /// Runs `body` under the lock, so that it overlaps no bridge call of this volume.
    template<typename Body>
    void withDeviceLock(const Body& body) TAVELIN_EXCLUDES(lock_) {
        const MutexLock held(lock_);
        body();
    }

    /// Runs `body` with the bridge's handle under the lock and returns its result. The one shape of
    /// all operations. The handle must not leave the body.
    template<typename Body>
    std::invoke_result_t<Body, ntb_vol*> locked(const Body& body) TAVELIN_EXCLUDES(lock_) {
        const MutexLock held(lock_);
        if (vol_ == nullptr) {
            throw NTFSError(kENXIO);
        }
        flushIfNearCapacity();
        const InvariantCheck afterwards(*this);
        return body(vol_);
    }

    // ---- Items ---------------------------------------------------------------------------------

    /// The inode of a name in a directory, with the bridge's rule on case.
    [[nodiscard]] std::uint64_t lookup(std::string_view name, std::uint64_t parent);
    /// The inode that a path from the root leads to; empty components do not count, "." and ".."
    /// are names like any other. The lock is taken once a component.
    [[nodiscard]] std::uint64_t resolve(std::string_view path);
    /// The attributes of an item at this moment.
    [[nodiscard]] NTFSAttributes attributes(std::uint64_t ino);
    /// The directory that an item has a name in, as a reference; of the root itself. kENOENT for a
    /// system file.
    [[nodiscard]] std::uint64_t parent(std::uint64_t ino);
    /// The attributes of what a name stands for, in one go; absent when there is no such name.
    [[nodiscard]] std::optional<NTFSAttributes> find(std::string_view name, std::uint64_t parent);
    /// The same; a name that is not there as given is found in another case by the volume's own
    /// table, and becomes the one that the volume has.
    [[nodiscard]] std::optional<NTFSAttributes> findInAnyCase(std::string& name,
                                                              std::uint64_t parent);
    /// All entries of a directory, without "." and "..", in the library's order.
    [[nodiscard]] NTFSListing list(std::uint64_t directory);
    /// The next entries behind a place, at most `most`, by the volume's collation order; none at
    /// the end. The place is then behind the last of them, whatever comes and goes. kEIO also where
    /// the names are out of order.
    [[nodiscard]] NTFSListing listSorted(std::uint64_t directory, NTFSListPosition& position,
                                         std::size_t most);
    /// The 8.3 alias that goes with a name; empty when there is none.
    [[nodiscard]] std::string shortName(std::string_view name, std::uint64_t parent);

    // What an operation below answers beside its result is what a caller would ask for next. It is
    // read under the same lock.

    /// Makes a file, a directory or a special file, with the owner that is given. Creating a
    /// symlink by type makes a file: use makeLink(). `device` is as in NTFSAttributes.
    NTFSChange make(std::string_view name, std::uint64_t parent, NTFSItemType type,
                    const NTFSOwner& owner = {}, std::uint64_t device = 0);
    /// Makes a symbolic link.
    NTFSChange makeLink(std::string_view name, std::uint64_t parent, std::string_view target,
                        const NTFSOwner& owner = {});
    /// The inode alone of what the same operations make.
    std::uint64_t create(std::string_view name, std::uint64_t parent, NTFSItemType type) {
        return make(name, parent, type).item.ino;
    }
    std::uint64_t symlink(std::string_view name, std::uint64_t parent, std::string_view target) {
        return makeLink(name, parent, target).item.ino;
    }
    /// The target of a link, as it is followed in a mount: a link of Windows into this volume leads
    /// there from its own directory, whatever drive letter it has.
    [[nodiscard]] std::string readlink(std::uint64_t ino);
    /// Removes a file's name or an empty directory.
    NTFSChange remove(std::string_view name, std::uint64_t parent);
    /// Gives a file one more name.
    NTFSChange link(std::uint64_t ino, std::string_view name, std::uint64_t parent);
    /// How many names a file has, without the 8.3 alias that its link count has in it.
    [[nodiscard]] std::uint32_t countNames(std::uint64_t ino);
    /// Replaces an existing item of the same kind.
    NTFSRename rename(std::string_view name, std::uint64_t parent, std::string_view newName,
                      std::uint64_t newParent);
    /// Has two names lead to each other's items, which may be of different kinds.
    void exchange(std::string_view name, std::uint64_t parent, std::string_view otherName,
                  std::uint64_t otherParent);

    /// Sets the times that are given and leaves the others alone.
    void setTimes(std::uint64_t ino, const std::optional<std::timespec>& access,
                  const std::optional<std::timespec>& modify,
                  const std::optional<std::timespec>& change,
                  const std::optional<std::timespec>& birth);
    /// Sets or clears the attribute by which Windows hides an item.
    void setHidden(std::uint64_t ino, bool hidden);
    /// Sets what is given of an owner, and leaves the rest alone.
    void setOwner(std::uint64_t ino, const NTFSOwner& owner);

    // ---- File data: always the unnamed stream --------------------------------------------------

    /// Reads straight into the caller's memory and returns the count, less than `length` at the end
    /// of the file; what is behind it in the memory may have changed too. A long read leaves the
    /// lock to others while the device is read, where the device allows that.
    [[nodiscard]] std::size_t read(std::uint64_t ino, std::uint64_t offset, std::byte* destination,
                                   std::size_t length);
    /// The same into memory of its own, for callers that have none.
    [[nodiscard]] std::vector<std::byte> read(std::uint64_t ino, std::uint64_t offset,
                                              std::size_t length);
    /// Writes straight from the caller's memory, extending the file as needed. What does not fit as
    /// a whole is written as far as it does; kENOSPC only when nothing could be. No data is no
    /// call: a count of 0 at once, even when unmounted. With `isDescribed` off, the count is all
    /// that is answered.
    NTFSWrite write(std::uint64_t ino, std::uint64_t offset, std::span<const std::byte> data,
                    bool isDescribed = true);
    /// Grows (reading back as zeroes) or shrinks. The present size gives back what
    /// freeBehindEnd() would.
    void truncate(std::uint64_t ino, std::uint64_t size);
    /// Gives clusters to a range of a file, or takes them, see NTFSAllocation. The range is not
    /// empty and ends below 2^63. Not one change as a whole: a failure may leave a part of it.
    void allocate(std::uint64_t ino, std::uint64_t offset, std::uint64_t length,
                  NTFSAllocation how);
    /// Gives back the clusters that a file has both behind its end and behind the first `keep`
    /// bytes.
    void freeBehindEnd(std::uint64_t ino, std::uint64_t keep);
    /// The first byte from `offset` on that is in a hole, or in data. The end of the file counts as
    /// a hole; kENXIO when there is nothing of the kind up to there.
    [[nodiscard]] std::uint64_t seek(std::uint64_t ino, std::uint64_t offset, bool forHole);
    /// Returns once the item, and with it everything changed before, is on the device.
    void flush(std::uint64_t ino);

    // ---- Extended attributes: named streams; links have none -----------------------------------

    /// The names of all streams that are attributes, in UTF-8 and without a prefix.
    [[nodiscard]] std::vector<std::string> xattrNames(std::uint64_t ino);
    /// The whole value of one stream.
    [[nodiscard]] std::vector<std::byte> xattr(std::string_view name, std::uint64_t ino);
    /// How many bytes xattr() would answer.
    [[nodiscard]] std::uint64_t xattrSize(std::string_view name, std::uint64_t ino);
    /// Replaces the whole value of a stream, which is made when there is none, as `policy` allows.
    void setXattr(std::string_view name, std::uint64_t ino, std::span<const std::byte> value,
                  XattrPolicy policy);
    /// Removes a stream and gives its space back.
    void removeXattr(std::string_view name, std::uint64_t ino);

  private:
    class ReadBeside;
    /// Checks the invariants when an operation ends, be it by an exception.
    class InvariantCheck {
      public:
        explicit InvariantCheck(const NTFSVolume& volume) noexcept : volume_(volume) {}
        ~InvariantCheck() {
            if constexpr (kAssertions) {
                volume_.checkInvariants();
            }
        }
        InvariantCheck(const InvariantCheck&) = delete;
        InvariantCheck& operator=(const InvariantCheck&) = delete;

      private:
        const NTFSVolume& volume_;
    };

    /// The invariants of write-back (docs/architecture.md) over the bridge's cache and the device.
    /// Under the lock, which a destructor cannot name.
    void checkInvariants() const noexcept TAVELIN_NO_THREAD_SAFETY_ANALYSIS;
    /// Throws the bridge's result as an NTFSError unless it is 0. One that the library alone can
    /// have come to, as the device has not failed, speaks of a damaged volume.
    void check(std::int32_t result);
    /// The same for a file's data. Logs why the data of some files cannot be had, `what` being what
    /// was asked for: "read".
    void checkData(std::int32_t result, std::uint64_t ino, std::string_view what);
    /// Has the unused clusters before `end` read as zeroes, some of them: a write that answered
    /// ENODATA is then tried again. In pieces, so that others come to their turn.
    void initialise(std::uint64_t ino, std::uint64_t end);
    /// Writes zeroes where a range of a file has none of its own: over its data, if `overData`, and
    /// into its holes.
    void writeZeroes(std::uint64_t ino, std::uint64_t from, std::uint64_t to, bool overData);
    /// What trim() has come to.
    struct TrimProgress {
        std::uint64_t next = 0; ///< bytes of the device, as all of these
        std::uint64_t end = 0;
        std::uint64_t minimum = 0;
        std::uint64_t trimmed = 0;
    };
    /// One piece of a trim, under the lock; 0 or the host's errno.
    [[nodiscard]] std::int32_t trimPiece(ntb_vol* vol, TrimProgress& trim) noexcept;
    /// Brings it about, under the lock, that no record of a journal is valid, nothing waits, and no
    /// damage is known; 0 or the host's errno.
    [[nodiscard]] std::int32_t settleForTrim(ntb_vol* vol) noexcept;
    /// One tick of the flush timer: syncs what has changed, and settles the device when nothing has
    /// since the tick before.
    void flushTick() noexcept;
    /// Syncs when so much waits that what comes next may not fit into one sync of the device, or
    /// that the bridge's cache may write it back on its own. Between two operations is where a sync
    /// must fall for a power cut to leave both whole.
    void flushIfNearCapacity() noexcept TAVELIN_REQUIRES(lock_);

    /// Outlives vol_, whose callbacks have it as their context.
    DeviceBox box_;
    mutable Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::items)
        TAVELIN_ACQUIRED_BEFORE(lock_order::devices);
    /// The bridge's volume; null from unmount() on.
    ntb_vol* vol_ TAVELIN_GUARDED_BY(lock_) = nullptr;
    std::shared_ptr<RepeatingTimer> flushTimer_ TAVELIN_GUARDED_BY(lock_);
    /// Refused reads and writes so far. Only the first few are explained in the log.
    std::atomic<std::uint32_t> refusals_{0};
    /// The library has found the volume damaged. The device is told under the lock.
    std::atomic<bool> isDamaged_{false};
    /// Read by every creation of a link, on any thread.
    std::atomic<bool> windowsLinks_{false};
    /// Constant once the volume is open.
    bool readOnly_ = false;
    std::uint64_t serial_ = 0;
};

} // namespace tavelin
