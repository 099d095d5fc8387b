/// The items that the kernel knows: its inodes, by the numbers that we gave it for them.
///
/// A node's number is its address, so that a request finds its node without a lock; the kernel
/// names a node in requests only while it holds counts on it, and a node lives until its count is
/// zero. One inode of the volume has one node at a time. When a file record is freed, its node is
/// detached first: the kernel may still hold it for a while, and the record's next owner gets a
/// node of its own.
#pragma once

#include "hosting/volume_client.hpp"
#include "hosts/fuse/tree/directory_listing.hpp"
#include "platform/mutex.hpp"

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>

namespace tavelin::fusehost {

/// The listing that streams of one directory read from, until one of them reaches its end or the
/// last is closed.
struct DirectoryState {
    Mutex lock;
    std::unique_ptr<DirectoryListing> listing TAVELIN_GUARDED_BY(lock);
    size_t streams TAVELIN_GUARDED_BY(lock) = 0;        // that are open
    bool listingIsOld TAVELIN_GUARDED_BY(lock) = false; // names have come that it lacks
};

struct Node {
    Node(uint64_t nodeIno, ItemRef nodeItem, const fskit::FSItemAttributes& attributes);

    uint64_t number() const noexcept { return reinterpret_cast<uint64_t>(this); }
    bool isDirectory() const noexcept { return directory != nullptr; }

    const uint64_t ino;
    const ItemRef item;
    const std::unique_ptr<DirectoryState> directory; // null for anything but a directory
    // A directory that was removed, and whose record may be another item's. Files keep their record
    // until the kernel lets go of the node.
    std::atomic<bool> gone{false};
    std::atomic<uint32_t> linkCount; // as the volume last said

    uint64_t lookups = 0; // the kernel's counts; guarded by the table's lock
};

class NodeTable {
  public:
    explicit NodeTable(Found root);
    NodeTable(const NodeTable&) = delete;
    NodeTable& operator=(const NodeTable&) = delete;

    /// The node of a number that the kernel gave.
    Node& at(uint64_t number) noexcept;
    Node& root() noexcept { return *root_; }
    /// The kernel's number of a node, that of the root included.
    uint64_t numberOf(const Node& node) const noexcept;

    /// The node of an item, found or made, with one more count: for replies that tell the kernel
    /// of it.
    Node& acquire(Found found);

    /// Takes counts back. A node without counts leaves the table and is handed to the caller.
    std::unique_ptr<Node> forget(uint64_t number, uint64_t counts);

    /// The node of an inode that the kernel holds counts on, null when it does not know it.
    Node* find(uint64_t ino);

    /// Marks a node as gone and lets its inode number have another one. `attach` takes that back
    /// for a removal that failed after all.
    void detach(Node& node);
    void attach(Node& node);

  private:
    static uint64_t inoOf(const fskit::FSItemAttributes& attributes) noexcept;

    const std::unique_ptr<Node> root_;
    Mutex lock_;
    std::unordered_map<uint64_t, std::unique_ptr<Node>>
        nodes_ TAVELIN_GUARDED_BY(lock_); // by inode
    std::unordered_map<const Node*, std::unique_ptr<Node>> detached_ TAVELIN_GUARDED_BY(lock_);
};

} // namespace tavelin::fusehost
