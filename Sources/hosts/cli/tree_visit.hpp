/// What is in a directory of a volume, and everything below it, for commands that go through large
/// directories and whole trees.
#pragma once

#include "hosting/volume_client.hpp"

#include <cstddef>
#include <functional>
#include <string>

namespace tavelin::cli {

/// Calls `each` for all entries of a directory, which messages call `path`, by the volume's order
/// of names. The directory is read page by page, and what was printed goes out now and then: the
/// first results of a directory of any size come at once. Where an index is damaged, names that are
/// out of order come last. Throws what `each` throws, ItemFailure
/// when the directory cannot be read to its end, and Interruption.
void forEachEntry(VolumeClient& volume, const ItemRef& directory, const std::string& path,
                  const std::function<void(const DirectoryEntry& entry)>& each);

/// One item of the tree; valid during the call that gets it.
struct TreeItem {
    const std::string& path; ///< "a/b", as messages and results call it
    const DirectoryEntry& entry;
    /// The entry's, or defaults of its type where they could not be read.
    const fskit::FSItemAttributes& attributes;
    const ItemRef& directory; ///< that holds the entry
    std::size_t depth;        ///< 1 for what is directly in the directory
    bool isLast;              ///< of its directory
};

/// What to do with the items of a tree. Both run on the caller's thread.
struct TreeVisitor {
    /// Called for each item, directories before what is in them, by the volume's order of names.
    /// False for a directory that is not to be entered.
    std::function<bool(const TreeItem& item)> visit;
    /// Called for each directory that `visit` answered true for, when all in it is done, also where
    /// it could not be read. May be empty.
    std::function<void(const TreeItem& item)> leave;
};

/// Goes through all below `directory`, which results call `path` ("" for the root), each directory
/// as forEachEntry() does. Links are not followed; a directory that a damaged volume has inside
/// itself is not entered again. A directory that cannot be read is told and left out: false in the
/// end. Throws what the visitor throws, and Interruption.
[[nodiscard]] bool visitTree(VolumeClient& volume, const ItemRef& directory,
                             const std::string& path, const TreeVisitor& visitor);

} // namespace tavelin::cli
