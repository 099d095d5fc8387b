/// The items that the kernel knows: its inodes, by the numbers that we gave it for them.
///
/// A node's number is its item's NTFS file reference: the record number, and above it the record's
/// sequence number, which is the node's generation for file handles. So a file that takes over a
/// freed record gets another number, while the kernel may still hold the node of the record's last
/// owner, and a handle of a file that is gone never opens another. One of a file that is there is
/// good in every later mount. The root's number is the kernel's own.
///
/// But for such handles the kernel names a node in requests only while it holds counts on it, and a
/// node lives until its count is zero. An item carries its node with it (FSItem::hostData), so one
/// item has one node at a time.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/fuse/tree/directory_listing.hpp"
#include "platform/lock_order.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>

namespace tavelin::fusehost {

/// The listing that streams of one directory read from, until one of them reaches its end or the
/// last is closed. The lock is held across the listing's requests to the volume and comes before
/// the volume's locks and the node table's.
struct DirectoryState {
    Mutex lock TAVELIN_ACQUIRED_AFTER(lock_order::maintenance)
        TAVELIN_ACQUIRED_BEFORE(lock_order::hostTables);
    /// Null while no stream reads.
    std::unique_ptr<DirectoryListing> listing TAVELIN_GUARDED_BY(lock);
    size_t streams TAVELIN_GUARDED_BY(lock) = 0;        // that are open
    bool listingIsOld TAVELIN_GUARDED_BY(lock) = false; // names have come that it lacks
    /// What it was when its removal began, for those who have it open afterwards.
    std::optional<fskit::FSItemAttributes> atRemoval TAVELIN_GUARDED_BY(lock);

    /// When the last name went whose removal is deferred, in nanoseconds since 1970; 0 for none.
    /// The directory's times on the volume follow when the file is removed.
    std::atomic<int64_t> nameLostAt{0};
};

/// One inode of the kernel. Its members are constant but for those that say otherwise.
struct Node {
    Node(Found found, uint64_t number);

    /// By the item's type, which never changes.
    bool isDirectory() const noexcept { return directory != nullptr; }
    /// For file handles, which a stale generation invalidates. 0 for the root.
    uint64_t generation() const noexcept { return number >> 48; }

    const uint64_t number; // the kernel's
    const fskit::FSItemID id;
    /// One hand-out of the item, given back with the node.
    const ItemRef item;
    const std::unique_ptr<DirectoryState> directory; // null for anything but a directory
    std::atomic<uint32_t> linkCount;                 // as the volume last said
    std::atomic<bool> longStreamTold{false};         // in the log

    uint64_t lookups = 0; // the kernel's counts, guarded by the table's lock
};

/// Threading: any thread may call anything. lock_ is held across one kind of call into the volume,
/// the release of an item, which takes the volume's item lock; so lock_ comes before that one.
class NodeTable {
  public:
    /// Takes the root, which stays for the table's life.
    explicit NodeTable(Found root);
    ~NodeTable();
    NodeTable(const NodeTable&) = delete;
    NodeTable& operator=(const NodeTable&) = delete;

    /// The node of a number from a request; valid while the kernel holds counts on it. Throws
    /// std::out_of_range for a number that it was not given.
    Node& at(uint64_t number);
    /// The node with the kernel's number 1.
    Node& root() noexcept { return root_; }

    /// The node of an item, found or made, with one more count. For replies that hand the node to
    /// the kernel; a reply that fails needs a forget() in return.
    Node& acquire(Found found);

    /// Takes counts back. A node whose count reaches zero leaves the table and is handed to the
    /// caller, so that it is destroyed without the lock; else the answer is null. The root never
    /// leaves.
    std::unique_ptr<Node> forget(uint64_t number, uint64_t counts);

    /// The node of an item; null when the kernel holds no count on it.
    Node* find(const ItemRef& item);

  private:
    Node root_;
    Mutex lock_ TAVELIN_ACQUIRED_AFTER(lock_order::directories)
        TAVELIN_ACQUIRED_BEFORE(lock_order::items);
    /// All but the root, by their numbers.
    std::unordered_map<uint64_t, std::unique_ptr<Node>> nodes_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
