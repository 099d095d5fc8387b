/// Unpacks a tar archive into a directory of a volume.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/archive.hpp"
#include "hosts/cli/copy/tree_putter.hpp"

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace tavelin::cli {

/// All formats of tar that libarchive knows, compressed or not. A file or link that has an entry's
/// name is replaced, and directories are merged. Never leaves the target: names with ".." are
/// refused, a leading "/" does not count, and no link of the volume is followed. Problems of single
/// entries go to the run; Failure is thrown for an archive that cannot be read. Volume and run
/// outlive it.
class TarReader {
  public:
    /// Reads from a descriptor, which stays the caller's.
    TarReader(VolumeClient& volume, CopyRun& run, const ItemRef& target, int descriptor);

    /// Unpacks everything. Called once.
    void extractAll();

  private:
    // Each throws ItemFailure for its own entry, and Failure.
    void extract(archive_entry* header);
    void extractFile(archive_entry* header, const ItemRef& directory, const std::string& name,
                     const std::string& path);
    void extractHardLink(const std::string& first, const ItemRef& directory,
                         const std::string& name, const std::string& path);
    void writeData(const ItemRef& item, const std::string& path);
    void setStreams(archive_entry* header, const ItemRef& item, const std::string& path);
    void setTimes(archive_entry* header, const ItemRef& item, const std::string& path);
    /// The directory that a path leads to below the target. Makes what is missing.
    ItemRef directoryOf(const std::vector<std::string>& components, const std::string& path);

    VolumeClient& volume_;
    CopyRun& run_;
    TreePutter putter_;
    const ItemRef& target_;
    UTF8Locale locale_;
    Archive archive_;
    /// Set at the end: every entry that is made changes its directory's times.
    struct DirectoryTimes {
        ItemRef item;
        ArchiveEntry header;
        std::string path;
    };
    std::vector<DirectoryTimes> directories_;
};

} // namespace tavelin::cli
