/// A volume as the kernel sees it: nodes in place of items, files that live on after their last
/// name, folders whose streams survive every change.
///
/// One method a request, except where a request is one call into the volume. Errors are the
/// volume's, in macOS numbers; whoever replies translates them.
///
/// Nodes are the kernel's: a caller has one only for a request that names it. Requests about names
/// must come one at a time, and forget() among them, which ServingThreads see to: between a lookup
/// of a name and what is done to it nobody else may change it, and a node found in the table must
/// not go away. Anything else may be called by any thread.
#pragma once

#include "hosts/fuse/node_table.hpp"
#include "hosts/fuse/removed_files.hpp"
#include "hosts/fuse/stale_names.hpp"
#include "hosts/module/volume_client.hpp"

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

/// Takes one entry of a folder; answers false when it did not fit. `entry.node` is null where only
/// the name was asked for.
using TakeEntry = std::function<bool(const FolderListing::Entry& name, const Entry& entry)>;

class MountedVolume {
  public:
    /// Throws fskit::Error when not even the root's attributes can be read.
    explicit MountedVolume(VolumeClient& volume);

    VolumeClient& volume() noexcept { return volume_; }
    Node& node(uint64_t number) noexcept { return nodes_.at(number); }
    RemovedFiles& removedFiles() noexcept { return removed_; }
    StaleNames& staleNames() noexcept { return staleNames_; }

    // ---- Names ---------------------------------------------------------------------------------

    /// Absent when the name stands for nothing.
    Outcome<std::optional<Entry>> lookup(const Node& folder, std::string_view name);
    void forget(uint64_t number, uint64_t counts);
    Outcome<Entry> create(Node& folder, std::string_view name, fskit::FSItemType type);
    Outcome<Entry> createLink(Node& folder, std::string_view name, std::string_view target);
    Outcome<void> removeFile(Node& folder, std::string_view name);
    Outcome<void> removeFolder(Node& folder, std::string_view name);
    /// With `mayReplace` false an existing new name is kEEXIST.
    Outcome<void> rename(Node& fromFolder, std::string_view from, Node& toFolder,
                         std::string_view to, bool mayReplace);

    // ---- Attributes, folders -------------------------------------------------------------------

    /// Of a folder that is gone, what remains to be said of it.
    Outcome<fskit::FSItemAttributes> attributes(const Node& node);
    /// Applies the valid attributes of `changes` and answers the new ones; kESTALE for a folder
    /// that is gone.
    Outcome<fskit::FSItemAttributes> setAttributes(const Node& node,
                                                   fskit::FSItemSetAttributesRequest& changes);

    /// Counts a folder's streams, so that its listing goes with the last of them.
    void openFolder(Node& folder);
    void closeFolder(Node& folder);
    /// Hands out the entries beyond `position` until one is not taken. The first two are "." and
    /// "..". With `described`, entries come with counted nodes; those that cannot be described
    /// come without.
    Outcome<void> readFolder(Node& folder, uint64_t position, bool described,
                             const TakeEntry& take);

    // ---- The whole volume ----------------------------------------------------------------------

    /// Returns once everything answered before is on the medium.
    Outcome<void> synchronize();
    /// Removes what is still parked, for unmounting.
    Outcome<void> finish();

  private:
    Entry remember(Found found);
    Outcome<Entry> entryOf(Outcome<ItemRef> item);
    /// What a name stands for; absent for none.
    Outcome<std::optional<Found>> find(const Node& folder, std::string_view name);
    /// The same where it must stand for something: kENOENT, also for names of removed files.
    Outcome<Found> existing(const Node& folder, std::string_view name);
    /// Whether a name is this host's own and must not be seen.
    bool isPrivate(const Node& folder, std::string_view name) noexcept;
    /// Runs `make`, once more when the name in its way is only that of a removed file.
    template<typename Make>
    Outcome<ItemRef> makingRoom(const Node& folder, std::string_view name, Make&& make);
    template<typename Change>
    Outcome<void> freeing(Node* node, Change&& change);
    struct Renaming {
        const Node& fromFolder;
        std::string_view from;
        const ItemRef& item;
        const Node& toFolder;
        std::string_view to;
    };
    Outcome<void> rename(const Renaming& renaming, const ItemRef& over);
    Outcome<void> replace(const Renaming& renaming, const Found& old);
    template<typename Remove>
    Outcome<void> remove(Node& folder, std::string_view name, Remove&& remove);
    using Names = std::vector<std::string>;
    Outcome<Names> namesBehind(const Node& folder, const Found& found, std::string_view name);
    static void noteNewName(Node& folder);
    static void noteLostName(Node& folder, uint64_t ino, std::string_view name);
    void noteLostName(Node& folder, const Found& lost, std::string_view name, const Names& behind);
    Outcome<fskit::FSItemAttributes> amended(const Node& node,
                                             Outcome<fskit::FSItemAttributes> found);
    void amendLink(const ItemRef& item, fskit::FSItemAttributes& attributes);
    static uint64_t inoOf(const Found& found) noexcept;
    static bool isCode(const fskit::Error& error, int32_t code) noexcept;
    Outcome<std::unique_ptr<FolderListing>> list(const Node& folder);
    Entry describe(const Node& folder, const FolderListing::Entry& name);

    VolumeClient& volume_;
    NodeTable nodes_;
    RemovedFiles removed_;
    StaleNames staleNames_;
};

} // namespace tavelin::fusehost
