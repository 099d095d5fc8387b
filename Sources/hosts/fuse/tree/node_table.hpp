/// The items that the kernel knows: its inodes, by the numbers that we gave it for them.
///
/// A node's number is its address, so that a request finds its node without a lock; the kernel
/// names a node in requests only while it holds counts on it, and a node lives until its count is
/// zero. An item carries its node with it (FSItem::hostData), so one item has one node at a time,
/// and no table is searched. A file that takes over a freed record is another item and gets a node
/// of its own, while the kernel may still hold the node of the record's last owner.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/fuse/tree/directory_listing.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>

namespace tavelin::fusehost {

/// The listing that streams of one directory read from, until one of them reaches its end or the
/// last is closed. The lock is held across the listing's requests to the volume and comes before
/// the volume's locks and the node table's.
struct DirectoryState {
    Mutex lock;
    std::unique_ptr<DirectoryListing> listing TAVELIN_GUARDED_BY(lock);
    size_t streams TAVELIN_GUARDED_BY(lock) = 0;        // that are open
    bool listingIsOld TAVELIN_GUARDED_BY(lock) = false; // names have come that it lacks
};

struct Node {
    explicit Node(Found found);

    uint64_t number() const noexcept { return reinterpret_cast<uint64_t>(this); }
    bool isDirectory() const noexcept { return directory != nullptr; }

    const fskit::FSItemID id;
    const ItemRef item;
    const std::unique_ptr<DirectoryState> directory; // null for anything but a directory
    std::atomic<uint32_t> linkCount;                 // as the volume last said

    // Guarded by the table's lock.
    uint64_t lookups = 0;            // the kernel's counts
    std::list<Node>::iterator place; // of this node in the table's list
};

/// Threading: any thread may call anything. lock_ is held across one kind of call into the volume,
/// the release of an item, which takes the volume's item lock; so lock_ comes before that one.
class NodeTable {
  public:
    explicit NodeTable(Found root);
    ~NodeTable();
    NodeTable(const NodeTable&) = delete;
    NodeTable& operator=(const NodeTable&) = delete;

    /// The node of a number from a request. The kernel must hold counts on it: the number is an
    /// address and cannot be checked.
    Node& at(uint64_t number) noexcept;
    Node& root() noexcept { return root_; }
    /// The kernel's number of a node, that of the root included.
    uint64_t numberOf(const Node& node) const noexcept;

    /// The node of an item, found or made, with one more count. For replies that hand the node to
    /// the kernel; a reply that fails needs a forget() in return.
    Node& acquire(Found found);

    /// Takes counts back. A node whose count reaches zero leaves the table and is handed to the
    /// caller as the only element of the list, so that it is destroyed without the lock. The root
    /// never leaves.
    std::list<Node> forget(uint64_t number, uint64_t counts);

    /// The node of an item; null when the kernel holds no count on it.
    Node* find(const ItemRef& item);

  private:
    Node root_;
    Mutex lock_;
    std::list<Node> nodes_ TAVELIN_GUARDED_BY(lock_); // all but the root
};

} // namespace tavelin::fusehost
