/// What a host's block device can do beside FSKit's: say when data is on the
/// medium, write what lies in several places, and be told what is of no use any more.
#pragma once

#include "fskit/api/error.hpp"
#include "platform/file_descriptor.hpp"

#include <cstdint>
#include <optional>

namespace tavelin {

/// A resource that is one of these too is asked at each sync of its device. FSKit's are not: their
/// direct writes have no such call.
class HostMedium {
  public:
    virtual ~HostMedium() = default;

    /// Returns once everything written before is on the medium and would survive a power cut;
    /// answers the error when that cannot be promised. Any thread.
    [[nodiscard]] virtual std::optional<fskit::Error> flushToMedium() = 0;

    /// A direct write of all parts, from the byte `offset` of the device on; throws the error. Any
    /// thread.
    virtual void writeGathered(GatheredBytes parts, std::uint64_t offset) = 0;

    /// Whether reads may go beside all other calls. A medium in a program's own memory has to guard
    /// it for that.
    [[nodiscard]] virtual bool allowsReadsBeside() const noexcept { return false; }

    /// Tells the medium that a range of bytes holds nothing any more, see BlockDevice::discard();
    /// kENOTSUP where it has no use for that. Any thread.
    [[nodiscard]] virtual std::optional<fskit::Error> discard(std::uint64_t offset,
                                                              std::uint64_t length) = 0;
};

} // namespace tavelin
