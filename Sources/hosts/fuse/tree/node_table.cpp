#include "hosts/fuse/tree/node_table.hpp"

#include "hosts/fuse/libfuse.hpp"
#include "platform/assert.hpp"

#include <algorithm>

namespace tavelin::fusehost {

Node::Node(Found found)
    : id(found.attributes.fileID()),
      item(std::move(found.item)),
      directory(found.attributes.type() == fskit::FSItemType::directory
                    ? std::make_unique<DirectoryState>()
                    : nullptr),
      linkCount(found.attributes.linkCount()) {}

NodeTable::NodeTable(Found root) : root_(std::move(root)) {
    TAVELIN_ASSERT(root_.isDirectory());
    root_.item.item()->hostData = &root_;
}

NodeTable::~NodeTable() {
    const MutexLock held(lock_);
    for (const Node& node : nodes_) {
        node.item.item()->hostData = nullptr;
    }
    root_.item.item()->hostData = nullptr;
}

Node& NodeTable::at(uint64_t number) noexcept {
    // The kernel hands back the address it was given. NOLINTNEXTLINE(performance-no-int-to-ptr)
    return number == FUSE_ROOT_ID ? root_ : *reinterpret_cast<Node*>(number);
}

uint64_t NodeTable::numberOf(const Node& node) const noexcept {
    return &node == &root_ ? FUSE_ROOT_ID : node.number();
}

Node& NodeTable::acquire(Found found) {
    const uint32_t linkCount = found.attributes.linkCount();
    const fskit::FSItemRef item = found.item.item();
    const MutexLock held(lock_);
    auto* node = static_cast<Node*>(item->hostData);
    if (node == nullptr) {
        nodes_.emplace_front(std::move(found));
        node = &nodes_.front();
        node->place = nodes_.begin();
        item->hostData = node;
    }
    TAVELIN_ASSERT(node->item.item() == item);
    node->linkCount = linkCount;
    ++node->lookups; // counts on the root are kept and never looked at
    return *node;
}

std::list<Node> NodeTable::forget(uint64_t number, uint64_t counts) {
    Node& node = at(number);
    std::list<Node> forgotten;
    if (&node == &root_) {
        return forgotten;
    }
    const MutexLock held(lock_);
    TAVELIN_ASSERT(node.lookups >= counts);
    node.lookups -= std::min(node.lookups, counts);
    if (node.lookups == 0) {
        TAVELIN_ASSERT(node.item.item()->hostData == &node);
        node.item.item()->hostData = nullptr;
        forgotten.splice(forgotten.begin(), nodes_, node.place);
    }
    return forgotten;
}

Node* NodeTable::find(const ItemRef& item) {
    const MutexLock held(lock_);
    return static_cast<Node*>(item.item()->hostData);
}

} // namespace tavelin::fusehost
