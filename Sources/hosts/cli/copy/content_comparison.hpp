/// Whether a file of the volume and another one, as a rule of the host, have the same bytes.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "platform/file_descriptor.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace tavelin::cli {

/// Compares files one after the other, with the memory of two transfers. The volume outlives it.
/// One thread at a time.
class ContentComparison {
  public:
    explicit ContentComparison(VolumeClient& volume)
        : volume_(volume), onVolume_(kTransferBytes), there_(kTransferBytes) {}

    /// Reads both up to the first difference. The paths name the files in messages. Throws
    /// ItemFailure for one that cannot be read, and Failure.
    [[nodiscard]] bool isSame(const Found& found, const std::string& path,
                              const FileDescriptor& host, const std::string& hostPath);

    /// Reads the other file from this byte on; answers fewer bytes than fit at its end alone.
    /// Throws as isSame() does.
    using ReadOther = std::function<std::size_t(std::uint64_t offset, std::span<std::byte> into)>;
    /// The same for a file that is read in another way.
    [[nodiscard]] bool isSame(const Found& found, const std::string& path,
                              const ReadOther& readOther);

  private:
    VolumeClient& volume_;
    std::vector<std::byte> onVolume_;
    std::vector<std::byte> there_; ///< of the other file
};

} // namespace tavelin::cli
