#include "hosting/item_table.hpp"

#include "platform/checked.hpp"

#include <algorithm>
#include <new>

namespace tavelin {

ItemRef::~ItemRef() {
    if (entry_ != nullptr) {
        table_->drop(*entry_);
    }
}

const fskit::FSItemRef& ItemRef::item() const noexcept {
    static const fskit::FSItemRef kNone;
    return entry_ != nullptr ? entry_->item : kNone;
}

ItemRef ItemRef::duplicate() const {
    return entry_ != nullptr ? table_->countAgain(*entry_) : ItemRef();
}

ItemTable::~ItemTable() {
    const MutexLock held(lock_);
    for (const auto& [address, entry] : entries_) {
        if (entry.count > 0) {
            fatal("a reference to an item has outlived its module host");
        }
    }
}

std::uint64_t ItemTable::begin() {
    const MutexLock held(lock_);
    handOuts_.push_back(nextTicket_);
    return nextTicket_++;
}

void ItemTable::end(std::uint64_t ticket) {
    const MutexLock held(lock_);
    *std::find(handOuts_.begin(), handOuts_.end(), ticket) = handOuts_.back();
    handOuts_.pop_back();
    reclaimDropped();
}

ItemRef ItemTable::count(fskit::FSItemRef item) {
    const MutexLock held(lock_);
    detail::ItemEntry& entry = entries_[item.get()];
    if (!entry.item) { // else it is the same one, and references read it without the lock
        entry.item = std::move(item);
    }
    ++entry.count;
    return {this, &entry};
}

ItemRef ItemTable::countAgain(detail::ItemEntry& entry) {
    const MutexLock held(lock_);
    ++entry.count;
    return {this, &entry};
}

void ItemTable::drop(detail::ItemEntry& entry) {
    const MutexLock held(lock_);
    if (--entry.count > 0 || closed_) {
        return;
    }
    try {
        dropped_.push_back({&entry, nextTicket_});
    } catch (const std::bad_alloc&) {
        return; // without memory to note it the item stays with the volume until it is closed
    }
    ++entry.drops;
    reclaimDropped();
}

void ItemTable::reclaimDropped() {
    const auto oldest = std::min_element(handOuts_.begin(), handOuts_.end());
    while (!dropped_.empty() && (oldest == handOuts_.end() || dropped_.front().ticket <= *oldest)) {
        detail::ItemEntry& entry = *dropped_.front().entry;
        dropped_.pop_front();
        // An item dropped again since waits for its last drop.
        if (--entry.drops == 0 && entry.count == 0) {
            reclaim_(entry.item);
            entries_.erase(entry.item.get());
        }
    }
}

void ItemTable::reclaimAll() {
    const MutexLock held(lock_);
    closed_ = true;
    dropped_.clear();
    for (const auto& [address, entry] : entries_) {
        reclaim_(entry.item);
    }
}

std::size_t ItemTable::size() const {
    const MutexLock held(lock_);
    return closed_ ? 0 : entries_.size();
}

} // namespace tavelin
