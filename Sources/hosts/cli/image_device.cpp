#include "hosts/cli/image_device.hpp"

#include "core/file_block_device.hpp"
#include "platform/assert.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tavelin::cli {
namespace {

constexpr std::uint32_t kSectorBytes = 512;

/// A part of another device, for reading. One thread at a time, as the device below.
class PartDevice final : public BlockDevice {
  public:
    PartDevice(std::shared_ptr<BlockDevice> whole, const ImagePlace& place)
        : whole_(std::move(whole)),
          offset_(std::min(place.offset, whole_->size())),
          size_(std::min(place.length != 0 ? place.length : whole_->size(),
                         whole_->size() - offset_)),
          bootFromBackup_(place.bootFromBackup) {}

    [[nodiscard]] std::uint64_t size() const noexcept override {
        TAVELIN_ASSERT(size_ <= whole_->size() - offset_);
        return size_;
    }
    [[nodiscard]] std::uint32_t blockSize() const noexcept override { return whole_->blockSize(); }
    [[nodiscard]] std::int32_t read(std::byte* destination, std::uint64_t offset,
                                    std::uint64_t length) noexcept override {
        // Bytes behind the part belong to its neighbour: to this volume they do not exist.
        if (offset > size_ || length > size_ - offset) {
            return EIO;
        }
        const std::int32_t error = whole_->read(destination, offset_ + offset, length);
        if (error != 0 || !bootFromBackup_ || offset != 0 || length < kSectorBytes) {
            return error;
        }
        const std::uint64_t last = size_ / kSectorBytes * kSectorBytes - kSectorBytes;
        return whole_->read(destination, offset_ + last, kSectorBytes);
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
    const bool bootFromBackup_;
};

} // namespace

std::shared_ptr<JournaledDevice> openDevice(const ImagePlace& place) {
    std::shared_ptr<BlockDevice> device =
        std::make_shared<FileBlockDevice>(place.path, kSectorBytes, true);
    if (place.offset != 0 || place.length != 0 || place.bootFromBackup) {
        device = std::make_shared<PartDevice>(std::move(device), place);
    }
    auto journaled = std::make_shared<JournaledDevice>(std::move(device));
    // For reading alone, a journal that cannot be read is none.
    static_cast<void>(journaled->replay(true));
    return journaled;
}

} // namespace tavelin::cli
