#include "hosts/cli/image_device.hpp"

#include "core/file_block_device.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tavelin::cli {
namespace {

/// A part of another device, for reading. One thread at a time, as the device below.
class PartDevice final : public BlockDevice {
  public:
    PartDevice(std::shared_ptr<BlockDevice> whole, std::uint64_t offset, std::uint64_t length)
        : whole_(std::move(whole)),
          offset_(std::min(offset, whole_->size())),
          size_(std::min(length != 0 ? length : whole_->size(), whole_->size() - offset_)) {}

    [[nodiscard]] std::uint64_t size() const noexcept override {
        TAVELIN_ASSERT(size_ <= whole_->size() - offset_);
        return size_;
    }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return whole_->blockSize(); }
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override {
        // Bytes behind the part belong to its neighbour: to this volume they do not exist.
        return offset > size_ || length > size_ - offset
                   ? EIO
                   : whole_->read(destination, offset_ + offset, length);
    }
    [[nodiscard]] std::int32_t write(const std::byte* /*source*/, std::uint64_t /*offset*/,
                                     std::uint64_t /*length*/) noexcept override {
        return EROFS;
    }
    [[nodiscard]] std::int32_t sync() noexcept override { return 0; }

  private:
    const std::shared_ptr<BlockDevice> whole_;
    const std::uint64_t offset_;
    const std::uint64_t size_;
};

} // namespace

std::shared_ptr<JournaledDevice> openDevice(const ImagePlace& place) {
    constexpr std::uint32_t kSectorBytes = 512;
    std::shared_ptr<BlockDevice> device =
        std::make_shared<FileBlockDevice>(place.path, kSectorBytes, true);
    if (place.offset != 0 || place.length != 0) {
        device = std::make_shared<PartDevice>(std::move(device), place.offset, place.length);
    }
    auto journaled = std::make_shared<JournaledDevice>(std::move(device));
    // For reading alone, a journal that cannot be read is none.
    static_cast<void>(journaled->replay(true));
    return journaled;
}

} // namespace tavelin::cli
