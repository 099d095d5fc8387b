/// A volume as the kernel sees it: nodes in place of items, files that live on after their last
/// name, directories whose streams survive every change.
///
/// There is one method for each request, except where a request is a single call into the volume.
/// Errors are the volume's, in macOS numbers; the protocol layer translates them for the kernel.
///
/// Nodes are the kernel's: a caller has one only for a request that names it. Requests about names
/// must come one at a time, and forget() among them, which WorkerThreads see to: between a lookup
/// of a name and what is done to it nobody else may change it, and a node found in the table must
/// not go away. Anything else may be called by any thread.
#pragma once

#include "fskit/orphan_files.hpp"
#include "hosting/volume_client.hpp"
#include "hosts/fuse/tree/dentry_invalidation_queue.hpp"
#include "hosts/fuse/tree/node_table.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavelin::fusehost {

/// What the kernel is told of an item: a node that has been counted, and its attributes.
struct Entry {
    Node* node = nullptr;
    fskit::FSItemAttributes attributes;
};

/// Takes one entry of a directory; answers false when it did not fit. `entry.node` is null where
/// only the name was asked for.
using TakeEntry = std::function<bool(const DirectoryListing::Entry& name, const Entry& entry)>;

class MountedVolume {
  public:
    /// Throws fskit::Error when not even the root's attributes can be read.
    explicit MountedVolume(VolumeClient& volume);

    /// For requests that are a single call into the volume. It outlives this object.
    VolumeClient& volume() noexcept { return volume_; }
    /// Of a request; throws std::out_of_range.
    Node& node(uint64_t number) { return nodes_.at(number); }
    /// For the maintenance thread, which persists orphans between requests.
    OrphanFiles& orphanFiles() noexcept { return orphans_; }
    DentryInvalidationQueue& invalidations() noexcept { return invalidations_; }
    /// Whether a name may stand for an item that is stored in another case.
    bool ignoresCase() const noexcept { return volume_.requests().ignoresCase(); }

    // ---- Names ---------------------------------------------------------------------------------

    /// Absent when the name stands for nothing.
    Outcome<std::optional<Entry>> lookup(const Node& directory, std::string_view name);
    /// The item of a file server's handle: a node's number, which the kernel may have forgotten or
    /// have from an earlier mount. With `above`, the directory it is in. kESTALE when it is gone.
    Outcome<std::optional<Entry>> lookupHandle(uint64_t number, bool above);
    /// Takes counts of a node back. A file whose last name is gone is removed with the last of
    /// them.
    void forget(uint64_t number, uint64_t counts);
    /// Makes an item with these attributes, as VolumeClient::create does. kEEXIST when the name is
    /// taken; a name whose unlink is pending is freed first.
    Outcome<Entry> create(Node& directory, std::string_view name, fskit::FSItemType type,
                          fskit::FSItemSetAttributesRequest attributes = {});
    /// Makes a symbolic link.
    Outcome<Entry> createLink(Node& directory, std::string_view name, std::string_view target,
                              const fskit::FSItemSetAttributesRequest& attributes = {});
    /// Gives a file one more name. kENOENT for a file whose last name is gone, kEPERM for a
    /// directory.
    Outcome<Entry> createHardLink(const Node& file, Node& directory, std::string_view name);
    /// Unlinks a name of a file. One that may be open is removed when the kernel forgets it.
    Outcome<void> removeFile(Node& directory, std::string_view name);
    /// kENOTEMPTY while it has entries that users see.
    Outcome<void> removeDirectory(Node& directory, std::string_view name);
    /// With `mayReplace` false an existing new name is kEEXIST.
    Outcome<void> rename(Node& fromDirectory, std::string_view from, Node& toDirectory,
                         std::string_view to, bool mayReplace);

    /// Has two names lead to each other's items.
    Outcome<void> exchange(Node& oneDirectory, std::string_view one, Node& otherDirectory,
                           std::string_view other);

    // ---- Attributes, directories ---------------------------------------------------------------

    /// For a directory that was removed while in use: what it was then.
    Outcome<fskit::FSItemAttributes> attributes(const Node& node);
    /// Applies the valid attributes of `changes` and answers the new ones; kESTALE for a directory
    /// that is gone.
    Outcome<fskit::FSItemAttributes> setAttributes(const Node& node,
                                                   fskit::FSItemSetAttributesRequest& changes);

