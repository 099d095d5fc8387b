/// Copies files and directories from a volume to the host.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "platform/file_descriptor.hpp"

#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavelin::cli {

/// Copies contents, times of access and modification, symbolic links (as links), named streams, and
/// hard links unless the run leaves them out. A file or link that exists under an item's name in
/// the target is replaced; directories are merged. Permissions are the process's defaults, as NTFS
/// ones have no counterpart here.
///
/// Problems of single items go to the run. Failure passes through. One thread at a time; volume and
/// run outlive the object.
///
/// Never leaves the target: below it, everything is opened relative to its directory, host links
/// are not followed, and names that mean another place ("..", "a/b") are refused.
class TreeGetter {
  public:
    /// Takes the memory of one transfer, which all files share.
    TreeGetter(VolumeClient& volume, CopyRun& run)
        : volume_(volume), run_(run), buffer_(kTransferBytes) {}

    /// Copies `found`, which messages call `path`, into an opened directory of the host under the
    /// name `name`. The descriptor stays the caller's. False when the item itself was not copied,
    /// which is a problem of the run.
    bool get(const Found& found, const std::string& path, int directory, const std::string& name);
    /// Makes a file of the host from the bytes of a stream. Throws ItemFailure.
    void getStream(std::span<const std::byte> bytes, const std::string& path, int directory,
                   const std::string& name);
    /// Copies the entries of a directory of the volume into an opened directory of the host.
    void getContents(const ItemRef& volumeDirectory, const std::string& path, int directory);
    /// Named streams become extended attributes of the host. Those that the volume does not have
    /// stay.
    void getStreams(const ItemRef& item, const std::string& path, int file);

  private:
    /// Takes a directory of the caller's for the one that first copies are looked up from.
    void beginAt(int directory);
    // Each throws ItemFailure for its own item, and Failure. Parameters are those of get().
    /// Chooses by the item's type. Devices, pipes and sockets are problems.
    void getItem(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    /// Copies into a partial file, then streams and times, then gives it its name.
    void getFile(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    void getLink(const Found& found, const std::string& path, int directory,
                 const std::string& name);
    void getDirectory(const Found& found, const std::string& path, int directory,
                      const std::string& name);
    void getEntries(const ItemRef& volumeDirectory, const std::string& path, int directory);
    /// Copies the bytes of a file. Of one with holes, long runs of zeros become holes of the copy.
    void readContents(const Found& found, const std::string& path, const FileDescriptor& file);

    /// Makes `partial`, has it filled, and gives it its name.
    void makeFile(const std::string& path, int directory, const std::string& name,
                  const std::function<void(const FileDescriptor& file)>& fill);
    /// Another name for a file of the volume that this run has copied under a first one. False
    /// when there is none, or the host's file system has no hard links.
    bool linkToFirst(const Found& found, const std::string& path, int directory,
                     const std::string& name);
    /// Renames the complete `partial` to its own name, replacing a file or link of that name in one
    /// step.
    void giveName(int directory, const std::string& partial, const std::string& name,
                  const std::string& path);
    /// Calls `work`, and removes `partial` again when it throws.
    void orTakeAway(int directory, const std::string& partial, const std::function<void()>& work);

    VolumeClient& volume_;
    CopyRun& run_;
    std::vector<std::byte> buffer_; ///< kTransferBytes, for all files in turn
    /// Directories entered so far. None is entered twice, because directories of a damaged
    /// volume may contain themselves.
    std::set<fskit::FSItemID> entered_;
    /// Where a file with several names was copied to first.
    struct FirstCopy {
        std::string path; ///< below top_
        dev_t device;     ///< of the copy, by which it is recognised
        ino_t inode;
    };
    std::map<fskit::FSItemID, FirstCopy> copied_;
    int top_ = -1;      ///< the caller's directory of the current call of get()
    std::string below_; ///< the way from it to the directory that is being filled
    int depth_ = 0;     ///< directories being copied, from the outermost to the current one
};

} // namespace tavelin::cli
