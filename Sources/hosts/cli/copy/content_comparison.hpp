/// Whether a file of the volume and one of the host have the same bytes.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "platform/file_descriptor.hpp"

#include <string>
#include <vector>

namespace tavelin::cli {

/// Compares files one after the other, with the memory of two transfers. The volume outlives it.
/// One thread at a time.
class ContentComparison {
  public:
    explicit ContentComparison(VolumeClient& volume)
        : volume_(volume), onVolume_(kTransferBytes), onHost_(kTransferBytes) {}

    /// Reads both up to the first difference. The paths name the files in messages. Throws
    /// ItemFailure for one that cannot be read, and Failure.
    [[nodiscard]] bool isSame(const Found& found, const std::string& path,
                              const FileDescriptor& host, const std::string& hostPath);

  private:
    VolumeClient& volume_;
    std::vector<std::byte> onVolume_;
    std::vector<std::byte> onHost_;
};

} // namespace tavelin::cli
