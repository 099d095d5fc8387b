// A disk in memory that notes every write and every flush, and what a power cut leaves of it.
#pragma once

#include "hosting/image_resource.hpp"
#include "support/bytes.hpp"
#include "support/memory_resource.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <vector>

namespace tavelin::test {

// One thing that happened to the disk.
struct DiskEvent {
    bool flush = false;       // everything before has reached the medium
    std::uint64_t offset = 0; // bytes
    Bytes content;
};

// Sectors are 512 bytes. One thread at a time.
class RecordingResource final : public MemoryResourceOf<HostResource, Bytes> {
  public:
    using MemoryResourceOf<HostResource, Bytes>::MemoryResourceOf;

    const std::vector<DiskEvent>& events() const { return events_; }

    void metadataFlush() override;
    std::optional<fskit::Error> flushToMedium() override;
    // Leaves bytes behind that were in no file.
    std::optional<fskit::Error> discard(std::uint64_t offset, std::uint64_t length) override;

  private:
    std::size_t copyIn(Call call, const std::byte* from, std::uint64_t offset,
                       std::size_t length) override;

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
