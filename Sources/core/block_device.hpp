/// What an NTFS volume lives on.
#pragma once

#include "NTFSBridge/ntb.h"
#include "platform/file_descriptor.hpp"

#include <cstddef>
#include <cstdint>

namespace tavelin {

class ObservedDevice;

/// A device of fixed size, read and written in whole blocks. All results are 0 or a positive errno
/// of the host, because they travel unchanged through the bridge and back; a call that answers 0
/// has transferred exactly `length` bytes. Nothing here throws.
///
/// Offsets and lengths are bytes and, from the bridge, multiples of the block size. The volume
/// calls its device only under its own lock, so a device needs no lock unless others use it too.
class BlockDevice {
  public:
    /// Syncs nothing: whoever needs that has called sync() and looked at its answer.
    virtual ~BlockDevice() = default;

    /// Usable size in bytes, a whole number of blocks.
    [[nodiscard]] virtual std::uint64_t size() const noexcept = 0;
    /// Bytes in a block.
    [[nodiscard]] virtual std::uint32_t blockSize() const noexcept = 0;

    /// Fills all of `destination`, or fails; its content is undefined then.
    [[nodiscard]] virtual std::int32_t read(std::byte* destination, std::uint64_t offset,
                                            std::uint64_t length) noexcept = 0;
    /// After a failure some of the blocks may have been written. The caller keeps the bytes and may
    /// repeat the call.
    [[nodiscard]] virtual std::int32_t write(const std::byte* source, std::uint64_t offset,
                                             std::uint64_t length) noexcept = 0;
    /// As one write() of all parts, whose lengths add up to whole blocks. Devices that can only be
    /// written from one place in memory inherit one that brings the parts together there first, and
    /// answers ENOMEM where there is no room for that.
    [[nodiscard]] virtual std::int32_t writeGathered(GatheredBytes parts,
                                                     std::uint64_t offset) noexcept;
    /// As write(), of file data in whole pages, where nothing that was synced has its bytes but the
    /// same file. It may go there at once or wait, as long as it is there before whatever tells of
    /// it.
    [[nodiscard]] virtual std::int32_t writeFileData(const std::byte* source, std::uint64_t offset,
                                                     std::uint64_t length) noexcept {
        return write(source, offset, length);
    }
    /// Returns once everything written before is on the medium.
    [[nodiscard]] virtual std::int32_t sync() noexcept = 0;

    /// Tells the device that nothing is to be found in a range of whole pages any more; what it
    /// reads as until it is written again is the device's choice. EOPNOTSUPP where the device has
    /// no use for it. Durable after the next sync(), like a write.
    [[nodiscard]] virtual std::int32_t discard(std::uint64_t offset, std::uint64_t length) noexcept;

    /// Whether any thread may call read() at any time, beside whatever others call.
    [[nodiscard]] virtual bool allowsReadsBeside() const noexcept { return false; }
    /// Where a range may be read beside other calls, because what read() would answer now is what
    /// the device below has; null where it may not. It belongs to this device.
    [[nodiscard]] virtual ObservedDevice* observed(std::uint64_t offset,
                                                   std::uint64_t length) noexcept {
        static_cast<void>(offset);
        static_cast<void>(length);
        return nullptr;
    }
    /// Returns once nobody reads beside other calls any more.
    virtual void awaitReadsBeside() noexcept {}

    /// Bytes of the unit in which writes wait, which is that of the bridge's cache and the journal.
    static constexpr std::uint64_t kPageBytes = NTB_PAGE_BYTES;
    /// Writes that wait in memory for the next sync(), in pages, and how many pages a
    /// sync carries over as one: after a power cut all of them are there, or none is. A device
    /// whose writes do not wait has no capacity.
    struct Backlog {
        /// What is pending now, in pages.
        std::uint64_t pages = 0;
        /// The most that one sync carries as one; 0 when writes do not wait.
        std::uint64_t capacity = 0;
    };
    /// Asked before each operation of a volume, which syncs when too much is pending.
    [[nodiscard]] virtual Backlog backlog() const noexcept { return {}; }
    /// Whether other systems find the device as if nothing of ours had ever waited on it.
    [[nodiscard]] virtual bool isSettled() const noexcept { return true; }
    /// Brings that about: called when a volume has been idle for a while. After an error it is
    /// called again.
    [[nodiscard]] virtual std::int32_t settle() noexcept { return 0; }
    /// The volume may be damaged: the library has found a contradiction, or a change was given up.
    /// Other systems are to be told, for good.
    virtual void noteDamage() noexcept {}
    /// While on, large writes are the content of a file and need not wait with the others. By their
    /// length alone they could also be what a cache writes back in long runs: whoever turns this on
    /// sees to it that no cache has cause to, and that they go nowhere where, without what waits,
    /// something else would be.
    virtual void expectBulkData(bool on) noexcept { static_cast<void>(on); }

    /// In builds with assertions: stops the process where what the device holds in memory
    /// contradicts itself. Called after every operation of a volume.
    virtual void checkInvariants() const noexcept {}
};

} // namespace tavelin
