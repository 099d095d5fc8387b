#import "extension/handed_items.hpp"

namespace tavelin {

namespace {

/// The front end answers items of its own kind only.
const NItem &own(const fskit::FSItemRef &item) {
    return static_cast<const NItem &>(*item);
}

} // namespace

FSItem *HandedItems::found(const fskit::FSItemRef &item) {
    if (item == nullptr) {
        return nil;
    }
    MutexLock lock(mutex_);
    return handOut(own(item).ino, own(item).parent);
}

FSItem *HandedItems::created(const fskit::FSItemRef &item) {
    if (item == nullptr) {
        return nil;
    }
    MutexLock lock(mutex_);
    const auto entry = handed_.find(&own(item));
    if (entry != handed_.end() && entry->second.removed) {
        volume_.reclaimItem(item, [](const fskit::MaybeError &) {}); // it cannot fail
    }
    return handOut(own(item).ino, own(item).parent);
}

FSItem *HandedItems::handOut(std::uint64_t ino, std::uint64_t parent) {
    const std::shared_ptr<NItem> registered = volume_.item(ino, parent);
    const auto [entry, isNew] = handed_.try_emplace(registered.get());
    if (isNew) {
        entry->second.object = Strong(made([[::NItem alloc] initWithItem:registered]));
    }
    // Found under another name after one was removed: the file lives on.
    entry->second.removed = false;
    return entry->second.object.get();
}

void HandedItems::removed(FSItem *item) {
    const std::shared_ptr<NItem> core = toCore(item);
    MutexLock lock(mutex_);
    if (const auto entry = handed_.find(core.get()); entry != handed_.end()) {
        entry->second.removed = true;
    }
}

void HandedItems::reclaim(FSItem *item, const fskit::ErrorReply &reply) {
    MutexLock lock(mutex_);
    if (item == nil) {
        volume_.reclaimItem(nullptr, reply);
    } else if (@available(macOS 27.0, *)) {
        // FSKit knows whether a reply that is still on its way carries the item once more.
        if (![item tryReclaimWithBlock:^{
                mutex_.assumeHeld();
                takeBack(item, reply);
            }]) {
            reply(std::nullopt);
        }
    } else {
        takeBack(item, reply);
    }
}

void HandedItems::takeBack(FSItem *item, const fskit::ErrorReply &reply) {
    const std::shared_ptr<NItem> core = toCore(item);
    if (const auto entry = handed_.find(core.get());
        entry != handed_.end() && entry->second.object.get() == item) {
        handed_.erase(entry);
    }
    volume_.reclaimItem(core, reply);
}

std::size_t HandedItems::count() const {
    MutexLock lock(mutex_);
    return handed_.size();
}

} // namespace tavelin
