/// An opened disk image or block-device node: the system calls under ImageResource.
#pragma once

#include "platform/file_descriptor.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace tavelin {

/// Owns the descriptor and, through it, the lock on the image: shared for reading, exclusive for
/// writing, so that no two programs that honour such locks change it under each other. A block
/// device is claimed as well, as a mount claims it, so that none is opened that somebody has
/// mounted, and none is mounted that is open here. Uses that show in neither are refused, see
/// otherUse(). Errors of the methods are the host's errno. Any thread may call anything.
class ImageFile {
  public:
    /// Opens for writing, or for reading only when asked to or when the file's permissions, its
    /// file system or the medium allow no more. Throws OpenError, also when somebody else uses it.
    ImageFile(const std::filesystem::path& path, bool readOnly);
    /// Closes and unlocks before its time; nothing but destruction may follow.
    void close() noexcept {
        file_.reset();
        claim_.reset();
    }
    /// Lets the kernel claim the block device for a mount, whose claim replaces this one.
    void giveUpClaim() noexcept { claim_.reset(); }

    /// The open image, which stays owned and locked here.
    [[nodiscard]] int descriptor() const noexcept { return file_.get(); }
    /// Whether the image could be, and was to be, opened for writing.
    [[nodiscard]] bool writable() const noexcept { return writable_; }
    /// The size when the file was opened.
    [[nodiscard]] std::uint64_t bytes() const noexcept { return bytes_; }
    /// Of a device node; 512 for an image file.
    [[nodiscard]] std::uint64_t blockSize() const noexcept { return blockSize_; }
    [[nodiscard]] std::uint64_t physicalBlockSize() const noexcept { return physicalBlockSize_; }

    /// How many bytes were transferred, and why it stopped.
    using Transferred = FileDescriptor::Transferred;
    /// Reads and writes at an offset, all of it unless there is an error. A write marks the file as
    /// in need of a flush.
    [[nodiscard]] Transferred read(void* into, std::uint64_t offset, std::size_t length) const;
    [[nodiscard]] Transferred write(GatheredBytes parts, std::uint64_t offset);

    /// Has a range hold nothing any more, see discardRange(). In need of a flush, like a write.
    [[nodiscard]] int discard(std::uint64_t offset, std::uint64_t length);

    /// 0 once everything written before is on the medium. A failure is final: the system may have
    /// dropped what it could not write, so no later success could vouch for it.
    [[nodiscard]] int flushToMedium();

  private:
    /// Finds out size and block sizes. Throws OpenError for what is neither an image nor a disk.
    void measure(const std::string& path);

    // Whoever needs its writes kept has flushed them; what closing says can help nobody else.
    FileDescriptor file_;
    FileDescriptor claim_; // of a block device, which is open exclusively through this one
    bool writable_ = false;
    std::uint64_t bytes_ = 0;
    std::uint64_t blockSize_ = 512;
    std::uint64_t physicalBlockSize_ = 512;

    std::atomic<bool> unsettled_ = false; ///< written to since the last flush began
    /// One flush at a time: a second caller waits for the first.
    Mutex flushing_ TAVELIN_ACQUIRED_AFTER(lock_order::volume)
        TAVELIN_ACQUIRED_BEFORE(lock_order::leaves);
    int flushError_ TAVELIN_GUARDED_BY(flushing_) = 0;
};

} // namespace tavelin