    /// Counts one more stream of a directory, whose listing goes with the last of them.
    void openDirectory(Node& directory);
    /// The last stream takes the listing with it.
    void closeDirectory(Node& directory);
    /// Hands out the entries beyond `position` until one is not taken. The first two are "." and
    /// "..". With `described`, entries come with counted nodes; those that cannot be described
    /// come without.
    Outcome<void> readDirectory(Node& directory, uint64_t position, bool described,
                                const TakeEntry& take);

    // ---- The whole volume ----------------------------------------------------------------------

    /// Returns once everything answered before is on the medium.
    Outcome<void> synchronize();
    /// Removes all orphans, for unmounting.
    Outcome<void> finish();
    /// Tells the device what is free, see NTFSVolume::trim(). One at a time, since it may take
    /// minutes of a worker's time: kEBUSY while another is at it.
    Outcome<uint64_t> trim(const NTFSTrimRange& range, const std::function<bool()>& goesOn);

  private:
    /// Counts the node of an item for a reply.
    Entry acquire(Found found);
    /// What a name stands for; absent for none.
    Outcome<std::optional<Found>> find(const Node& directory, std::string_view name);
    /// The same where it must stand for something: kENOENT, also for names of removed files.
    Outcome<Found> existing(const Node& directory, std::string_view name);
    /// Whether a name is this host's own and must not be seen.
    bool isPrivate(const Node& directory, std::string_view name);
    /// Runs `make`, and once more after moving aside a file whose pending unlink holds the name.
    template<typename Make>
    Outcome<Entry> make(Node& directory, std::string_view name, Make&& make);
    /// The arguments of a rename, as they are needed together.
    struct Renaming {
        const Node& fromDirectory;
        std::string_view from;
        const ItemRef& item;
        const Node& toDirectory;
        std::string_view to;
    };
    /// The volume's own rename, without regard to who has the old file open.
    Outcome<void> rename(const Renaming& renaming, const ItemRef& over);
    /// A rename onto a name that is taken: keeps the replaced file for those who have it open.
    Outcome<void> replace(const Renaming& renaming, const Found& old);
    /// Removes a name with `remove`, and tells the kernel of all names that go with it.
    template<typename Remove>
    Outcome<void> remove(Node& directory, std::string_view name, Remove&& remove);
    /// Names in one directory.
    using Names = std::vector<std::string>;
    /// The long names that may go when a name that looks like a DOS name is removed.
    Outcome<Names> longNamesOf(const Node& directory, const Found& found);
    /// A listing that is being read lacks the name, so the next stream gets a new one.
    static void noteNewName(Node& directory);
    /// Makes the name's entry a tombstone in the listing that is being read.
    static void noteLostName(Node& directory, fskit::FSItemID id, std::string_view name);
    void noteLostName(Node& directory, const Found& lost, const Names& behind);
    /// Corrects the volume's attributes by what only this host knows.
    Outcome<fskit::FSItemAttributes> adjusted(const Node& node,
                                              Outcome<fskit::FSItemAttributes> found);
    /// The size of a symbolic link is the length of its target as this mount shows it.
    void adjustLink(const ItemRef& item, fskit::FSItemAttributes& attributes);
    /// A directory whose file is unlinked and not yet removed shows the time of the unlink.
    static void adjustTimes(const Node& node, fskit::FSItemAttributes& attributes);
    /// Notes that a name went whose removal from the volume is deferred.
    static void noteDeferredRemoval(Node& directory);
    /// Keeps what a directory that is about to be removed will be told of then.
    static void noteRemoval(Node& directory, fskit::FSItemAttributes attributes);
    /// What the kernel expects of requests about names in a directory that was removed: kENOENT.
    static fskit::Error missingIfStale(const fskit::Error& error);
    static bool isCode(const fskit::Error& error, int32_t code) noexcept;
    /// Reads a whole directory from the volume.
    Outcome<std::unique_ptr<DirectoryListing>> list(const Node& directory);
    /// The counted node and attributes of an entry; without a node where they cannot be read.
    Entry describe(const Node& directory, const DirectoryListing::Entry& name);

    VolumeClient& volume_;
    NodeTable nodes_;
    OrphanFiles orphans_;
    DentryInvalidationQueue invalidations_;
    std::atomic<bool> unusableNamesTold_ = false; // in the log, once a mount
    std::atomic<bool> isTrimming_ = false;
};

} // namespace tavelin::fusehost
