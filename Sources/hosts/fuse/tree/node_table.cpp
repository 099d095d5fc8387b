#include "hosts/fuse/tree/node_table.hpp"

#include "core/driver2/item_identity.hpp"
#include "hosts/fuse/libfuse.hpp"

#include <algorithm>

namespace tavelin::fusehost {

Node::Node(uint64_t nodeIno, ItemRef nodeItem, const fskit::FSItemAttributes& attributes)
    : ino(nodeIno),
      item(std::move(nodeItem)),
      directory(attributes.type() == fskit::FSItemType::directory
                    ? std::make_unique<DirectoryState>()
                    : nullptr),
      linkCount(attributes.linkCount()) {}

NodeTable::NodeTable(Found root)
    : root_(std::make_unique<Node>(inoOf(root.attributes), std::move(root.item), root.attributes)) {
}

uint64_t NodeTable::inoOf(const fskit::FSItemAttributes& attributes) noexcept {
    return Driver2::ino(attributes.fileID());
}

Node& NodeTable::at(uint64_t number) noexcept {
    // The kernel hands back the address it was given. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return number == FUSE_ROOT_ID ? *root_ : *reinterpret_cast<Node*>(number);
}

uint64_t NodeTable::numberOf(const Node& node) const noexcept {
    return &node == root_.get() ? FUSE_ROOT_ID : node.number();
}

Node& NodeTable::acquire(Found found) {
    const uint64_t ino = inoOf(found.attributes);
    if (ino == root_->ino) {
        return *root_; // counts on the root are not kept
    }
    const MutexLock held(lock_);
    std::unique_ptr<Node>& slot = nodes_[ino];
    if (!slot) {
        slot = std::make_unique<Node>(ino, std::move(found.item), found.attributes);
    }
    slot->linkCount = found.attributes.linkCount();
    ++slot->lookups;
    return *slot;
}

std::unique_ptr<Node> NodeTable::forget(uint64_t number, uint64_t counts) {
    Node& node = at(number);
    if (&node == root_.get()) {
        return nullptr;
    }
    const MutexLock held(lock_);
    node.lookups -= std::min(node.lookups, counts);
    if (node.lookups != 0) {
        return nullptr;
    }
    if (const auto found = nodes_.find(node.ino);
        found != nodes_.end() && found->second.get() == &node) {
        return std::move(nodes_.extract(found).mapped());
    }
    return std::move(detached_.extract(&node).mapped());
}

Node* NodeTable::find(uint64_t ino) {
    const MutexLock held(lock_);
    const auto found = nodes_.find(ino);
    return found == nodes_.end() ? nullptr : found->second.get();
}

void NodeTable::detach(Node& node) {
    const MutexLock held(lock_);
    node.gone = true;
    detached_.emplace(&node, std::move(nodes_.extract(node.ino).mapped()));
}

void NodeTable::attach(Node& node) {
    const MutexLock held(lock_);
    node.gone = false;
    nodes_.emplace(node.ino, std::move(detached_.extract(&node).mapped()));
}

} // namespace tavelin::fusehost
