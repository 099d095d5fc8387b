// One item for each inode number, and what a host is told of the items it holds.
#include "fskit/private/count_request.hpp"
#include "fskit/tavelin_volume.hpp"
#include "platform/checked.hpp"
#include "platform/error_numbers.hpp"

#include <typeinfo>
#include <utility>

namespace tavelin {

NItem& TavelinVolume::n(const fskit::FSItemRef& item) {
    // As exact as a dynamic_cast, for a class that nothing derives from, and much cheaper.
    if (fskit::FSItem& given = *item; typeid(given) == typeid(NItem)) {
        return static_cast<NItem&>(given);
    }
    fatal("an item of another file system was passed to a request");
}

std::string_view TavelinVolume::name(const fskit::FSFileName& name) {
    const std::optional<std::string_view> text = name.string();
    if (!text || text->empty()) {
        throw NTFSError(kEINVAL);
    }
    return *text;
}

fskit::Error TavelinVolume::missingItem() {
    return fskit::fs_errorForPOSIXError(kENOENT);
}

const std::shared_ptr<NItem>& TavelinVolume::itemLocked(std::uint64_t ino, std::uint64_t parent) {
    std::shared_ptr<NItem>& entry = registry_[ino];
    if (entry) {
        entry->parent.store(parent, std::memory_order_relaxed);
    } else {
        entry = std::make_shared<NItem>(ino, parent);
    }
    return entry;
}

std::shared_ptr<NItem> TavelinVolume::item(std::uint64_t ino, std::uint64_t parent) {
    const MutexLock held(items);
    return itemLocked(ino, parent);
}

void TavelinVolume::enter(std::span<const NTFSDirEntry> entries, std::uint64_t parent) {
    const MutexLock held(items);
    for (const NTFSDirEntry& entry : entries) {
        itemLocked(entry.ino, parent);
    }
}

std::shared_ptr<NItem> TavelinVolume::root() {
    const MutexLock held(items);
    if (!root_) {
        root_ = itemLocked(NTFSVolume::kRootIno, NTFSVolume::kRootIno);
    }
    return root_;
}

void TavelinVolume::changed(NItem& directory) {
    Snapshot dropped; // freed after the lock is released
    const MutexLock held(items);
    checkedIncrement(generation_, "the volume's generation overflowed");
    dropped = std::exchange(directory.snapshot, nullptr);
}

void TavelinVolume::forget(const NItem& item) {
    std::shared_ptr<NItem> dropped; // freed after the lock is released
    const MutexLock held(items);
    const auto entry = registry_.find(item.ino);
    if (entry != registry_.end() && entry->second.get() == &item) {
        dropped = std::move(entry->second);
        registry_.erase(entry);
    }
}

void TavelinVolume::reclaimItem(const fskit::FSItemRef& item, const fskit::ErrorReply& reply) {
    countRequest<"reclaimItem">();
    if (!isNull(item) && n(item).ino != NTFSVolume::kRootIno) {
        forget(n(item));
    }
    reply(std::nullopt);
}

void TavelinVolume::openItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes /*modes*/,
                             const fskit::ErrorReply& reply) {
    countRequest<"openItem">();
    reply(isNull(item) ? fskit::MaybeError(missingItem()) : std::nullopt);
}

void TavelinVolume::closeItem(const fskit::FSItemRef& item, fskit::FSVolumeOpenModes modes,
                              const fskit::ErrorReply& reply) {
    countRequest<"closeItem">();
    if (!isNull(item) && modes == 0 && !ntfs->readOnly()) {
        try {
            ntfs->flush(n(item).ino);
        } catch (const std::exception&) {
            // A close cannot fail: the pages stay dirty and the next synchronise reports them.
        }
    }
    reply(std::nullopt);
}

} // namespace tavelin
