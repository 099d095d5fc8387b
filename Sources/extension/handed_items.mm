#import "extension/handed_items.hpp"

#include <new>
#include <utility>

/// What items can do from macOS 27.0 on. Asked of the object and not of the release, so that it
/// also builds with the SDKs before, and both answers can be tested anywhere.
@protocol TavelinReclaimableItem
- (BOOL)tryReclaimWithBlock:(void (^)(void))reclaimBlock;
@end

namespace tavelin {

FSItem *HandedItems::handOut(const fskit::FSItemRef &item) {
    MutexLock lock(mutex_);
    const std::shared_ptr<NItem> registered = volume_.registered(item);
    if (const auto entry = handed_.find(registered.get()); entry != handed_.end()) {
        return entry->second.get();
    }
    Strong<::NItem *> fresh(made([[::NItem alloc] initWithItem:registered]));
    if (fresh.get() == nil) {
        throw std::bad_alloc();
    }
    // FSKit's own, so that nobody who holds the item for a while beside it gives the last one back.
    volume_.retain(registered);
    return handed_.emplace(registered.get(), std::move(fresh)).first->second.get();
}

std::shared_ptr<NItem> HandedItems::reclaim(FSItem *item) {
    __block std::shared_ptr<NItem> taken;
    MutexLock lock(mutex_);
    if (item == nil) {
        volume_.reclaimItem(nullptr);
    } else if ([item respondsToSelector:@selector(tryReclaimWithBlock:)]) {
        // FSKit knows whether an answer that is still on its way carries the item once more. Then
        // it does not run the block, and the item stays handed out.
        const BOOL isGivenBack =
            [static_cast<id<TavelinReclaimableItem>>(item) tryReclaimWithBlock:^{
                mutex_.assumeHeld();
                taken = takeBack(item);
            }];
        if (!isGivenBack) {
            volume_.reclaimItem(nullptr); // only counted
        }
    } else {
        taken = takeBack(item);
    }
    return taken;
}

std::shared_ptr<NItem> HandedItems::takeBack(FSItem *item) {
    const std::shared_ptr<NItem> core = toCore(item);
    if (const auto entry = handed_.find(core.get());
        entry != handed_.end() && entry->second.get() == item) {
        handed_.erase(entry);
    }
    volume_.reclaimItem(core);
    return core;
}

std::size_t HandedItems::count() const {
    MutexLock lock(mutex_);
    return handed_.size();
}

} // namespace tavelin
