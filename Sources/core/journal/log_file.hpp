/// The volume's $LogFile as one row of bytes, wherever on the device its pieces are.
#pragma once

#include "NTFSBridge/ntb.h"
#include "core/block_device.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace tavelin {

/// Reads and writes go straight to the device, in pages: offsets and lengths are multiples of
/// kPage and stay inside the file. Results are 0 or the device's errno. Used under whatever
/// serialises the device.
class LogFile {
  public:
    static constexpr std::uint64_t kPage = 4096; ///< bytes

    /// Finds it without mounting. 0 with nothing found means that there is none that can be used:
    /// see ntb_log_extents; or the device has blocks larger than a page; or a piece shares a page
    /// of the device with something else, as small clusters may have it: caches write whole pages.
    /// Otherwise an error of the device, or ENOMEM.
    [[nodiscard]] static std::int32_t find(const std::shared_ptr<BlockDevice>& device,
                                           std::optional<LogFile>& found) noexcept;

    [[nodiscard]] std::uint64_t size() const noexcept { return size_; } ///< bytes, whole pages

    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) const noexcept;
    [[nodiscard]] std::int32_t write(const std::byte* source, std::uint64_t offset,
                                     std::uint64_t length) noexcept;
    /// Whether every byte from `begin` to `end` is 0xff, as where nobody keeps a log.
    [[nodiscard]] std::int32_t isBlank(std::uint64_t begin, std::uint64_t end,
                                       bool& blank) const noexcept;
    [[nodiscard]] std::int32_t makeBlank(std::uint64_t begin, std::uint64_t end) noexcept;

    /// Overwrites with 0xff what `destination`, read from a range of the device, has of the file.
    void showBlank(std::byte* destination, std::uint64_t offset,
                   std::uint64_t length) const noexcept;

    /// Whether a range of the device, in bytes, has any of the file in it.
    [[nodiscard]] bool overlaps(std::uint64_t offset, std::uint64_t length) const noexcept;

  private:
    LogFile(std::shared_ptr<BlockDevice> device, std::vector<ntb_extent> extents);

    /// Calls transfer(done, deviceOffset, count) for each piece of the range.
    template<typename Transfer>
    std::int32_t eachPiece(std::uint64_t offset, std::uint64_t length,
                           Transfer transfer) const noexcept;

    std::shared_ptr<BlockDevice> device_;
    std::vector<ntb_extent> extents_;
    std::uint64_t size_ = 0;
};

} // namespace tavelin
