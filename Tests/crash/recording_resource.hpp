// A disk in memory that notes every write and every flush, and what a power cut leaves of it.
#pragma once

#include "hosting/image_resource.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

namespace tavelin::test {

using Bytes = std::vector<std::byte>;

// One thing that happened to the disk.
struct DiskEvent {
    bool flush = false;       // everything before has reached the medium
    std::uint64_t offset = 0; // bytes
    Bytes content;
};

// One thread at a time. Sectors are 512 bytes.
class RecordingResource final : public HostResource {
  public:
    // `physicalBlockSize` is what the volume aligns its transfers to.
    explicit RecordingResource(Bytes image, std::uint64_t physicalBlockSize = 512)
        : image_(std::move(image)), physicalBlockSize_(physicalBlockSize) {}

    const std::vector<DiskEvent>& events() const { return events_; }
    const Bytes& image() const { return image_; }

    std::string BSDName() const override { return "memory"; }
    bool isWritable() const override { return true; }
    std::uint64_t blockSize() const override { return 512; }
    std::uint64_t blockCount() const override { return image_.size() / 512; }
    std::uint64_t physicalBlockSize() const override { return physicalBlockSize_; }

    std::size_t read(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    std::size_t write(const std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void metadataRead(std::byte* buffer, std::uint64_t offset, std::size_t length) override;
    void delayedMetadataWrite(const std::byte* buffer, std::uint64_t offset,
                              std::size_t length) override;
    void metadataFlush() override;
    std::optional<fskit::Error> flushToMedium() override;

  private:
    Bytes image_;
    const std::uint64_t physicalBlockSize_;
    std::vector<DiskEvent> events_;
};

// What the medium may hold after the power went during events[0, end).
//   prefix    every write up to `end`, in order
//   torn      the same, of the last write only some of its sectors of 512 bytes
//   tornPages the same by 4096 bytes, which disks of today write whole
//   reordered up to the last flush everything, after it a random half of the writes, shuffled
//   dropped   up to the last flush everything, after it nothing
enum class Cut { prefix, torn, tornPages, reordered, dropped };

// `base` is the medium before the first event; `random` decides about sectors and subsets.
Bytes afterCut(const Bytes& base, const std::vector<DiskEvent>& events, std::size_t end, Cut cut,
               std::mt19937_64& random);

} // namespace tavelin::test
