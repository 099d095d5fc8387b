/// The two sides of `sync`: a tree of the host and one of the volume, with the same requests.
///
/// Both are used by one TreeSync, on one thread. `path` names items in messages. All throw
/// ItemFailure for the item that fails, and Failure.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/cli/copy/transfer.hpp"
#include "platform/file_descriptor.hpp"

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tavelin::cli {

/// What is compared without reading contents.
struct SyncEntry {
    /// `unknown` for what the volume has no type for.
    fskit::FSItemType type = fskit::FSItemType::unknown;
    std::uint64_t size = 0; ///< bytes
    std::timespec modified{};
    std::uint64_t number = 0; ///< inode or file record: the same for all names of an item
};

/// A directory's entries by their names.
using SyncEntries = std::map<std::string, SyncEntry>;
/// What a directory holds: incomplete items, which this program has named, stand apart.
struct SyncListing {
    SyncEntries entries;
    std::vector<std::string> partials;
};
/// The sizes of an item's named streams by their names.
using SyncStreams = std::map<std::string, std::uint64_t>;

/// The host's side. Links are never followed.
class HostTree {
  public:
    struct Directory {
        FileDescriptor descriptor;
        std::string path;
    };

    explicit HostTree(CopyRun& run) : run_(run) {}

    [[nodiscard]] SyncListing list(const Directory& directory);
    [[nodiscard]] Directory enter(const Directory& directory, const std::string& name);
    [[nodiscard]] Directory make(const Directory& directory, const std::string& name);
    /// The number of the item that a name leads to, in whatever case the name is stored.
    [[nodiscard]] std::optional<std::uint64_t> find(const Directory& directory,
                                                    const std::string& name);
    [[nodiscard]] SyncStreams streams(const Directory& directory, const std::string& name);
    [[nodiscard]] SyncStreams streams(const Directory& directory);
    void removeStream(const Directory& directory, const std::string& stream);
    [[nodiscard]] std::string linkTarget(const Directory& directory, const std::string& name);
    /// Removes an item with all below it, but never the image.
    void remove(const Directory& directory, const std::string& name, const SyncEntry& entry);
    void setModified(const Directory& directory, const std::string& name, std::timespec time);
    void setModified(const Directory& directory, std::timespec time);
    /// Removes an incomplete item, unless the run that makes it goes on.
    void removePartial(const Directory& directory, const std::string& name);
    /// Whether an item belongs to the system and is not removed. `path` is from the root.
    [[nodiscard]] static bool isKept(const std::string& /*path*/) noexcept { return false; }

  private:
    CopyRun& run_;
};

/// The volume's side. The volume outlives it.
class VolumeTree {
  public:
    struct Directory {
        ItemRef item;
        std::string path;
    };

    /// A `quiet` one shows no count of what it has listed.
    VolumeTree(VolumeClient& volume, bool quiet) : volume_(volume), count_(quiet) {}

    /// As HostTree. A directory that a damaged volume has inside itself is not entered again.
    [[nodiscard]] SyncListing list(const Directory& directory);
    [[nodiscard]] Directory enter(const Directory& directory, const std::string& name);
    [[nodiscard]] Directory make(const Directory& directory, const std::string& name);
    [[nodiscard]] std::optional<std::uint64_t> find(const Directory& directory,
                                                    const std::string& name);
    [[nodiscard]] SyncStreams streams(const Directory& directory, const std::string& name);
    [[nodiscard]] SyncStreams streams(const Directory& directory);
    void removeStream(const Directory& directory, const std::string& stream);
    /// A path from the volume's root is answered as it is stored.
    [[nodiscard]] std::string linkTarget(const Directory& directory, const std::string& name);
    void remove(const Directory& directory, const std::string& name, const SyncEntry& entry);
    void setModified(const Directory& directory, const std::string& name, std::timespec time);
    void setModified(const Directory& directory, std::timespec time);
    void removePartial(const Directory& directory, const std::string& name);
    /// Of Windows: its recycle bin and the folder of restore points.
    [[nodiscard]] static bool isKept(const std::string& path) noexcept;

    /// The item of a name, for copying it.
    [[nodiscard]] Found found(const Directory& directory, const std::string& name);

  private:
    VolumeClient& volume_;
    std::set<fskit::FSItemID> entered_;
    ItemCount count_;
};

} // namespace tavelin::cli
