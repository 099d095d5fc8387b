#include "hosts/fuse/tree/node_table.hpp"

#include "core/driver2/item_identity.hpp"
#include "core/values.hpp"
#include "hosts/fuse/libfuse.hpp"
#include "platform/assert.hpp"

#include <algorithm>

namespace tavelin::fusehost {

namespace {

uint64_t numberOf(const fskit::FSItemAttributes& attributes) {
    const uint64_t number =
        itemReference(Driver2::ino(attributes.fileID()), attributes.native().sequence);
    TAVELIN_ASSERT(number != FUSE_ROOT_ID && number != 0);
    return number;
}

} // namespace

Node::Node(Found found, uint64_t nodeNumber)
    : number(nodeNumber),
      id(found.attributes.fileID()),
      item(std::move(found.item)),
      directory(found.attributes.type() == fskit::FSItemType::directory
                    ? std::make_unique<DirectoryState>()
                    : nullptr),
      linkCount(found.attributes.linkCount()) {}

NodeTable::NodeTable(Found root) : root_(std::move(root), FUSE_ROOT_ID) {
    TAVELIN_ASSERT(root_.isDirectory());
    root_.item.item()->hostData = &root_;
}

NodeTable::~NodeTable() {
    const MutexLock held(lock_);
    for (const auto& [number, node] : nodes_) {
        node->item.item()->hostData = nullptr;
    }
    root_.item.item()->hostData = nullptr;
}

Node& NodeTable::at(uint64_t number) {
    if (number == FUSE_ROOT_ID) {
        return root_;
    }
    const MutexLock held(lock_);
    return *nodes_.at(number);
}

Node& NodeTable::acquire(Found found) {
    const uint32_t linkCount = found.attributes.linkCount();
    const fskit::FSItemRef item = found.item.item();
    const MutexLock held(lock_);
    auto* node = static_cast<Node*>(item->hostData);
    if (node == nullptr) {
        const uint64_t number = numberOf(found.attributes);
        auto made = std::make_unique<Node>(std::move(found), number);
        node = made.get();
        // Nobody else has the number: the volume never hands out two items of one file, and an item
        // that has a node is held by it.
        TAVELIN_ASSERT(!nodes_.contains(number));
        nodes_.insert_or_assign(number, std::move(made));
        item->hostData = node;
    }
    TAVELIN_ASSERT(node->item.item() == item);
    node->linkCount = linkCount;
    ++node->lookups; // counts on the root are kept and never looked at
    return *node;
}

std::unique_ptr<Node> NodeTable::forget(uint64_t number, uint64_t counts) {
    if (number == FUSE_ROOT_ID) {
        return nullptr;
    }
    const MutexLock held(lock_);
    Node& node = *nodes_.at(number);
    TAVELIN_ASSERT(node.lookups >= counts);
    node.lookups -= std::min(node.lookups, counts);
    if (node.lookups != 0) {
        return nullptr;
    }
    TAVELIN_ASSERT(node.item.item()->hostData == &node);
    node.item.item()->hostData = nullptr;
    return std::move(nodes_.extract(number).mapped());
}

Node* NodeTable::find(const ItemRef& item) {
    const MutexLock held(lock_);
    return static_cast<Node*>(item.item()->hostData);
}

} // namespace tavelin::fusehost
