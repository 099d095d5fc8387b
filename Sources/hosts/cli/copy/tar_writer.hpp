/// Writes trees of a volume as a tar archive.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/archive.hpp"
#include "hosts/cli/copy/transfer.hpp"

#include <map>
#include <string>
#include <vector>

namespace tavelin::cli {

/// In the pax format, with times to 100 ns, named streams, symbolic and hard links. Names in the
/// archive begin without "/". Problems of single items go to the run; Failure is thrown for what
/// ends the archive. Volume, run and descriptor outlive it.
class TarWriter {
  public:
    /// Writes to a descriptor, which stays the caller's.
    TarWriter(VolumeClient& volume, CopyRun& run, int descriptor);

    /// Adds an item, and all below it where it is a directory. `path` is its path on the volume; of
    /// the root only what is below is added.
    void add(const Found& found, const std::string& path);
    /// Ends the archive. Without it the archive is not whole. Throws Failure.
    void close();

  private:
    // Each throws ItemFailure for its own item, and Failure.
    void addItem(const Found& found, const std::string& path);
    void addContent(const Found& found, const std::string& path, archive_entry* header);
    /// Says where the data is of a file with holes, which then take no room in the archive.
    void addHoles(const ItemRef& item, std::uint64_t size, archive_entry* header);
    void addStreams(const ItemRef& item, const std::string& path, archive_entry* header);
    void write(archive_entry* header);

    VolumeClient& volume_;
    CopyRun& run_;
    UTF8Locale locale_;
    Archive archive_;
    std::vector<std::byte> buffer_;
    std::map<fskit::FSItemID, std::string> written_; ///< first names of files with several
};

} // namespace tavelin::cli
